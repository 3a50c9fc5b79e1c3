// Numbers in text: digit tests, reading integers, and formatting them into the caller's
// storage.
//
// A null string reads as empty text. Nothing here allocates: a formatted number lives in the
// fmt_digits value the formatter returns.
#ifndef TESSEL_CORE_NUMBER_H
#define TESSEL_CORE_NUMBER_H

#include <array>
#include <cstddef>

// ---- reading --------------------------------------------------------------------------

// Value of each byte as a hexadecimal digit: "0".."9", "A".."F" and "a".."f" are 0..15, every
// other byte 0 (so a bad escape decodes as a digit 0 rather than failing).
inline constexpr std::array<unsigned char, 256> STR_HEX_DIGITS = [] {
    std::array<unsigned char, 256> digits{};
    for (int i = 0; i < 10; i++)
        digits['0' + i] = (unsigned char)i;
    for (int i = 0; i < 6; i++)
        digits['A' + i] = digits['a' + i] = (unsigned char)(10 + i);
    return digits;
}();

// The value of c as a hexadecimal digit, 0 when it is none (see STR_HEX_DIGITS).
inline int str_hex_digit(char c)
{
    return STR_HEX_DIGITS[(unsigned char)c];
}

// True when s is non-empty and all bytes are '0'..'9'.
bool str_is_digits(const char* s);
// atoi of s, 0 for null.
int str_to_int(const char* s);
inline int int_max(int a, int b)
{
    return a > b ? a : b;
}
inline int int_min(int a, int b)
{
    return a < b ? a : b;
}

// ---- formatting -----------------------------------------------------------------------

// Room for every unsigned long in decimal, a sign and the terminator.
constexpr size_t FMT_DIGITS_SIZE = 24;

// A formatted number, its text held in the value itself: each result stands on its own, so
// several can be used together. The text lives as long as the value: within the expression
// that formats it (str_dup(fmt_int(n).text)), or as long as a variable that keeps the value
// (fmt_digits count = fmt_int(n); ... count.text). Ownership: the value owns its text.
struct fmt_digits {
    char text[FMT_DIGITS_SIZE];
};

// n in decimal, as "%d" and "%lu" print it, without the formatted-print machinery (which the
// start of a small page would otherwise page in for one number).
fmt_digits fmt_int(int n);
fmt_digits fmt_ulong(unsigned long n);

// The most decimals fmt_fixed prints.
constexpr int FMT_FIXED_MAX_DECIMALS = 15;

// value with decimals digits after the point, exactly as "%.<decimals>f" prints it (a minus
// sign for every negative value and for negative zero, exact ties to even), into out. False,
// with out unspecified, when this cheap path cannot be sure of printf's digits: a value that is
// not finite, a value times 10^decimals of 2^50 or more, decimals outside
// 0..FMT_FIXED_MAX_DECIMALS, or a scaled value too close to a rounding boundary. The caller
// then formats with snprintf.
bool fmt_fixed(double value, int decimals, fmt_digits& out);

// The value of the decimal number of len bytes at p ("-12.5", "+3", ".25", "7."; no exponent)
// exactly as strtod reads it. False when this cheap path cannot be sure: other bytes, more
// than 15 digits or none, or more than 22 of them after the point. The caller then uses strtod.
bool parse_decimal(const char* p, size_t len, double& value);

#endif
