// The cookie operator: reads a cookie of the request or writes a Set-Cookie line.
#include "cgi/cookie.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

// cookie[name] reads a cookie, escaped for the page; cookie[name;value;days] sets one (90
// days by default, 0 for a session cookie, negative to delete it) and gives nothing.
char* op_cookie(int count, char** params)
{
    const char* name = param_text(count, params, 0);
    if (count < 2)
        return escape_take(cookie_read(name));
    int days = count >= 3 ? param_int(count, params, 2) : COOKIE_DEFAULT_DAYS;
    cookie_write(name, param_text(count, params, 1), days);
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row cookie_rows[] = {
    // name     handler     params  flags       accepted
    {"cookie",  op_cookie,  0,      REQUEST_DATA, {1, 3}},
};
// clang-format on

void register_cookie_ops()
{
    register_rows(cookie_rows);
}
