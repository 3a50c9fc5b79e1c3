// Start-up of the request record from the CGI environment.
#include "cgi/request.h"

#include <cstdio>
#include <cstdlib>

#include "cgi/dispatch.h"
#include "core/charset.h"
#include "core/environment.h"
#include "core/str.h"

namespace {

// The variable's value, or a shared empty string when unset.
const char* cgi_var(const char* name)
{
    const char* value = getenv(name);
    return str_or_empty(value);
}

// The page's file, as dispatch_page_file chooses it. A server that runs the program as the
// handler of the page's file (lighttpd's cgi.assign) names that file SCRIPT_FILENAME, passes
// no PATH_TRANSLATED and starts the program in the page's folder: the file becomes
// PATH_TRANSLATED, which pages read as under the other servers, and the program moves to its
// own folder, where the other servers start it, unless the server named the site's state
// folder (TESSEL_STATE_DIR), which the program has entered already.
const char* request_page_file()
{
    const char* translated = cgi_var("PATH_TRANSLATED");
    const char* page = dispatch_page_file(translated, getenv("SCRIPT_FILENAME"));
    if (page == translated || !*page)
        return translated;
    env_set("PATH_TRANSLATED", page);
    if (!str_nonempty(getenv("TESSEL_STATE_DIR")))
        dispatch_enter_program_folder();
    return cgi_var("PATH_TRANSLATED");
}

} // namespace

const char* request_remote_user()
{
    const char* user = cgi_var("REMOTE_USER");
    if (*user || !str_equal(getenv("REDIRECT_STATUS"), "200"))
        return user;
    return cgi_var("REDIRECT_REMOTE_USER");
}

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
    c.path_translated = request_page_file();
    c.script_name = cgi_var("SCRIPT_NAME");
    c.query_string = cgi_var("QUERY_STRING");
    c.remote_addr = cgi_var("REMOTE_ADDR");
    c.remote_host = cgi_var("REMOTE_HOST");
    if (!*c.remote_host)
        c.remote_host = c.remote_addr;
    c.auth_type = cgi_var("AUTH_TYPE");
    c.remote_user = request_remote_user();
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
