// Program entry: one run serves one request.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/form.h"
#include "cgi/request.h"
#include "core/log.h"
#include "program/page.h"

namespace {

// The largest block the allocator takes from its heap rather than from a mapping of its own.
constexpr int HEAP_BLOCK_MAX = 32 << 20;

// The process lives for one request, so memory handed back to the kernel would only be
// faulted in again by the next growth of a text: the heap never shrinks, and blocks up to
// HEAP_BLOCK_MAX stay on it instead of being mapped and unmapped one by one.
void tune_allocator()
{
    mallopt(M_TRIM_THRESHOLD, -1);
    mallopt(M_MMAP_THRESHOLD, HEAP_BLOCK_MAX);
}

// A POST body is read when its content type is urlencoded or multipart (a prefix match either
// way, so "multipart/form-data; boundary=..." and an empty type both select multipart).
int read_body()
{
    const char* type = req.cgi.content_type;
    if (strcasecmp(type, "application/x-www-form-urlencoded") == 0)
        return read_post_body(false);
    const char* multipart = "multipart/form-data";
    size_t shorter = std::min(strlen(type), strlen(multipart));
    if (strncasecmp(type, multipart, shorter) == 0)
        return read_post_body(true);
    return 0;
}

// A run that passes the CPU time the server allows it (Apache's RLimitCPU) is sent SIGXCPU;
// it ends as other fatal conditions do: one error-log line and status 254, no page.
void on_cpu_limit(int)
{
    log_line(LOG_ERROR, "CPU time limit exceeded");
    _exit(254);
}

} // namespace

int main()
{
    tune_allocator();
    signal(SIGXCPU, on_cpu_limit);
    umask(002);
    request_init();
    read_query_string();
    if (strcasecmp(req.cgi.request_method, "post") == 0 && read_body() != 0) {
        form_free_all();
        return 255;
    }
    render_page();
    form_free_all();
    fflush(stdout);
    return 0;
}
