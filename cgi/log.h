// The fatal error page (exit 253), beside the logs of core/log.h.
#ifndef TESSEL_CGI_LOG_H
#define TESSEL_CGI_LOG_H

#include "core/log.h"

// Logs "script error by host ..." and the message, prints the HTML error page with its own
// Content-type header and exits with status 253.
[[noreturn]] void fatal_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
