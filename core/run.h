// How a run ends. The CGI program serves one request per process, so a fatal condition ends
// the process with exit(). A resident worker serves many: the same condition must end only the
// request in progress, so run_end throws run_ended there, and the worker's request loop
// catches it, answers the request and carries on (or, for exhausted memory and a zero divisor,
// answers and lets a fresh worker take its place).
#ifndef TESSEL_CORE_RUN_H
#define TESSEL_CORE_RUN_H

// What ended a request in a resident worker.
struct run_ended {
    int status;          // the exit status the CGI program would have ended with
    int signal;          // the signal the CGI program would have died of, or 0
    bool worker_spoiled; // the worker must not serve another request (memory ran out)
};

// Switches between the two ways a run ends; the CGI program never calls it.
void run_set_resident(bool resident);
bool run_is_resident();

// Ends the run with status: exit(status), or in a resident worker throws run_ended.
[[noreturn]] void run_end(int status);

// Ends the run as the signal sig would (a zero divisor's SIGFPE): the process dies of it, or in
// a resident worker throws run_ended with the signal, which the worker dies of once it has
// answered the request.
[[noreturn]] void run_end_by_signal(int sig);

// Ends the run as run_end does; a resident worker is spoiled (its heap may be exhausted or
// scattered) and is replaced once it has answered.
[[noreturn]] void run_end_spoiled(int status);

#endif
