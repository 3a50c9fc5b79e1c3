// Loads the MySQL client library with dlopen and looks up the calls of mysql_client once.
#include "core/mysql_client.h"

#include "core/shared_library.h"

namespace {

shared_library library("client", "TESSEL_MYSQL_LIBRARY", MYSQL_CLIENT_LIBRARY);
mysql_client client;

bool look_up_all(shared_library& lib)
{
    return lib.look_up(client.init, "mysql_init") &&
           lib.look_up(client.real_connect, "mysql_real_connect") &&
           lib.look_up(client.query, "mysql_query") &&
           lib.look_up(client.store_result, "mysql_store_result") &&
           lib.look_up(client.field_count, "mysql_field_count") &&
           lib.look_up(client.error, "mysql_error") && lib.look_up(client.close, "mysql_close") &&
           lib.look_up(client.num_fields, "mysql_num_fields") &&
           lib.look_up(client.num_rows, "mysql_num_rows") &&
           lib.look_up(client.fetch_field, "mysql_fetch_field") &&
           lib.look_up(client.fetch_row, "mysql_fetch_row") &&
           lib.look_up(client.free_result, "mysql_free_result");
}

} // namespace

const mysql_client* mysql_client_load(const char** error)
{
    return library.load(look_up_all, error) ? &client : nullptr;
}
