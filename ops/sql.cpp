// SQL: `server` holds one MySQL connection for the span of its body, `sql` runs a query on it
// and leaves the result set as the current table.
#include <cstdlib>

#include "cgi/charset.h"
#include "core/log.h"
#include "interp/request.h"
#include "core/mysql_client.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

// The database always talks KOI8-R; pages are recoded from and to SOURCE_CHARSET.
constexpr int DATABASE_CHARSET = CHARSET_KOI;
constexpr unsigned DEFAULT_PORT = 3306;

// One request is one process, so the connection is process-wide. A nested `server` replaces
// it without closing the outer one, and closing leaves none: the outer body is then without
// a connection, which is kept on purpose.
const mysql_client* client = nullptr;
mysql_conn* connection = nullptr;
char* pending_error = nullptr; // "[sql WHAT error: MESSAGE]" until the operator consumes it

// The parts of a connection string user:password@host:port/database; absent parts are null.
struct sql_target {
    const char* user = nullptr;
    const char* password = nullptr;
    const char* host = nullptr;
    const char* database = nullptr;
    unsigned port = 0;
};

// Cuts text in place, each cut at the first occurrence, in this order: "@", then "/" in the
// host part, ":" in the user part, ":" in the host part. Ownership: views into text.
sql_target sql_parse_target(char* text)
{
    sql_target target;
    char* host = str_cut_at(text, '@');
    target.database = str_cut_at(host, '/');
    target.password = str_cut_at(text, ':');
    const char* port = str_cut_at(host, ':');
    target.user = text;
    target.host = host;
    target.port = port ? (unsigned)atoi(port) : 0;
    return target;
}

// Logs "sql WHAT error: MESSAGE" and sets the pending error. The message is the client's
// last error, or "not connected" without a connection, unless one is given. Returns null.
table* sql_report_error(const char* what, const char* message = nullptr)
{
    if (!message)
        message = connection ? client->error(connection) : "not connected";
    log_line(LOG_ERROR, "sql %s error: %s", what, message);
    str_free(pending_error);
    pending_error = str_join("[sql ", what, " error: ", message, "]", nullptr);
    return nullptr;
}

void sql_clear_pending()
{
    str_free(pending_error);
    pending_error = nullptr;
}

bool sql_connect(const sql_target& target)
{
    const char* load_error = nullptr;
    client = mysql_client_load(&load_error);
    connection = nullptr;
    if (!client) {
        sql_report_error("connect", load_error);
        return false;
    }
    connection = client->init(nullptr);
    if (connection &&
        client->real_connect(connection, target.host, target.user, target.password, target.database,
                             target.port ? target.port : DEFAULT_PORT, nullptr, 0))
        return true;
    sql_report_error("connect");
    return false;
}

void sql_disconnect()
{
    if (connection)
        client->close(connection);
    connection = nullptr;
}

// Closes the connection and drops the pending error when the `server` call is left, also by
// a lock violation out of the body or out of SERVER_ERROR, so no later `sql` sees the error.
struct sql_connection_scope {
    sql_connection_scope() = default;
    ~sql_connection_scope()
    {
        sql_disconnect();
        sql_clear_pending();
    }
    sql_connection_scope(const sql_connection_scope&) = delete;
    sql_connection_scope& operator=(const sql_connection_scope&) = delete;
};

// A database text as the page sees it: recoded to the source code page, tabs as blanks.
void sql_append_recoded(str_builder& out, const char* value)
{
    str_holder copy(str_dup(value));
    charset_convert(copy.get(), DATABASE_CHARSET, req.source_charset);
    str_replace_char(copy.get(), '\t', ' ');
    out.append(copy.get());
}

// The header line: every field name (or "unknown") followed by a tab. Ownership: new result.
char* sql_header_line(mysql_result* result, unsigned fields)
{
    str_builder header;
    for (unsigned i = 0; i < fields; i++) {
        mysql_field_head* field = client->fetch_field(result);
        sql_append_recoded(header, field && field->name ? field->name : "unknown");
        header.append('\t');
    }
    return header.take(false);
}

