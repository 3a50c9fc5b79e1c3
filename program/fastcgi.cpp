// The resident FastCGI mode: a parent that keeps its workers alive on one listening socket,
// and each worker's request loop. The protocol is libfcgi's; what a request sees is the CGI
// program's (program/resident.h).
#include "program/fastcgi.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcgiapp.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "core/log.h"
#include "program/resident.h"

namespace {

constexpr int LISTEN_BACKLOG = 128;
constexpr int STOP_GRACE_SECONDS = 30; // a request in progress may finish within this
// Set by a parent that re-executes itself on SIGHUP: the listening socket it hands on.
constexpr const char* INHERITED_LISTENER = "TESSEL_FASTCGI_LISTENER";

struct fastcgi_options {
    const char* address = nullptr; // unix:PATH, HOST:PORT or fd:N
    int workers = 0;               // 0: one per processor
    long cpu_limit = 0;            // CPU seconds a request may use; 0: no limit
    long long memory_limit = 0;    // bytes of address space a worker may map; 0: no limit
};

// ---- the command line -------------------------------------------------------------------

bool parse_count(const char* text, long long low, long long& value)
{
    char* end = nullptr;
    errno = 0;
    long long parsed = text ? strtoll(text, &end, 10) : 0;
    if (!text || !*text || *end || errno || parsed < low)
        return false;
    value = parsed;
    return true;
}

bool parse_options(int argc, char** argv, fastcgi_options& options)
{
    for (int i = 1; i < argc; i += 2) {
        const char* name = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        long long number = 0;
        if (strcmp(name, "--fastcgi") == 0 && value)
            options.address = value;
        else if (strcmp(name, "--workers") == 0 && parse_count(value, 1, number) && number <= 512)
            options.workers = (int)number;
        else if (strcmp(name, "--cpu-limit") == 0 && parse_count(value, 0, number))
            options.cpu_limit = (long)number;
        else if (strcmp(name, "--memory-limit") == 0 && parse_count(value, 0, number))
            options.memory_limit = number;
        else
            return false;
    }
    return options.address != nullptr;
}

// ---- the listening socket ---------------------------------------------------------------

[[noreturn]] void listen_failed(const char* address, const char* what)
{
    fprintf(stderr, "tessel: cannot listen on %s: %s\n", address, what);
    exit(2);
}

bool is_listener(int fd)
{
    int listening = 0;
    socklen_t size = sizeof listening;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening;
}

// A socket file at path. A socket file nobody answers on is left over from a server that
// ended without removing it and is replaced; one that answers belongs to a running server.
int listen_unix(const char* address, const char* path)
{
    sockaddr_un where = {};
    where.sun_family = AF_UNIX;
    if (!*path || strlen(path) >= sizeof where.sun_path)
        listen_failed(address, "the path is empty or too long for a socket");
    strcpy(where.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct stat info;
    if (lstat(path, &info) == 0) {
        if (!S_ISSOCK(info.st_mode))
            listen_failed(address, "a file that is no socket is in the way");
        if (connect(fd, (sockaddr*)&where, sizeof where) == 0)
            listen_failed(address, "another server is listening there");
        unlink(path);
    }
    // The socket is made under a name of its own and renamed into place once it listens, so
    // whoever waits for the file never finds it refusing connections; a path too long for the
    // extra characters is bound as it is.
    sockaddr_un made = where;
    int extra = snprintf(made.sun_path, sizeof made.sun_path, "%s.%d", path, (int)getpid());
    if (extra < 0 || (size_t)extra >= sizeof made.sun_path)
        made = where;
    unlink(made.sun_path);
    // Only the owner and its group (the web server's user, in a shared group) may connect.
    mode_t saved = umask(0117);
    bool bound = bind(fd, (sockaddr*)&made, sizeof made) == 0;
    umask(saved);
    if (!bound || listen(fd, LISTEN_BACKLOG) != 0 ||
        (strcmp(made.sun_path, path) != 0 && rename(made.sun_path, path) != 0))
        listen_failed(address, strerror(errno));
    return fd;
}

// HOST:PORT, where HOST is a loopback address: 127.x.y.z, "localhost" or "[::1]". The
// protocol carries no authentication: whoever reaches the port may hand the program any
// request, with any variables, so it listens on the machine's own loopback only. Names are not
// looked up (the program is linked statically, without the resolver's modules).
int listen_tcp(const char* address)
{
    const char* colon = strrchr(address, ':');
    long long port = 0;
    if (!colon || !parse_count(colon + 1, 1, port) || port > 65535)
        listen_failed(address, "give unix:PATH, HOST:PORT or fd:N");
    std::string host(address, colon - address);
    sockaddr_storage where = {};
    socklen_t size = 0;
    auto* v4 = (sockaddr_in*)&where;
    auto* v6 = (sockaddr_in6*)&where;
    if (host == "localhost")
        host = "127.0.0.1";
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        if ((ntohl(v4->sin_addr.s_addr) >> 24) != 127)
            listen_failed(address, "FastCGI has no authentication: listen on a loopback address");
        v4->sin_family = AF_INET;
        v4->sin_port = htons((uint16_t)port);
        size = sizeof *v4;
    } else if (host.size() > 2 && host.front() == '[' && host.back() == ']' &&
               inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) == 1) {
        if (!IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr))
            listen_failed(address, "FastCGI has no authentication: listen on a loopback address");
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons((uint16_t)port);
        size = sizeof *v6;
    } else {
        listen_failed(address, "the host is no loopback address");
    }
    int fd = socket(where.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, (sockaddr*)&where, size) != 0 || listen(fd, LISTEN_BACKLOG) != 0)
        listen_failed(address, strerror(errno));
    return fd;
}

