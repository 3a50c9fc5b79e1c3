// How a run ends: exit in the CGI program, an exception in a resident worker.
#include "core/run.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

bool resident = false;

} // namespace

void run_set_resident(bool on)
{
    resident = on;
}

bool run_is_resident()
{
    return resident;
}

void run_end(int status)
{
    if (resident)
        throw run_ended{status, 0, false};
    exit(status);
}

void run_end_by_signal(int sig)
{
    if (resident)
        throw run_ended{128 + sig, sig, true};
    signal(sig, SIG_DFL);
    raise(sig);
    _exit(128 + sig); // not reached: the default action ends the process
}

void run_end_spoiled(int status)
{
    if (resident)
        throw run_ended{status, 0, true};
    exit(status);
}
