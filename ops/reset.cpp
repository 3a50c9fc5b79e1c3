// Runs the operator families' resets.
#include "ops/reset.h"

void ops_reset_all()
{
    for (auto reset : OPERATOR_FAMILY_RESETS)
        reset();
}