// A socket this process was handed, kept away from the programs a page runs: off descriptor 0
// (their standard input, which becomes /dev/null) and closed when they start.
int listener_kept(int fd)
{
    if (fd == 0)
        fd = fcntl(0, F_DUPFD_CLOEXEC, 3); // worker_run puts /dev/null on descriptor 0
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

// The socket to serve on; unix_path is set to the socket file this process made.
int open_listener(const char* address, std::string& unix_path)
{
    long long inherited = 0;
    if (parse_count(getenv(INHERITED_LISTENER), 0, inherited)) {
        unsetenv(INHERITED_LISTENER); // before any worker copies the environment
        if (strncmp(address, "unix:", 5) == 0)
            unix_path = address + 5;
        return listener_kept((int)inherited);
    }
    if (strncmp(address, "unix:", 5) == 0) {
        unix_path = address + 5;
        return listen_unix(address, address + 5);
    }
    if (strncmp(address, "fd:", 3) == 0) {
        long long fd = 0;
        if (!parse_count(address + 3, 0, fd) || fd > INT_MAX || !is_listener((int)fd))
            listen_failed(address, "no listening socket has that descriptor");
        return listener_kept((int)fd);
    }
    return listen_tcp(address);
}

// ---- the worker ---------------------------------------------------------------------------

volatile sig_atomic_t stopping = 0;  // SIGTERM came: end after the request in progress
volatile sig_atomic_t answering = 0; // the response is being handed to libfcgi
FCGX_Request* volatile current = nullptr;

// Only marks the stop: a worker that waits for a connection is woken by the signal itself
// (wait_for_connection), and one that accepted a connection answers it first, so that no
// connection taken from the socket is dropped.
void on_worker_stop(int)
{
    stopping = 1;
}

// A handler rather than SIG_IGN: a client that went away must not end the worker, and the
// programs a page runs get the default action back, as under the CGI program.
void on_broken_pipe(int) {}

// Appends one FastCGI record header to buffer at used.
size_t put_record(unsigned char* buffer, size_t used, int type, int id, size_t length)
{
    unsigned char header[8] = {1,
                               (unsigned char)type,
                               (unsigned char)(id >> 8),
                               (unsigned char)id,
                               (unsigned char)(length >> 8),
                               (unsigned char)length,
                               0,
                               0};
    memcpy(buffer + used, header, sizeof header);
    return used + sizeof header;
}

// Answers the request in progress with the failure response, written straight to its
// connection: called from a signal handler, so with write() only. Nothing of the response was
// handed to libfcgi yet (it is sent whole when the request ends).
void answer_failure_now(const FCGX_Request& request, int status)
{
    constexpr int STDOUT_RECORD = 6, END_REQUEST_RECORD = 3;
    constexpr size_t TEXT = sizeof RESIDENT_FAILED_RESPONSE - 1;
    unsigned char buffer[TEXT + 40];
    size_t used = put_record(buffer, 0, STDOUT_RECORD, request.requestId, TEXT);
    memcpy(buffer + used, RESIDENT_FAILED_RESPONSE, TEXT);
    used = put_record(buffer, used + TEXT, STDOUT_RECORD, request.requestId, 0);
    used = put_record(buffer, used, END_REQUEST_RECORD, request.requestId, 8);
    unsigned char end[8] = {0, 0, 0, (unsigned char)status, 0, 0, 0, 0};
    memcpy(buffer + used, end, sizeof end);
    used += sizeof end;
    for (size_t sent = 0; sent < used;) {
        ssize_t n = write(request.ipcFd, buffer + sent, used - sent);
        if (n <= 0)
            break;
        sent += (size_t)n;
    }
}

// The request passed its CPU time: as the CGI program does, one log line and status 254, and
// the client gets the failure response. The worker ends; the parent starts another.
void on_worker_cpu_limit(int)
{
    log_signal_line("CPU time limit exceeded");
    FCGX_Request* request = current;
    if (request && !answering)
        answer_failure_now(*request, 254);
    _exit(254);
}

void handle(int sig, void (*handler)(int), int flags = 0)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

// Waits until the socket has a connection waiting, with SIGTERM and SIGINT let through only
// while waiting (open is the mask without them): false when one of them came. Every worker
// wakes for a connection; the socket does not block, so those that lose the race for it
// wait again. A server may keep the connection of the last request open for the next one
// (FCGI_KEEP_CONN); libfcgi then reads the next request from it, so it is watched too. A
// worker serves one connection at a time: when a new one comes while the kept one is idle,
// the kept one is closed (the server opens another when it needs one) and the new one served.
bool wait_for_connection(int listener, FCGX_Request& request, const sigset_t& open)
{
    while (!stopping) {
        pollfd ready[2] = {{listener, POLLIN, 0}, {request.ipcFd, POLLIN, 0}};
        bool kept = request.ipcFd >= 0;
        if (ppoll(ready, kept ? 2 : 1, nullptr, &open) <= 0)
            continue;
        if (kept && !ready[1].revents) {
            close(request.ipcFd);
            request.ipcFd = -1;
        }
        return true;
    }
    return false;
}

// The CPU time this process may reach before the request in progress is ended: what it used
// so far plus the limit, in whole seconds as the kernel counts them.
void limit_request_cpu(long seconds)
{
    if (seconds <= 0)
        return;
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    double used = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                  (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    rlimit limit;
    getrlimit(RLIMIT_CPU, &limit);
    limit.rlim_cur = (rlim_t)ceil(used) + (rlim_t)seconds;
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_cur > limit.rlim_max)
        limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CPU, &limit);
}

