// Code pages, Cyrillic case, URL encoding and the small response-header writers.
#include "cgi/charset.h"

#include <cstdio>
#include <cstring>

#include "cgi/request.h"
#include "core/str.h"

// Generated from the system's iconv into codepage_tables.cpp: [page][byte] to KOI8-R and
// back. Rows 0 and 2 (no conversion, KOI8-R itself) are the identity and never consulted.
extern const unsigned char CODEPAGE_TO_KOI[6][256];
extern const unsigned char CODEPAGE_FROM_KOI[6][256];

namespace {

struct charset_name {
    const char* name;
    int number;
};

// Searched in this order, so "KOI8-R" is found by "KOI" before anything else can match.
constexpr charset_name CHARSET_NAMES[] = {
    {"WIN", CHARSET_WIN}, {"1251", CHARSET_WIN}, {"KOI", CHARSET_KOI}, {"ALT", CHARSET_ALT},
    {"DOS", CHARSET_ALT}, {"866", CHARSET_ALT},  {"MAC", CHARSET_MAC}, {"ISO", CHARSET_ISO},
};

bool charset_valid(int number)
{
    return number >= CHARSET_WIN && number <= CHARSET_ISO;
}

const char* or_empty(const char* s)
{
    return s ? s : "";
}

bool url_keeps(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

} // namespace

int charset_from_name(const char* value)
{
    if (!value)
        return CHARSET_NONE;
    str_holder upper(str_upper_locale(str_dup(value)));
    for (const charset_name& n : CHARSET_NAMES)
        if (strstr(or_empty(upper.get()), n.name))
            return n.number;
    return CHARSET_NONE;
}

char* charset_convert(char* text, int from, int to)
{
    if (!text || from == to || !charset_valid(from) || !charset_valid(to))
        return text;
    for (unsigned char* p = (unsigned char*)text; *p; p++) {
        unsigned char c = *p;
        if (from != CHARSET_KOI)
            c = CODEPAGE_TO_KOI[from][c];
        if (to != CHARSET_KOI)
            c = CODEPAGE_FROM_KOI[to][c];
        *p = c;
    }
    return text;
}

char* charset_case(char* text, bool upper)
{
    if (!text)
        return text;
    // KOI8-R keeps its capitals in the upper 32 of each 64; the other pages the other way.
    bool set_bit = (req.source_charset == CHARSET_KOI) == upper;
    for (unsigned char* p = (unsigned char*)text; *p; p++)
        if (*p >= 128)
            *p = set_bit ? (*p | 32) : (*p & ~32);
    return text;
}

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
    fprintf(req.output_stream, "Location: %s%c%c", or_empty(url), '\n', '\n');
}

void write_status(int code, const char* reason)
{
    fprintf(req.output_stream, "Status: %d %s%c%c", code, or_empty(reason), '\n', '\n');
}

void write_content_type(const char* type)
{
    fprintf(req.output_stream, "Content-type: %s%c%c", or_empty(type), '\n', '\n');
}

void write_cookie(const char* name, const char* value, const char* path_suffix)
{
    str_holder n(url_encode(name)), v(url_encode(value));
    fprintf(req.output_stream, "Set-Cookie: %s=%s; path=/%s\n", or_empty(n.get()),
            or_empty(v.get()), or_empty(path_suffix));
}
