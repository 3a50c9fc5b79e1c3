// Putting a process back to the state of a fresh one between two requests.
#include "program/reset.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "cgi/form.h"
#include "interp/expr.h"
#include "interp/request.h"
#include "ops/reset.h"

namespace {

using environment = std::map<std::string, std::string>; // name -> value

// The remembered environment; null until request_env_remember.
environment* remembered = nullptr;

environment environment_now()
{
    environment now;
    for (char** entry = environ; *entry; entry++) {
        const char* equals = strchr(*entry, '=');
        if (equals)
            now.emplace(std::string(*entry, equals - *entry), equals + 1);
    }
    return now;
}

// Unsets the variables the request added and sets again those it changed or removed.
void environment_restore(const environment& wanted)
{
    for (const auto& [name, value] : environment_now())
        if (!wanted.count(name))
            unsetenv(name.c_str());
    for (const auto& [name, value] : wanted) {
        const char* now = getenv(name.c_str());
        if (!now || value != now)
            setenv(name.c_str(), value.c_str(), 1);
    }
}

} // namespace

void request_env_remember()
{
    delete remembered;
    remembered = new environment(environment_now());
}

void request_reset()
{
    ops_reset_all();
    form_free_all();
    request_record_reset();
    expr_status = EXPR_OK;
    if (remembered)
        environment_restore(*remembered);
}
