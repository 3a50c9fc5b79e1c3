// Output escaping by the current mode, and URL decoding.
#include "interp/escape.h"

#include <cctype>
#include <cstring>

#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"
#include "interp/request.h"

namespace {

constexpr const char* MODE_NAMES[] = {"none", "config", "html", "sql", "javascript"};

// The byte that parks a tab in "sql" mode until the tab fix restores it.
constexpr char PARKED_TAB = 7;

// Appends the replacement of c under an escaping mode ("html", "sql" or "javascript") as the
// engine has always made it.
void escape_byte(str_builder& out, char c, int mode)
{
    unsigned char u = (unsigned char)c;
    if (mode == ESCAPE_MODE_HTML) {
        switch (c) {
        case '\t':
            out.append(' ');
            return;
        case '"':
            out.append("&quot;");
            return;
        case '<':
            out.append("&lt;");
            return;
        case '>':
            out.append("&gt;");
            return;
        default:
            out.append(c);
            return;
        }
    }
    if (c == '\t' && mode == ESCAPE_MODE_SQL) {
        out.append(PARKED_TAB);
        return;
    }
    if (c == '\n') {
        out.append("\\n");
        return;
    }
    if (c == '\r') {
        out.append("\\r");
        return;
    }
    bool quoted = c == '"' || c == '\'' || c == '\\';
    if (quoted || (mode == ESCAPE_MODE_JAVASCRIPT && (u == 209 || u == 255)))
        out.append('\\');
    out.append(c);
}

// "html" under TESSEL_SAFE_ESCAPING: the apostrophe and the ampersand become references too, so
// the text is safe between tags and in an attribute value in either kind of quotes.
void escape_html_safe(str_builder& out, char c)
{
    if (c == '\'')
        out.append("&#39;");
    else if (c == '&')
        out.append("&amp;");
    else
        escape_byte(out, c, ESCAPE_MODE_HTML);
}

// Whether the page may be in UTF-8, where the bytes E2 80 A8 and E2 80 A9 are the line and
// paragraph separators that end a string literal in older scripts. When CHARSET or
// SOURCE_CHARSET names one of the single-byte code pages, those bytes are three letters.
bool escape_page_may_be_utf8()
{
    return req.output_charset == 0 && req.source_charset == 0;
}

// "javascript" under TESSEL_SAFE_ESCAPING, for a string literal in a script block or in an
// event-handler attribute: nothing in the text may end the literal (either quote, backslash,
// line breaks), the script block ("</script>") or the attribute, whose value the browser
// decodes before the script sees it (so "&" and both quotes are written as \xHH, never as a
// character). Returns the number of bytes of p consumed.
int escape_javascript_safe(str_builder& out, const char* p, bool utf8)
{
    static constexpr char HEX[] = "0123456789abcdef";
    unsigned char u = (unsigned char)*p;
    if (utf8 && u == 0xE2 && (unsigned char)p[1] == 0x80 &&
        ((unsigned char)p[2] == 0xA8 || (unsigned char)p[2] == 0xA9)) {
        out.append((unsigned char)p[2] == 0xA8 ? "\\u2028" : "\\u2029");
        return 3;
    }
    if (u == '\n' || u == '\r' || u == '\\') {
        out.append(u == '\n' ? "\\n" : u == '\r' ? "\\r" : "\\\\");
    } else if (strchr("\"'<>&", u)) {
        const char hex[4] = {'\\', 'x', HEX[u >> 4], HEX[u & 15]};
        out.append(hex, sizeof hex);
    } else {
        out.append(*p); // 209 and 255 too: the script drops a backslash before them anyway
    }
    return 1;
}

// The bytes a copying mode writes differently from themselves, and NUL, which ends the text:
// a text is copied in runs up to the next such byte, found with one table lookup a byte.
struct byte_set {
    bool member[256] = {};
    constexpr explicit byte_set(const char* bytes)
    {
        member[0] = true;
        for (const char* p = bytes; *p; p++)
            member[(unsigned char)*p] = true;
    }
};

constexpr byte_set HTML_BYTES("\t\"<>");
constexpr byte_set HTML_SAFE_BYTES("\t\"<>'&");
constexpr byte_set SQL_BYTES("\t\n\r\"'\\");
constexpr byte_set JAVASCRIPT_BYTES("\n\r\"'\\\xD1\xFF");
constexpr byte_set JAVASCRIPT_SAFE_BYTES("\n\r\"'\\<>&\xE2");
// What either form of "javascript" may change: a text without them comes out as it went in.
constexpr byte_set JAVASCRIPT_EITHER_BYTES("\n\r\"'\\\xD1\xFF<>&\xE2");

// The bytes that mode (html, sql or javascript) changes, in its safe form when safe is set,
// or in either form when either is set.
const byte_set& escape_changed_bytes(int mode, bool safe, bool either = false)
{
    if (mode == ESCAPE_MODE_HTML)
        return safe || either ? HTML_SAFE_BYTES : HTML_BYTES;
    if (mode == ESCAPE_MODE_SQL)
        return SQL_BYTES;
    return either ? JAVASCRIPT_EITHER_BYTES : safe ? JAVASCRIPT_SAFE_BYTES : JAVASCRIPT_BYTES;
}

// The length of the run at text that holds no byte of set.
size_t escape_run(const char* text, const byte_set& set)
{
    const char* p = text;
    while (!set.member[(unsigned char)*p])
        p++;
    return (size_t)(p - text);
}

// Whether text holds a byte that the safe form of mode writes differently from the default
// one. Only then is TESSEL_SAFE_ESCAPING read: reading it walks the environment, and most
// inserted texts hold no such byte.
bool escape_safe_matters(const char* text, int mode)
{
    if (mode == ESCAPE_MODE_HTML)
        return strpbrk(text, "'&") != nullptr;
    if (mode == ESCAPE_MODE_JAVASCRIPT)
        return strpbrk(text, "\"'<>&\xD1\xFF\xE2") != nullptr;
    return false;
}

// Appends the replacement of the changed byte at p; returns the number of bytes consumed.
int escape_one(str_builder& out, const char* p, int mode, bool safe, bool utf8)
{
    if (safe && mode == ESCAPE_MODE_JAVASCRIPT)
        return escape_javascript_safe(out, p, utf8);
    if (safe && mode == ESCAPE_MODE_HTML)
        escape_html_safe(out, *p);
    else
        escape_byte(out, *p, mode);
    return 1;
}

// The copying modes build a new string; the result is never null for a non-null text. The
// first clean bytes hold nothing that either form of mode changes.
char* escape_copying(const char* text, size_t clean, int mode)
{
    bool safe = escape_safe_matters(text + clean, mode) && setting_on("TESSEL_SAFE_ESCAPING");
    const byte_set& changed = escape_changed_bytes(mode, safe);
    bool utf8 = escape_page_may_be_utf8();
    str_builder out;
    const char* p = text;
    size_t run = clean;
    for (;;) {
        run += escape_run(p + run, changed);
        out.append(p, run);
        p += run;
        if (!*p)
            break;
        p += escape_one(out, p, mode, safe, utf8);
        run = 0;
    }
    return out.take(false);
}

} // namespace

