// Form input: urlencoded and multipart decoding, the short-body check and the lookups.
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "cgi/charset.h"
#include "cgi/form.h"
#include "cgi/log.h"
#include "cgi/request.h"
#include "test_support.h"

namespace {

constexpr int USE_BODY_SIZE = -1000;

// Each test starts with an empty list and a known request, and frees what it decoded.
class Form : public testing::Test {
protected:
    void SetUp() override
    {
        req.form_entries = nullptr;
        req.cgi.query_string = "";
        req.cgi.content_type = "";
        req.content_length = 0;
        req.output_charset = req.source_charset = 0;
        log_path_ = temp_path("form_error_log");
        unlink(log_path_.c_str());
        req.log_names[LOG_ERROR] = log_path_.c_str();
    }
    void TearDown() override
    {
        form_free_all();
        if (req.input_stream)
            fclose(req.input_stream);
        req.input_stream = nullptr;
        req.log_names[LOG_ERROR] = "./error_log";
        unlink(log_path_.c_str());
    }

    // Feeds body as standard input with CONTENT_LENGTH announced and reads it.
    int post(const std::string& body, bool multipart, int announced = USE_BODY_SIZE)
    {
        body_ = body;
        req.input_stream = fmemopen(body_.data(), body_.size(), "r");
        req.content_length =
            announced == USE_BODY_SIZE ? static_cast<int>(body_.size()) : announced;
        return read_post_body(multipart);
    }

    // "name=value" for every entry in list order; a file entry adds "@file_name".
    std::vector<std::string> entries() const
    {
        std::vector<std::string> out;
        for (const form_entry* e = req.form_entries; e; e = e->next) {
            std::string text = std::string(e->name ? e->name : "") + "=" +
                               std::string(e->value ? e->value : "", e->length);
            if (e->file_name)
                text += std::string("@") + e->file_name;
            out.push_back(text);
        }
        return out;
    }

    std::string copied(const char* name, int size, bool keep, int& code) const
    {
        std::vector<char> buffer(size);
        code = form_copy_value(name, buffer.data(), size, keep);
        return buffer.data();
    }

    std::string error_log() const { return file_text(log_path_); }

