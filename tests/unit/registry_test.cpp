// The registry and the expander, driven by operators registered here.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/str.h"
#include "interp/registry.h"
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

char* op_nothing(int, char**)
{
    return nullptr;
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
        register_operator("self", op_self, 0, 0);
        register_operator("nothing", op_nothing, 0, 0);
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

TEST_F(Expander, ErrorsAndEmptyResults)
{
    EXPECT_EQ(expand("^nothing[]"), "(null)");
    EXPECT_EQ(expand("a^nothing[]"), "a");
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand_copy(nullptr), nullptr);
    EXPECT_EQ(find_operator(""), nullptr); // even when registered
    EXPECT_EQ(find_operator(nullptr), nullptr);
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

TEST_F(Expander, LongTextWithManyCalls)
{
    std::string text, want;
    for (int i = 0; i < 2000; i++) {
        text += std::string(1000, 'x') + "^show[" + std::to_string(i) + "] ^ [";
        want += std::string(1000, 'x') + "(" + std::to_string(i) + ") ^ [";
    }
    EXPECT_EQ(expand(text.c_str()), want);
}

} // namespace
