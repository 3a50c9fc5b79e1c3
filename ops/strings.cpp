// The string-function family: byte lengths, slices, single bytes and searching.
//
// Texts are byte strings: positions and lengths count bytes from 0, and numbers are read as
// atoi reads them. An absent text yields nothing.
#include <algorithm>
#include <climits>

#include "core/number.h"
#include "core/str.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

char* op_length(int, char** params)
{
    return str_dup(fmt_int(str_len0(params[0])).text);
}

// The comparison with the length is unsigned, so a negative n keeps the whole text.
char* op_left(int count, char** params)
{
    const char* text = params[0];
    int n = param_int(count, params, 1);
    if (!text || n == 0)
        return nullptr;
    if ((unsigned)n < (unsigned)str_len0(text))
        return str_dup_n(text, n);
    return str_dup(text);
}

// A negative n keeps the whole text, as in `left`, rather than reading before the text.
char* op_right(int count, char** params)
{
    const char* text = params[0];
    int n = param_int(count, params, 1);
    int len = str_len0(text);
    if (!text || n == 0)
        return nullptr;
    if (n > 0 && n < len)
        return str_dup(text + len - n);
    return str_dup(text);
}

char* op_mid(int count, char** params)
{
    const char* text = params[0];
    int start = param_int(count, params, 1);
    long long n = param_int(count, params, 2); // wide, so count + start cannot wrap around
    if (!text)
        return nullptr;
    if (start < 0) {
        n += start;
        start = 0;
    }
    if (n < 1 || start > str_len0(text))
        return nullptr;
    return str_sub(text, start, (int)std::min<long long>(n, INT_MAX));
}

char* op_char(int count, char** params)
{
    if (!params[0])
        return nullptr;
    char byte[2] = {(char)param_int(count, params, 0), '\0'};
    return str_dup(byte);
}

char* op_ascii(int, char** params)
{
    const char* text = params[0];
    return str_dup(fmt_int(text ? (signed char)text[0] : 0).text);
}

// Note the order: the needle comes first.
char* op_findstr(int, char** params)
{
    const char* found = str_find(params[1], params[0]);
    return str_dup(fmt_int(found ? (int)(found - params[1]) : -1).text);
}

} // namespace

// clang-format off
extern constexpr op_row strings_rows[] = {
    // name        handler       params  flags
    {"length",     op_length,    1,      0},
    {"mid",        op_mid,       3,      0},
    {"left",       op_left,      2,      0},
    {"right",      op_right,     2,      0},
    {"char",       op_char,      1,      0},
    {"ascii",      op_ascii,     1,      0},
    {"findstr",    op_findstr,   2,      0},
};
// clang-format on

void register_string_ops()
{
    register_rows(strings_rows);
}
