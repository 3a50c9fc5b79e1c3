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

} // namespace

// clang-format off
extern constexpr op_row optimize_rows[] = {
    // name       handler       params  flags
    {"optimize",  op_optimize,  1,      0},
};
// clang-format on

void register_optimize_ops()
{
    register_rows(optimize_rows);
}
