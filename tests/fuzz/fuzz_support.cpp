// The scratch folder, the fresh request record for each input, and the jail: the targets are
// linked with --wrap for the calls that change files or start programs, so that whatever an
// input asks for, files change only inside the scratch folder and no program runs. Outside
// an input the calls pass through unchanged.
#include "fuzz_support.h"
#include "core/memory.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sanitizer/allocator_interface.h>
#include <sanitizer/lsan_interface.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>
#include <utility>
#include <vector>

#include "cgi/form.h"
#include "interp/request.h"

bool fuzz_running = false;

namespace {

std::string scratch;
std::vector<std::pair<std::string, std::string>> kept_environment;
bool environment_kept = false;

// True when path names a file directly inside folder or below it: the file's own folder, with
// every link and ".." resolved, is folder or lies under it.
bool inside(const std::string& folder, const char* path)
{
    if (!path || !*path || folder.empty())
        return false;
    std::string parent = path;
    size_t slash = parent.rfind('/');
    std::string base = slash == std::string::npos ? parent : parent.substr(slash + 1);
    parent = slash == std::string::npos ? "." : slash == 0 ? "/" : parent.substr(0, slash);
    char real[PATH_MAX];
    if (base == ".." || !realpath(parent.c_str(), real))
        return false;
    std::string resolved = real;
    return resolved == folder || resolved.compare(0, folder.size() + 1, folder + "/") == 0;
}

bool inside_scratch(const char* path)
{
    return inside(scratch, path);
}

// Outside an input every path is allowed. During one, the scratch folder, /dev/null and the
// folder named by TESSEL_FUZZ_WRITABLE, where libFuzzer writes what an input that crashed or
// hung was (it writes while the input still counts as running).
bool allowed(const char* path)
{
    static const std::string writable = [] {
        const char* folder = getenv("TESSEL_FUZZ_WRITABLE");
        char real[PATH_MAX];
        return folder && realpath(folder, real) ? std::string(real) : std::string();
    }();
    return !fuzz_running || inside_scratch(path) || inside(writable, path) ||
           (path && strcmp(path, "/dev/null") == 0);
}

void remove_tree(const std::string& folder)
{
    DIR* dir = opendir(folder.c_str());
    if (!dir)
        return;
    while (dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
            continue;
        std::string path = folder + "/" + entry->d_name;
        struct stat info;
        if (lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            remove_tree(path);
            rmdir(path.c_str());
        } else {
            unlink(path.c_str());
        }
    }
    closedir(dir);
}

// The blocks allocated during the current input and not yet freed, noted by the allocator's
// hooks. The set's own allocations come back through the hooks and are skipped.
std::unordered_set<const volatile void*>* live_blocks = nullptr;
bool in_hook = false;

void on_malloc(const volatile void* block, size_t)
{
    if (!fuzz_running || in_hook)
        return;
    in_hook = true;
    live_blocks->insert(block);
    in_hook = false;
}

void on_free(const volatile void* block)
{
    if (!fuzz_running || in_hook)
        return;
    in_hook = true;
    live_blocks->erase(block);
    in_hook = false;
}

} // namespace

void fuzz_input_begin()
{
    if (!live_blocks) {
        live_blocks = new std::unordered_set<const volatile void*>;
        __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
    }
    live_blocks->clear();
}

void fuzz_input_ended_fatally()
{
    for (const volatile void* block : *live_blocks)
        __lsan_ignore_object(const_cast<const void*>(block));
    live_blocks->clear();
}

const std::string& fuzz_scratch_init()
{
    char pattern[] = "/tmp/tessel-fuzz-XXXXXX";
    char* made = mkdtemp(pattern);
    if (!made)
        abort();
    char real[PATH_MAX];
    scratch = realpath(made, real) ? real : made;
    if (chdir(scratch.c_str()) != 0)
        abort();
    setenv("DOCUMENT_ROOT", scratch.c_str(), 1);
    setenv("TZ", "UTC", 1);
    return scratch;
}

void fuzz_keep_environment()
{
    kept_environment.clear();
    for (char** entry = environ; *entry; entry++) {
        const char* equals = strchr(*entry, '=');
        if (equals)
            kept_environment.emplace_back(std::string(*entry, equals - *entry), equals + 1);
    }
    environment_kept = true;
}

