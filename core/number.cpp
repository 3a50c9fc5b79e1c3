// Digit tests, reading integers, and decimal formatting.
#include "core/number.h"

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
    return s ? atoi(s) : 0;
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
