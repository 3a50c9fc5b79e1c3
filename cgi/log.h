// The access and error logs, the fatal log line (exit 254) and the fatal error page (exit 253).
#ifndef TESSEL_CGI_LOG_H
#define TESSEL_CGI_LOG_H

constexpr int LOG_ACCESS = 0;
constexpr int LOG_ERROR = 1;

// Appends "[%d/%b/%Y %H:%M:%S] PATH: message\n" to the selected log (standard error when it
// cannot be opened). The line is cut at 1024 bytes.
void log_line(int selector, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Log the message to the error log and exit with status 254, printing nothing: exhausted
// memory and container misuse. They format into a fixed buffer and never touch the heap.
[[noreturn]] void fatal_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void fatal_out_of_memory(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

// Logs "script error by host ..." and the message, prints the HTML error page with its own
// Content-type header and exits with status 253.
[[noreturn]] void fatal_error(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
