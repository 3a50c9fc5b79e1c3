// The registry and the expander, driven by operators registered here.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/scanner.h"
#include "ops/ops.h"
#include "test_support.h"

namespace {

// "(p1|p2|...)": shows how a call was split; null parameters print as "-".
char* op_show(int count, char** params)
{
    std::string out = "(";
    for (int i = 0; i < count; i++)
        out += std::string(i ? "|" : "") + (params[i] ? params[i] : "-");
    return str_dup((out + ")").c_str());
}

// Returns its one parameter unexpanded.
char* op_raw(int count, char** params)
{
    return str_dup(param_text(count, params, 0));
}

// Returns the text of a call to itself, which must not be expanded again.
char* op_self(int, char**)
{
    return str_dup("^show[again]");
}

// "<p0 expanded>:<p1 as written>" through the accessors of a LAZY_PARAMS handler.
char* op_lazy(int count, char** params)
{
    const char* first = expand_param_text(count, params, 0);
    std::string out = std::string(first ? first : "-") + ":" + str_or_empty(param_raw(params, 1));
    return str_dup(out.c_str());
}

char* op_nothing(int, char**)
{
    return nullptr;
}

char* op_empty(int, char**)
{
    return str_dup("");
}

char* op_second(int, char**)
{
    return str_dup("second");
}

class Expander : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        register_operator("show", op_show, 0, 0);
        register_operator("raw", op_raw, 1, RAW_PARAMS);
        register_operator("lazy", op_lazy, 3, RAW_PARAMS | LAZY_PARAMS);
        register_operator("self", op_self, 0, 0);
        register_operator("nothing", op_nothing, 0, 0);
        register_operator("empty", op_empty, 0, 0);
        register_operator("one", op_show, 1, 0);
        register_operator("", op_second, 0, 0);
    }
    void SetUp() override { req.depth = 0; }

    static std::string expand(const char* text) { return own(expand_copy(text)); }
};

TEST_F(Expander, ParametersSplitAtDepthOne)
{
    EXPECT_EQ(expand("^show[a;b]"), "(a|b)");
    EXPECT_EQ(expand("^show[a^;b]"), "(a;b)");
    EXPECT_EQ(expand("^show[`a;b`]"), "(a;b)");
    EXPECT_EQ(expand("^show[[a;b]]"), "([a;b])");
    EXPECT_EQ(expand("^show[a^]b]"), "(a^]b)"); // "^]" is not structural, nor an escape
    EXPECT_EQ(expand("^show[]"), "(-)");
    EXPECT_EQ(expand("^show[;x;]"), "(-|x|-)");
    EXPECT_EQ(expand("^one[]"), "(-)");
}

// Escapes, the other malformed calls and the error texts show on the pages of
// tests/pages/spine; an unclosed call around a whole one shows only here.
TEST_F(Expander, MalformedCallsStayText)
{
    EXPECT_EQ(expand("^show[a^show[x]"), "^show[a(x)");
}

TEST_F(Expander, NineteenParametersAtMost)
{
    std::string params19 = "1;2;3;4;5;6;7;8;9;10;11;12;13;14;15;16;17;18;19";
    EXPECT_EQ(expand(("^show[" + params19 + "]").c_str()),
              "(1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|16|17|18|19)");
    EXPECT_EQ(expand(("^show[" + params19 + ";^show[x]]").c_str()), "^show[" + params19 + ";(x)]");
}

TEST_F(Expander, NestedCallsRunFirstUnlessRaw)
{
    EXPECT_EQ(expand("^show[^show[a];b]"), "((a)|b)");
    EXPECT_EQ(expand("^raw[^show[a]]"), "^show[a]");
    EXPECT_EQ(expand("<^self[]>"), "<^show[again]>");
}

