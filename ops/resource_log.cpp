// The resource log written at exit for expensive requests, and its (operator-less) family.
#include "ops/resource_log.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "core/number.h"
#include "core/str.h"
#include "ops/ops.h"

namespace {

constexpr size_t LINE_SIZE = 1024;
constexpr size_t SERVER_NAME_MAX = 100;

// The one process-wide record of settings; no template means nothing is logged.
struct resource_log_settings {
    char* path_template = nullptr;
    double cpu_threshold = 0;
    double memory_threshold = 0;
} settings;

// The process's usage when the request began: nothing for the CGI program, whose request is
// its whole life; a resident worker's earlier requests otherwise.
struct rusage baseline = {};

// a - b, for a timeval of a later reading.
struct timeval usage_since(const struct timeval& a, const struct timeval& b)
{
    long usec = (a.tv_sec - b.tv_sec) * 1000000L + (a.tv_usec - b.tv_usec);
    return {usec / 1000000L, usec % 1000000L};
}

// The template with its first "%s" replaced by name, cut to fit path. Written into a fixed
// buffer: the log may be written on the way out after memory ran out.
void resource_log_path(const char* name, char (&path)[PATH_MAX])
{
    const char* tmpl = settings.path_template;
    const char* mark = strstr(tmpl, "%s");
    int before = mark ? (int)(mark - tmpl) : (int)strlen(tmpl);
    snprintf(path, sizeof path, "%.*s%s%s", before, tmpl, mark ? name : "", mark ? mark + 2 : "");
}

// The log line for usage, cut at LINE_SIZE - 1 bytes; returns its length.
size_t resource_log_format(const struct rusage& usage, char* line)
{
    time_t now = time(nullptr);
    struct tm local;
    size_t n =
        localtime_r(&now, &local) ? strftime(line, LINE_SIZE, "[%d/%b/%Y %H:%M:%S] ", &local) : 0;
    int written = snprintf(line + n, LINE_SIZE - n, "%.3d.%.2ds %.3d.%.2ds  %d %d %d %s\n",
                           (int)usage.ru_utime.tv_sec, (int)(usage.ru_utime.tv_usec / 10000),
                           (int)usage.ru_stime.tv_sec, (int)(usage.ru_stime.tv_usec / 10000),
                           (int)usage.ru_ixrss, (int)usage.ru_idrss, (int)usage.ru_isrss,
                           str_or_null(getenv("REQUEST_URI")));
    return n + (size_t)int_min(int_max(written, 0), (int)(LINE_SIZE - n - 1));
}

// True when usage passes the CPU threshold, or else the memory threshold.
bool resource_log_expensive(const struct rusage& usage)
{
    double cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
                 usage.ru_stime.tv_usec / 1e6;
    double memory = ((double)usage.ru_ixrss + usage.ru_idrss + usage.ru_isrss) / 1024;
    return cpu > settings.cpu_threshold || memory > settings.memory_threshold;
}

// The server's name as it goes into the file name: letters (lower-cased), digits, "." and "-"
// only, at most SERVER_NAME_MAX of them; "unknown" when none is left. A server may take the
// name from the client's Host header, which must name no other file than a log.
void resource_log_server_name(char (&name)[SERVER_NAME_MAX + 1])
{
    size_t size = 0;
    for (const char* p = str_or_empty(getenv("SERVER_NAME")); *p && size < SERVER_NAME_MAX; p++) {
        char c = *p >= 'A' && *p <= 'Z' ? (char)(*p - 'A' + 'a') : *p;
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-')
            name[size++] = c;
    }
    name[size] = '\0';
    if (size == 0)
        strcpy(name, "unknown");
}

// Appends the line to the log of this server; a file that cannot be opened is skipped.
void resource_log_append(const struct rusage& usage)
{
    char server[SERVER_NAME_MAX + 1];
    resource_log_server_name(server);
    char path[PATH_MAX];
    resource_log_path(server, path);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (fd < 0)
        return;
    char line[LINE_SIZE];
    size_t size = resource_log_format(usage, line);
    [[maybe_unused]] ssize_t ignored = write(fd, line, size);
    close(fd);
}

} // namespace

void resource_log_start()
{
    static bool started = false;
    resource_log_setup(RESOURCE_LOG_TEMPLATE, RESOURCE_LOG_CPU_SECONDS, RESOURCE_LOG_MEMORY);
    if (!started)
        atexit(resource_log_finish); // registered first, so it runs after the other exit actions
    started = true;
}

void resource_log_request_start()
{
    resource_log_setup(RESOURCE_LOG_TEMPLATE, RESOURCE_LOG_CPU_SECONDS, RESOURCE_LOG_MEMORY);
    getrusage(RUSAGE_SELF, &baseline);
}

void resource_log_setup(const char* path_template, double cpu_threshold, double memory_threshold)
{
    str_free(settings.path_template);
    settings = {str_dup(path_template), cpu_threshold, memory_threshold};
}

void resource_log_configure(const char* path_template, const char* cpu_threshold,
                            const char* memory_threshold)
{
    resource_log_setup(path_template, atof(str_or_empty(cpu_threshold)),
                       atof(str_or_empty(memory_threshold)));
}

void resource_log_finish()
{
    if (!settings.path_template)
        return;
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        usage.ru_utime = usage_since(usage.ru_utime, baseline.ru_utime);
        usage.ru_stime = usage_since(usage.ru_stime, baseline.ru_stime);
        if (resource_log_expensive(usage))
            resource_log_append(usage);
    }
    str_free(settings.path_template);
    settings.path_template = nullptr;
}

// The resource log has no operators: its work is done at exit. The family keeps its place in
// the registration order all the same.
void register_resource_log_ops() {}
