// tessel-render: renders one page from the command line as the web server would run it. It sets
// the CGI variables itself, serves the request in a child process (fatal errors end a run from
// inside) and prints the body, or with --headers the whole response.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "program/page.h"
#include "tools/site.h"

namespace {

constexpr const char* USAGE =
    "usage: tessel-render PAGE [--query 'a=1&b=2'] [--post FILE [--content-type TYPE]]\n"
    "                     [--cookie 'a=1'] [--docroot DIR] [--headers]\n";

constexpr const char* HELP =
    "Renders PAGE as the web server would for a request of its URL and prints the body.\n"
    "The program runs in the current folder, as it does in its cgi-bin folder under the\n"
    "server: .profile is read there and error_log and access_log are written there.\n"
    "\n"
    "  --query Q         the query string (QUERY_STRING, and after \"?\" in REQUEST_URI)\n"
    "  --post FILE       POST the bytes of FILE as the request body\n"
    "  --content-type T  the body's type (default application/x-www-form-urlencoded)\n"
    "  --cookie C        the Cookie header (HTTP_COOKIE)\n"
    "  --docroot DIR     the document root (default: the nearest folder at or above the\n"
    "                    page that holds _macro.cfg, else the page's folder)\n"
    "  --headers         print the header lines and a blank line before the body\n"
    "  --help, --version\n"
    "\n"
    "The exit status is the program's: 0, 253 after an error page, 254 or 255.\n";

struct options {
    const char* page = nullptr;
    const char* query = "";
    const char* post = nullptr;
    const char* content_type = "application/x-www-form-urlencoded";
    const char* cookie = nullptr;
    const char* docroot = nullptr;
    bool headers = false;
};

// Reads the command line; false (after a message) when it is wrong.
bool parse(int argc, char** argv, options& o)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        bool has_value = i + 1 < argc;
        if (arg == "--headers")
            o.headers = true;
        else if (arg == "--query" && has_value)
            o.query = argv[++i];
        else if (arg == "--post" && has_value)
            o.post = argv[++i];
        else if (arg == "--content-type" && has_value)
            o.content_type = argv[++i];
        else if (arg == "--cookie" && has_value)
            o.cookie = argv[++i];
        else if (arg == "--docroot" && has_value)
            o.docroot = argv[++i];
        else if (arg.rfind("--", 0) == 0 || o.page) {
            fprintf(stderr, "tessel-render: unexpected %s\n%s", arg.c_str(), USAGE);
            return false;
        } else
            o.page = argv[i];
    }
    if (!o.page)
        fputs(USAGE, stderr);
    return o.page != nullptr;
}

void set_or_unset(const char* name, const char* value)
{
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

// Sets the CGI variables Apache sets for a request of page, the way mod_actions hands a page
// to the program in /cgi-bin/. False (after a message) when the page is not under the root.
bool set_cgi_environment(const options& o, const std::string& page, const std::string& root)
{
    std::string prefix = root == "/" ? "" : root;
    if (page.compare(0, prefix.size() + 1, prefix + "/") != 0) {
        fprintf(stderr, "tessel-render: %s is not under the document root %s\n", page.c_str(),
                root.c_str());
        return false;
    }
    std::string uri = page.substr(prefix.size());
    struct stat body;
    if (o.post && stat(o.post, &body) != 0) {
        fprintf(stderr, "tessel-render: cannot read %s\n", o.post);
        return false;
    }
    set_or_unset("SERVER_SOFTWARE", "tessel-render");
    set_or_unset("SERVER_NAME", "localhost");
    set_or_unset("SERVER_PORT", "80");
    set_or_unset("SERVER_PROTOCOL", "HTTP/1.1");
    set_or_unset("GATEWAY_INTERFACE", "CGI/1.1");
    set_or_unset("REMOTE_ADDR", "127.0.0.1");
    set_or_unset("REQUEST_METHOD", o.post ? "POST" : "GET");
    set_or_unset("REQUEST_URI", (*o.query ? uri + "?" + o.query : uri).c_str());
    set_or_unset("QUERY_STRING", o.query);
    set_or_unset("PATH_INFO", uri.c_str());
    set_or_unset("PATH_TRANSLATED", page.c_str());
    set_or_unset("SCRIPT_NAME", "/cgi-bin/tessel");
    set_or_unset("DOCUMENT_ROOT", root.c_str());
    set_or_unset("HTTP_COOKIE", o.cookie);
    set_or_unset("CONTENT_TYPE", o.post ? o.content_type : nullptr);
    set_or_unset("CONTENT_LENGTH", o.post ? std::to_string(body.st_size).c_str() : nullptr);
    for (const char* name : {"REMOTE_HOST", "AUTH_TYPE", "REMOTE_USER", "REMOTE_IDENT",
                             "HTTP_ACCEPT", "HTTP_USER_AGENT", "HTTP_REFERER"})
        unsetenv(name);
    return true;
}

// Runs the request in a child whose standard output is a pipe; returns its exit status and
// leaves what it printed in response.
int run_child(const options& o, std::string& response)
{
    int out[2];
    if (pipe(out) != 0)
        return 2;
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(out[0]);
        dup2(out[1], STDOUT_FILENO);
        close(out[1]);
        if (o.post && !freopen(o.post, "rb", stdin))
            _exit(2);
        exit(serve_request());
    }
    close(out[1]);
    char buffer[65536];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;)
        response.append(buffer, (size_t)n);
    close(out[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) < 0)
        return 2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(USAGE, stdout);
        fputs(HELP, stdout);
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("tessel-render, %s\n", TESSEL_BANNER);
        return 0;
    }
    options o;
    if (!parse(argc, argv, o))
        return 2;
    std::string page = site_absolute(o.page);
    std::string root = page.empty() ? "" : site_document_root(page, o.docroot);
    if (page.empty() || root.empty()) {
        fprintf(stderr, "tessel-render: no such %s\n", page.empty() ? "page" : "--docroot folder");
        return 2;
    }
    if (!set_cgi_environment(o, page, root))
        return 2;
    std::string response;
    int status = run_child(o, response);
    size_t body = response.find("\n\n");
    body = o.headers || body == std::string::npos ? 0 : body + 2;
    fwrite(response.data() + body, 1, response.size() - body, stdout);
    return status;
}
