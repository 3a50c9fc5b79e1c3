// The chat's nicks: the alphabet a nick is written in, and the folding that compares nicks.
#include "ops/chat_nick.h"

#include "core/charset.h"
#include "core/memory.h"
#include "core/str.h"

namespace {

constexpr int NICK_MIN = 2;
constexpr int NICK_MAX = 20;
constexpr char32_t NOT_A_LETTER = 0; // a byte or a sequence that no nick may hold

// KOI8-R's small letters from 0xC0 on, in its order; its capitals follow at 0xE0.
constexpr char16_t KOI_LETTERS[] = u"юабцдефгхийклмнопярстужвьызшэщчъ";
constexpr unsigned char KOI_YO = 0xA3;
constexpr unsigned char KOI_YO_CAPITAL = 0xB3;

constexpr char32_t CAPITAL_A = 0x410; // А
constexpr char32_t SMALL_A = 0x430;   // а
constexpr char32_t SMALL_YA = 0x44F;  // я
constexpr char32_t YO = 0x451;        // ё
constexpr char32_t YO_CAPITAL = 0x401;

// The Latin letter each small letter а..я looks like, '-' where none does.
constexpr char CYRILLIC_LOOKS_LIKE[] = "abbr-e-euuk-mhonpcty-x-awwb-be--";
// The letter each digit looks like.
constexpr char DIGIT_LOOKS_LIKE[] = "olzeasgtbq";

bool nick_latin(char32_t c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool nick_cyrillic(char32_t c)
{
    return (c >= CAPITAL_A && c <= SMALL_YA) || c == YO || c == YO_CAPITAL;
}

bool nick_digit(char32_t c)
{
    return c >= '0' && c <= '9';
}

bool nick_separator(char32_t c)
{
    return c == '_' || c == '-' || c == '.';
}

// The letter of the KOI8-R byte koi, or NOT_A_LETTER.
char32_t nick_koi_letter(unsigned char koi)
{
    if (koi == KOI_YO || koi == KOI_YO_CAPITAL)
        return koi == KOI_YO ? YO : YO_CAPITAL;
    if (koi < 0xC0)
        return NOT_A_LETTER;
    char32_t small = KOI_LETTERS[koi & 31];
    return koi >= 0xE0 ? small - (SMALL_A - CAPITAL_A) : small;
}

// The letter of byte c of the code page charset. A byte the page shares with KOI8-R only by
// the conversion's fallback (it does not come back as itself) is none.
char32_t nick_codepage_letter(unsigned char c, int charset)
{
    char koi[2] = {(char)c, '\0'};
    charset_convert(koi, charset, CHARSET_KOI);
    char back[2] = {koi[0], '\0'};
    charset_convert(back, CHARSET_KOI, charset);
    return (unsigned char)back[0] == c ? nick_koi_letter((unsigned char)koi[0]) : NOT_A_LETTER;
}

// The Cyrillic letter of the UTF-8 sequence led by lead, advancing p past it; NOT_A_LETTER
// for anything else.
char32_t nick_utf8_letter(unsigned char lead, const unsigned char*& p)
{
    if ((lead != 0xD0 && lead != 0xD1) || (*p & 0xC0) != 0x80)
        return NOT_A_LETTER;
    char32_t c = (char32_t)(lead & 0x1F) << 6 | (*p++ & 0x3F);
    return nick_cyrillic(c) ? c : NOT_A_LETTER;
}

// The character at p, advancing p past it.
char32_t nick_next(const unsigned char*& p, int charset)
{
    unsigned char c = *p++;
    if (c < 128)
        return c;
    return charset == CHARSET_NONE ? nick_utf8_letter(c, p) : nick_codepage_letter(c, charset);
}

// The small form of the Cyrillic letter c.
char32_t nick_small_cyrillic(char32_t c)
{
    if (c == YO_CAPITAL)
        return YO;
    return c < SMALL_A ? c + (SMALL_A - CAPITAL_A) : c;
}

// The Latin letter the letter or digit c folds to; 0 for a Cyrillic letter that looks like
// none.
char nick_fold_latin(char32_t c)
{
    if (nick_digit(c))
        return DIGIT_LOOKS_LIKE[c - '0'];
    if (nick_latin(c)) {
        char small = (char)(c | 0x20);
        return small == 'i' ? 'l' : small;
    }
    char32_t small = nick_small_cyrillic(c);
    char look = small == YO ? 'e' : CYRILLIC_LOOKS_LIKE[small - SMALL_A];
    return look == '-' ? 0 : look;
}

// Appends the folded form of the character c of a nick: nothing for a separator, else its
// Latin letter, else the small Cyrillic letter in UTF-8.
void nick_fold_char(str_builder& out, char32_t c)
{
    if (nick_separator(c))
        return;
    if (char latin = nick_fold_latin(c)) {
        out.append(latin);
        return;
    }
    char32_t small = nick_small_cyrillic(c);
    out.append((char)(0xC0 | small >> 6));
    out.append((char)(0x80 | (small & 0x3F)));
}

// Reads "rn" as "m" and "vv" as "w", in place. Ownership: takes text, new result.
char* nick_fold_pairs(char* text)
{
    char* to = text;
    for (const char* from = text; *from;) {
        bool rn = from[0] == 'r' && from[1] == 'n', vv = from[0] == 'v' && from[1] == 'v';
        *to++ = rn ? 'm' : vv ? 'w' : *from;
        from += rn || vv ? 2 : 1;
    }
    *to = '\0';
    return text;
}

} // namespace

const char* chat_nick_error(const char* nick, int charset)
{
    int length = 0;
    bool latin = false, cyrillic = false, other = false, bad_start = false;
    for (const unsigned char* p = (const unsigned char*)str_or_empty(nick); *p; length++) {
        char32_t c = nick_next(p, charset);
        latin |= nick_latin(c);
        cyrillic |= nick_cyrillic(c);
        bool letter_or_digit = nick_latin(c) || nick_cyrillic(c) || nick_digit(c);
        other |= !letter_or_digit && !nick_separator(c);
        bad_start |= length == 0 && !letter_or_digit;
    }
    if (other)
        return "a nick holds only letters, digits, '_', '-' and '.'";
    if (length < NICK_MIN || length > NICK_MAX)
        return "a nick has 2 to 20 characters";
    if (bad_start)
        return "a nick starts with a letter or a digit";
    if (latin && cyrillic)
        return "a nick's letters are all Latin or all Cyrillic";
    return nullptr;
}

char* chat_nick_fold(const char* nick, int charset)
{
    if (chat_nick_error(nick, charset))
        return nullptr;
    str_builder out;
    for (const unsigned char* p = (const unsigned char*)nick; *p;)
        nick_fold_char(out, nick_next(p, charset));
    return nick_fold_pairs(out.take(false));
}