int escape_mode_set(int mode)
{
    int previous = req.escape_mode;
    if (mode != ESCAPE_MODE_KEEP)
        req.escape_mode = mode;
    return previous;
}

int escape_mode_by_name(const char* name)
{
    int previous = req.escape_mode;
    for (int mode = ESCAPE_MODE_NONE; mode <= ESCAPE_MODE_JAVASCRIPT; mode++)
        if (str_equal(name, MODE_NAMES[mode - ESCAPE_MODE_NONE]))
            req.escape_mode = mode;
    return previous;
}

void escape_mode_restore(int saved)
{
    req.escape_mode = saved;
}

char* escape_apply(char* text, bool tab_fix)
{
    int mode = req.escape_mode;
    if (!text || mode < ESCAPE_MODE_NONE || mode > ESCAPE_MODE_JAVASCRIPT)
        return nullptr;
    char* result = text;
    if (mode == ESCAPE_MODE_CONFIG) {
        str_replace_char(text, '\t', ' ');
        str_replace_char(text, '\n', ' ');
    } else if (mode != ESCAPE_MODE_NONE) {
        result = escape_copying(text, 0, mode);
    }
    if (tab_fix) {
        if (result == text)
            result = str_dup(text); // the fix never changes the caller's text
        str_replace_char(result, PARKED_TAB, '\t');
    }
    return result;
}

char* escape_take(char* text)
{
    int mode = req.escape_mode;
    if (text && mode >= ESCAPE_MODE_HTML && mode <= ESCAPE_MODE_JAVASCRIPT) {
        // Most inserted texts hold nothing to change: they are their own result, uncopied.
        size_t clean = escape_run(text, escape_changed_bytes(mode, false, true));
        if (!text[clean])
            return text;
        char* escaped = escape_copying(text, clean, mode);
        str_free(text);
        return escaped;
    }
    char* escaped = escape_apply(text, false);
    if (escaped != text)
        str_free(text);
    return escaped;
}

char* escape_take_when_safe(char* text)
{
    return setting_on("TESSEL_SAFE_ESCAPING") ? escape_take(text) : text;
}

char* url_encode(const char* text, url_style style)
{
    bool cookie = style == url_style::COOKIE;
    const char* digits = cookie ? "0123456789ABCDEF" : "0123456789abcdef";
    str_builder out;
    for (const unsigned char* p = (const unsigned char*)str_or_empty(text); *p; p++) {
        bool kept = !needs_url_escape(*p) && (cookie || !strchr("_-.", *p));
        if (*p == ' ') {
            out.append('+');
        } else if (kept) {
            out.append((char)*p);
        } else {
            const char hex[3] = {'%', digits[*p >> 4], digits[*p & 15]};
            out.append(hex, sizeof hex);
        }
    }
    return out.take(true);
}

char* url_decode(const char* text)
{
    if (!text)
        return nullptr;
    str_builder out;
    for (const char* p = text; *p; p++) {
        if (*p == '+') {
            out.append(' ');
        } else if (*p == '%' && p[1] && p[2]) {
            out.append((char)(16 * str_hex_digit(p[1]) + str_hex_digit(p[2])));
            p += 2;
        } else {
            out.append(*p);
        }
    }
    return out.take(false);
}

bool needs_url_escape(unsigned char byte)
{
    if (byte == 0)
        return false;
    bool alnum = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                 (byte >= '0' && byte <= '9');
    return !alnum && !strchr("_-. ", byte);
}
