// A loop body's expansion plan gives, pass after pass, what expanding the text afresh gives.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "cgi/request.h"
#include "core/str.h"
#include "interp/registry.h"
#include "test_support.h"

namespace {

// "<p1|p2|...>": shows how a call was split; null parameters print as "-".
char* op_split(int count, char** params)
{
    std::string out = "<";
    for (int i = 0; i < count; i++)
        out += std::string(i ? "|" : "") + (params[i] ? params[i] : "-");
    return str_dup((out + ">").c_str());
}

char* op_none(int, char**)
{
    return nullptr;
}

// The expansion as text, "(null)" for a null result.
std::string shown(char* expanded)
{
    std::string out = expanded ? expanded : "(null)";
    str_free(expanded);
    return out;
}

// Random texts of calls, escapes, unclosed and malformed lists, backquotes and empty results
// (fixed seed): two passes of one plan each equal a fresh expansion.
TEST(ExpansionPlan, EveryPassEqualsAFreshExpansion)
{
    register_operator("split", op_split, 0, 0);
    register_operator("none", op_none, 0, 0);
    const char* pieces[] = {"^split[", "^none[", "^nosuch[", "]",  ";",  "`",
                            "^",       "a",      "^[",       "^^", "^;", "["};
    srand(7);
    for (int n = 0; n < 20000; n++) {
        std::string text;
        for (int k = rand() % 12; k > 0; k--)
            text += pieces[rand() % (sizeof pieces / sizeof *pieces)];
        req.depth = 0;
        std::string fresh = shown(expand_copy(text.c_str()));
        expansion_plan plan(text.c_str());
        for (int pass = 0; pass < 2; pass++) {
            req.depth = 0;
            ASSERT_EQ(shown(plan.expand()), fresh) << text;
        }
    }
    EXPECT_EQ(shown(expansion_plan(nullptr).expand()), "(null)");
}

} // namespace
