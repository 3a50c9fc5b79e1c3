// Digit tests, reading integers, and decimal formatting.
#include "core/number.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>

bool str_is_digits(const char* s)
{
    if (!s || !*s)
        return false;
    for (; *s; s++)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

int str_to_int(const char* s)
{
    // What atoi does (glibc's is (int)strtol(s, nullptr, 10): the long clamps on overflow and
    // the conversion keeps its low bits), without strtol's general-base machinery.
    if (!s)
        return 0;
    while (*s == ' ' || (*s >= '\t' && *s <= '\r'))
        s++;
    bool negative = *s == '-';
    if (*s == '-' || *s == '+')
        s++;
    constexpr unsigned long LIMIT_POSITIVE = LONG_MAX;
    unsigned long limit = negative ? LIMIT_POSITIVE + 1 : LIMIT_POSITIVE;
    unsigned long magnitude = 0;
    for (; *s >= '0' && *s <= '9'; s++) {
        unsigned digit = (unsigned)(*s - '0');
        if (magnitude > (limit - digit) / 10) {
            magnitude = limit; // clamped, as strtol does; the other digits change nothing
            break;
        }
        magnitude = magnitude * 10 + digit;
    }
    long value = negative ? (long)(0ul - magnitude) : (long)magnitude;
    return (int)value;
}

// The decimal digits of magnitude, after a minus sign when negative, from the start of the
// result's text.
static fmt_digits fmt_decimal(unsigned long magnitude, bool negative)
{
    char reversed[FMT_DIGITS_SIZE];
    size_t count = 0;
    do {
        reversed[count++] = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    fmt_digits out;
    char* p = out.text;
    if (negative)
        *p++ = '-';
    while (count)
        *p++ = reversed[--count];
    *p = '\0';
    return out;
}

fmt_digits fmt_int(int n)
{
    return fmt_decimal(n < 0 ? 0ul - (unsigned long)n : (unsigned long)n, n < 0);
}

fmt_digits fmt_ulong(unsigned long n)
{
    return fmt_decimal(n, false);
}

namespace {

// 10^0..10^22: every one a double exactly.
constexpr double POWERS_OF_TEN[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                    1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// Below 2^50 a scaled value's rounding error (at most half a unit in its last place) is at
// most 1/8, so a product's exact error tells which integer is nearest.
constexpr double FIXED_SCALED_LIMIT = 1125899906842624.0; // 2^50

} // namespace

bool fmt_fixed(double value, int decimals, fmt_digits& out)
{
    if (decimals < 0 || decimals > FMT_FIXED_MAX_DECIMALS || !std::isfinite(value))
        return false;
    double power = POWERS_OF_TEN[decimals];
    double scaled = value * power;
    if (!(std::fabs(scaled) < FIXED_SCALED_LIMIT))
        return false;
    // The product's exact value is scaled + error; below 2^-1022 error itself may be rounded,
    // but then the value prints as zero digits, far from any boundary.
    double error = std::fma(value, power, -scaled);
    double nearest = std::nearbyint(scaled);     // ties to even, as printf rounds an exact tie
    double offset = std::fabs(scaled - nearest); // exact: the two are within 1/2 of each other
    bool exact_tie = offset == 0.5 && error == 0;
    if (!(offset + std::fabs(error) < 0.5) && !exact_tie)
        return false;
    char digits[FMT_DIGITS_SIZE];
    size_t count = 0;
    for (uint64_t n = (uint64_t)std::fabs(nearest); n || count <= (size_t)decimals; n /= 10)
        digits[count++] = char('0' + n % 10);
    char* p = out.text;
    if (std::signbit(value))
        *p++ = '-';
    while (count) {
        if (count == (size_t)decimals)
            *p++ = '.';
        *p++ = digits[--count];
    }
    *p = '\0';
    return true;
}

bool parse_decimal(const char* p, size_t len, double& value)
{
    const char* end = p + len;
    bool negative = p < end && *p == '-';
    if (p < end && (*p == '-' || *p == '+'))
        p++;
    uint64_t mantissa = 0;
    int digits = 0, decimals = 0;
    bool point = false;
    for (; p < end; p++) {
        if (*p == '.' && !point) {
            point = true;
            continue;
        }
        if (*p < '0' || *p > '9')
            return false;
        mantissa = mantissa * 10 + (uint64_t)(*p - '0');
        digits++;
        decimals += point;
    }
    // Up to 15 digits the mantissa is a double exactly, as is 10^decimals up to 22, so the one
    // rounding of the division is the correctly rounded value that strtod gives.
    if (digits == 0 || digits > 15 || decimals > 22)
        return false;
    double magnitude = (double)mantissa / POWERS_OF_TEN[decimals];
    value = negative ? -magnitude : magnitude;
    return true;
}
