// Child processes with their standard streams on pipes.
#include "core/process.h"

#include <cstdio>
#include <initializer_list>
#include <sys/wait.h>
#include <unistd.h>

// Makes a pipe when wanted; false when the system refuses one.
static bool open_pipe(bool wanted, int fds[2])
{
    fds[0] = fds[1] = -1;
    return !wanted || pipe(fds) == 0;
}

static void close_fd(int fd)
{
    if (fd >= 0)
        ::close(fd);
}

bool spawn_with_pipes(const char* program, const char* argument, bool want_in, bool want_out,
                      bool want_err, child_process& child)
{
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    // On failure every pipe made so far is closed again: a page may try many times, and each
    // lost descriptor would stay open for the rest of the request.
    auto close_all = [&] {
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            close_fd(fd);
        return false;
    };
    if (!open_pipe(want_in, in) || !open_pipe(want_out, out) || !open_pipe(want_err, err))
        return close_all();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return close_all();
    if (pid == 0) {
        if (want_in)
            dup2(in[0], 0);
        if (want_out)
            dup2(out[1], 1);
        if (want_err)
            dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            close_fd(fd);
        execl(program, program, argument, (char*)nullptr);
        _exit(127);
    }
    close_fd(in[0]);
    close_fd(out[1]);
    close_fd(err[1]);
    child = {pid, in[1], out[0], err[0]};
    return true;
}

int wait_child(const child_process& child)
{
    int status = 0;
    pid_t got = waitpid(child.pid, &status, 0);
    if (got == 0)
        return -1;
    if (WIFSIGNALED(status))
        return -2;
    return (signed char)WEXITSTATUS(status);
}
