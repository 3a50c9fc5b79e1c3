// The access and error logs and the fatal log line.
#include "core/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "core/local_time.h"
#include "core/run.h"

namespace {

constexpr int LINE_SIZE = 1024;

char* const* bound_page_path = nullptr;
const char* const* bound_files = nullptr;

// The page path a line carries.
const char* page_path_shown()
{
    return bound_page_path && *bound_page_path ? *bound_page_path : "[path=null]";
}

// Appends the line of used bytes to the selected log in a single write; standard error when
// the log cannot be opened.
void append_line(int selector, const char* line, size_t used)
{
    const char* name = bound_files ? bound_files[selector == LOG_ACCESS ? 0 : 1] : nullptr;
    int fd = name ? open(name, O_WRONLY | O_APPEND | O_CREAT, 0666) : -1;
    ssize_t written = write(fd >= 0 ? fd : 2, line, used);
    (void)written;
    if (fd >= 0)
        close(fd);
}

// Builds one log line in a fixed buffer (no heap, so the out-of-memory path can use it) and
// appends it.
void write_log_line(int selector, const char* format, va_list args)
{
    char line[LINE_SIZE];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    size_t used = strftime(line, sizeof line, "[%d/%b/%Y %H:%M:%S] ", &local);
    int n = snprintf(line + used, sizeof line - used, "%s: ", page_path_shown());
    used = n < 0 ? used : std::min(sizeof line - 1, used + n);
    n = vsnprintf(line + used, sizeof line - used, format, args);
    used = n < 0 ? used : std::min(sizeof line - 2, used + n);
    line[used++] = '\n';
    append_line(selector, line, used);
}

// Appends text to the line at used, keeping the last two bytes for the line end as
// write_log_line does; the new used.
size_t put_text(char* line, size_t used, const char* text)
{
    while (*text && used < LINE_SIZE - 2)
        line[used++] = *text++;
    return used;
}

// Appends value in decimal, zero-padded to width digits.
size_t put_number(char* line, size_t used, int64_t value, int width)
{
    char digits[24];
    int n = 0;
    bool negative = value < 0;
    uint64_t rest = negative ? 0 - (uint64_t)value : (uint64_t)value;
    do {
        digits[n++] = '0' + rest % 10;
        rest /= 10;
    } while (rest || n < width);
    if (negative)
        used = put_text(line, used, "-");
    while (n > 0 && used < LINE_SIZE - 2)
        line[used++] = digits[--n];
    return used;
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

void log_signal_line(const char* message)
{
    static constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    // time(), as log_line uses: it reads the kernel's coarse clock, which can lag the precise
    // one by a tick, so another clock could stamp the same instant a second later.
    time_t now = time(nullptr);
    civil_time local = local_time_civil(now, local_time_offset(now));
    char line[LINE_SIZE];
    size_t used = put_text(line, 0, "[");
    used = put_number(line, used, local.day, 2);
    used = put_text(line, used, "/");
    used = put_text(line, used, MONTHS[local.month - 1]);
    used = put_text(line, used, "/");
    used = put_number(line, used, local.year, 4);
    used = put_text(line, used, " ");
    used = put_number(line, used, local.hour, 2);
    used = put_text(line, used, ":");
    used = put_number(line, used, local.minute, 2);
    used = put_text(line, used, ":");
    used = put_number(line, used, local.second, 2);
    used = put_text(line, used, "] ");
    used = put_text(line, used, page_path_shown());
    used = put_text(line, used, ": ");
    used = put_text(line, used, message);
    line[used++] = '\n';
    append_line(LOG_ERROR, line, used);
}

void log_fatal(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_log_line(LOG_ERROR, format, args);
    va_end(args);
    run_end_spoiled(254);
}
