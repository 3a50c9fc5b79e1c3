// Code pages, Cyrillic case, URL encoding and the small response-header writers.
#include "cgi/charset.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "cgi/request.h"
#include "core/str.h"

int charset_from_name(const char* value)
{
    static const struct { const char* name; int number; } names[] = {
        {"WIN", 1}, {"1251", 1}, {"KOI", 2}, {"ALT", 3}, {"DOS", 3}, {"866", 3}, {"MAC", 4},
        {"ISO", 5},
    };
    if (!value)
        return CHARSET_NONE;
    str_holder upper(str_upper_locale(str_dup(value)));
    for (const auto& n : names)
        if (strstr(upper.get(), n.name))
            return n.number;
    return CHARSET_NONE;
}

char* charset_convert(char* text, int, int)
{
    return text;
}

char* charset_case(char* text, bool)
{
    return text;
}

char* url_encode(const char* text)
{
    if (!str_nonempty(text))
        return nullptr;
    str_builder out;
    for (const unsigned char* p = (const unsigned char*)text; *p; p++) {
        char hex[4];
        if (*p == ' ')
            out.append('+');
        else if (isalnum(*p) && *p < 128)
            out.append((char)*p);
        else {
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

void write_location(const char* url)
{
    fprintf(req.output_stream, "Location: %s%c%c", url, '\n', '\n');
}

void write_status(int code, const char* reason)
{
    fprintf(req.output_stream, "Status: %d %s%c%c", code, reason, '\n', '\n');
}

void write_content_type(const char* type)
{
    fprintf(req.output_stream, "Content-type: %s%c%c", type, '\n', '\n');
}

void write_cookie(const char* name, const char* value, const char* path_suffix)
{
    str_holder n(url_encode(name)), v(url_encode(value));
    fprintf(req.output_stream, "Set-Cookie: %s=%s; path=/%s\n", str_or_null(n.get()),
            str_or_null(v.get()), path_suffix ? path_suffix : "");
}
