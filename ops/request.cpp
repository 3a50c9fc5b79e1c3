// Request operators: form fields, the query string, the URI, the environment, the browser and
// extra response header lines.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "cgi/charset.h"
#include "cgi/form.h"
#include "cgi/response.h"
#include "core/number.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

constexpr int MAX_FIELD_LENGTH = 0x7FFFF; // longer values are refused by `form`

// The outcome of a field fetch: the value (null when absent) or "too long".
struct field_fetch {
    char* value = nullptr;
    bool too_long = false;
};

// The first value of the field with line breaks normalised. Ownership: new value.
field_fetch request_fetch_field(const char* name)
{
    field_fetch result;
    int size = 0;
    if (form_value_length(name, size) != FORM_OK)
        return result;
    if (size > MAX_FIELD_LENGTH) {
        result.too_long = true;
        return result;
    }
    result.value = static_cast<char*>(checked_malloc(size));
    form_copy_value(name, result.value, size, true);
    return result;
}

// True for digits with an optional sign and an optional fraction; no digit is required, so a
// lone sign or dot counts as a number too. Empty text is not a number.
bool request_is_number(const char* s)
{
    if (!*s)
        return false;
    enum { FIRST, INTEGER, FRACTION } state = FIRST;
    for (; *s; s++) {
        bool digit = isdigit((unsigned char)*s);
        if (state == FIRST && (*s == '+' || *s == '-' || digit))
            state = INTEGER;
        else if (state != FRACTION && *s == '.')
            state = FRACTION;
        else if (!digit)
            return false;
    }
    return true;
}

// The digit after a browser marker: "0" and non-digits count as 1.
int request_marker_version(char c)
{
    return c >= '1' && c <= '9' ? c - '0' : 1;
}

// form[name]: the field's value, escaped.
char* op_form(int count, char** params)
{
    const char* name = param_text(count, params, 0);
    field_fetch field = request_fetch_field(name);
    if (field.too_long)
        return page_error("[form element %s exceeds maxlength]", str_or_empty(name));
    return escape_take(field.value);
}

// number[name]: the field's value when it reads as a number, else "0".
char* op_number(int count, char** params)
{
    field_fetch field = request_fetch_field(param_text(count, params, 0));
    if (field.value && request_is_number(field.value))
        return field.value;
    str_free(field.value);
    return str_dup("0");
}

// query[]: the query string as received; escaped under TESSEL_SAFE_ESCAPING.
char* op_query(int, char**)
{
    return escape_take_when_safe(str_dup(req.cgi.query_string));
}

// mangle[text]: the text in the output code page, URL-encoded.
char* op_mangle(int count, char** params)
{
    return cookie_value_out(param_text(count, params, 0));
}

// Whether the environment variable name carries what the visitor sent: a header line
// (HTTP_...), what the server derived from the request line, or the server's copies of those
// when it redirected the request (REDIRECT_...).
bool request_env_is_request_data(const char* name)
{
    static constexpr const char* FROM_REQUEST[] = {
        "QUERY_STRING", "REQUEST_URI", "PATH_INFO",    "PATH_TRANSLATED", "SCRIPT_NAME",
        "CONTENT_TYPE", "REMOTE_USER", "REMOTE_IDENT", "SERVER_NAME",     "AUTH_TYPE",
    };
    if (str_starts_with(name, "HTTP_") || str_starts_with(name, "REDIRECT_"))
        return true;
    for (const char* from_request : FROM_REQUEST)
        if (strcmp(name, from_request) == 0)
            return true;
    return false;
}

// env[name]: an environment variable, escaped.
char* op_env(int count, char** params)
{
    const char* name = param_text(count, params, 0);
    if (!str_nonempty(name))
        return nullptr;
    if (request_env_is_request_data(name))
        request_data_note();
    return escape_take(str_dup(getenv(name)));
}

// uri[]: the request URI; escaped under TESSEL_SAFE_ESCAPING.
char* op_uri(int, char**)
{
    return escape_take_when_safe(str_dup(req.request_uri));
}

// combine[name;separator]: every value of a field joined by the separator ("|"), escaped.
char* op_combine(int count, char** params)
{
    char** values = nullptr;
    if (form_all_values(param_text(count, params, 0), values) != FORM_OK)
        return nullptr;
    const char* separator = count >= 2 ? params[1] : "|";
    str_builder joined;
    for (char** v = values; *v; v++) {
        if (v != values)
            joined.append(separator);
        joined.append(*v);
    }
    form_free_values(values);
    return escape_take(joined.take(true));
}

// browser[kind;highest]: the major version of an "ie" or "nn" browser up to highest.
char* op_browser(int count, char** params)
{
    if (!*req.cgi.http_user_agent)
        return nullptr;
    const char* kind = param_text(count, params, 0);
    str_holder agent(str_upper_locale(str_dup(req.cgi.http_user_agent)));
    int version = 0;
    if (str_find(agent.get(), "COMPATIBLE")) {
        const char* msie = str_find(agent.get(), "MSIE ");
        if (str_equal(kind, "ie") && msie)
            version = request_marker_version(msie[5]);
    } else if (str_equal(kind, "nn") && strncmp(agent.get(), "MOZILLA/", 8) == 0) {
        version = request_marker_version(agent.get()[8]);
    }
    if (version == 0 || version > param_int(count, params, 1))
        return nullptr;
    return str_dup(fmt_int(version).text);
}

// header[name;value]: sets the content type, or writes "name: value" at once.
char* op_header(int count, char** params)
{
    const char* name = param_text(count, params, 0);
    const char* value = param_text(count, params, 1);
    if (!str_nonempty(name))
        return nullptr;
    if (strcasecmp(name, "content-type") != 0) {
        response_header(name, value);
    } else if (str_nonempty(value)) {
        str_free(req.content_type);
        req.content_type = str_dup(value);
    }
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row request_rows[] = {
    // name      handler      params  flags       accepted
    {"form",     op_form,     1,      REQUEST_DATA},
    {"number",   op_number,   1,      0},
    {"query",    op_query,    0,      REQUEST_DATA, {1, 1}},
    {"mangle",   op_mangle,   1,      0},
    {"env",      op_env,      1,      0},
    {"uri",      op_uri,      0,      REQUEST_DATA, {1, 1}},
    {"combine",  op_combine,  0,      REQUEST_DATA, {1, 2}},
    {"browser",  op_browser,  2,      0},
    {"header",   op_header,   2,      0},
};
// clang-format on

void register_request_ops()
{
    register_rows(request_rows);
}
