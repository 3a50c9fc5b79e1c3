// The exec family: runs a program in its own directory as a CGI program and takes its body.
//
// ^exec[path;query string;path info] runs "./<file>" through the shell in the program's
// directory, with DOCUMENT_URI, QUERY_STRING_UNESCAPED, QUERY_STRING and PATH_INFO set for it,
// and returns what it printed after its header block. The name goes to the shell unquoted: a
// site must never build it from form input.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/environment.h"
#include "core/str.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

constexpr size_t EXEC_CHUNK = 1024;

// Sets (or, for null, removes) an environment variable for its lifetime and then gives it back
// its earlier value, or removes it if it had none. Locals are destroyed in reverse order, so
// several of them are restored in the reverse of the order they were set.
class env_override {
public:
    env_override(const char* name, const char* value)
        : name_(name), had_(getenv(name) != nullptr), saved_(str_dup(getenv(name)))
    {
        if (value)
            env_set(name, value);
        else
            env_unset(name);
    }
    ~env_override()
    {
        if (had_)
            env_set(name_, str_or_empty(saved_.get()));
        else
            env_unset(name_);
    }
    env_override(const env_override&) = delete;
    env_override& operator=(const env_override&) = delete;

private:
    const char* name_;
    bool had_;
    str_holder saved_;
};

// Changes to dir (a failure is ignored) and back to the earlier directory, when it was known.
class dir_scope {
public:
    explicit dir_scope(const char* dir) : known_(getcwd(saved_, sizeof saved_) != nullptr)
    {
        [[maybe_unused]] int ignored = chdir(dir); // the command then runs where we are
    }
    ~dir_scope()
    {
        if (known_) {
            [[maybe_unused]] int ignored = chdir(saved_);
        }
    }
    dir_scope(const dir_scope&) = delete;
    dir_scope& operator=(const dir_scope&) = delete;

private:
    char saved_[PATH_MAX];
    bool known_;
};

// Everything the command prints, read in chunks until a read yields nothing.
void exec_read_all(const char* command, str_builder& out)
{
    FILE* pipe = popen(command, "r");
    if (!pipe)
        return;
    char chunk[EXEC_CHUNK];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        out.append(chunk, got);
    pclose(pipe);
}

// What follows the header block: the text after the first empty line (a line feed, then
// nothing but carriage returns, then a line feed). Null when there is no empty line.
// Ownership: borrows out, new result.
char* exec_body(const char* out, size_t size)
{
    const char* end = out + size;
    for (const char* p = (const char*)memchr(out, '\n', size); p;
         p = (const char*)memchr(p + 1, '\n', end - p - 1)) {
        const char* q = p + 1;
        while (q < end && *q == '\r')
            q++;
        if (q < end && *q == '\n')
            return str_dup_n(q + 1, end - q - 1);
    }
    return nullptr;
}

// The request's value of a CGI string, or null (remove the variable) when it has none.
const char* exec_or_remove(const char* value)
{
    return str_nonempty(value) ? value : nullptr;
}

char* op_exec(int count, char** params)
{
    str_holder path(resolve_path(params[0]));
    const char* slash = strrchr(path.get(), '/');
    str_holder dir(slash ? str_dup_n(path.get(), slash - path.get()) : nullptr);
    str_holder command(str_join("./", slash ? slash + 1 : path.get(), nullptr));
    dir_scope in_dir(str_or_empty(dir.get()));
    env_override uri("DOCUMENT_URI", exec_or_remove(req.request_uri));
    env_override unescaped("QUERY_STRING_UNESCAPED", exec_or_remove(req.cgi.query_string));
    env_override query("QUERY_STRING", count >= 2 ? str_or_empty(params[1]) : nullptr);
    env_override info("PATH_INFO", count >= 3 ? str_or_empty(params[2]) : nullptr);
    str_builder out;
    exec_read_all(command.get(), out);
    return exec_body(out.view(), out.size());
}

} // namespace

// clang-format off
extern constexpr op_row exec_rows[] = {
    // name    handler   params  flags    accepted
    {"exec",   op_exec,  0,      0,       {1, 3}},
};
// clang-format on

void register_exec_ops()
{
    register_rows(exec_rows);
}
