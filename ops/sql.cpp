// SQL: `server` holds one MySQL connection for the span of its body, `sql` runs a query on it
// and leaves the result set as the current table.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "cgi/charset.h"
#include "core/log.h"
#include "core/mysql_client.h"
#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

// Pages are recoded from and to SOURCE_CHARSET for the database's code page: KOI8-R unless
// the setting TESSEL_DB_CHARSET names another character set (cgi/charset.h).
constexpr unsigned DEFAULT_PORT = 3306;

// One request is one process, so the connection is process-wide. A nested `server` replaces
// it without closing the outer one, and closing leaves none: the outer body is then without
// a connection, which is kept on purpose.
const mysql_client* client = nullptr;
mysql_conn* connection = nullptr;

// Whether the connection's status flags tell the session's sql_mode. The flags come with each
// reply; those of the connect reply predate the server's init_connect statements, which may
// change the mode, so only a completed statement's flags are trusted.
bool status_known = false;

// Drops NO_BACKSLASH_ESCAPES from the session's sql_mode and keeps the rest. Holds no
// backslash, so it reads the same in either mode.
constexpr const char* SQL_BACKSLASH_ESCAPES_ON =
    "SET SESSION sql_mode = TRIM(BOTH ',' FROM REPLACE(CONCAT(',', @@SESSION.sql_mode, ','), "
    "',NO_BACKSLASH_ESCAPES,', ','))";

// What a query gives: a table for a result set, or a failure (the step WHAT and the client's
// MESSAGE); neither for a statement without a result set. The message is owned by the
// receiver.
struct sql_result {
    std::unique_ptr<table> rows;
    const char* what = nullptr;
    char* message = nullptr;
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

// The client's last error, or "not connected" without a connection. Ownership: view.
const char* sql_client_error()
{
    return connection ? client->error(connection) : "not connected";
}

// A failed step of a query, logged as "sql WHAT error: MESSAGE". The page shows it inside the
// query's own failure text (sql_failure). Ownership: new message.
sql_result sql_query_error(const char* what)
{
    const char* message = sql_client_error();
    log_line(LOG_ERROR, "sql %s error: %s", what, message);
    return {nullptr, what, str_dup(message)};
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
    status_known = false;
    const char* load_error = nullptr;
    client = mysql_client_load(&load_error);
    if (client) {
        connection = client->init(nullptr);
        const char* charset = database_charset_get().name;
        // The client reads MYSQL_UNIX_PORT once, when it starts; a resident process serves
        // requests whose environments differ, so each connection names the socket itself.
        const char* socket = getenv("MYSQL_UNIX_PORT");
        if (connection &&
            client->real_connect(connection, target.host, target.user, target.password,
                                 target.database, target.port ? target.port : DEFAULT_PORT,
                                 str_nonempty(socket) ? socket : nullptr, 0) &&
            (!charset || client->set_character_set(connection, charset) == 0))
            return nullptr;
    }
    return page_error_logged("[sql connect error: %s]", client ? sql_client_error() : load_error);
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
    charset_convert(copy.get(), database_charset_get().code_page, req.source_charset);
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
std::unique_ptr<table> sql_shape_result(mysql_result* result)
{
    unsigned fields = client->num_fields(result);
    auto shaped = std::make_unique<table_named>(sql_header_line(result, fields));
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

// Whether the session may read backslashes as ordinary characters: unknown until a statement
// has completed, then as its status flags say (a page may set sql_mode itself).
bool sql_backslashes_literal()
{
    unsigned status = 0;
    return !status_known || client->get_info(connection, MYSQL_INFO_SERVER_STATUS, &status) != 0 ||
           (status & MYSQL_STATUS_NO_BACKSLASH_ESCAPES);
}

// Makes the backslashes that the "sql" escaping puts before quotes hold for query. Only a
// query holding a backslash reads differently in NO_BACKSLASH_ESCAPES, so the mode is turned
// off, one statement, just before the first such query of a connection and again whenever
// the status says it came back. False when that fails.
bool sql_keep_backslash_escapes(const char* query)
{
    if (!strchr(query, '\\') || !sql_backslashes_literal())
        return true;
    if (client->query(connection, SQL_BACKSLASH_ESCAPES_ON) != 0)
        return false;
    status_known = true;
    return true;
}

// Runs one query (recoded in place to the database code page): its table, its error, or
// neither for a statement without a result set.
sql_result sql_run_query(char* query)
{
    if (!connection)
        return sql_query_error("query");
    charset_convert(query, req.source_charset, database_charset_get().code_page);
    if (!sql_keep_backslash_escapes(query) || client->query(connection, query) != 0)
        return sql_query_error("query");
    mysql_result* result = client->store_result(connection);
    if (!result) {
        if (client->field_count(connection))
            return sql_query_error("store query result");
        status_known = true;
        return {};
    }
    status_known = true;
    std::unique_ptr<table> shaped = sql_shape_result(result);
    client->free_result(result);
    return {std::move(shaped)};
}

// The query text with " limit OFFSET,COUNT" when either is non-zero. Ownership: takes query,
// new result.
char* sql_add_limit(char* query, int count, int offset)
{
    if (count == 0 && offset == 0)
        return query;
    char* limited = str_join(query, " limit ", fmt_int(offset).text, nullptr);
    str_free(query);
    str_append(limited, ",");
    str_append(limited, fmt_int(count).text);
    return limited;
}

// The failure text of `sql`, "[query "QUERY" [sql WHAT error: MESSAGE]]", with the query and
// the message escaped by the mode in force: a value that breaks the query, which the
// server's message may quote, is data in the page too. Also drops the current table so that
// no stale result is read. Ownership: borrows query, takes message, new result.
char* sql_failure(const char* query, const char* what, char* message)
{
    str_holder shown_message(escape_take(message));
    str_holder shown_query(escape_take(str_dup(query)));
    str_holder text(page_error("[query \"%s\" [sql %s error: %s]]", shown_query.get(), what,
                               shown_message.get()));
    req.tables->remove_current();
    return text.release();
}

// The query text, expanded with every inserted value escaped for SQL, and its limit clause
// from the expanded row count and offset. Ownership: new result.
char* sql_expand_query(int count, char** params)
{
    escape_mode_scope sql_mode(ESCAPE_MODE_SQL);
    str_holder query(expand_copy(param_text(count, params, 0)));
    int rows = expand_param_int(count, params, 1);
    int offset = expand_param_int(count, params, 2);
    char* limited = sql_add_limit(query.release(), rows, offset);
    return limited ? limited : str_dup("");
}

char* op_server(int, char** params)
{
    expand_param(params, 0);
    sql_target target = sql_parse_target(params[0]);
    sql_connection_scope scope;
    str_holder error(sql_connect(target));
    if (!error.get())
        return expand_copy(params[1]);
    // The error repeats the connection string, which a page may build from request data.
    if (setting_on("TESSEL_SERVER_ERROR_AS_TEXT"))
        error.reset(quote_for_expansion(error.get()));
    return macro_run("SERVER_ERROR", {error.get()});
}

char* op_sql(int count, char** params)
{
    str_holder query(sql_expand_query(count, params));
    sql_result result = sql_run_query(query.get());
    if (result.message)
        return sql_failure(query.get(), result.what, result.message);
    request_store_table(std::move(result.rows), table_origin::STORED);
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

void sql_reset()
{
    sql_disconnect();
    status_known = false;
}
