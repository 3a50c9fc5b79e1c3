// Loads the MySQL client library with dlopen and looks up the calls of mysql_client once.
//
// When the client starts, it starts its TLS library, which reads the system's TLS configuration
// and loads the library's message tables. No connection made here asks for TLS, so when that
// library is OpenSSL it is started beforehand without either, and the client's own start-up
// then finds it started.
#include "core/mysql_client.h"

#include "core/shared_library.h"

namespace {

// OpenSSL start-up options: no configuration file, no message tables (crypto, then TLS).
constexpr unsigned long long OPENSSL_NO_CONFIG_NO_STRINGS = 0x80 | 0x1 | 0x100000;

shared_library library("client", "TESSEL_MYSQL_LIBRARY", MYSQL_CLIENT_LIBRARY);
mysql_client client;

// Starts OpenSSL lean where the client uses it (a client built with another TLS library keeps
// its own start-up). Requires: the library is open.
void start_tls_lean(shared_library& lib)
{
    int (*start_tls)(unsigned long long options, const void* settings) = nullptr;
    if (lib.look_up(start_tls, "OPENSSL_init_ssl"))
        start_tls(OPENSSL_NO_CONFIG_NO_STRINGS, nullptr);
}

bool look_up_all(shared_library& lib)
{
    bool found = lib.look_up(client.init, "mysql_init") &&
                 lib.look_up(client.real_connect, "mysql_real_connect") &&
                 lib.look_up(client.query, "mysql_query") &&
                 lib.look_up(client.store_result, "mysql_store_result") &&
                 lib.look_up(client.field_count, "mysql_field_count") &&
                 lib.look_up(client.error, "mysql_error") &&
                 lib.look_up(client.close, "mysql_close") &&
                 lib.look_up(client.num_fields, "mysql_num_fields") &&
                 lib.look_up(client.num_rows, "mysql_num_rows") &&
                 lib.look_up(client.fetch_field, "mysql_fetch_field") &&
                 lib.look_up(client.fetch_row, "mysql_fetch_row") &&
                 lib.look_up(client.free_result, "mysql_free_result");
    if (found)
        start_tls_lean(lib); // not a call the client must have: its absence is no failure
    return found;
}

} // namespace

const mysql_client* mysql_client_load(const char** error)
{
    return library.load(look_up_all, error) ? &client : nullptr;
}
