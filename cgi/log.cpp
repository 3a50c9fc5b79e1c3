// The fatal error page.
#include "cgi/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cgi/response.h"
#include "core/number.h"
#include "core/run.h"
#include "core/setting.h"
#include "core/str.h"
#include "interp/request.h"

namespace {

constexpr size_t MESSAGE_SIZE = 1024; // a longer message is cut

// The reason phrase of the statuses an error page is sent with.
const char* fatal_reason(int status)
{
    switch (status) {
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    default:
        return "Internal Server Error";
    }
}

// Writes text with the bytes HTML gives a meaning written as character references.
void fatal_write_escaped(FILE* out, const char* text)
{
    for (const char* p = text; *p; p++) {
        switch (*p) {
        case '&':
            fputs("&amp;", out);
            break;
        case '<':
            fputs("&lt;", out);
            break;
        case '>':
            fputs("&gt;", out);
            break;
        case '"':
            fputs("&quot;", out);
            break;
        case '\'':
            fputs("&#39;", out);
            break;
        default:
            fputc(*p, out);
        }
    }
}

} // namespace

void fatal_error(int status, const char* shown, const char* format, ...)
{
    log_line(LOG_ERROR, "script error by host %s", str_or_null(getenv("REMOTE_ADDR")));
    char message[MESSAGE_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    log_line(LOG_ERROR, "%s", message);
    bool safe = setting_on("TESSEL_SAFE_ERROR_PAGES");
    // An operator that wrote a whole response of its own (a download, a picture) switched the
    // page's output off: an error page would only be appended to that response's body.
    if (safe && !req.output_enabled)
        run_end(253);
    if (safe) {
        str_holder line(str_join(fmt_int(status).text, " ", fatal_reason(status), nullptr));
        response_header("Status", line.get());
    }
    response_header("Content-type", "text/html");
    response_end_header();
    FILE* out = response_stream();
    fputs("<html><head><title>Error!</title></head><body bgcolor=white><h2>\n", out);
    if (safe)
        fatal_write_escaped(out, shown);
    else
        fputs(message, out);
    fputs("</h2></body></html>\n", out);
    fflush(out);
    run_end(253);
}
