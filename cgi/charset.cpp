// The value `mangle` gives: text in the output code page, URL-encoded; and the database's
// character set.
#include "cgi/charset.h"

#include <cstdlib>
#include <cstring>

#include "core/str.h"
#include "interp/escape.h"
#include "interp/request.h"

char* cookie_value_out(const char* text)
{
    str_holder copy(str_dup(text));
    charset_convert(copy.get(), req.source_charset, req.output_charset);
    return url_encode(copy.get(), url_style::FORM);
}

database_charset database_charset_get()
{
    static constexpr struct {
        const char* name;
        int code_page;
    } CODE_PAGES[] = {{"koi8r", CHARSET_KOI}, {"cp1251", CHARSET_WIN}, {"cp866", CHARSET_ALT}};
    const char* name = getenv("TESSEL_DB_CHARSET");
    if (!str_nonempty(name))
        return {nullptr, CHARSET_KOI};
    for (const auto& known : CODE_PAGES)
        if (strcmp(name, known.name) == 0)
            return {name, known.code_page};
    return {name, CHARSET_NONE};
}
