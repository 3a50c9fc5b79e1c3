// The fatal error page.
#include "cgi/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "core/str.h"
#include "interp/request.h"

void fatal_error(const char* format, ...)
{
    log_line(LOG_ERROR, "script error by host %s", str_or_null(getenv("REMOTE_ADDR")));
    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    log_line(LOG_ERROR, "%s", message);
    FILE* out = req.output_stream ? req.output_stream : stdout;
    fprintf(out,
            "Content-type: text/html\n\n"
            "<html><head><title>Error!</title></head><body bgcolor=white><h2>\n"
            "%s</h2></body></html>\n",
            message);
    fflush(out);
    exit(253);
}