// A lazy call's slots are filled from its own text when asked, also while a lazy call in
// one of its parameters runs; a slot never asked for is left alone.
TEST_F(Expander, LazyParametersComeFromTheirOwnCall)
{
    EXPECT_EQ(expand("^lazy[^show[a];^show[b];^self[]]"), "(a):^show[b]");
    EXPECT_EQ(expand("^lazy[^lazy[x;^show[y];];^lazy[;q;];z]"), "x:^show[y]:^lazy[;q;]");
    EXPECT_EQ(expand("^lazy[;;]"), "-:");
    EXPECT_EQ(expand("^lazy[`^show[a]`;`b;c`;]"), "(a):b;c");
}

TEST_F(Expander, ErrorsAndEmptyResults)
{
    EXPECT_EQ(expand("^nothing[]"), "(null)");
    EXPECT_EQ(expand("a^nothing[]"), "a");
    EXPECT_EQ(expand("^empty[]"), "(null)");
    // A parameter that is one call and nothing else is that call's result, empty as null.
    EXPECT_EQ(expand("^show[^empty[];^nothing[];^show[a];x^empty[]]"), "(-|-|(a)|x)");
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand_copy(nullptr), nullptr);
    EXPECT_EQ(registry_find(""), nullptr); // even when registered
    EXPECT_EQ(registry_find(nullptr), nullptr);
}

TEST_F(Expander, DepthLimitAndLeaks)
{
    std::string deep;
    for (int i = 0; i < 1000; i++)
        deep += "^show[";
    deep += "x";
    for (int i = 0; i < 1000; i++)
        deep += "]";
    std::string out = expand(deep.c_str());
    EXPECT_NE(out.find("([infinite operator recursion detected])"), std::string::npos);
    EXPECT_EQ(out.find("x"), std::string::npos);

    // Refused calls leave the counter raised: 999 unknown names exhaust the request.
    req.depth = 0;
    for (int i = 0; i < 999; i++)
        expand("^nosuch[]");
    EXPECT_EQ(expand("^show[a]"), "[infinite operator recursion detected]");
}

// A page of calls that never close, escaped brackets, runs of nested lists with too many
// parameters: each list that fails teaches the scanner about the later ones, so the text is
// read a bounded number of times (reading to the end from every failed list was quadratic).
TEST_F(Expander, FailedListsAreNotReadAgain)
{
    std::string calls, want, nested, escaped, quoted;
    for (int i = 0; i < 2000; i++) {
        calls += std::string(100, 'x') + "^show[" + std::to_string(i) + "] ^ [";
        want += std::string(100, 'x') + "(" + std::to_string(i) + ") ^ [";
        escaped += std::string(100, 'x') + "^[";
        quoted += std::string(100, 'x') + "^ [`^ [";
    }
    for (int i = 0; i < 1000; i++)
        nested = "^a[" + nested + std::string(20, ';') + "]";
    std::string texts[] = {calls, nested, escaped, quoted};
    for (const std::string& text : texts) {
        size_t before = call_scanner::bytes_examined;
        std::string out = expand(text.c_str());
        EXPECT_LE(call_scanner::bytes_examined - before, 4 * text.size()) << text.substr(0, 40);
        req.depth = 0;
    }
    EXPECT_EQ(expand(calls.c_str()), want);
}

// The expander's walk over text: every caret's outcome, with a call's parameters. fresh reads
// each caret with a scanner of its own, which has learnt nothing.
std::string caret_walk(const std::string& text, bool fresh)
{
    call_scanner shared(text.data(), text.size());
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] != '^') {
            i++;
            continue;
        }
        std::string params;
        auto add = [&](size_t start, size_t end) {
            params += "|" + text.substr(start, end - start);
        };
        call_scanner once(text.data(), text.size());
        caret_scan found = (fresh ? once : shared).read(i, add);
        bool call = found.kind == caret_kind::CALL;
        out += std::to_string(i) + ":" + std::to_string((int)found.kind) + "@" +
               std::to_string(found.open) +
               (call ? "-" + std::to_string(found.close) + params : "") + "\n";
        i = call ? found.close + 1 : found.kind == caret_kind::ESCAPE ? i + 2 : i + 1;
    }
    return out;
}

