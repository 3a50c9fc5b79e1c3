// Heap strings: copying, cutting, editing, splitting and comparing.
#include <gtest/gtest.h>

#include "core/str.h"
#include "test_support.h"

namespace {

TEST(Str, CopiesAndSubstrings)
{
    EXPECT_EQ(own(str_sub("abc", 1, 10)), "bc");
    EXPECT_EQ(own(str_sub("abc", 1, 0)), "(null)");
    EXPECT_EQ(own(str_sub("abc", 7, 2)), "(null)");
    EXPECT_EQ(own(str_sub(nullptr, 0, 2)), "(null)");
    EXPECT_EQ(own(str_dup_n("abcdef", 3)), "abc");
    EXPECT_EQ(own(str_join("a", nullptr, "b", nullptr)), "a");
    EXPECT_EQ(own(str_join("a", "b", "c", nullptr)), "abc");
}

TEST(Str, SpliceClampsAndEmptiesToNull)
{
    EXPECT_EQ(own(str_splice(str_dup("abc"), 0, 3, nullptr)), "(null)");
    EXPECT_EQ(own(str_splice(str_dup("abc"), 1, 1, "XYZ")), "aXYZc");
    EXPECT_EQ(own(str_splice(str_dup("abc"), 9, 9, "!")), "abc!");
    EXPECT_EQ(own(str_splice(nullptr, 0, 0, "x")), "x");
    EXPECT_EQ(own(str_splice(str_dup("abc"), -4, 1, nullptr)), "bc");
}

TEST(Str, AppendGrowsFromNull)
{
    char* s = nullptr;
    str_append(s, nullptr);
    EXPECT_EQ(s, nullptr);
    str_append(s, "ab");
    str_append(s, "cd");
    EXPECT_EQ(own(s), "abcd");
}

TEST(Str, CuttingAndFields)
{
    char text[] = "a,b,";
    char* cursor = text;
    EXPECT_STREQ(str_next_field(cursor, ','), "a");
    EXPECT_STREQ(str_next_field(cursor, ','), "b");
    EXPECT_EQ(str_next_field(cursor, ','), nullptr);

    char pair[] = "key=value=more";
    EXPECT_STREQ(str_cut_at(pair, '='), "value=more");
    EXPECT_STREQ(pair, "key");
    char path[] = "/a/b/c";
    EXPECT_STREQ(str_cut_at_last(path, '/'), "c");
    char sep[] = "x--y--z";
    EXPECT_STREQ(str_cut_at_last_str(sep, "--"), "z");
    EXPECT_STREQ(sep, "x--y");
}

TEST(Str, Predicates)
{
    EXPECT_TRUE(str_equal(nullptr, nullptr));
    EXPECT_FALSE(str_equal(nullptr, ""));
    EXPECT_TRUE(str_ends_with("xab", "ab"));
    EXPECT_FALSE(str_ends_with("abab", "ab")); // only the first occurrence counts
    EXPECT_TRUE(str_starts_with("abc", "ab"));
    EXPECT_FALSE(str_starts_with(nullptr, "ab"));
}

} // namespace
