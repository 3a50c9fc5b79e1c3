// The request record, start-up from the CGI environment, and the page main.
#include "cgi/request.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "cgi/charset.h"
#include "cgi/log.h"
#include "core/str.h"
#include "interp/macros.h"
#include "ops/ops.h"

request_record req;

namespace {

// The variable's value, or a shared empty string when unset.
const char* cgi_var(const char* name)
{
    const char* value = getenv(name);
    return value ? value : "";
}

// Runs of blanks shrink to their first character. With html set the set is space, tab and
// line breaks and a leading run keeps one character; otherwise it is line breaks only and
// leading line breaks all go (the state starts as if one had just been kept).
void compact_runs(char* text, bool html)
{
    bool after_blank = !html;
    char* out = text;
    for (const char* in = text; *in; in++) {
        char c = *in;
        bool blank = c == '\n' || c == '\r' || (html && (c == ' ' || c == '\t'));
        if (blank && after_blank)
            continue;
        after_blank = blank;
        *out++ = *in;
    }
    *out = '\0';
}

}  // namespace

void request_init()
{
    cgi_vars& c = req.cgi;
    c.server_software = cgi_var("SERVER_SOFTWARE");
    c.server_name = cgi_var("SERVER_NAME");
    c.gateway_interface = cgi_var("GATEWAY_INTERFACE");
    c.server_protocol = cgi_var("SERVER_PROTOCOL");
    c.server_port = cgi_var("SERVER_PORT");
    c.request_method = cgi_var("REQUEST_METHOD");
    c.request_uri = cgi_var("REQUEST_URI");
    c.path_info = cgi_var("PATH_INFO");
    c.path_translated = cgi_var("PATH_TRANSLATED");
    c.script_name = cgi_var("SCRIPT_NAME");
    c.query_string = cgi_var("QUERY_STRING");
    c.remote_addr = cgi_var("REMOTE_ADDR");
    c.remote_host = cgi_var("REMOTE_HOST");
    if (!*c.remote_host)
        c.remote_host = c.remote_addr;
    c.auth_type = cgi_var("AUTH_TYPE");
    c.remote_user = cgi_var("REMOTE_USER");
    c.remote_ident = cgi_var("REMOTE_IDENT");
    c.content_type = cgi_var("CONTENT_TYPE");
    req.content_length = atoi(cgi_var("CONTENT_LENGTH"));
    c.http_accept = cgi_var("HTTP_ACCEPT");
    c.http_user_agent = cgi_var("HTTP_USER_AGENT");
    c.http_referer = cgi_var("HTTP_REFERER");
    c.http_cookie = cgi_var("HTTP_COOKIE");
    c.document_root = cgi_var("DOCUMENT_ROOT");

    req.form_entries = nullptr;
    req.output_stream = stdout;
    req.input_stream = stdin;
    req.output_charset = charset_from_name(getenv("CHARSET"));
    req.source_charset = charset_from_name(getenv("SOURCE_CHARSET"));
}

char* resolve_path(const char* name)
{
    if (name && name[0] == '/')
        return str_join(req.cgi.document_root, name, nullptr);
    char* dir = str_dup(req.page_path);
    str_cut_at_last(dir, '/');
    char* path = str_join(dir ? dir : "", "/", name ? name : "", nullptr);
    str_free(dir);
    return path;
}

void apply_profile()
{
    char* text = read_file(".profile", false, false);
    char* cursor = text;
    // Only lines that end with a line feed count: a last line without one is not applied.
    while (cursor) {
        char* line = str_take_token(cursor, '\n');
        if (!cursor)
            break;
        char* value = str_cut_at(line, '=');
        if (value)
            setenv(line, value, 1);
    }
    str_free(text);
}

void compact_page(char* text)
{
    if (text && req.compaction_enabled)
        compact_runs(text, !req.content_type_set);
}

int render_page()
{
    apply_profile();
    req.request_uri = str_dup(getenv("REQUEST_URI"));
    req.page_path = str_dup(req.cgi.path_translated);
    if (!str_nonempty(req.request_uri) || !str_nonempty(req.page_path))
        fatal_error("%s", TESSEL_BANNER);
    const char* script = req.cgi.script_name;
    if (*script && strncmp(req.request_uri, script, strlen(script)) == 0)
        fatal_error("illegal call");

    register_all_operators();
    macro_init();
    char* page = load_page(req.page_path);
    compact_page(page);
    if (!page)
        fatal_error("unable to print %s", req.page_path);

    if (req.output_enabled) {
        fprintf(req.output_stream, "Content-type: %s\nContent-length: %d\n\n", req.content_type,
                (int)strlen(page));
        fwrite(page, 1, strlen(page), req.output_stream);
    }
    str_free(page);
    str_free(req.request_uri);
    str_free(req.page_path);
    req.request_uri = req.page_path = nullptr;
    return 0;
}
