// The request record: the one global state of a request, filled at start-up and read by all.
//
// It sits in the interpreter's layer so that the interpreter, the CGI layer and the operator
// families all read the same record; the CGI layer fills it (request_init in cgi/request.h).
#ifndef TESSEL_INTERP_REQUEST_H
#define TESSEL_INTERP_REQUEST_H

#include <cstdio>
#include <memory>

#include "core/sorted_map.h"
#include "core/table.h"
#include "interp/escape.h"

struct form_entry;

// The CGI variables, each the environment's value or a shared empty string (never null).
struct cgi_vars {
    const char* server_software = "";
    const char* server_name = "";
    const char* gateway_interface = "";
    const char* server_protocol = "";
    const char* server_port = "";
    const char* request_method = "";
    const char* request_uri = "";
    const char* path_info = "";
    const char* path_translated = "";
    const char* script_name = "";
    const char* query_string = "";
    const char* remote_host = ""; // REMOTE_ADDR when the server sent no host name
    const char* remote_addr = "";
    const char* auth_type = "";
    const char* remote_user = "";
    const char* remote_ident = "";
    const char* content_type = "";
    const char* http_accept = "";
    const char* http_user_agent = "";
    const char* http_referer = "";
    const char* http_cookie = "";
    const char* document_root = "";
};

// Every field is per request: request_record_reset puts the whole record back to the values
// below, so a field added here needs no line of its own there, unless it owns memory.
struct request_record {
    // Binds the logs to page_path and log_names, and the case rule to source_charset.
    request_record();
    request_record(const request_record&) = delete;
    request_record& operator=(const request_record&) = delete;

    // Media type of the response as `header` set it, owned; null until then, when the type
    // is DEFAULT_CONTENT_TYPE (see response_content_type) and compaction squeezes blanks.
    char* content_type = nullptr;
    bool output_enabled = true;  // false once an operator wrote its own whole response
    char* request_uri = nullptr; // REQUEST_URI as it is after .profile
    char* page_path = nullptr;   // PATH_TRANSLATED as read at start
    cgi_vars cgi;
    int content_length = 0;
    FILE* output_stream = nullptr;
    FILE* input_stream = nullptr;

    form_entry* form_entries = nullptr;     // query-string entries, then body entries
    form_entry* form_cursor = nullptr;      // next entry for form_find_next
    const char* form_cursor_name = nullptr; // name being searched by form_find_next

    int source_charset = 0; // code page of the page sources (SOURCE_CHARSET)
    int output_charset = 0; // code page of the response (CHARSET)

    int depth = 0; // nesting counter of operator calls

    // Request data: text that came from the request (form fields, cookies, the query, the URI,
    // header lines, upload names) or was made from it. The counter rises whenever an operator's
    // result holds such text, so a call that saw it rise read request data (see
    // request_data_in_call); the variables named in request_data_variables hold it.
    unsigned request_data_reads = 0;
    unsigned call_start_reads = 0; // request_data_reads when the innermost call began
    sorted_map* request_data_variables = new sorted_map; // name -> "1"

    int page_line = 0; // line of the page file's call being expanded; 0 outside the page text

    // The shared state of the operators, created with the record, so before any family
    // registers, and kept until the process exits.
    sorted_map* macros = new sorted_map;    // macro name -> body
    sorted_map* variables = new sorted_map; // variable store of `var` and `eval`
    table_array* tables = new table_array;  // table registry
    int escape_mode = ESCAPE_MODE_HTML;     // current output escaping (interp/escape.h)
    int compaction_enabled = 1;             // switched by `optimize`

    const char* log_names[2] = {"./access_log", "./error_log"}; // access log, error log
};

extern request_record req;

// Frees what the record owns (the content type, the request URI and page path, the macro
// table, the variable store, the table registry and its current name, the names of the
// request-data variables) and builds the record anew, so every field holds its start-up value.
// The form entries belong to the CGI layer: form_free_all (cgi/form.h) frees them first. Call
// it between requests only, never while a page is being expanded.
void request_record_reset();

// The media type of a response nobody set one for.
constexpr const char* DEFAULT_CONTENT_TYPE = "text/html";

// The media type of the response: the one `header` set, else DEFAULT_CONTENT_TYPE.
// Ownership: view.
inline const char* response_content_type()
{
    return req.content_type ? req.content_type : DEFAULT_CONTENT_TYPE;
}

// A file name resolved for the page: "/x" is DOCUMENT_ROOT followed by "/x"; anything else is
// relative to the page's directory. Ownership: borrows name, new result.
char* resolve_path(const char* name);

// The private file for name: resolve_path's result with "_" before its last component, so
// "data/book" names ".../data/_book", which the server never sends. Ownership: borrows name,
// new result.
char* resolve_private_path(const char* name);

// The name an error text that a page shows gives a file: with the setting
// TESSEL_SAFE_ERROR_PAGES the name as the page wrote it, which tells a visitor nothing of the
// server's folders (the error log names the page and its line); otherwise path, the file the
// name resolved to. Ownership: view of one of the two (null reads as "").
const char* request_path_shown(const char* path, const char* written);

// Whether a search for definition files (_tessel.cfg) or rule files (.htaccess) that walks the
// folders on the way to a page may read the folder dir (a path without a trailing "/"). Every
// folder may, unless the setting TESSEL_STOP_AT_DOCUMENT_ROOT is "1" and DOCUMENT_ROOT is set:
// then only the document root and the folders below it may, so a file planted above the site
// cannot change its pages.
bool request_search_reaches(const char* dir);

// Notes that the result of the call in progress holds request data.
inline void request_data_note()
{
    req.request_data_reads++;
}

// True when the call in progress (its parameters, its nested calls or its handler) has read
// request data so far.
inline bool request_data_in_call()
{
    return req.request_data_reads != req.call_start_reads;
}

// Where the rows of a table came from: made by the call from its parameters and the request,
// or read from what the site keeps (a table file, the database).
enum class table_origin { CALL, STORED };

// Stores t in the table registry under the current table name (see table_array::store); a
// null t stores nothing. The one way a table made by an operator enters the registry. A table
// that a call made while it read request data holds request data (table::holds_request_data).
// Ownership: takes t.
void request_store_table(std::unique_ptr<table> t, table_origin origin = table_origin::CALL);

#endif
