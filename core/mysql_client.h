// The MySQL client library (MariaDB Connector/C), loaded with dlopen on first use.
//
// Pages without SQL never load the library, and the program does not link against it. Only
// the few calls that the SQL operators need are looked up, once per process. The types are
// opaque stand-ins for the client's own: a connection, a result set, and the leading member
// of a field description (its name). A null string reads as empty text.
#ifndef TESSEL_CORE_MYSQL_CLIENT_H
#define TESSEL_CORE_MYSQL_CLIENT_H

// The client is the build's own module (tessel-mysql.so: the client without TLS, which no
// connection string can ask for) beside the program or where it is installed, or, when
// neither is there, the system's shared client. The environment variable TESSEL_MYSQL_LIBRARY
// may name another file.
constexpr const char* MYSQL_CLIENT_MODULE = "tessel-mysql.so";
constexpr const char* MYSQL_CLIENT_LIBRARY = "libmariadb.so.3";

struct mysql_conn;   // the client's connection object
struct mysql_result; // a stored result set

// mariadb_get_infov's query for the server status flags that the connection's last reply
// carried (an unsigned), and the flag among them saying that the session's sql_mode holds
// NO_BACKSLASH_ESCAPES: a backslash in a string literal is then an ordinary character.
constexpr int MYSQL_INFO_SERVER_STATUS = 30;
constexpr unsigned MYSQL_STATUS_NO_BACKSLASH_ESCAPES = 512;

// The start of the client's field description: its first member is the field's name.
struct mysql_field_head {
    char* name;
};

// The client calls, with the signatures of the MySQL C API.
struct mysql_client {
    mysql_conn* (*init)(mysql_conn* conn);
    mysql_conn* (*real_connect)(mysql_conn* conn, const char* host, const char* user,
                                const char* password, const char* database, unsigned port,
                                const char* socket, unsigned long flags);
    int (*query)(mysql_conn* conn, const char* text);
    mysql_result* (*store_result)(mysql_conn* conn);
    unsigned (*field_count)(mysql_conn* conn);
    const char* (*error)(mysql_conn* conn);
    void (*close)(mysql_conn* conn);
    unsigned (*num_fields)(mysql_result* result);
    unsigned long long (*num_rows)(mysql_result* result);
    mysql_field_head* (*fetch_field)(mysql_result* result);
    char** (*fetch_row)(mysql_result* result);
    void (*free_result)(mysql_result* result);
    char (*get_info)(mysql_conn* conn, int what, void* value, ...); // non-zero on failure
    int (*set_character_set)(mysql_conn* conn, const char* name);   // non-zero on failure
};

// The client calls, loaded on the first call of the process. Null when the library or one
// of its calls cannot be found; *error then says why (the same text on every later call).
// Ownership: view of process-wide data; *error is a view of a static buffer.
const mysql_client* mysql_client_load(const char** error);

#endif
