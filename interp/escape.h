// Output escaping of inserted data by the current mode, and URL decoding of single values.
//
// A null string reads as empty text. The current mode lives in req.escape_mode and starts at
// 3 ("html"). Operators that insert data into a page pass it through escape_take.
//
// With the setting TESSEL_SAFE_ESCAPING on (read at each escape_apply, since .profile may set
// it), "html" and "javascript" are safe wherever they are meant to be used:
// - "html", for text between tags and an attribute value in double or single quotes, also
//   writes the apostrophe as "&#39;" and "&" as "&amp;" (a TAB still becomes a blank). An
//   unquoted attribute value is no place for it: a blank in the data ends the value.
// - "javascript", for a string literal in a script block or an event-handler attribute,
//   writes '"', "'", "<", ">" and "&" as \x22, \x27, \x3c, \x3e, \x26, and the backslash, line
//   feed and carriage return as \\, \n, \r; when the page may be UTF-8 (neither CHARSET nor
//   SOURCE_CHARSET names a single-byte code page) the line and paragraph separators U+2028
//   and U+2029 become \u2028 and \u2029. The bytes 209 and 255 get no backslash.
// "none", "config" and "sql" do not change with the setting.
#ifndef TESSEL_INTERP_ESCAPE_H
#define TESSEL_INTERP_ESCAPE_H

// ---- modes ------------------------------------------------------------------------------

constexpr int ESCAPE_MODE_KEEP = 0;       // for escape_mode_set: change nothing
constexpr int ESCAPE_MODE_NONE = 1;       // "none": unchanged
constexpr int ESCAPE_MODE_CONFIG = 2;     // "config": tabs and newlines become blanks
constexpr int ESCAPE_MODE_HTML = 3;       // "html": tab to blank, quote and angle brackets
constexpr int ESCAPE_MODE_SQL = 4;        // "sql": backslash escapes, tab parked as byte 7
constexpr int ESCAPE_MODE_JAVASCRIPT = 5; // "javascript": backslash escapes, bytes 209, 255

// Returns the current mode and, unless mode is ESCAPE_MODE_KEEP, makes mode current.
int escape_mode_set(int mode);

// Returns the current mode and, when name is exactly one of "none", "config", "html", "sql",
// "javascript", makes that mode current; any other name (also "HTML") changes nothing.
int escape_mode_by_name(const char* name);

// Makes a mode returned by escape_mode_set or escape_mode_by_name current again.
void escape_mode_restore(int saved);

// Switches the mode for the lifetime of the object and restores the previous one after.
class escape_mode_scope {
public:
    explicit escape_mode_scope(int mode) : saved_(escape_mode_set(mode)) {}
    ~escape_mode_scope() { escape_mode_restore(saved_); }
    escape_mode_scope(const escape_mode_scope&) = delete;
    escape_mode_scope& operator=(const escape_mode_scope&) = delete;

private:
    int saved_;
};

// ---- escaping ---------------------------------------------------------------------------

// Escapes text by the current mode. "none" returns text itself; "config" changes text in
// place and returns it; "html", "sql" and "javascript" return a new string. With tab_fix the
// result then has every byte 7 turned back into a tab (so "sql" keeps its tabs); this pass
// yields a new string when the mode returned text itself. Null when text is null or the mode
// is outside 1..5. TESSEL_SAFE_ESCAPING changes "html" and "javascript" as said above.
// Callers free the result when it differs from text.
// Ownership: borrows text (may change it in place), result is text or new.
char* escape_apply(char* text, bool tab_fix);

// Escapes text by the current mode (escape_apply without the tab fix): what an operator does
// with data it inserts into the page. Null for null text or a mode outside 1..5. A text that
// holds nothing the mode changes is its own result, with no copy.
// Ownership: takes text, new result (possibly text itself).
char* escape_take(char* text);

// Request data that the engine has always inserted as it came (the URI, the query string, an
// uploaded file's client name): escape_take of text when TESSEL_SAFE_ESCAPING is on, else text
// itself. Ownership: takes text, result is text or new.
char* escape_take_when_safe(char* text);

// ---- URL encoding and decoding ----------------------------------------------------------

// The two ways a value is URL-encoded. Both keep ASCII letters and digits, write a blank as
// "+" and every other byte as "%" and two hexadecimal digits.
enum class url_style {
    FORM,   // lower-case digits, and "_", "-" and "." escaped too: "a_b/c" gives "a%5fb%2fc"
    COOKIE, // upper-case digits, and what needs_url_escape passes kept: "a_b/c" gives "a_b%2Fc"
};

// text URL-encoded in the given style; null for null or empty text.
// Ownership: borrows text, new result.
char* url_encode(const char* text, url_style style);

// "+" becomes a blank and "%" with two following characters becomes the byte
// 16 * first + second, each digit its position in "0123456789ABCDEF" after upper-casing
// (0 when it is not a hex digit, so "a%2g" gives "a" and byte 32). A "%" with fewer than
// two characters after it is kept. Null for null. Ownership: borrows text, new result.
char* url_decode(const char* text);

// False for ASCII letters, digits, the bytes of "_-. " and NUL; true for every other byte.
bool needs_url_escape(unsigned char byte);

#endif