ssize_t read_body(void* cookie, char* buffer, size_t size)
{
    auto* request = static_cast<FCGX_Request*>(cookie);
    int n = FCGX_GetStr(buffer, (int)(size > INT_MAX ? INT_MAX : size), request->in);
    return n < 0 ? -1 : n;
}

// Serves the accepted request and hands libfcgi its response: the page's, or the failure
// response when the request ended without a complete header, as a server makes of such a CGI
// program's output.
resident_answer serve_accepted(FCGX_Request& request, const fastcgi_options& options)
{
    fcntl(request.ipcFd, F_SETFD, FD_CLOEXEC); // not for the programs a page runs
    limit_request_cpu(options.cpu_limit);
    FILE* in = fopencookie(&request, "r", {read_body, nullptr, nullptr, nullptr});
    char* response = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&response, &size);
    resident_answer answer = resident_serve(request.envp, in, out);
    fclose(in);
    fclose(out);
    answering = 1;
    if (resident_response_complete(response, size))
        FCGX_PutStr(response, (int)size, request.out);
    else
        FCGX_PutStr(RESIDENT_FAILED_RESPONSE, sizeof RESIDENT_FAILED_RESPONSE - 1, request.out);
    FCGX_SetExitStatus(answer.status, request.out);
    free(response);
    return answer;
}

