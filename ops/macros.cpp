// The macro family: `macro`, `macro_new`, `macro_use` and `macro_exists`.
#include "interp/macros.h"
#include "core/str.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

// macro[name;arg1;...]: the body with "$n" replaced by the raw arguments, then expanded.
char* op_macro(int count, char** params)
{
    return macro_call(count, params);
}

// macro_new[header;body]: the header is expanded, the body stored as written.
char* op_macro_new(int, char** params)
{
    expand_param(params, 0);
    macro_define(params[0], params[1]);
    return nullptr;
}

char* op_macro_use(int, char** params)
{
    return macro_use(params[0]);
}

char* op_macro_exists(int, char** params)
{
    return macro_body(params[0]) ? str_dup("yes") : nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row macros_rows[] = {
    // name          handler          params  flags
    {"macro",        op_macro,        0,      RAW_PARAMS | LAZY_PARAMS},
    {"macro_new",    op_macro_new,    2,      RAW_PARAMS},
    {"macro_use",    op_macro_use,    1,      0},
    {"macro_exists", op_macro_exists, 1,      0},
};
// clang-format on

void register_macro_ops()
{
    register_rows(macros_rows);
}
