// Child processes with their standard streams on pipes: how mail runs the mail transfer program.
#ifndef TESSEL_CORE_PROCESS_H
#define TESSEL_CORE_PROCESS_H

#include <sys/types.h>

// A child process with any of its standard streams on pipes. Unused pipes stay -1.
struct child_process {
    pid_t pid = -1;
    int in_fd = -1;  // write end of the child's standard input
    int out_fd = -1; // read end of the child's standard output
    int err_fd = -1; // read end of the child's standard error
};

// Runs program with one argument (null for none) and pipes for the streams asked for;
// false when the pipes or the fork fail, with every pipe made so far closed again.
// Ownership: borrows program and argument; the caller closes the pipes it was given.
bool spawn_with_pipes(const char* program, const char* argument, bool want_in, bool want_out,
                      bool want_err, child_process& child);

// Waits for the child: its exit code as a signed 8-bit value, -1 when waitpid returns 0,
// -2 when the child ended by a signal.
int wait_child(const child_process& child);

#endif
