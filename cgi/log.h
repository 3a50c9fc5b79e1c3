// The fatal error page (exit 253), beside the logs of core/log.h.
#ifndef TESSEL_CGI_LOG_H
#define TESSEL_CGI_LOG_H

#include "core/log.h"

// Logs "script error by host ..." and the message, prints the HTML error page with its own
// Content-type header and ends the run with status 253 (core/run.h). The page shows the message as
// it is, with no status line, unless the setting TESSEL_SAFE_ERROR_PAGES is "1": the message may
// name files or the build, so then the page shows shown instead, escaped for HTML, after a "Status:
// STATUS REASON" line, and nothing at all is printed once an operator has sent a response of its
// own (output switched off). The log gets the message either way. shown must not be null.
[[noreturn]] void fatal_error(int status, const char* shown, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
