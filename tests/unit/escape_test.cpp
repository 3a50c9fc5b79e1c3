// Output escaping modes, the tab fix and URL decoding.
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/charset.h"
#include "core/str.h"
#include "interp/escape.h"
#include "test_support.h"

namespace {

// Escapes a copy of text in the given mode and returns the result as a std::string.
std::string escaped(int mode, const char* text, bool tab_fix = false)
{
    escape_mode_scope scope(mode);
    char* copy = str_dup(text);
    char* result = escape_apply(copy, tab_fix);
    std::string out = result ? result : "(null)";
    if (result != copy)
        str_free(result);
    str_free(copy);
    return out;
}

// Each mode's other characters show on the pages of tests/pages/escape; a carriage return
// shows on none.
TEST(Escape, ModesByNumber)
{
    EXPECT_EQ(escaped(ESCAPE_MODE_SQL, "a\n\r"), "a\\n\\r");
}

TEST(Escape, SqlParksTabsUntilTheTabFix)
{
    EXPECT_EQ(escaped(ESCAPE_MODE_SQL, "a\tb"), "a\x07"
                                                "b");
    EXPECT_EQ(escaped(ESCAPE_MODE_SQL, "a\tb'", true), "a\tb\\'");
    // Bytes 7 already in the text come out as tabs too, in every mode.
    EXPECT_EQ(escaped(ESCAPE_MODE_NONE,
                      "a\x07"
                      "b",
                      true),
              "a\tb");
    EXPECT_EQ(escaped(ESCAPE_MODE_CONFIG, "a\tb", true), "a b");
}

TEST(Escape, NoneReturnsTheSameStringAndConfigWorksInPlace)
{
    char text[] = "x\ty";
    int saved = escape_mode_set(ESCAPE_MODE_NONE);
    EXPECT_EQ(escape_apply(text, false), text);
    escape_mode_set(ESCAPE_MODE_CONFIG);
    EXPECT_EQ(escape_apply(text, false), text);
    EXPECT_STREQ(text, "x y");
    escape_mode_restore(saved);
}

TEST(Escape, NullTextAndUnknownModeGiveNull)
{
    EXPECT_EQ(escaped(ESCAPE_MODE_HTML, nullptr), "(null)");
    EXPECT_EQ(escaped(0 + 6, "abc"), "(null)");
    EXPECT_EQ(escaped(-1, "abc"), "(null)");
}

TEST(Escape, ModeSelection)
{
    int start = escape_mode_set(ESCAPE_MODE_HTML);
    EXPECT_EQ(escape_mode_set(0), ESCAPE_MODE_HTML); // 0 only reads
    EXPECT_EQ(escape_mode_by_name("sql"), ESCAPE_MODE_HTML);
    EXPECT_EQ(req.escape_mode, ESCAPE_MODE_SQL);
    escape_mode_by_name("HTML");
    escape_mode_by_name(nullptr);
    escape_mode_by_name("java");
    EXPECT_EQ(req.escape_mode, ESCAPE_MODE_SQL);
    escape_mode_by_name("javascript");
    EXPECT_EQ(req.escape_mode, ESCAPE_MODE_JAVASCRIPT);
    {
        escape_mode_scope scope(ESCAPE_MODE_NONE);
        EXPECT_EQ(req.escape_mode, ESCAPE_MODE_NONE);
    }
    EXPECT_EQ(req.escape_mode, ESCAPE_MODE_JAVASCRIPT);
    escape_mode_restore(start);
}

// The holes the setting closes show on tests/pages/escape/safe_html_and_javascript.page; here
// what depends on the code page, and that the setting is read at each use (.profile may set it
// after start-up).
TEST(Escape, SafeJavascriptLineSeparatorsOnlyWhereThePageMayBeUtf8)
{
    const char* separators = "\xe2\x80\xa8|\xe2\x80\xa9|\xe2\x80\xaa|\xd1\xff";
    EXPECT_EQ(escaped(ESCAPE_MODE_JAVASCRIPT, separators),
              "\xe2\x80\xa8|\xe2\x80\xa9|\xe2\x80\xaa|\\\xd1\\\xff");
    setenv("TESSEL_SAFE_ESCAPING", "1", 1);
    EXPECT_EQ(escaped(ESCAPE_MODE_JAVASCRIPT, separators), "\\u2028|\\u2029|\xe2\x80\xaa|\xd1\xff");
    req.output_charset = CHARSET_WIN; // there the bytes are three letters
    EXPECT_EQ(escaped(ESCAPE_MODE_JAVASCRIPT, separators), separators);
    req.output_charset = 0;
    req.source_charset = CHARSET_KOI;
    EXPECT_EQ(escaped(ESCAPE_MODE_JAVASCRIPT, separators), separators);
    req.source_charset = 0;
    unsetenv("TESSEL_SAFE_ESCAPING");
}

// Each mode, with and without the setting, changes exactly its own bytes and copies the rest
// as they stand, whatever comes before and after them.
TEST(Escape, EachModeChangesExactlyItsBytes)
{
    struct {
        int mode;
        bool safe;
        const char* changed;
    } cases[] = {
        {ESCAPE_MODE_HTML, false, "\t\"<>"},
        {ESCAPE_MODE_HTML, true, "\t\"<>'&"},
        {ESCAPE_MODE_SQL, false, "\t\n\r\"'\\"},
        {ESCAPE_MODE_SQL, true, "\t\n\r\"'\\"},
        {ESCAPE_MODE_JAVASCRIPT, false, "\n\r\"'\\\xD1\xFF"},
        {ESCAPE_MODE_JAVASCRIPT, true, "\n\r\"'\\<>&"},
    };
    for (const auto& c : cases) {
        escape_mode_scope scope(c.mode);
        if (c.safe)
            setenv("TESSEL_SAFE_ESCAPING", "1", 1);
        for (int byte = 1; byte < 256; byte++) {
            std::string text = "plain " + std::string(1, (char)byte) + " text";
            bool changed = own(escape_take(str_dup(text.c_str()))) != text;
            EXPECT_EQ(changed, strchr(c.changed, byte) != nullptr)
                << "mode " << c.mode << " safe " << c.safe << " byte " << byte;
        }
        unsetenv("TESSEL_SAFE_ESCAPING");
    }
}

TEST(Escape, UrlDecode)
{
    EXPECT_EQ(own(url_decode("a+b%20c%2fd%2F")), "a b c/d/");
    EXPECT_EQ(own(url_decode("a%2g")), "a ");
    EXPECT_EQ(own(url_decode("%e4%C4")), "\xe4\xc4");
    EXPECT_EQ(own(url_decode("50%")), "50%");
    EXPECT_EQ(own(url_decode("5%4")), "5%4");
    EXPECT_EQ(own(url_decode("")), "");
    EXPECT_EQ(own(url_decode(nullptr)), "(null)");
}

TEST(Escape, UrlDecodeUndoesPercentEncodingOfEveryByte)
{
    for (int byte = 1; byte < 256; byte++) {
        char encoded[4];
        snprintf(encoded, sizeof encoded, "%%%02X", byte);
        std::string decoded = own(url_decode(encoded));
        ASSERT_EQ(decoded.size(), 1u) << byte;
        EXPECT_EQ((unsigned char)decoded[0], byte);
    }
}

TEST(Escape, NeedsUrlEscape)
{
    for (const char* safe = "azAZ09_-. "; *safe; safe++)
        EXPECT_FALSE(needs_url_escape(*safe)) << *safe;
    EXPECT_FALSE(needs_url_escape(0));
    for (const char* unsafe = "+%&=/?#\"'\t\n~"; *unsafe; unsafe++)
        EXPECT_TRUE(needs_url_escape(*unsafe)) << *unsafe;
    EXPECT_TRUE(needs_url_escape(0xe9));
    EXPECT_TRUE(needs_url_escape(0x7f));
}

} // namespace
