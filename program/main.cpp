// Program entry: one run serves one request. The command line is ignored: run by hand, the
// program shows its banner, whatever its arguments.
#include "program/page.h"

int main()
{
    return serve_request();
}
