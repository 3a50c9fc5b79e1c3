// Fuzz target: a resident worker against the CGI program. The input is a few small pages,
// separated by NUL bytes (a first line "?..." is a page's query string). Each page is served in
// turn by resident_serve in this process, as one worker serves its requests, and by a fresh
// process of the built program (TESSEL_PROGRAM), each time in the same fresh folder; the
// responses, statuses and error logs must be equal, the response being the failure response
// where the fresh process printed no complete header.
//
// Pages stay harmless and repeatable: a page that calls an operator reaching outside its
// folder (programs, mail, a database), reading the clock or chance, or looping without a bound
// of its own is skipped, as is one holding "..". Beyond that, Landlock confines this process
// and the programs it starts: files change only in the scratch folder and the fuzzer's own
// folders, and no program but tessel (and the sanitizer's symbolizer) can be started. Without
// Landlock the fresh processes are not started and each page runs here only, inside
// fuzz_support's jail.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <link.h>
#include <linux/landlock.h>
#include <poll.h>
#include <sanitizer/allocator_interface.h>
#include <sanitizer/lsan_interface.h>
#include <spawn.h>
#include <string>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>
#include <vector>

#include "fuzz_support.h"
#include "program/resident.h"

#ifndef TESSEL_PROGRAM
#error "TESSEL_PROGRAM names the built program"
#endif

extern char** environ;

namespace {

constexpr size_t MAX_PAGES = 4;
constexpr size_t MAX_PAGE_BYTES = 256;
constexpr int FRESH_RUN_SECONDS = 10;
// Truncating a file by its path, a right of its own from Landlock's third version on.
constexpr unsigned long long LANDLOCK_TRUNCATE = 1ULL << 14;

// Calls a page must not make, and texts it must not hold ("join" doubles a table).
// clang-format off
constexpr const char* SKIPPED_CALLS[] = {
    // outside the folder: programs, mail, a database
    "exec", "sendmail", "server", "sql",
    // chance and the clock, the chat's tickets and times among them
    "random", "date", "loadtimestamp", "dateoffset", "calendar", "stat", "login", "startup",
    "validate", "message", "userlist", "chat", "cache", "log",
    // work without a bound of its own
    "for", "while", "macro_new", "process", "include",
};
// clang-format on
constexpr const char* SKIPPED_TEXTS[] = {"..", "join"};

std::string scratch;
std::string started_in; // the working folder before the scratch folder became it
bool confined = false;

// ---- confinement --------------------------------------------------------------------------

int landlock_abi()
{
    long abi = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return abi < 0 ? 0 : (int)abi;
}

// The dynamic loader this program names (its PT_INTERP), which starts a sanitizer build's
// programs as well; null for a static program.
const char* own_loader()
{
    auto* headers = (const ElfW(Phdr)*)getauxval(AT_PHDR);
    size_t count = getauxval(AT_PHNUM);
    uintptr_t bias = 0;
    for (size_t i = 0; i < count; i++)
        if (headers[i].p_type == PT_PHDR)
            bias = (uintptr_t)headers - headers[i].p_vaddr;
    for (size_t i = 0; i < count; i++)
        if (headers[i].p_type == PT_INTERP)
            return (const char*)(bias + headers[i].p_vaddr);
    return nullptr;
}

void allow(int ruleset, const char* path, unsigned long long access)
{
    int fd = open(path, O_PATH | O_CLOEXEC);
    if (fd < 0)
        return;
    struct stat info;
    if (fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode))
        access &= LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_TRUNCATE;
    landlock_path_beneath_attr rule = {access, fd};
    syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    close(fd);
}

