// The value `mangle` gives: text in the output code page, URL-encoded.
#include "cgi/charset.h"

#include "core/str.h"
#include "interp/escape.h"
#include "interp/request.h"

char* cookie_value_out(const char* text)
{
    str_holder copy(str_dup(text));
    charset_convert(copy.get(), req.source_charset, req.output_charset);
    return url_encode(copy.get(), url_style::FORM);
}
