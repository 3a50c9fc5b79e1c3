// The access and error logs, the fatal log line and the fatal error page.
#include "cgi/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "cgi/request.h"

namespace {

constexpr int LINE_SIZE = 1024;

// Builds one log line in a fixed buffer (no heap, so the out-of-memory path can use it) and
// appends it with a single write; standard error when the log cannot be opened.
void write_log_line(int selector, const char* format, va_list args)
{
    char line[LINE_SIZE];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    size_t used = strftime(line, sizeof line, "[%d/%b/%Y %H:%M:%S] ", &local);
    const char* path = req.page_path ? req.page_path : "[path=null]";
    int n = snprintf(line + used, sizeof line - used, "%s: ", path);
    used = n < 0 ? used : std::min(sizeof line - 1, used + n);
    n = vsnprintf(line + used, sizeof line - used, format, args);
    used = n < 0 ? used : std::min(sizeof line - 2, used + n);
    line[used++] = '\n';

    const char* name = req.log_names[selector == LOG_ACCESS ? 0 : 1];
    int fd = name ? open(name, O_WRONLY | O_APPEND | O_CREAT, 0666) : -1;
    ssize_t written = write(fd >= 0 ? fd : 2, line, used);
    (void)written;
    if (fd >= 0)
        close(fd);
}

}  // namespace

void log_line(int selector, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_log_line(selector, format, args);
    va_end(args);
}

void fatal_log(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_log_line(LOG_ERROR, format, args);
    va_end(args);
    exit(254);
}

void fatal_out_of_memory(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_log_line(LOG_ERROR, format, args);
    va_end(args);
    exit(254);
}

void fatal_error(const char* format, ...)
{
    log_line(LOG_ERROR, "script error by host %s", getenv("REMOTE_ADDR") ?: "(null)");
    char message[LINE_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    log_line(LOG_ERROR, "%s", message);
    FILE* out = req.output_stream ? req.output_stream : stdout;
    fprintf(out, "Content-type: text/html\n\n"
                 "<html><head><title>Error!</title></head><body bgcolor=white><h2>\n"
                 "%s</h2></body></html>\n", message);
    fflush(out);
    exit(253);
}
