// The resident FastCGI mode of the program: one parent keeping worker processes alive on a
// listening socket, each serving request after request as a fresh CGI process would.
#ifndef TESSEL_PROGRAM_FASTCGI_H
#define TESSEL_PROGRAM_FASTCGI_H

// Runs the mode for the command line "tessel --fastcgi ADDRESS [options]" (argv[1] is
// "--fastcgi") and returns the exit status: 0 after SIGTERM, 2 for a bad command line or an
// address it cannot listen on.
int fastcgi_main(int argc, char** argv);

// True when standard input is a listening socket: a FastCGI process manager started the
// program to serve on it.
bool fastcgi_stdin_listens();

// Serves on standard input's socket in this process alone, as a process manager expects;
// returns when the manager stops it.
int fastcgi_serve_stdin();

// The mode's lines of the program's --help.
constexpr const char* FASTCGI_USAGE =
    "       tessel --fastcgi unix:PATH | HOST:PORT | fd:N [--workers N] [--cpu-limit SECONDS]\n"
    "                        [--memory-limit BYTES]\n";

#endif