void fuzz_reset_request()
{
    remove_tree(scratch);
    if (environment_kept) {
        clearenv();
        for (const auto& [name, value] : kept_environment)
            setenv(name.c_str(), value.c_str(), 1);
    }
    form_free_all();
    str_free(req.content_type);
    str_free(req.request_uri);
    str_free(req.page_path);
    req.content_type = req.request_uri = req.page_path = nullptr;
    req.output_enabled = true;
    req.depth = 0;
    req.escape_mode = ESCAPE_MODE_HTML;
    req.compaction_enabled = 1;
    delete req.macros;
    delete req.variables;
    delete req.tables;
    req.macros = new sorted_map;
    req.variables = new sorted_map;
    req.tables = new table_array;
    req.log_names[0] = req.log_names[1] = "/dev/null";
    fuzz_quiet_output();
}

void fuzz_quiet_output()
{
    static FILE* null_stream = fopen("/dev/null", "w");
    req.output_stream = null_stream;
}

// ---- the jail ---------------------------------------------------------------------------

extern "C" {
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __real_exit(int status);
int __real_open(const char* path, int flags, ...);
FILE* __real_fopen(const char* path, const char* mode);
int __real_unlink(const char* path);
int __real_rename(const char* from, const char* to);
int __real_mkdir(const char* path, mode_t mode);
int __real_rmdir(const char* path);
int __real_truncate(const char* path, off_t length);
int __real_utime(const char* path, const void* times);

// A fatal exit while an input runs becomes an exception that fuzz_run catches.
[[noreturn]] void __wrap__exit(int status)
{
    if (fuzz_running)
        throw fuzz_fatal_exit{status};
    __real__exit(status);
}

[[noreturn]] void __wrap_exit(int status)
{
    if (fuzz_running)
        throw fuzz_fatal_exit{status};
    __real_exit(status);
}

int __wrap_open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & O_CREAT) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    bool changes = (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
    if (changes && !allowed(path))
        return errno = EACCES, -1;
    return __real_open(path, flags, mode);
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (strpbrk(mode, "wa+") && !allowed(path))
        return errno = EACCES, nullptr;
    return __real_fopen(path, mode);
}

int __wrap_unlink(const char* path)
{
    return allowed(path) ? __real_unlink(path) : (errno = EACCES, -1);
}

int __wrap_rename(const char* from, const char* to)
{
    return allowed(from) && allowed(to) ? __real_rename(from, to) : (errno = EACCES, -1);
}

int __wrap_mkdir(const char* path, mode_t mode)
{
    return allowed(path) ? __real_mkdir(path, mode) : (errno = EACCES, -1);
}

int __wrap_rmdir(const char* path)
{
    return allowed(path) ? __real_rmdir(path) : (errno = EACCES, -1);
}

int __wrap_truncate(const char* path, off_t length)
{
    return allowed(path) ? __real_truncate(path, length) : (errno = EACCES, -1);
}

int __wrap_utime(const char* path, const void* times)
{
    return allowed(path) ? __real_utime(path, times) : (errno = EACCES, -1);
}

using signal_handler = void (*)(int);
signal_handler __real_signal(int sig, signal_handler handler);
int __real_raise(int sig);

// The deliberate SIGFPE of a zero divisor (its default action restored, then raised) ends
// the input as a fatal exit would, rather than the process.
signal_handler __wrap_signal(int sig, signal_handler handler)
{
    return fuzz_running && sig == SIGFPE ? SIG_DFL : __real_signal(sig, handler);
}

int __wrap_raise(int sig)
{
    if (fuzz_running && sig == SIGFPE)
        throw fuzz_fatal_exit{128 + SIGFPE};
    return __real_raise(sig);
}

// No program runs: a child is never made.
pid_t __real_fork();
FILE* __real_popen(const char* command, const char* mode);

pid_t __wrap_fork()
{
    return fuzz_running ? (errno = EPERM, -1) : __real_fork();
}

FILE* __wrap_popen(const char* command, const char* mode)
{
    return fuzz_running ? (errno = EPERM, nullptr) : __real_popen(command, mode);
}
}
