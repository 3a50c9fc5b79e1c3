// The counter family: hit counters kept in "<name>.count" files beside the page.
//
// A count file holds the count as ten digits with leading zeros and no line end. Requests that
// share a counter are serialised by an exclusive flock on the file.
#include <cstdio>
#include <unistd.h>

#include "core/file.h"
#include "core/number.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// Reads the count and writes it back one higher, all under the lock; false when the digits
// could not be written (a full disk, for a new file), with errno set. The caller closes the
// file after the release.
bool counter_bump(FILE* file, int& count)
{
    lock_stream(file);
    count = 0;
    if (fscanf(file, "%d", &count) != 1)
        count = 0;
    count = (int)((unsigned)count + 1); // wraps at the top of the int range
    rewind(file);
    fprintf(file, "%010d", count);
    // The digits must reach the file before the lock goes: left in the stream's buffer until
    // the close, a request waiting for the lock would read the old count and one hit be lost.
    bool written = fflush(file) == 0;
    unlock_stream(file);
    return written;
}

// counter[name]: the count of "<name>.count", one higher than before.
char* op_counter(int, char** params)
{
    str_holder path(str_join(str_holder(resolve_path(params[0])).get(), ".count", nullptr));
    str_holder as_written(str_join(str_or_empty(params[0]), ".count", nullptr));
    const char* shown = request_path_shown(path.get(), as_written.get());
    // A missing file is created empty. Opened to append, never to truncate: another request
    // may create it and count into it between the test and the open, and truncating would
    // throw its count away.
    if (access(path.get(), F_OK) != 0) {
        if (FILE* created = fopen(path.get(), "a"))
            fclose(created);
    }
    if (access(path.get(), R_OK | W_OK) != 0)
        return page_error("[counter: count file \"%s\" not writable or non-existant.]", shown);
    FILE* file = fopen(path.get(), "r+");
    if (!file)
        return page_error("[counter: count file \"%s\" not readable or non-existant.]", shown);
    int count = 0;
    bool written = counter_bump(file, count);
    fclose(file);
    if (written)
        return str_dup(fmt_int(count).text);
    str_holder reason(system_error_text());
    return page_error_logged("[counter: count file \"%s\" not written: %s]", shown, reason.get());
}

} // namespace

// clang-format off
extern constexpr op_row counter_rows[] = {
    // name       handler      params  flags
    {"counter",   op_counter,  1,      0},
};
// clang-format on

void register_counter_ops()
{
    register_rows(counter_rows);
}
