// Response header lines (control bytes blanked, no length cap, the quoted file name, the
// cookie line) and the two URL encodings.
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "cgi/response.h"
#include "interp/escape.h"
#include "test_support.h"

namespace {

// Captures what the writers print.
class Response : public testing::Test {
protected:
    void SetUp() override
    {
        saved_ = req.output_stream;
        stream_ = open_memstream(&buffer_, &size_);
        req.output_stream = stream_;
    }
    void TearDown() override
    {
        fclose(stream_);
        free(buffer_);
        req.output_stream = saved_;
    }
    std::string written()
    {
        fflush(stream_);
        return std::string(buffer_, size_);
    }
    FILE* saved_ = nullptr;
    FILE* stream_ = nullptr;
    char* buffer_ = nullptr;
    size_t size_ = 0;
};

TEST_F(Response, ControlBytesInNameOrValueBecomeBlanks)
{
    std::string controls;
    for (int c = 1; c < 32; c++)
        controls += (char)c;
    controls += '\x7f';
    response_header("X-A\r\nSet-Cookie", "a\r\nSet-Cookie: b=1");
    response_header("X-All", ("<" + controls + ">\xe9\"\\").c_str());
    response_header("X-None", nullptr);
    EXPECT_EQ(written(), "X-A  Set-Cookie: a  Set-Cookie: b=1\n"
                         "X-All: <" +
                             std::string(controls.size(), ' ') +
                             ">\xe9\"\\\n"
                             "X-None: \n");
}

TEST_F(Response, LinesAreWrittenWholeHoweverLong)
{
    std::string value(5000, 'v');
    response_header("X-Long", value.c_str());
    response_filename(value.c_str());
    response_content("text/plain", 12345);
    response_end_header();
    EXPECT_EQ(written(), "X-Long: " + value + "\nContent-Disposition: filename=\"" + value +
                             "\"\nContent-type: text/plain\nContent-length: 12345\n\n");
}

TEST_F(Response, FileNameStaysInsideItsQuotes)
{
    response_filename("a\"; b=\"c\\\r\nd");
    EXPECT_EQ(written(), "Content-Disposition: filename=\"a\\\"; b=\\\"c\\\\  d\"\n");
}

TEST_F(Response, CookieLineEncodesNameAndValue)
{
    response_set_cookie("my id", "a b/c\r\n", "; expires=x\n");
    response_set_cookie("n", nullptr, nullptr);
    EXPECT_EQ(written(), "Set-Cookie: my+id=a+b%2Fc%0D%0A; path=/; expires=x \n"
                         "Set-Cookie: n=; path=/\n");
}

TEST(UrlEncode, FormAndCookieStyles)
{
    struct row {
        const char* text;
        const char* form;
        const char* cookie;
    };
    // clang-format off
    const row rows[] = {
        {"a b/c", "a+b%2fc", "a+b%2Fc"}, {"Az09", "Az09", "Az09"},
        {"_-.~", "%5f%2d%2e%7e", "_-.%7E"}, {"\xE0\xFF\x01", "%e0%ff%01", "%E0%FF%01"},
        {"  ", "++", "++"}, {"", "(null)", "(null)"}, {nullptr, "(null)", "(null)"}};
    // clang-format on
    for (const row& r : rows) {
        EXPECT_EQ(own(url_encode(r.text, url_style::FORM)), r.form);
        EXPECT_EQ(own(url_encode(r.text, url_style::COOKIE)), r.cookie);
    }
}

TEST(UrlEncode, DecodesBackToTheSameBytes)
{
    std::mt19937 random(7);
    for (int round = 0; round < 200; round++) {
        std::string text;
        for (int i = 0; i < 20; i++)
            text += (char)(1 + random() % 255);
        for (url_style style : {url_style::FORM, url_style::COOKIE}) {
            std::string encoded = own(url_encode(text.c_str(), style));
            EXPECT_EQ(own(url_decode(encoded.c_str())), text);
        }
    }
}

} // namespace
