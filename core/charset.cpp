// Cyrillic code pages: names, conversion through KOI8-R and the case rule.
#include "core/charset.h"

#include <cstring>

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

const int* bound_source_charset = nullptr;

bool charset_valid(int number)
{
    return number >= CHARSET_WIN && number <= CHARSET_ISO;
}

} // namespace

int charset_from_name(const char* value)
{
    if (!value)
        return CHARSET_NONE;
    str_holder upper(str_upper_locale(str_dup(value)));
    for (const charset_name& n : CHARSET_NAMES)
        if (strstr(str_or_empty(upper.get()), n.name))
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

void charset_case_bind(const int* source_charset)
{
    bound_source_charset = source_charset;
}

char* charset_case(char* text, bool upper)
{
    if (!text)
        return text;
    bool koi = bound_source_charset && *bound_source_charset == CHARSET_KOI;
    // KOI8-R keeps its capitals in the upper 32 of each 64; the other pages the other way.
    bool set_bit = koi == upper;
    for (unsigned char* p = (unsigned char*)text; *p; p++)
        if (*p >= 128)
            *p = set_bit ? (*p | 32) : (*p & ~32);
    return text;
}
