// A resident worker's request, served as a fresh CGI process would serve it.
#include "program/resident.h"

#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include "cgi/state_dir.h"
#include "core/environment.h"
#include "core/run.h"
#include "interp/request.h"
#include "ops/resource_log.h"
#include "program/page.h"
#include "program/reset.h"

namespace {

int start_folder = -1; // the folder every request starts in, open

// The largest block the allocator takes from its heap rather than from a mapping of its own,
// and the free space at the top of the heap that it keeps rather than gives back.
constexpr int HEAP_BLOCK_MAX = 32 << 20;
constexpr int HEAP_FREE_KEPT = 8 << 20;

// A worker serves one request after another, and a page's texts are freed when it ends: were
// a large text mapped and unmapped, or the heap's top given back after each request, the next
// request would fault the same pages in again (a 176 KB page took 167 faults a request, most
// of its time). Up to HEAP_FREE_KEPT stays; a page that needed more gives the rest back.
void tune_worker_allocator()
{
    mallopt(M_MMAP_THRESHOLD, HEAP_BLOCK_MAX);
    mallopt(M_TRIM_THRESHOLD, HEAP_FREE_KEPT);
}

} // namespace

void resident_start()
{
    run_set_resident(true);
    tune_worker_allocator();
    request_env_remember();
    start_folder = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

resident_answer resident_serve(char** params, FILE* in, FILE* out)
{
    env_begin_request(params);
    tzset(); // the C library reads TZ once otherwise, and a request may name another zone
    if (start_folder >= 0) {
        [[maybe_unused]] int ignored = fchdir(start_folder); // gone: the request runs where it is
    }
    resource_log_request_start();
    resident_answer answer;
    try {
        // A state folder that cannot be entered ends the request with the error page, which
        // goes where the response goes, not to the worker's own standard output.
        req.output_stream = out;
        state_dir_enter();
        answer.status = serve_request_from(in, out);
    } catch (const run_ended& ended) {
        answer = {ended.status, ended.signal, ended.worker_spoiled};
    } catch (const std::exception&) {
        // The CGI program would have ended with an uncaught exception: abort().
        answer = {128 + SIGABRT, SIGABRT, true};
    }
    fflush(out);
    resource_log_finish(); // reads the request's REQUEST_URI and SERVER_NAME
    request_reset();
    return answer;
}

bool resident_response_complete(const char* response, size_t size)
{
    // An empty line: the first one, or a line break right after another.
    const char* end = response + size;
    for (const char* line = response; line < end;) {
        const char* stop = (const char*)memchr(line, '\n', end - line);
        if (!stop)
            return false;
        if (stop == line || (stop == line + 1 && *line == '\r'))
            return true;
        line = stop + 1;
    }
    return false;
}
