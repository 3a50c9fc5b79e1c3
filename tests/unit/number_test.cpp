// Digit tests and the decimal formatters.
#include <climits>
#include <cstdio>
#include <gtest/gtest.h>

#include "core/number.h"

namespace {

TEST(Number, DigitsOnly)
{
    EXPECT_TRUE(str_is_digits("0123"));
    EXPECT_FALSE(str_is_digits(""));
    EXPECT_FALSE(str_is_digits("12a"));
}

// The formatters print what "%d" and "%lu" print, at the ends of the ranges too, and one
// result stays whole when the next is formatted.
TEST(Number, FormattersMatchPrintf)
{
    char expected[32];
    for (int n : {0, 7, -7, 10, -10, 42, 1000000, INT_MAX, INT_MIN, INT_MIN + 1}) {
        snprintf(expected, sizeof expected, "%d", n);
        EXPECT_STREQ(fmt_int(n).text, expected);
    }
    for (unsigned long n : {0ul, 9ul, 4000000000ul, ULONG_MAX}) {
        snprintf(expected, sizeof expected, "%lu", n);
        EXPECT_STREQ(fmt_ulong(n).text, expected);
    }
    fmt_digits first = fmt_int(1), second = fmt_int(-22); // each result holds its own digits
    EXPECT_STREQ(first.text, "1");
    EXPECT_STREQ(second.text, "-22");
}

} // namespace