// A worker: serves requests until SIGTERM, or until a request spoils it.
[[noreturn]] void worker_run(int listener, const fastcgi_options& options)
{
    // The programs a page runs read the request body from standard input under the CGI program;
    // here the body is libfcgi's, and they read nothing rather than the parent's input.
    int nothing = open("/dev/null", O_RDONLY);
    if (nothing > 0 && listener != 0) {
        dup2(nothing, 0);
        close(nothing);
    }
    if (options.memory_limit > 0) {
        rlimit limit = {(rlim_t)options.memory_limit, (rlim_t)options.memory_limit};
        setrlimit(RLIMIT_AS, &limit);
    }
    FCGX_Init();
    // SA_RESTART: a stop that comes while a request is read or served interrupts nothing.
    handle(SIGTERM, on_worker_stop, SA_RESTART);
    handle(SIGINT, on_worker_stop, SA_RESTART);
    handle(SIGPIPE, on_broken_pipe);
    handle(SIGXCPU, on_worker_cpu_limit);
    resident_start();
    sigset_t stops, open;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigprocmask(SIG_BLOCK, &stops, &open);
    fcntl(listener, F_SETFL, fcntl(listener, F_GETFL) | O_NONBLOCK);
    FCGX_Request request;
    FCGX_InitRequest(&request, listener, FCGI_FAIL_ACCEPT_ON_INTR);
    while (wait_for_connection(listener, request, open)) {
        // A request and the programs its page runs get the signals as a CGI process does.
        sigprocmask(SIG_SETMASK, &open, nullptr);
        if (FCGX_Accept_r(&request) < 0) {
            sigprocmask(SIG_BLOCK, &stops, nullptr);
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED)
                continue; // another worker took the connection, or it went away
            fprintf(stderr, "tessel: worker %d cannot accept: %s\n", (int)getpid(),
                    strerror(errno));
            exit(1);
        }
        current = &request;
        resident_answer answer = serve_accepted(request, options);
        current = nullptr;
        FCGX_Finish_r(&request);
        answering = 0;
        sigprocmask(SIG_BLOCK, &stops, nullptr);
        if (answer.signal) {
            signal(answer.signal, SIG_DFL);
            raise(answer.signal);
        }
        // Without exit handlers: the spoiling request was cut off by an exception, so memory
        // it held may have lost its last pointer (a CGI process still has it on its stack
        // when it exits), which a leak checker run at exit would report.
        if (answer.spoiled)
            _exit(answer.status);
    }
    exit(0);
}

// ---- the parent ---------------------------------------------------------------------------

struct worker_slot {
    pid_t pid = 0;         // 0 while a replacement waits for restart_at
    double started = 0;    // when the worker started, in seconds of the monotonic clock
    int quick_ends = 0;    // how many workers in a row ended within QUICK_END of their start
    double restart_at = 0; // when the next worker starts, for a slot without one
};

// A worker that ends this soon after its start, several times in a row, meets a setup that
// cannot serve (a limit too small to start in, a missing folder): each replacement then
// waits twice as long as the one before, from 0.1 s up to 5 s, so the parent does not spin.
constexpr double QUICK_END = 1.0;
constexpr int QUICK_ENDS_ALLOWED = 3;

double now_seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec + now.tv_nsec / 1e9;
}

double restart_delay(int quick_ends)
{
    if (quick_ends < QUICK_ENDS_ALLOWED)
        return 0;
    return std::min(5.0, 0.1 * (1 << std::min(quick_ends - QUICK_ENDS_ALLOWED, 6)));
}

pid_t start_worker(int listener, const fastcgi_options& options, const sigset_t& parent_mask)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGTERM); // a worker does not outlive its parent
    if (getppid() == 1)
        _exit(0);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        signal(sig, SIG_DFL);
    sigprocmask(SIG_SETMASK, &parent_mask, nullptr);
    worker_run(listener, options);
}

// Says how a worker ended, unless it ended because it was told to.
void report_end(pid_t pid, int status)
{
    if (WIFSIGNALED(status))
        fprintf(stderr, "tessel: worker %d ended by signal %d (%s); another takes its place\n",
                (int)pid, WTERMSIG(status), strsignal(WTERMSIG(status)));
    else if (WEXITSTATUS(status) != 0)
        fprintf(stderr, "tessel: worker %d ended with status %d; another takes its place\n",
                (int)pid, WEXITSTATUS(status));
}

// Tells every worker to stop and waits for them, a request in progress included, up to
// STOP_GRACE_SECONDS; what is left then is killed.
void stop_workers(std::vector<worker_slot>& slots)
{
    for (worker_slot& slot : slots)
        if (slot.pid > 0)
            kill(slot.pid, SIGTERM);
    time_t deadline = time(nullptr) + STOP_GRACE_SECONDS;
    for (worker_slot& slot : slots) {
        while (slot.pid > 0) {
            pid_t got = waitpid(slot.pid, nullptr, WNOHANG);
            if (got == slot.pid || (got < 0 && errno == ECHILD)) {
                slot.pid = 0;
            } else if (time(nullptr) >= deadline) {
                kill(slot.pid, SIGKILL);
                waitpid(slot.pid, nullptr, 0);
                slot.pid = 0;
            } else {
                usleep(20000);
            }
        }
    }
}

