// SQL: `server` holds one MySQL connection for the span of its body, `sql` runs a query on it
// and leaves the result set as the current table.
#include <cstdlib>

#include "cgi/charset.h"
#include "core/log.h"
#include "core/mysql_client.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
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

// What a query gives: a table for a result set, or the failure text "[sql WHAT error:
// MESSAGE]"; neither for a statement without a result set. Both are owned by the receiver.
struct sql_result {
    table* rows = nullptr;
    char* error = nullptr;
};

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

// Logs "sql WHAT error: MESSAGE" and returns "[sql WHAT error: MESSAGE]". The message is the
// client's last error, or "not connected" without a connection, unless one is given.
// Ownership: new result.
char* sql_report_error(const char* what, const char* message = nullptr)
{
    if (!message)
        message = connection ? client->error(connection) : "not connected";
    log_line(LOG_ERROR, "sql %s error: %s", what, message);
    return str_join("[sql ", what, " error: ", message, "]", nullptr);
}

void sql_disconnect()
{
    if (connection)
        client->close(connection);
    connection = nullptr;
}

// Opens the connection; null on success, else the error text. A connection still open (a
// `server` inside another's body) is closed first: there is one connection, and the outer
// body's later queries find none. Ownership: new result.
char* sql_connect(const sql_target& target)
{
    sql_disconnect();
    const char* load_error = nullptr;
    client = mysql_client_load(&load_error);
    if (!client)
        return sql_report_error("connect", load_error);
    connection = client->init(nullptr);
    if (connection &&
        client->real_connect(connection, target.host, target.user, target.password, target.database,
                             target.port ? target.port : DEFAULT_PORT, nullptr, 0))
        return nullptr;
    return sql_report_error("connect");
}

// Closes the connection when the `server` call is left, also by a lock violation out of the
// body or out of SERVER_ERROR.
struct sql_connection_scope {
    sql_connection_scope() = default;
    ~sql_connection_scope() { sql_disconnect(); }
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

// Runs one query (recoded in place to the database code page): its table, its error, or
// neither for a statement without a result set.
sql_result sql_run_query(char* query)
{
    if (!connection)
        return {nullptr, sql_report_error("query")};
    charset_convert(query, req.source_charset, DATABASE_CHARSET);
    if (client->query(connection, query) != 0)
        return {nullptr, sql_report_error("query")};
    mysql_result* result = client->store_result(connection);
    if (!result)
        return {nullptr,
                client->field_count(connection) ? sql_report_error("store query result") : nullptr};
    table* shaped = sql_shape_result(result);
    client->free_result(result);
    return {shaped, nullptr};
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

// The failure text of `sql`; also drops the current table so that no stale result is read.
// Ownership: borrows both, new result.
char* sql_failure(const char* query, const char* error)
{
    str_holder text(str_join("[query \"", query, "\" ", error, "]", nullptr));
    req.tables->remove_current();
    return text.release();
}

char* op_server(int, char** params)
{
    expand_param(params, 0);
    sql_target target = sql_parse_target(params[0]);
    sql_connection_scope scope;
    str_holder error(sql_connect(target));
    return error.get() ? macro_run("SERVER_ERROR", {error.get()}) : expand_copy(params[1]);
}

char* op_sql(int count, char** params)
{
    escape_mode_scope sql_mode(ESCAPE_MODE_SQL);
    str_holder query(expand_copy(param_text(count, params, 0)));
    int rows = expand_param_int(count, params, 1);
    int offset = expand_param_int(count, params, 2);
    query.reset(sql_add_limit(query.release(), rows, offset));
    if (!query.get())
        query.reset(str_dup(""));
    sql_result result = sql_run_query(query.get());
    if (result.error) {
        str_holder error(result.error);
        return sql_failure(query.get(), error.get());
    }
    store_current_table(result.rows);
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row sql_rows[] = {
    // name     handler     params  flags       accepted
    {"server",  op_server,  2,      RAW_PARAMS},
    {"sql",     op_sql,     0,      RAW_PARAMS, {1, 3}},
};
// clang-format on

void register_sql_ops()
{
    register_rows(sql_rows);
}
