// Start-up of the request record from the CGI environment.
#include "cgi/request.h"

#include <cstdio>
#include <cstdlib>

#include "core/charset.h"
#include "core/str.h"

namespace {

// The variable's value, or a shared empty string when unset.
const char* cgi_var(const char* name)
{
    const char* value = getenv(name);
    return str_or_empty(value);
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
    c.path_translated = cgi_var("PATH_TRANSLATED");
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
