// The lock family: `lock` runs a part of a page while it holds an exclusive lock on a lock file,
// so that a read-modify-write of a table (load, change, save) is whole however many requests
// run it at once.
//
// The lock file is "_NAME.lock" beside the page (under the document root for "/NAME"): a name
// with "_" in front, private like the table files, and never replaced, so a lock on it holds
// while the files it guards are replaced by rename.
#include <cstring>
#include <unistd.h>

#include "core/file.h"
#include "core/log.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

// The locks this process holds, innermost first: a nested lock of a name already held runs
// its body at once (a second flock on the same file would wait for this very process).
struct held_lock {
    const char* path;
    held_lock* outer;
};
held_lock* innermost = nullptr;

bool lock_held(const char* path)
{
    for (held_lock* h = innermost; h; h = h->outer)
        if (strcmp(h->path, path) == 0)
            return true;
    return false;
}

// Holds the lock of one file for its lifetime, also when an exception passes through.
class lock_scope {
public:
    lock_scope(int fd, const char* path) : fd_(fd), held_{path, innermost} { innermost = &held_; }
    ~lock_scope()
    {
        innermost = held_.outer;
        close(fd_); // releases the lock
    }
    lock_scope(const lock_scope&) = delete;
    lock_scope& operator=(const lock_scope&) = delete;

private:
    int fd_;
    held_lock held_;
};

// "_NAME.lock" in the folder of the resolved name. Ownership: borrows name, new result.
char* lock_file_name(const char* name)
{
    str_holder path(resolve_private_path(name));
    return str_join(path.get(), ".lock", nullptr);
}

// lock[name;body]: the body expanded while the lock of name is held.
char* op_lock(int, char** params)
{
    {
        escape_mode_scope none(ESCAPE_MODE_NONE);
        expand_param(params, 0);
    }
    const char* name = str_or_empty(params[0]);
    str_holder path(lock_file_name(name));
    if (lock_held(path.get()))
        return expand_copy(params[1]);
    int fd = lock_file_open(path.get());
    if (fd < 0) {
        str_holder reason(system_error_text());
        log_line(LOG_ERROR, "lock '%s' failed: %s", path.get(), reason.get());
        return page_error("[lock '%s' failed: %s]", name, reason.get());
    }
    lock_scope held(fd, path.get());
    return expand_copy(params[1]);
}

} // namespace

// clang-format off
extern constexpr op_row lock_rows[] = {
    // name    handler   params  flags
    {"lock",   op_lock,  2,      RAW_PARAMS},
};
// clang-format on

void register_lock_ops()
{
    register_rows(lock_rows);
}

void lock_reset()
{
    innermost = nullptr;
}