// Runs the program again on the same socket: its file may have been replaced by a newer one.
// Workers in the middle of a request finish it first.
[[noreturn]] void reload(int listener, char** argv, const std::string& self,
                         std::vector<worker_slot>& slots)
{
    for (worker_slot& slot : slots)
        if (slot.pid > 0)
            kill(slot.pid, SIGTERM);
    fcntl(listener, F_SETFD, 0);
    setenv(INHERITED_LISTENER, std::to_string(listener).c_str(), 1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(self.c_str(), argv);
    fprintf(stderr, "tessel: cannot run %s again: %s\n", self.c_str(), strerror(errno));
    exit(1);
}

int supervise(int listener, const fastcgi_options& options, char** argv,
              const std::string& unix_path)
{
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string program = length > 0 ? std::string(self, length) : argv[0];
    int count = options.workers > 0 ? options.workers : (int)sysconf(_SC_NPROCESSORS_ONLN);
    sigset_t watched, parent_mask;
    sigemptyset(&watched);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&watched, sig);
    sigprocmask(SIG_BLOCK, &watched, &parent_mask);
    // Workers of the program before a SIGHUP that ended before it ran again: their SIGCHLD
    // is lost across the exec. Those still answering a request send theirs to this one.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    signal(SIGPIPE, SIG_IGN);
    std::vector<worker_slot> slots(count < 1 ? 1 : count);
    for (worker_slot& slot : slots)
        slot = {start_worker(listener, options, parent_mask), now_seconds(), 0, 0};
    for (;;) {
        // Waits for a signal, or until the next replacement is due.
        double due = 0;
        for (const worker_slot& slot : slots)
            if (slot.pid == 0 && (due == 0 || slot.restart_at < due))
                due = slot.restart_at;
        int sig;
        if (due == 0) {
            sig = sigwaitinfo(&watched, nullptr);
        } else {
            double wait = std::max(0.0, due - now_seconds());
            timespec timeout = {(time_t)wait, (long)((wait - (time_t)wait) * 1e9)};
            sig = sigtimedwait(&watched, nullptr, &timeout);
        }
        for (worker_slot& slot : slots) {
            if (slot.pid == 0 && slot.restart_at <= now_seconds()) {
                slot.pid = start_worker(listener, options, parent_mask);
                slot.started = now_seconds();
            }
        }
        if (sig == SIGTERM || sig == SIGINT) {
            stop_workers(slots);
            if (!unix_path.empty())
                unlink(unix_path.c_str());
            return 0;
        }
        if (sig == SIGHUP)
            reload(listener, argv, program, slots);
        if (sig != SIGCHLD)
            continue;
        int status = 0;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            for (worker_slot& slot : slots) {
                if (slot.pid != pid)
                    continue;
                report_end(pid, status);
                slot.quick_ends =
                    now_seconds() - slot.started < QUICK_END ? slot.quick_ends + 1 : 0;
                slot.restart_at = now_seconds() + restart_delay(slot.quick_ends);
                slot.pid = 0;
                if (restart_delay(slot.quick_ends) == 0) {
                    slot.pid = start_worker(listener, options, parent_mask);
                    slot.started = now_seconds();
                }
            }
        }
    }
}

} // namespace

// libfcgi looks host names up only where it connects to an application or listens on a
// HOST:PORT it opens itself, neither of which the program asks of it (it makes its own
// sockets). Defined here, the lookup keeps the C library's resolver (name services, DNS,
// about 100 KB) out of the static program, which every CGI request maps at start.
extern "C" struct hostent* gethostbyname(const char*)
{
    h_errno = NO_RECOVERY;
    return nullptr;
}

int fastcgi_main(int argc, char** argv)
{
    fastcgi_options options;
    if (!parse_options(argc, argv, options)) {
        fprintf(stderr, "usage:\n%s", FASTCGI_USAGE);
        return 2;
    }
    std::string unix_path;
    int listener = open_listener(options.address, unix_path);
    return supervise(listener, options, argv, unix_path);
}

bool fastcgi_stdin_listens()
{
    return is_listener(0);
}

int fastcgi_serve_stdin()
{
    worker_run(listener_kept(0), fastcgi_options{});
}
