// URL encoding, cookie values and the small response-header writers.
#include "cgi/charset.h"

#include <cstdio>
#include <cstring>

#include "core/str.h"
#include "interp/request.h"

namespace {

bool url_keeps(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

} // namespace

char* url_encode(const char* text)
{
    if (!str_nonempty(text))
        return nullptr;
    str_builder out;
    for (const unsigned char* p = (const unsigned char*)text; *p; p++) {
        if (*p == ' ') {
            out.append('+');
        } else if (url_keeps(*p)) {
            out.append((char)*p);
        } else {
            char hex[4];
            snprintf(hex, sizeof hex, "%%%02x", *p);
            out.append(hex);
        }
    }
    return out.take(true);
}

char* cookie_value_out(const char* text)
{
    str_holder copy(str_dup(text));
    charset_convert(copy.get(), req.source_charset, req.output_charset);
    return url_encode(copy.get());
}

// ---- header writers: a null text is written as empty text ---------------------------------

void write_location(const char* url)
{
    fprintf(req.output_stream, "Location: %s%c%c", str_or_empty(url), '\n', '\n');
}

void write_status(int code, const char* reason)
{
    fprintf(req.output_stream, "Status: %d %s%c%c", code, str_or_empty(reason), '\n', '\n');
}

void write_content_type(const char* type)
{
    fprintf(req.output_stream, "Content-type: %s%c%c", str_or_empty(type), '\n', '\n');
}

void write_cookie(const char* name, const char* value, const char* path_suffix)
{
    str_holder n(url_encode(name)), v(url_encode(value));
    fprintf(req.output_stream, "Set-Cookie: %s=%s; path=/%s\n", str_or_empty(n.get()),
            str_or_empty(v.get()), str_or_empty(path_suffix));
}