// A table_named of the result set; every row line is each value (NULL as nothing) followed
// by a tab, so lines end with a tab and the table has a last column with an empty name.
table* sql_shape_result(mysql_result* result)
{
    unsigned fields = client->num_fields(result);
    table* shaped = new table_named(sql_header_line(result, fields));
    for (unsigned long long rows = client->num_rows(result); rows > 0; rows--) {
        char** row = client->fetch_row(result);
        if (!row)
            continue;
        str_builder line;
        for (unsigned i = 0; i < fields; i++) {
            if (row[i])
                sql_append_recoded(line, row[i]);
            line.append('\t');
        }
        shaped->append(line.take(false));
    }
    return shaped;
}

// Runs one query (recoded in place to the database code page). A new table for a result set;
// null with no error for a statement without one; null with the pending error on failure.
table* sql_run_query(char* query)
{
    if (!connection)
        return sql_report_error("query");
    charset_convert(query, req.source_charset, DATABASE_CHARSET);
    if (client->query(connection, query) != 0)
        return sql_report_error("query");
    mysql_result* result = client->store_result(connection);
    if (!result)
        return client->field_count(connection) ? sql_report_error("store query result") : nullptr;
    table* shaped = sql_shape_result(result);
    client->free_result(result);
    return shaped;
}

// The query text with " limit OFFSET,COUNT" when either is non-zero. Ownership: takes query,
// new result.
char* sql_add_limit(char* query, int count, int offset)
{
    if (count == 0 && offset == 0)
        return query;
    char* limited = str_join(query, " limit ", fmt_int(offset), nullptr);
    str_free(query);
    str_append(limited, ",");
    str_append(limited, fmt_int(count));
    return limited;
}

// Expands parameter i in place and reads it as a decimal number; 0 when absent.
int sql_expand_int(int count, char** params, int i)
{
    if (i < count)
        expand_param(params, i);
    return str_to_int(param_text(count, params, i));
}

// What the site's SERVER_ERROR macro makes of the pending error. Ownership: new result.
char* sql_server_error()
{
    struct macro_params {
        char* slots[2];
        ~macro_params() { str_free(slots[0]), str_free(slots[1]); }
    } call{{str_dup("SERVER_ERROR"), str_dup(pending_error)}};
    return call_operator("macro", 2, call.slots);
}

// The failure text of `sql`; also drops the current table so that no stale result is read.
char* sql_failure(const char* query, table* result)
{
    str_holder text(str_join("[query \"", query, "\" ", pending_error, "]", nullptr));
    sql_clear_pending();
    delete result;
    req.tables->remove_current();
    return text.release();
}

char* op_server(int, char** params)
{
    expand_param(params, 0);
    sql_target target = sql_parse_target(params[0]);
    sql_connection_scope scope;
    return sql_connect(target) ? expand_copy(params[1]) : sql_server_error();
}

char* op_sql(int count, char** params)
{
    escape_mode_scope sql_mode(ESCAPE_MODE_SQL);
    str_holder query(expand_copy(param_text(count, params, 0)));
    int rows = sql_expand_int(count, params, 1);
    int offset = sql_expand_int(count, params, 2);
    query.reset(sql_add_limit(query.release(), rows, offset));
    if (!query.get())
        query.reset(str_dup(""));
    table* result = sql_run_query(query.get());
    if (pending_error)
        return sql_failure(query.get(), result);
    store_current_table(result);
    return nullptr;
}

constexpr op_row rows[] = {
    // name     handler     params  flags
    {"server",  op_server,  2,      RAW_PARAMS},
    {"sql",     op_sql,     0,      RAW_PARAMS},
};

} // namespace

void register_sql_ops() { register_rows(rows); }