    std::string body_;
    std::string log_path_;
};

using strings = std::vector<std::string>;

// A multipart body from (headers, data) parts split by boundary "xyz".
std::string multipart(const std::vector<std::pair<std::string, std::string>>& parts)
{
    std::string body;
    for (const auto& [headers, data] : parts)
        body += "--xyz\r\n" + headers + "\r\n\r\n" + data + "\r\n";
    return body + "--xyz--\r\n";
}

void decode(const char* text)
{
    form_decode_urlencoded(text, static_cast<int>(strlen(text)));
}

std::string field(const char* name)
{
    return std::string("Content-Disposition: form-data; name=\"") + name + "\"";
}

TEST_F(Form, PercentDecoding)
{
    req.cgi.query_string = "a=x+y%41&b=%4&c=%4g&d=%e4%E4&e%3d=%3D";
    read_query_string();
    EXPECT_EQ(entries(), (strings{"a=x yA", "b=", "c=@", "d=\xe4\xe4", "e==="}));
}

TEST_F(Form, NamesRunToTheFirstEqualsSign)
{
    decode("flag&a=1");
    EXPECT_EQ(entries(), (strings{"flag&a=1"}));
    form_free_all();
    decode("=v&k=");
    EXPECT_EQ(entries(), (strings{"=v", "k="}));
}

TEST_F(Form, UrlencodedBodyFollowsTheQueryString)
{
    req.cgi.query_string = "q=1";
    read_query_string();
    ASSERT_EQ(post("a=hello+world&b=%26", false), 0);
    EXPECT_EQ(entries(), (strings{"q=1", "a=hello world", "b=&"}));
}

TEST_F(Form, EmptyAndNegativeLengths)
{
    EXPECT_EQ(post("a=1", false, 0), 0);
    EXPECT_EQ(req.form_entries, nullptr);
    fclose(req.input_stream);
    EXPECT_EQ(post("a=1", false, -5), 1);
    EXPECT_EQ(error_log(), "");
}

TEST_F(Form, MultipartFieldsFilesAndSkippedParts)
{
    std::string binary("GIF\0\r\n\0x", 8);
    std::string body = multipart({
        {field("a"), "first"},
        {field("empty"), ""},
        {field("f") + "; filename=\"pic.gif\"\r\nContent-Type: image/gif", binary},
        {"Content-Disposition: attachment; name=\"skip\"", "no"},
        {"Content-Disposition: form-data; name=\"\"", "unnamed"},
        {"Content-Disposition: form-data; filename=\"n.txt\"", "unnamed"},
        {field("a"), "line1\r\nline2"},
    });
    req.cgi.content_type = "multipart/form-data; boundary=xyz";
    ASSERT_EQ(post(body, true), 0);
    EXPECT_EQ(entries(), (strings{"a=first", "f=" + binary + "@pic.gif", "a=line1\r\nline2"}));
    const form_entry* f = form_find_first("f");
    ASSERT_TRUE(f);
    EXPECT_EQ(f->length, 8);
}

TEST_F(Form, MultipartBoundaryForms)
{
    std::string body = multipart({{field("a"), "1"}});
    req.cgi.content_type = "multipart/form-data; boundary=\"xyz\"; charset=x";
    ASSERT_EQ(post(body, true), 0);
    EXPECT_EQ(entries(), (strings{"a=1"}));
    form_free_all();
    fclose(req.input_stream);

    // The body is searched lower-cased, so a boundary with capitals is never found; the log
    // says why once, and only when the body holds the boundary as sent.
    std::string upper = "--XyZ\r\n" + field("a") + "\r\n\r\n1\r\n--XyZ\r\n" + field("b") +
                        "\r\n\r\n2\r\n--XyZ--\r\n";
    req.cgi.content_type = "multipart/form-data; boundary=XyZ";
    EXPECT_EQ(post(upper, true), 0);
    EXPECT_EQ(req.form_entries, nullptr);
    std::string log = error_log();
    const char* why = "multipart boundary has capital letters: no field was read; set "
                      "TESSEL_MULTIPART_AS_SENT=1\n";
    EXPECT_EQ(log.substr(log.find("] ") + 2), std::string("[path=null]: ") + why);
    unlink(log_path_.c_str());
    fclose(req.input_stream);
    EXPECT_EQ(post(multipart({{field("a"), "1"}}), true), 0);
    EXPECT_EQ(error_log(), "");
}

TEST_F(Form, MultipartBoundaryAsSent)
{
    // With the setting, the boundary matches its own bytes only, capitals included.
    setenv("TESSEL_MULTIPART_AS_SENT", "1", 1);
    std::string upper = "--XyZ\r\n" + field("a") + "\r\n\r\n1\r\n--xyz\r\n" + field("b") +
                        "\r\n\r\n2\r\n--XyZ--\r\n";
    req.cgi.content_type = "multipart/form-data; boundary=XyZ";
    EXPECT_EQ(post(upper, true), 0);
    unsetenv("TESSEL_MULTIPART_AS_SENT");
    EXPECT_EQ(entries(), (strings{"a=1\r\n--xyz\r\n" + field("b") + "\r\n\r\n2"}));
    EXPECT_EQ(error_log(), "");
}

TEST_F(Form, MultipartBoundarySearchOverlapsAndCase)
{
    // A boundary that overlaps itself ("aab" inside "aaab"), found in a body whose own bytes
    // are capitals: the body is lowered before comparing.
    std::string body = "--AaAB\r\n" + field("a") + "\r\n\r\naaa-aa\r\n--aaab\r\n" + field("b") +
                       "\r\n\r\nx\r\n--aaab--\r\n";
    req.cgi.content_type = "multipart/form-data; boundary=aaab";
    ASSERT_EQ(post(body, true), 0);
    EXPECT_EQ(entries(), (strings{"a=aaa-aa", "b=x"}));
}

TEST_F(Form, MultipartSearchIsLinearInTheBody)
{
    // A long boundary whose prefix fills the body: a search that restarts at every byte would
    // compare about 4 MiB x 8 KiB bytes here and never finish in a test's time.
    std::string boundary(8192, 'a');
    boundary += 'b';
    std::string body = "--" + boundary + "\r\n" + field("big") + "\r\n\r\n" +
                       std::string(4 << 20, 'a') + "\r\n--" + boundary + "--\r\n";
    std::string type = "multipart/form-data; boundary=" + boundary;
    req.cgi.content_type = type.c_str();
    ASSERT_EQ(post(body, true), 0);
    const form_entry* big = form_find_first("big");
    ASSERT_TRUE(big);
    EXPECT_EQ(big->length, 4 << 20);
}

TEST_F(Form, MultipartWithBareLineFeedsNeedsAClosingBoundary)
{
    std::string body = "--xyz\n" + field("a") + "\n\nv\n--xyz\n" + field("b") + "\n\nw";
    req.cgi.content_type = "multipart/form-data; boundary=xyz";
    ASSERT_EQ(post(body, true), 0);
    EXPECT_EQ(entries(), (strings{"a=v"}));
}

TEST_F(Form, MultipartTextIsConvertedFilesAreNot)
{
    req.output_charset = CHARSET_WIN; // what the browser sent
    req.source_charset = CHARSET_KOI; // what the pages are written in
    std::string body = multipart({
        {field("t"), "\xc0"},
        {field("f") + "; filename=\"x.txt\"", "\xc0"},
    });
    req.cgi.content_type = "multipart/form-data; boundary=xyz";
    ASSERT_EQ(post(body, true), 0);
    EXPECT_EQ(entries(), (strings{"t=\xe1", "f=\xc0@x.txt"}));
}

TEST_F(Form, CopyValueNormalisesLineBreaks)
{
    decode("t=a%0D%0Ab%0D%0D%0Ac&e=&f=x");
    int code = -1;
    EXPECT_EQ(copied("t", 50, true, code), "a\nb\n\nc");
    EXPECT_EQ(code, FORM_OK);
    EXPECT_EQ(copied("t", 50, false, code), "abc");
    EXPECT_EQ(copied("t", 3, true, code), "a\n");
    EXPECT_EQ(code, FORM_TRUNCATED);
    EXPECT_EQ(copied("e", 50, true, code), "");
    EXPECT_EQ(code, FORM_EMPTY);
    EXPECT_EQ(copied("nope", 50, true, code), "");
    EXPECT_EQ(code, FORM_NO_FIELD);
}

TEST_F(Form, LengthsAndFileFields)
{
    std::string body = multipart({{field("f") + "; filename=\"big.bin\"", std::string(100, 'z')}});
    req.cgi.content_type = "multipart/form-data; boundary=xyz";
    ASSERT_EQ(post(body, true), 0);
    decode("a=abc");
    int size = 0;
    EXPECT_EQ(form_value_length("a", size), FORM_OK);
    EXPECT_EQ(size, 4);
    EXPECT_EQ(form_value_length("f", size), FORM_OK);
    EXPECT_EQ(size, 7);
    int code = -1;
    EXPECT_EQ(copied("f", 50, true, code), "(file)");
    EXPECT_EQ(form_value_length("zz", size), FORM_NO_FIELD);
    EXPECT_EQ(size, 1);
}

TEST_F(Form, IntegersAndTheirCodes)
{
    decode("a=+42x&b=%2B-3&c=x1&d=&e=%20%207");
    struct row {
        const char* name;
        int fallback, code, value;
    };
    for (const row& r :
         {row{"a", 9, FORM_OK, 42}, row{"b", 9, FORM_OK, 0}, row{"c", 9, FORM_NOT_A_NUMBER, 9},
          row{"d", 8, FORM_EMPTY, 8}, row{"e", 9, FORM_OK, 7}, row{"z", 5, FORM_NO_FIELD, 5}}) {
        int value = -1;
        EXPECT_EQ(form_int(r.name, value, r.fallback), r.code) << r.name;
        EXPECT_EQ(value, r.value) << r.name;
    }
}

TEST_F(Form, AllValuesInArrivalOrder)
{
    decode("c=1&x=0&c=two%0D%0Alines&c=");
    char** values = nullptr;
    ASSERT_EQ(form_all_values("c", values), FORM_OK);
    ASSERT_TRUE(values);
    EXPECT_STREQ(values[0], "1");
    EXPECT_STREQ(values[1], "two\nlines");
    EXPECT_STREQ(values[2], "");
    EXPECT_EQ(values[3], nullptr);
    form_free_values(values);
    EXPECT_EQ(form_all_values("none", values), FORM_NO_FIELD);
    EXPECT_EQ(values, nullptr);
}

} // namespace
