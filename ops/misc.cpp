// Small utilities: comments, alternation, the date, sums, re-expansion, escaping scopes and
// random numbers.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "core/number.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

constexpr int DEFAULT_RANDOM_BOUND = 1000000;
constexpr int DATE_BUFFER = 1024;

int alternation = 0;        // last index `color` returned
bool random_seeded = false; // the generator is seeded once per process

// The time an offset text names: "+2d", "-3h", "+10m" or "+5" move now; without a sign the
// number is an absolute Unix time. The last byte picks the unit.
time_t date_apply_offset(time_t now, const char* offset)
{
    long n = atoi(offset);
    switch (offset[strlen(offset) - 1]) {
    case 'd':
        n *= 86400;
        break;
    case 'h':
        n *= 3600;
        break;
    case 'm':
        n *= 60;
        break;
    default:
        break;
    }
    return offset[0] == '+' || offset[0] == '-' ? now + n : static_cast<time_t>(n);
}

// rem[...]: a comment; its parameters are never expanded.
char* op_rem(int, char**)
{
    return nullptr;
}

// color[first;second]: the second parameter, then the first, and so on by turns.
char* op_color(int count, char** params)
{
    alternation = (alternation + 1) % 2;
    return str_dup(param_text(count, params, alternation));
}

// date[format;offset]: the local time by strftime, or the Unix time when format is empty.
char* op_date(int count, char** params)
{
    time_t t = time(nullptr);
    const char* offset = param_text(count, params, 1);
    if (str_nonempty(offset))
        t = date_apply_offset(t, offset);
    const char* format = param_text(count, params, 0);
    if (!str_nonempty(format))
        return str_dup(fmt_int(static_cast<int>(t)).text);
    struct tm local;
    if (!localtime_r(&t, &local))
        return nullptr;
    char buffer[DATE_BUFFER];
    size_t n = strftime(buffer, sizeof buffer, format, &local);
    return n ? str_dup_n(buffer, n) : nullptr;
}

// sum[a;b]: the integers added (wrapping like the machine's int).
char* op_sum(int count, char** params)
{
    unsigned a = static_cast<unsigned>(param_int(count, params, 0));
    unsigned b = static_cast<unsigned>(param_int(count, params, 1));
    return str_dup(fmt_int(static_cast<int>(a + b)).text);
}

// process[text]: the text expanded once with escaping off, then expanded again.
char* op_process(int count, char** params)
{
    {
        escape_mode_scope scope(ESCAPE_MODE_NONE);
        for (int i = 0; i < count; i++)
            params[i] = expand_for_second_pass(params[i]);
    }
    return expand_copy(params[0]);
}

// level[mode;body]: the body expanded under the named escaping mode.
char* op_level(int, char** params)
{
    expand_param(params, 0);
    escape_mode_scope scope(ESCAPE_MODE_KEEP); // restores the mode in force now
    escape_mode_by_name(params[0]);
    return expand_copy(params[1]);
}

// random[bound]: a pseudo-random number below bound (1000000 when it is not positive).
char* op_random(int count, char** params)
{
    if (!random_seeded) {
        srand(static_cast<unsigned>(time(nullptr) + getpid()));
        rand();
        random_seeded = true;
    }
    int bound = param_int(count, params, 0);
    if (bound <= 0)
        bound = DEFAULT_RANDOM_BOUND;
    return str_dup(fmt_int(rand() % bound).text);
}

} // namespace

// clang-format off
extern constexpr op_row misc_rows[] = {
    // name      handler      params  flags       accepted
    {"rem",      op_rem,      0,      RAW_PARAMS},
    {"color",    op_color,    2,      0},
    {"date",     op_date,     0,      0,          {1, 2}},
    {"sum",      op_sum,      2,      0},
    {"process",  op_process,  1,      RAW_PARAMS},
    {"level",    op_level,    2,      RAW_PARAMS},
    {"random",   op_random,   0,      0,          {1, 1}},
};
// clang-format on

void register_misc_ops()
{
    register_rows(misc_rows);
}

void misc_reset()
{
    alternation = 0;
}
