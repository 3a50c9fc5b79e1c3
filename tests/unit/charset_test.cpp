// Code pages (checked against the system's iconv) and the Cyrillic case rule.
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iconv.h>
#include <string>
#include <vector>

#include "cgi/charset.h"
#include "cgi/request.h"
#include "core/str.h"
#include "test_support.h"

namespace {

struct page_name {
    int number;
    const char* iconv_name;
};

// Every code page by its number and the name iconv knows it by.
const page_name ALL_PAGES[] = {
    {CHARSET_WIN, "CP1251"},       {CHARSET_KOI, "KOI8-R"},     {CHARSET_ALT, "CP866"},
    {CHARSET_MAC, "MAC-CYRILLIC"}, {CHARSET_ISO, "ISO-8859-5"},
};

// The text iconv makes of in, or an empty string when iconv cannot carry it across.
std::string iconv_text(const char* from, const char* to, const std::string& in)
{
    iconv_t cd = iconv_open(to, from);
    if (cd == (iconv_t)-1) {
        ADD_FAILURE() << "iconv does not know " << from << " or " << to;
        return "";
    }
    std::string copy = in;
    char out[64];
    char* in_p = copy.data();
    char* out_p = out;
    size_t in_left = copy.size(), out_left = sizeof out;
    size_t rc = iconv(cd, &in_p, &in_left, &out_p, &out_left);
    iconv_close(cd);
    if (rc == (size_t)-1 || in_left != 0)
        return "";
    return std::string(out, out_p - out);
}

// The byte iconv maps b to, or b itself when it has no single-byte counterpart.
unsigned char iconv_byte(const char* from, const char* to, unsigned char b)
{
    if (b < 128)
        return b;
    std::string mapped = iconv_text(from, to, std::string(1, (char)b));
    return mapped.size() == 1 ? (unsigned char)mapped[0] : b;
}

unsigned char convert_byte(unsigned char b, int from, int to)
{
    char text[2] = {(char)b, 0};
    charset_convert(text, from, to);
    return (unsigned char)text[0];
}

// Saves and restores the code pages these tests change.
class Charset : public testing::Test {
protected:
    void SetUp() override
    {
        saved_source_ = req.source_charset;
        saved_output_ = req.output_charset;
    }
    void TearDown() override
    {
        req.source_charset = saved_source_;
        req.output_charset = saved_output_;
    }
    int saved_source_ = 0;
    int saved_output_ = 0;
};

TEST(CharsetTables, EveryByteMatchesIconvBothWays)
{
    for (const page_name& page : ALL_PAGES) {
        for (int b = 1; page.number != CHARSET_KOI && b < 256; b++) {
            EXPECT_EQ(convert_byte(b, page.number, CHARSET_KOI),
                      iconv_byte(page.iconv_name, "KOI8-R", b))
                << page.iconv_name << " byte " << b << " to KOI8-R";
            EXPECT_EQ(convert_byte(b, CHARSET_KOI, page.number),
                      iconv_byte("KOI8-R", page.iconv_name, b))
                << "KOI8-R byte " << b << " to " << page.iconv_name;
        }
    }
}

TEST(CharsetTables, CyrillicLettersCrossBetweenAnyTwoPages)
{
    // The 66 Russian letters, capital and small, in UTF-8, and ASCII, which no page changes.
    std::vector<std::string> letters;
    for (int b = 1; b < 128; b++)
        letters.push_back(std::string(1, (char)b));
    for (unsigned code = 0x410; code <= 0x44F; code++)
        letters.push_back({(char)(0xC0 | (code >> 6)), (char)(0x80 | (code & 0x3F))});
    letters.push_back("\xD0\x81"); // capital io
    letters.push_back("\xD1\x91"); // small io
    for (const page_name& from : ALL_PAGES) {
        for (const page_name& to : ALL_PAGES) {
            for (const std::string& letter : letters) {
                std::string in = iconv_text("UTF-8", from.iconv_name, letter);
                std::string want = iconv_text("UTF-8", to.iconv_name, letter);
                ASSERT_EQ(in.size(), 1u) << from.iconv_name;
                str_holder text(str_dup(in.c_str()));
                charset_convert(text.get(), from.number, to.number);
                EXPECT_EQ(std::string(text.get()), want)
                    << from.iconv_name << " to " << to.iconv_name;
            }
        }
    }
}

TEST(CharsetConvert, LeavesTextAloneWithoutTwoDifferentPages)
{
    const char* sample = "plain \xC0\xE1\xFF text";
    const int pairs[][2] = {{0, 1}, {1, 0}, {1, 1}, {2, 2}, {6, 1}, {1, -1}};
    for (const auto& pair : pairs) {
        str_holder text(str_dup(sample));
        EXPECT_EQ(charset_convert(text.get(), pair[0], pair[1]), text.get());
        EXPECT_STREQ(text.get(), sample) << pair[0] << " to " << pair[1];
    }
    EXPECT_EQ(charset_convert(nullptr, 1, 2), nullptr);
}

TEST(CharsetName, FirstNameFoundInUpperCasedValueWins)
{
    // The last three: the names are tried in a fixed order, not by position in the value.
    const std::pair<const char*, int> names[] = {
        {"windows-1251", CHARSET_WIN}, {"koi8-r", CHARSET_KOI},     {"cp866", CHARSET_ALT},
        {"alt", CHARSET_ALT},          {"Dos", CHARSET_ALT},        {"x-mac-cyrillic", CHARSET_MAC},
        {"iso-8859-5", CHARSET_ISO},   {"utf-8", CHARSET_NONE},     {"", CHARSET_NONE},
        {nullptr, CHARSET_NONE},       {"koi-or-win", CHARSET_WIN}, {"iso-mac", CHARSET_MAC},
        {"cp1251 koi", CHARSET_WIN}};
    for (auto [name, page] : names)
        EXPECT_EQ(charset_from_name(name), page) << (name ? name : "null");
}

TEST_F(Charset, CaseBitFollowsSourcePageOnEveryHighByte)
{
    // 0xC1/0xE1 are a letter pair; 0x80 and 0xA0 are not letters but follow the rule too.
    const char* sample = "aZ\xC1\xE1\x80\xA0";
    req.source_charset = CHARSET_KOI;
    EXPECT_EQ(own(charset_case(str_dup(sample), true)), "aZ\xE1\xE1\xA0\xA0");
    EXPECT_EQ(own(charset_case(str_dup(sample), false)), "aZ\xC1\xC1\x80\x80");
    for (int page : {CHARSET_NONE, CHARSET_WIN, CHARSET_ALT, CHARSET_ISO}) {
        req.source_charset = page;
        EXPECT_EQ(own(charset_case(str_dup(sample), true)), "aZ\xC1\xC1\x80\x80") << page;
        EXPECT_EQ(own(charset_case(str_dup(sample), false)), "aZ\xE1\xE1\xA0\xA0") << page;
    }
    EXPECT_EQ(charset_case(nullptr, true), nullptr);
}

} // namespace