// Files change only beneath the scratch folder, the fuzzer's folders (TESSEL_FUZZ_WRITABLE,
// else the folder it started in, and every folder named on the command line) and /dev/null; only
// the program and the symbolizer (with the dynamic loader) may be started. True when the
// kernel enforces it.
bool confine(int argc, char** argv)
{
    int abi = landlock_abi();
    if (abi < 1)
        return false;
    unsigned long long write = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
                               LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR |
                               LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                               LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO |
                               LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
    if (abi >= 2)
        write |= LANDLOCK_ACCESS_FS_REFER;
    if (abi >= 3)
        write |= LANDLOCK_TRUNCATE;
    landlock_ruleset_attr attr = {};
    attr.handled_access_fs = write | LANDLOCK_ACCESS_FS_EXECUTE;
    int ruleset = (int)syscall(SYS_landlock_create_ruleset, &attr, sizeof attr, 0);
    if (ruleset < 0)
        return false;
    allow(ruleset, scratch.c_str(), write);
    allow(ruleset, "/dev/null", write);
    const char* writable = getenv("TESSEL_FUZZ_WRITABLE");
    allow(ruleset, writable ? writable : started_in.c_str(), write);
    for (int i = 1; i < argc; i++) {
        struct stat info;
        if (argv[i][0] != '-' && stat(argv[i], &info) == 0 && S_ISDIR(info.st_mode))
            allow(ruleset, argv[i], write);
    }
    allow(ruleset, TESSEL_PROGRAM, LANDLOCK_ACCESS_FS_EXECUTE);
    if (const char* loader = own_loader())
        allow(ruleset, loader, LANDLOCK_ACCESS_FS_EXECUTE);
    glob_t found;
    if (glob("/usr/lib/llvm-*/bin", 0, nullptr, &found) == 0)
        for (size_t i = 0; i < found.gl_pathc; i++)
            allow(ruleset, found.gl_pathv[i], LANDLOCK_ACCESS_FS_EXECUTE);
    globfree(&found);
    bool done = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
    close(ruleset);
    return done;
}

// ---- one page -----------------------------------------------------------------------------

struct page_input {
    std::string query;
    std::string text;
};

// The pages of an input, at most MAX_PAGES, each cut to MAX_PAGE_BYTES.
std::vector<page_input> split_pages(const uint8_t* data, size_t size)
{
    std::vector<page_input> pages;
    const char* p = (const char*)data;
    const char* end = p + size;
    while (p <= end && pages.size() < MAX_PAGES) {
        const char* stop = (const char*)memchr(p, '\0', end - p);
        stop = stop ? stop : end;
        std::string text(p, stop);
        page_input page;
        if (!text.empty() && text[0] == '?') {
            size_t line = text.find('\n');
            page.query = text.substr(1, line == std::string::npos ? line : line - 1);
            text.erase(0, line == std::string::npos ? text.size() : line + 1);
        }
        page.text = text.substr(0, MAX_PAGE_BYTES);
        pages.push_back(page);
        p = stop + 1;
    }
    return pages;
}

bool harmless(const page_input& page)
{
    std::string all = page.query + "\n" + page.text;
    for (const char* name : SKIPPED_CALLS)
        if (all.find(std::string("^") + name + "[") != std::string::npos)
            return false;
    for (const char* text : SKIPPED_TEXTS)
        if (all.find(text) != std::string::npos)
            return false;
    return true;
}

void remove_tree(const std::string& path)
{
    DIR* dir = opendir(path.c_str());
    if (!dir) {
        unlink(path.c_str());
        return;
    }
    while (dirent* entry = readdir(dir))
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            remove_tree(path + "/" + entry->d_name);
    closedir(dir);
    rmdir(path.c_str());
}

// Makes folder anew with the page in it.
void prepare(const std::string& folder, const page_input& page)
{
    remove_tree(folder);
    mkdir(folder.c_str(), 0700);
    FILE* f = fopen((folder + "/page.html").c_str(), "wb");
    if (!f)
        abort();
    fwrite(page.text.data(), 1, page.text.size(), f);
    fclose(f);
}

