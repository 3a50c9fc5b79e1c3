// Digit tests and the decimal formatters.
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

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

// str_to_int reads what atoi reads: blanks, sign, digits, and an overflow clamped as strtol
// clamps it before the low bits are kept.
TEST(Number, IntegerMatchesAtoi)
{
    std::mt19937_64 random(3);
    std::vector<std::string> texts = {"",
                                      " \t\n\v\f\r42x",
                                      "+7",
                                      "-0",
                                      "- 5",
                                      "2147483648",
                                      "-2147483649",
                                      "4294967297",
                                      "9223372036854775807",
                                      "9223372036854775808",
                                      "-9223372036854775808",
                                      "-9223372036854775809",
                                      "99999999999999999999999",
                                      "\x85"
                                      "1"};
    for (int i = 0; i < 20000; i++) {
        std::string text = (random() % 3 ? "" : " ") + std::string(random() % 2 ? "-" : "") +
                           std::to_string(random() >> (random() % 64));
        texts.push_back(text + (random() % 2 ? "" : "7.5"));
    }
    for (const std::string& text : texts)
        ASSERT_EQ(str_to_int(text.c_str()), atoi(text.c_str())) << text;
    EXPECT_EQ(str_to_int(nullptr), 0);
}

// Where fmt_fixed takes a value it prints what "%.Nf" prints, for random doubles of every
// magnitude, halves and quarters (exact ties), cents, negative zero and values near 2^50; and
// it takes nearly all ordinary prices, so the fallback stays rare.
TEST(Number, FixedMatchesPrintf)
{
    std::mt19937_64 random(7);
    std::vector<double> values = {0.0,
                                  -0.0,
                                  0.5,
                                  1.5,
                                  2.5,
                                  -2.5,
                                  0.125,
                                  0.375,
                                  1e-300,
                                  -1e-300,
                                  1125899906842623.0,
                                  1125899906842624.0,
                                  1e300,
                                  NAN,
                                  INFINITY};
    for (int i = 0; i < 200000; i++) {
        uint64_t bits = random();
        double any;
        memcpy(&any, &bits, sizeof any);
        values.push_back(any);
        values.push_back((double)(int64_t)(random() % 2000001 - 1000000) / 8); // exact ties
        values.push_back((double)(int64_t)(random() % 2000001 - 1000000) / 100);
        values.push_back(std::ldexp((double)(random() >> 11), (int)(random() % 80) - 60));
    }
    char expected[512];
    int taken = 0;
    for (double value : values) {
        for (int decimals : {0, 1, 2, 3, 6, 15}) {
            fmt_digits out;
            if (!fmt_fixed(value, decimals, out))
                continue;
            snprintf(expected, sizeof expected, "%.*f", decimals, value);
            ASSERT_STREQ(out.text, expected) << value << " with " << decimals;
            taken++;
        }
    }
    int cents_taken = 0;
    for (int cents = -100000; cents < 100000; cents++) {
        fmt_digits out;
        cents_taken += fmt_fixed(cents / 100.0, 2, out);
    }
    EXPECT_GT(taken, 400000);
    EXPECT_EQ(cents_taken, 200000);
    fmt_digits out;
    EXPECT_FALSE(fmt_fixed(NAN, 2, out));
    EXPECT_FALSE(fmt_fixed(1e300, 2, out));
    EXPECT_FALSE(fmt_fixed(1.0, FMT_FIXED_MAX_DECIMALS + 1, out));
}

// parse_decimal gives strtod's value bit for bit where it takes a number, and refuses what it
// cannot be sure of.
TEST(Number, DecimalMatchesStrtod)
{
    std::mt19937_64 random(11);
    std::vector<std::string> texts = {"0",
                                      "-0",
                                      "+0.0",
                                      "7.",
                                      ".25",
                                      "-.5",
                                      "1.25",
                                      "3.75",
                                      "-12.5",
                                      "0.1",
                                      "0.3",
                                      "123456789012345",
                                      "9.99e2",
                                      "1e5",
                                      "",
                                      "-",
                                      ".",
                                      "1.2.3",
                                      "12a",
                                      "0.1234567890123456789012",
                                      "1234567890123456"};
    for (int i = 0; i < 100000; i++) {
        std::string digits = std::to_string(random() % 1000000000000000ull);
        size_t point = random() % (digits.size() + 1);
        std::string text =
            (random() % 2 ? "-" : "") + digits.substr(0, point) + "." + digits.substr(point);
        texts.push_back(text);
    }
    int taken = 0;
    for (const std::string& text : texts) {
        double value;
        if (!parse_decimal(text.data(), text.size(), value))
            continue;
        double expected = strtod(text.c_str(), nullptr);
        ASSERT_EQ(memcmp(&value, &expected, sizeof value), 0) << text;
        taken++;
    }
    EXPECT_GT(taken, 100000);
    double value;
    for (const char* refused : {"", "-", ".", "1.2.3", "12a", "1e5", "1234567890123456"})
        EXPECT_FALSE(parse_decimal(refused, strlen(refused), value)) << refused;
}

} // namespace
