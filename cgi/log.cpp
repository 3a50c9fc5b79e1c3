// The fatal error page.
#include "cgi/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cgi/response.h"
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
    response_header("Content-type", "text/html");
    response_end_header();
    FILE* out = response_stream();
    fputs("<html><head><title>Error!</title></head><body bgcolor=white><h2>\n", out);
    fputs(message, out);
    fputs("</h2></body></html>\n", out);
    fflush(out);
    exit(253);
}