// What the scanner learns from failed lists agrees with reading each list afresh, over random
// texts of the characters that matter (fixed seed).
TEST(Scanner, LearntListsMatchFreshReads)
{
    srand(24);
    const char* alphabets[] = {"^[];`a", "^[]]]a", "^[;;;;;;;;]a", "^^[[`;]"};
    for (int n = 0; n < 20000; n++) {
        const char* chars = alphabets[n % 4];
        std::string text(1 + rand() % 120, ' ');
        for (char& c : text)
            c = chars[rand() % strlen(chars)];
        ASSERT_EQ(caret_walk(text, false), caret_walk(text, true)) << text;
    }
}

// The text that `field` gives, as request data.
std::string field_value;

char* op_field(int, char**)
{
    return str_dup(field_value.c_str());
}

// What a second expansion makes of a text whose first expansion quoted request data: the
// data comes back byte for byte and never runs, whatever it holds and whatever carets of the
// page's own text stand before it (k of them, as the first expansion left them, read as
// ceil(k/2): a lone one is kept from joining the data). The page's own calls still run.
// The data is every string of one to five bytes over the scanner's structural bytes.
TEST_F(Expander, QuotedRequestDataComesBackUnchanged)
{
    register_operator("field", op_field, 0, REQUEST_DATA);
    setenv("TESSEL_INERT_REQUEST_DATA", "1", 1);
    const std::string alphabet = "^;[]`a";
    for (int total = (int)alphabet.size(), length = 1; length <= 5;
         length++, total *= (int)alphabet.size())
        for (int n = 0; n < total; n++) {
            field_value.clear();
            for (int k = n, i = 0; i < length; i++, k /= (int)alphabet.size())
                field_value += alphabet[k % alphabet.size()];
            for (int carets = 0; carets <= 3; carets++) {
                std::string page = std::string(2 * carets, '^') + "^field[]";
                std::string once = own(expand_for_second_pass(str_dup(page.c_str())));
                std::string twice = own(expand_in_place(str_dup(once.c_str())));
                ASSERT_EQ(twice, std::string((carets + 1) / 2, '^') + field_value)
                    << "data " << field_value << " after " << carets << " carets";
            }
        }
    field_value = "a;b";
    EXPECT_EQ(own(expand_in_place(expand_for_second_pass(str_dup("^^show[^field[]]")))), "(a;b)");
    unsetenv("TESSEL_INERT_REQUEST_DATA");
}

// A page error is formatted once: the page gets the bracketed text whole, the error log the
// same text without its brackets (an argument is never read as a format), and only the
// logged builder writes to the log.
TEST(PageError, LogLineIsThePageTextWithoutBrackets)
{
    std::string log_path = temp_path("page_error_log");
    unlink(log_path.c_str());
    req.log_names[LOG_ERROR] = log_path.c_str();
    EXPECT_EQ(own(page_error("[if: wrong param count]")), "[if: wrong param count]");
    EXPECT_EQ(file_text(log_path), "");
    EXPECT_EQ(own(page_error_logged("[save to '%s' failed: %s]", "a b", "full %s")),
              "[save to 'a b' failed: full %s]");
    std::string line = file_text(log_path);
    EXPECT_EQ(line.substr(line.find(": ") + 2), "save to 'a b' failed: full %s\n");
    std::string long_reason(3000, 'x');
    std::string page = own(page_error_logged("[download error: %s]", long_reason.c_str()));
    EXPECT_EQ(page, "[download error: " + long_reason + "]");
    EXPECT_LE(file_text(log_path).size() - line.size(), 1024u);
    req.log_names[LOG_ERROR] = "./error_log";
    unlink(log_path.c_str());
}

} // namespace
