// Program entry: one run serves one request. Under a server the command line is ignored
// (Apache passes a query string without "=" as arguments): run by a server, or by hand with
// other arguments, the program serves the request its environment names, and with none it
// shows its banner on the error page. Run by hand, --version and --help answer, and
// --fastcgi starts the resident mode (program/fastcgi.h), as does a listening socket on
// standard input.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cgi/state_dir.h"
#include "ops/resource_log.h"
#include "program/fastcgi.h"
#include "program/page.h"

namespace {

constexpr const char* USAGE =
    "usage: tessel            (run by a web server as the CGI program for a page)\n"
    "       tessel --version | --help\n";

constexpr const char* HELP =
    "Renders the page the web server names: REQUEST_URI is its URL and PATH_TRANSLATED (or\n"
    "SCRIPT_FILENAME) its file. It applies .profile, reads the site's macro files, expands the\n"
    "page's ^name[...] calls and writes the HTTP response to standard output. It works in\n"
    "TESSEL_STATE_DIR when the server sets it, else where it was started; the settings\n"
    "(TESSEL_...) are listed in the reference's settings.md. To render a page by hand, use\n"
    "tessel-render; to check pages, tessel-check.\n"
    "\n"
    "With --fastcgi it stays resident: it listens on the address (a socket file, a loopback\n"
    "port or an inherited descriptor) and keeps --workers processes (one per processor by\n"
    "default) serving requests, each as a fresh CGI run would; --cpu-limit is a request's CPU\n"
    "time and --memory-limit a worker's address space. SIGTERM stops it once the requests in\n"
    "progress are answered; SIGHUP runs the program file again on the same socket. Started by\n"
    "a FastCGI process manager with a listening socket as standard input, it serves on that\n"
    "socket in one process.\n";

// True when a web server started the program: a server always passes the CGI version.
bool run_by_server()
{
    return getenv("GATEWAY_INTERFACE") || getenv("REQUEST_METHOD");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && !run_by_server()) {
        if (strcmp(argv[1], "--version") == 0) {
            printf("%s\n", TESSEL_BANNER);
            return 0;
        }
        if (strcmp(argv[1], "--help") == 0) {
            fputs(USAGE, stdout);
            fputs(FASTCGI_USAGE, stdout);
            fputs(HELP, stdout);
            return 0;
        }
    }
    if (!run_by_server()) {
        if (argc >= 2 && strcmp(argv[1], "--fastcgi") == 0)
            return fastcgi_main(argc, argv);
        if (argc == 1 && fastcgi_stdin_listens())
            return fastcgi_serve_stdin();
    }
    resource_log_start(); // its line is written at exit, after everything else
    state_dir_enter();    // before anything reads or writes a file of the working folder
    return serve_request();
}
