// The access and error logs and the fatal log line.
#include "core/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int LINE_SIZE = 1024;

char* const* bound_page_path = nullptr;
const char* const* bound_files = nullptr;

// Builds one log line in a fixed buffer (no heap, so the out-of-memory path can use it) and
// appends it with a single write; standard error when the log cannot be opened.
void write_log_line(int selector, const char* format, va_list args)
{
    char line[LINE_SIZE];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    size_t used = strftime(line, sizeof line, "[%d/%b/%Y %H:%M:%S] ", &local);
    const char* path = bound_page_path && *bound_page_path ? *bound_page_path : "[path=null]";
    int n = snprintf(line + used, sizeof line - used, "%s: ", path);
    used = n < 0 ? used : std::min(sizeof line - 1, used + n);
    n = vsnprintf(line + used, sizeof line - used, format, args);
    used = n < 0 ? used : std::min(sizeof line - 2, used + n);
    line[used++] = '\n';

    const char* name = bound_files ? bound_files[selector == LOG_ACCESS ? 0 : 1] : nullptr;
    int fd = name ? open(name, O_WRONLY | O_APPEND | O_CREAT, 0666) : -1;
    ssize_t written = write(fd >= 0 ? fd : 2, line, used);
    (void)written;
    if (fd >= 0)
        close(fd);
}

} // namespace

void log_bind(char* const* page_path, const char* const* files)
{
    bound_page_path = page_path;
    bound_files = files;
}

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
