// Program entry: one run serves one request. The command line is ignored: run by hand, the
// program shows its banner, whatever its arguments.
#include "cgi/state_dir.h"
#include "ops/resource_log.h"
#include "program/page.h"

int main()
{
    resource_log_start(); // its line is written at exit, after everything else
    state_dir_enter();    // before anything reads or writes a file of the working folder
    return serve_request();
}
