// The cookie operator: reads a cookie of the request or writes a Set-Cookie line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cgi/response.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

constexpr int DEFAULT_DAYS = 90;
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

// Writes the Set-Cookie line of cookie[name;value;days]; nothing for an empty name.
void cookie_write(int count, char** params)
{
    const char* name = param_text(count, params, 0);
    if (!str_nonempty(name))
        return;
    int days = count >= 3 ? param_int(count, params, 2) : DEFAULT_DAYS;
    char expires[128] = "";
    if (days != 0)
        cookie_expires(expires, sizeof expires, days);
    response_set_cookie(name, param_text(count, params, 1), expires);
}

// The value of the named cookie in HTTP_COOKIE, cut at its first blank, decoded and escaped;
// null when no pair has that name.
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
        return escape_take(url_decode(value));
    }
    return nullptr;
}

// cookie[name] reads a cookie; cookie[name;value;days] sets one (90 days by default, 0 for
// a session cookie, negative to delete it) and gives nothing.
char* op_cookie(int count, char** params)
{
    if (count >= 2) {
        cookie_write(count, params);
        return nullptr;
    }
    return cookie_read(param_text(count, params, 0));
}

} // namespace

// clang-format off
extern constexpr op_row cookie_rows[] = {
    // name     handler     params  flags       accepted
    {"cookie",  op_cookie,  0,      0,          {1, 3}},
};
// clang-format on

void register_cookie_ops()
{
    register_rows(cookie_rows);
}
