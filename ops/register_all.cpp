// Registers the operator families at run time, in the order of OPERATOR_FAMILIES (ops/ops.h).
#include "ops/ops.h"

#include "interp/registry.h"

void register_all_operators()
{
    // The program's registry was filled at build time from the same list.
    if (registry_prefilled())
        return;
    for (const op_family& family : OPERATOR_FAMILIES)
        registry_add_family(family.rows, family.count, family.name);
}
