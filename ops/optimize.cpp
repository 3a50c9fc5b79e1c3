// The optimize family: switches the compaction of the rendered page.
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

char* op_optimize(int count, char** params)
{
    req.compaction_enabled = !str_equal(param_text(count, params, 0), "no");
    return nullptr;
}

// clang-format off
constexpr op_row rows[] = {
    // name       handler       params  flags
    {"optimize",  op_optimize,  1,      0},
};
// clang-format on

} // namespace

void register_optimize_ops()
{
    register_rows(rows);
}
