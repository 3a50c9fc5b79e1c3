// Putting a process back to the state of a fresh one between two requests.
#include "program/reset.h"

#include "cgi/form.h"
#include "core/environment.h"
#include "interp/expr.h"
#include "interp/request.h"
#include "ops/reset.h"

void request_env_remember()
{
    env_keep_base();
}

void request_reset()
{
    ops_reset_all();
    form_free_all();
    request_record_reset();
    expr_status = EXPR_OK;
    if (env_is_kept())
        env_end_request();
}
