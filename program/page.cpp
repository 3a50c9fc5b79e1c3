// The page main: .profile, checks, registration, macros, the page and the response.
#include "program/page.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "cgi/dispatch.h"
#include "cgi/form.h"
#include "cgi/log.h"
#include "cgi/request.h"
#include "cgi/response.h"
#include "core/environment.h"
#include "core/file.h"
#include "core/log.h"
#include "core/number.h"
#include "core/str.h"
#include "interp/macros.h"
#include "ops/ops.h"

namespace {

#if defined(__SSE2__)
// Bit i set when byte i of the 16 at p is a line break, or (html) a space or tab.
unsigned blank_bits(const unsigned char* p, bool html)
{
    __m128i v = _mm_loadu_si128((const __m128i*)p);
    __m128i m = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\n')),
                             _mm_cmpeq_epi8(v, _mm_set1_epi8('\r')));
    if (html)
        m = _mm_or_si128(m, _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(' ')),
                                         _mm_cmpeq_epi8(v, _mm_set1_epi8('\t'))));
    return (unsigned)_mm_movemask_epi8(m);
}
#endif

// Runs of blanks shrink to their first character. With html set the set is space, tab and
// line breaks and a leading run keeps one character; otherwise it is line breaks only and
// leading line breaks all go (the state starts as if one had just been kept).
void compact_runs(char* text, bool html)
{
    // Bit 1: a line break, a blank in both modes; bit 2: space or tab, a blank in HTML only.
    static constexpr auto kinds = [] {
        std::array<unsigned char, 256> k{};
        k['\n'] = k['\r'] = 1;
        k[' '] = k['\t'] = 2;
        return k;
    }();
    constexpr int BLOCK = 16;
    const unsigned char mask = html ? 3 : 1;
    bool after_blank = !html;
    const unsigned char* in = (const unsigned char*)text;
    const unsigned char* end = in + strlen(text);
    unsigned char* out = (unsigned char*)text;
    while (in < end) {
#if defined(__SSE2__)
        // A block in which no blank follows a blank moves as a whole (the write position
        // never passes the read position, so the store only covers bytes already read).
        if (end - in >= BLOCK) {
            unsigned blanks = blank_bits(in, html);
            if (!(blanks & (blanks << 1)) && !(after_blank && (blanks & 1))) {
                _mm_storeu_si128((__m128i*)out, _mm_loadu_si128((const __m128i*)in));
                out += BLOCK;
                in += BLOCK;
                after_blank = blanks >> (BLOCK - 1);
                continue;
            }
        }
#endif
        // Byte by byte: every byte is written, and the write position advances unless the
        // byte is a blank right after a blank.
        const unsigned char* stop = in + int_min(BLOCK, (int)(end - in));
        for (; in < stop; in++) {
            bool blank = kinds[*in] & mask;
            *out = *in;
            out += !(blank && after_blank);
            after_blank = blank;
        }
    }
    *out = '\0';
}

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

// A run that passes the CPU time the server allows it (Apache's RLimitCPU) is sent SIGXCPU;
// it ends as other fatal conditions do: one error-log line and status 254, no page. The
// signal may come in the middle of malloc or localtime, so the line is built with
// async-signal-safe calls only.
void on_cpu_limit(int)
{
    log_signal_line("CPU time limit exceeded");
    _exit(254);
}

// A page that expanded to nothing ends the run. The log names the page's file; a safe error
// page shows the request URI instead. A page file that is missing, is no regular file or
// cannot be read is, for the visitor, no page at all (404): answering 403 would tell that a
// file of that name exists. One that was read but printed nothing is the site's fault (500).
[[noreturn]] void page_unprintable()
{
    struct stat info;
    bool readable = stat(req.page_path, &info) == 0 && S_ISREG(info.st_mode) &&
                    access(req.page_path, R_OK) == 0;
    str_holder shown(
        str_join(readable ? "unable to print " : "page not found: ", req.request_uri, nullptr));
    fatal_error(readable ? 500 : 404, shown.get(), "unable to print %s", req.page_path);
}

} // namespace

int serve_request()
{
    tune_allocator();
    signal(SIGXCPU, on_cpu_limit);
    return serve_request_from(stdin, stdout);
}

int serve_request_from(FILE* in, FILE* out)
{
    umask(002);
    request_init();
    req.input_stream = in;
    req.output_stream = out;
    if (read_form_input() != 0) {
        form_free_all();
        return 255;
    }
    render_page();
    form_free_all();
    fflush(out);
    return 0;
}

void apply_profile()
{
    char* text = read_file(".profile", false, false);
    char* cursor = text;
    // Only lines that end with a line feed count: a last line without one is not applied.
    while (cursor) {
        char* line = str_take_token(cursor, '\n');
        if (!cursor)
            break;
        char* value = str_cut_at(line, '=');
        if (value)
            env_set(line, value);
    }
    str_free(text);
}

void compact_page(char* text)
{
    if (text && req.compaction_enabled)
        compact_runs(text, !req.content_type);
}

void render_page()
{
    apply_profile();
    req.request_uri = str_dup(getenv("REQUEST_URI"));
    req.page_path = str_dup(req.cgi.path_translated);
    // A request that names no page (the program's own URL with nothing after it) is the
    // caller's fault, hence 400; the banner names the build, so a safe page leaves it out.
    if (!str_nonempty(req.request_uri) || !str_nonempty(req.page_path))
        fatal_error(400, "no page requested", "%s", TESSEL_BANNER);
    if (dispatch_is_illegal_call(req.request_uri, req.cgi.script_name))
        fatal_error(403, "illegal call", "illegal call");

    register_all_operators();
    macro_init();
    // Held: an error page ends a resident worker's request by an exception, and the worker
    // lives on.
    str_holder page(load_page(req.page_path));
    compact_page(page.get());
    if (!str_nonempty(page.get())) // an empty page file, one of comments only, a folder
        page_unprintable();

    if (req.output_enabled) {
        // The header goes out in pieces (cgi/response.h): a small page needs no printf.
        size_t length = strlen(page.get());
        response_content(response_content_type(), (int)length);
        response_end_header();
        fwrite(page.get(), 1, length, response_stream());
    }
    str_free(req.request_uri);
    str_free(req.page_path);
    req.request_uri = req.page_path = nullptr;
}
