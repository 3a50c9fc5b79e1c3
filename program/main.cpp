// Program entry: one run serves one request. The command line is ignored: run by hand, the
// program shows its banner, whatever its arguments.
#include "ops/resource_log.h"
#include "program/page.h"

int main()
{
    resource_log_start(); // its line is written at exit, after everything else
    return serve_request();
}
