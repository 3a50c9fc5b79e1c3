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

namespace {

// The decimal digits of magnitude, after a minus sign when negative, at the end of buffer:
// what "%d" and "%lu" print, without the formatted-print machinery that a start of the
// program would otherwise page in for a number. Ownership: view of buffer.
template <size_t N>
const char* fmt_decimal(char (&buffer)[N], unsigned long magnitude, bool negative)
{
    static_assert(N > 21, "room for every unsigned long, a sign and the terminator");
    char* p = buffer + N;
    *--p = '\0';
    do {
        *--p = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    if (negative)
        *--p = '-';
    return p;
}

} // namespace

const char* fmt_int(int n)
{
    static char buffer[24];
    return fmt_decimal(buffer, n < 0 ? 0ul - (unsigned long)n : (unsigned long)n, n < 0);
}

const char* fmt_ulong(unsigned long n)
{
    static char buffer[24];
    return fmt_decimal(buffer, n, false);
}