std::vector<std::string> request_params(const std::string& folder, const page_input& page)
{
    return {"REQUEST_METHOD=GET",          "REQUEST_URI=/page.html",
            "SCRIPT_NAME=/cgi-bin/tessel", "REMOTE_ADDR=127.0.0.1",
            "SERVER_NAME=localhost",       "TZ=UTC",
            "DOCUMENT_ROOT=" + folder,     "PATH_TRANSLATED=" + folder + "/page.html",
            "TESSEL_STATE_DIR=" + folder,  "QUERY_STRING=" + page.query};
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> list;
    for (std::string& s : strings)
        list.push_back(s.data());
    list.push_back(nullptr);
    return list;
}

// The error log with each line's time stamp "[dd/Mon/yyyy hh:mm:ss] " taken out.
std::string error_log(const std::string& folder)
{
    std::string text, line;
    FILE* f = fopen((folder + "/error_log").c_str(), "rb");
    if (!f)
        return "(none)";
    for (int c; (c = fgetc(f)) != EOF;) {
        line += (char)c;
        if (c == '\n') {
            text += line.size() > 23 && line[0] == '[' && line[22] == ' ' ? line.substr(23) : line;
            line.clear();
        }
    }
    fclose(f);
    return text + line;
}

struct run_result {
    std::string response;
    int status = 0;
    std::string log;
    bool spoiled = false;
};

// The blocks allocated while a request runs here and not freed yet, noted by the allocator's
// hooks (the set's own allocations come back through them and are skipped).
std::unordered_set<const volatile void*>* request_blocks = nullptr;
bool noting = false;

void on_malloc(const volatile void* block, size_t)
{
    if (noting) {
        noting = false;
        request_blocks->insert(block);
        noting = true;
    }
}

void on_free(const volatile void* block)
{
    if (noting) {
        noting = false;
        request_blocks->erase(block);
        noting = true;
    }
}

// Serves the request. Confined by Landlock, it runs as in a worker; otherwise inside the jail
// of fuzz_support, whose refusals (EACCES where the system says ENOENT) make its answers
// unfit for comparing, which is then left out. A request that ends the process (exit rather
// than an answer) would end the worker: libFuzzer reports the exit.
resident_answer serve(char** params, FILE* in, FILE* out)
{
    resident_answer answer;
    if (!confined) {
        fuzz_run([&] { answer = resident_serve(params, in, out); });
        return answer;
    }
    request_blocks->clear();
    noting = true;
    answer = resident_serve(params, in, out);
    noting = false;
    // A spoiled worker ends after the answer: what the request was cut off holding is not
    // memory the worker loses.
    if (answer.spoiled)
        for (const volatile void* block : *request_blocks)
            __lsan_ignore_object(const_cast<const void*>(block));
    return answer;
}

run_result run_resident(const std::string& folder, const page_input& page)
{
    prepare(folder, page);
    std::vector<std::string> params = request_params(folder, page);
    std::vector<char*> list = pointers(params);
    char* buffer = nullptr;
    size_t size = 0;
    FILE* in = fopen("/dev/null", "rb");
    FILE* out = open_memstream(&buffer, &size);
    resident_answer answer = serve(list.data(), in, out);
    fclose(in);
    fclose(out);
    run_result result;
    result.response.assign(buffer, size);
    free(buffer);
    if (!resident_response_complete(result.response.data(), result.response.size()))
        result.response = RESIDENT_FAILED_RESPONSE;
    result.status = answer.status;
    result.spoiled = answer.spoiled;
    result.log = error_log(folder);
    return result;
}

// The program's environment: this process's, which every resident request starts from, with
// the request's params in place of any of the same name.
std::vector<std::string> fresh_environment(const std::vector<std::string>& params)
{
    std::vector<std::string> env;
    for (char** entry = environ; *entry; entry++) {
        const char* equals = strchr(*entry, '=');
        bool replaced = false;
        for (const std::string& p : params)
            replaced |=
                equals && p.compare(0, equals - *entry + 1, *entry, equals - *entry + 1) == 0;
        if (!replaced)
            env.emplace_back(*entry);
    }
    env.insert(env.end(), params.begin(), params.end());
    return env;
}

