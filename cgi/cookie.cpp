// Cookies: reading HTTP_COOKIE by name and writing Set-Cookie lines.
#include "cgi/cookie.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cgi/response.h"
#include "core/str.h"
#include "interp/escape.h"

namespace {

constexpr long SECONDS_PER_DAY = 86400;
constexpr const char* WEEKDAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// "; expires=Wed, 01-Jan-2025 00:00:00 GMT" for days from now, in UTC.
void cookie_expires(char* buffer, size_t size, int days)
{
    time_t when = time(nullptr) + days * SECONDS_PER_DAY;
    struct tm utc;
    gmtime_r(&when, &utc);
    snprintf(buffer, size, "; expires=%s, %.2d-%s-%.4d %.2d:%.2d:%.2d GMT", WEEKDAYS[utc.tm_wday],
             utc.tm_mday, MONTHS[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
             utc.tm_sec);
}

} // namespace

char* cookie_read(const char* wanted)
{
    str_holder jar(str_dup(getenv("HTTP_COOKIE")));
    for (char* cursor = jar.get(); cursor;) {
        char* name = str_take_token(cursor, ';');
        char* value = str_cut_at(name, '=');
        while (*name == ' ' || *name == '\t')
            name++;
        if (strcmp(name, str_or_empty(wanted)) != 0)
            continue;
        str_cut_at(value, ' ');
        return url_decode(value);
    }
    return nullptr;
}

void cookie_write(const char* name, const char* value, int days, const char* attributes)
{
    if (!str_nonempty(name))
        return;
    char expires[128] = "";
    if (days != 0)
        cookie_expires(expires, sizeof expires, days);
    str_holder tail(str_join(expires, attributes, nullptr));
    response_set_cookie(name, value, tail.get());
}
