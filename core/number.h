// Numbers in text: digit tests, reading integers, and formatting them.
//
// A null string reads as empty text. Nothing here allocates.
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

// n in decimal, as "%d" and "%lu" print it, in a static buffer of each formatter that is
// valid until the same formatter is called again. Ownership: view of a static buffer.
const char* fmt_int(int n);
const char* fmt_ulong(unsigned long n);

#endif