// Reads the child's output until it ends, for at most FRESH_RUN_SECONDS; false on a timeout.
// libFuzzer's own timer interrupts the wait now and then.
bool read_all(int fd, std::string& out)
{
    char buffer[65536];
    time_t deadline = time(nullptr) + FRESH_RUN_SECONDS;
    pollfd wait = {fd, POLLIN, 0};
    while (time(nullptr) <= deadline) {
        int ready = poll(&wait, 1, 1000);
        if (ready < 0 && errno != EINTR)
            return false;
        if (ready <= 0)
            continue;
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            return n == 0;
        out.append(buffer, n);
    }
    return false;
}

run_result run_fresh(const std::string& folder, const page_input& page)
{
    prepare(folder, page);
    std::vector<std::string> env = fresh_environment(request_params(folder, page));
    std::vector<char*> envp = pointers(env);
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    char program[] = TESSEL_PROGRAM;
    char* argv[] = {program, nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, program, &actions, nullptr, argv, envp.data()) != 0)
        abort();
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    run_result result;
    bool ended = read_all(pipe_fds[0], result.response);
    close(pipe_fds[0]);
    if (!ended)
        kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!ended) {
        fprintf(stderr, "the program ran for more than %d s\n", FRESH_RUN_SECONDS);
        abort();
    }
    if (!resident_response_complete(result.response.data(), result.response.size()))
        result.response = RESIDENT_FAILED_RESPONSE;
    result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    result.log = error_log(folder);
    return result;
}

bool same(const run_result& a, const run_result& b)
{
    return a.response == b.response && a.status == b.status && a.log == b.log;
}

[[noreturn]] void report(size_t index, const page_input& page, const run_result& resident,
                         const run_result& fresh)
{
    fprintf(stderr, "page %zu differs (query \"%s\"):\n%s\n", index, page.query.c_str(),
            page.text.c_str());
    fprintf(stderr, "--- resident, status %d:\n%s\n--- log:\n%s\n", resident.status,
            resident.response.c_str(), resident.log.c_str());
    fprintf(stderr, "--- fresh process, status %d:\n%s\n--- log:\n%s\n", fresh.status,
            fresh.response.c_str(), fresh.log.c_str());
    abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    char here[4096];
    started_in = getcwd(here, sizeof here) ? here : "/nonexistent";
    scratch = fuzz_scratch_init();
    // For the fresh processes (this one read its options at start): a zero divisor ends them
    // by its signal, as outside the sanitizer, and they end without a leak check, which would
    // halve the rate; the page suite checks the program's leaks.
    std::string options = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
    options += (options.empty() ? "" : ":") + std::string("handle_sigfpe=0:detect_leaks=0");
    setenv("ASAN_OPTIONS", options.c_str(), 1);
    confined = confine(*argc, *argv);
    request_blocks = new std::unordered_set<const volatile void*>;
    __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
    if (!confined)
        fprintf(stderr, "fastcgi_differential: Landlock is not available; pages run in this "
                        "process only, without a fresh process to compare with\n");
    resident_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<page_input> pages = split_pages(data, size);
    for (size_t i = 0; i < pages.size(); i++) {
        if (!harmless(pages[i]))
            continue;
        std::string folder = scratch + "/page" + std::to_string(i);
        run_result resident = run_resident(folder, pages[i]);
        if (confined) {
            run_result fresh = run_fresh(folder, pages[i]);
            // A page whose response varies from one fresh process to the next says nothing.
            if (!same(resident, fresh) && same(fresh, run_fresh(folder, pages[i])))
                report(i, pages[i], resident, fresh);
        }
        remove_tree(folder);
        if (resident.spoiled) // a worker is replaced after such a request
            break;
    }
    return 0;
}
