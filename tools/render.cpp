// tessel-render: renders one page from the command line as the web server would run it. It sets
// the CGI variables itself, serves the request in a child process (fatal errors end a run from
// inside) and prints the body, or with --headers the whole response.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "program/page.h"
#include "tools/site.h"

namespace {

constexpr const char* USAGE =
    "usage: tessel-render PAGE [--query 'a=1&b=2'] [--post FILE [--content-type TYPE]]\n"
    "                     [-F name=value | -F name=@FILE | -F name=<FILE]...\n"
    "                     [--cookie 'a=1'] [--docroot DIR] [--headers]\n";

constexpr const char* HELP =
    "Renders PAGE as the web server would for a request of its URL and prints the body.\n"
    "The program runs in the current folder, as it does in its cgi-bin folder under the\n"
    "server: .profile is read there and error_log and access_log are written there.\n"
    "\n"
    "  --query Q         the query string (QUERY_STRING, and after \"?\" in REQUEST_URI)\n"
    "  --post FILE       POST the bytes of FILE as the request body; \"-\" reads standard\n"
    "                    input, and a pipe such as <(printf 'a=1') is read to its end\n"
    "  --content-type T  the body's type (default application/x-www-form-urlencoded)\n"
    "  -F, --form F      POST a multipart form with the field F, as a browser sends it;\n"
    "                    repeat for more fields. name=value sends the text, name=<FILE the\n"
    "                    text of FILE, name=@FILE uploads FILE (\";type=T\" and\n"
    "                    \";filename=N\" after it set the part's type and file name)\n"
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
    std::vector<std::string> fields; // -F arguments, in order
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
        else if ((arg == "-F" || arg == "--form") && has_value)
            o.fields.push_back(argv[++i]);
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
    if (o.post && !o.fields.empty()) {
        fprintf(stderr, "tessel-render: --post and -F do not go together\n%s", USAGE);
        return false;
    }
    if (!o.page)
        fputs(USAGE, stderr);
    return o.page != nullptr;
}

// The whole of the file at path ("-": standard input), read to its end, so that a pipe
// gives what was written into it. False when it cannot be read.
bool read_all(const char* path, std::string& out)
{
    FILE* in = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
    if (!in)
        return false;
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, in)) > 0;)
        out.append(buffer, n);
    bool ok = !ferror(in);
    if (in != stdin)
        fclose(in);
    return ok;
}

// One -F field as a multipart part, without its boundary line. False (after a message) when
// the field has no "=" or its file cannot be read.
bool form_part(const std::string& field, std::string& part)
{
    size_t equals = field.find('=');
    if (equals == std::string::npos) {
        fprintf(stderr, "tessel-render: -F %s has no \"=\"\n", field.c_str());
        return false;
    }
    std::string name = field.substr(0, equals), value = field.substr(equals + 1);
    part = "Content-Disposition: form-data; name=\"" + name + "\"";
    if (value.empty() || (value[0] != '@' && value[0] != '<')) {
        part += "\r\n\r\n" + value;
        return true;
    }
    // "@FILE;type=T;filename=N" or "<FILE": the options follow the file's name.
    std::string path = value.substr(1), type = "application/octet-stream", file_name;
    size_t options_at = path.find(';');
    std::string options = options_at == std::string::npos ? "" : path.substr(options_at);
    path = path.substr(0, options_at);
    for (size_t at = 0; at < options.size();) {
        size_t next = options.find(';', at + 1);
        std::string option = options.substr(at + 1, next - at - 1);
        if (option.rfind("type=", 0) == 0)
            type = option.substr(5);
        else if (option.rfind("filename=", 0) == 0)
            file_name = option.substr(9);
        at = next == std::string::npos ? options.size() : next;
    }
    std::string content;
    if (!read_all(path.c_str(), content)) {
        fprintf(stderr, "tessel-render: cannot read %s\n", path.c_str());
        return false;
    }
    if (value[0] == '@') {
        if (file_name.empty())
            file_name = path.substr(path.find_last_of('/') + 1);
        part += "; filename=\"" + file_name + "\"\r\nContent-Type: " + type;
    }
    part += "\r\n\r\n" + content;
    return true;
}

// The request body and its type: the --post file as it is, or the -F fields as a multipart
// form whose boundary occurs in none of them. False (after a message) when a file cannot be
// read.
bool request_body(options& o, std::string& body, std::string& content_type)
{
    if (o.post) {
        if (!read_all(o.post, body)) {
            fprintf(stderr, "tessel-render: cannot read %s\n", o.post);
            return false;
        }
        content_type = o.content_type;
        return true;
    }
    std::vector<std::string> parts(o.fields.size());
    for (size_t i = 0; i < parts.size(); i++)
        if (!form_part(o.fields[i], parts[i]))
            return false;
    std::string boundary = "tessel-render-boundary";
    auto occurs = [&] {
        for (const std::string& part : parts)
            if (part.find(boundary) != std::string::npos)
                return true;
        return false;
    };
    for (unsigned n = 0; occurs(); n++)
        boundary = "tessel-render-boundary-" + std::to_string(n);
    for (const std::string& part : parts)
        body += "--" + boundary + "\r\n" + part + "\r\n";
    body += "--" + boundary + "--\r\n";
    content_type = "multipart/form-data; boundary=" + boundary;
    return true;
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
bool set_cgi_environment(const options& o, const std::string& page, const std::string& root,
                         const std::string* body, const std::string& content_type)
{
    std::string prefix = root == "/" ? "" : root;
    if (page.compare(0, prefix.size() + 1, prefix + "/") != 0) {
        fprintf(stderr, "tessel-render: %s is not under the document root %s\n", page.c_str(),
                root.c_str());
        return false;
    }
    std::string uri = page.substr(prefix.size());
    set_or_unset("SERVER_SOFTWARE", "tessel-render");
    set_or_unset("SERVER_NAME", "localhost");
    set_or_unset("SERVER_PORT", "80");
    set_or_unset("SERVER_PROTOCOL", "HTTP/1.1");
    set_or_unset("GATEWAY_INTERFACE", "CGI/1.1");
    set_or_unset("REMOTE_ADDR", "127.0.0.1");
    set_or_unset("REQUEST_METHOD", body ? "POST" : "GET");
    set_or_unset("REQUEST_URI", (*o.query ? uri + "?" + o.query : uri).c_str());
    set_or_unset("QUERY_STRING", o.query);
    set_or_unset("PATH_INFO", uri.c_str());
    set_or_unset("PATH_TRANSLATED", page.c_str());
    set_or_unset("SCRIPT_NAME", "/cgi-bin/tessel");
    set_or_unset("DOCUMENT_ROOT", root.c_str());
    set_or_unset("HTTP_COOKIE", o.cookie);
    set_or_unset("CONTENT_TYPE", body ? content_type.c_str() : nullptr);
    set_or_unset("CONTENT_LENGTH", body ? std::to_string(body->size()).c_str() : nullptr);
    for (const char* name : {"REMOTE_HOST", "AUTH_TYPE", "REMOTE_USER", "REMOTE_IDENT",
                             "HTTP_ACCEPT", "HTTP_USER_AGENT", "HTTP_REFERER"})
        unsetenv(name);
    return true;
}

// Runs the request in a child whose standard output is a pipe and whose standard input holds
// body (nothing when null); returns its exit status and leaves what it printed in response.
int run_child(const std::string* body, std::string& response)
{
    // The body waits in an unnamed file, so the child reads it whole whatever it prints.
    FILE* input = body ? tmpfile() : nullptr;
    if (body && (!input || fwrite(body->data(), 1, body->size(), input) != body->size() ||
                 fflush(input) != 0 || fseek(input, 0, SEEK_SET) != 0))
        return 2;
    int out[2];
    if (pipe(out) != 0)
        return 2;
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(out[0]);
        dup2(out[1], STDOUT_FILENO);
        close(out[1]);
        if (input) {
            dup2(fileno(input), STDIN_FILENO);
            clearerr(stdin); // "--post -" read the parent's standard input to its end
        }
        exit(serve_request());
    }
    close(out[1]);
    char buffer[65536];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;)
        response.append(buffer, (size_t)n);
    close(out[0]);
    if (input)
        fclose(input);
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
    std::string body, content_type;
    bool posting = o.post || !o.fields.empty();
    if (posting && !request_body(o, body, content_type))
        return 2;
    const std::string* sent = posting ? &body : nullptr;
    if (!set_cgi_environment(o, page, root, sent, content_type))
        return 2;
    std::string response;
    int status = run_child(sent, response);
    size_t start = response.find("\n\n");
    start = o.headers || start == std::string::npos ? 0 : start + 2;
    fwrite(response.data() + start, 1, response.size() - start, stdout);
    return status;
}
