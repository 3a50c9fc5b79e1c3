// Loads the MySQL client library with dlopen and looks up the calls of mysql_client once.
#include "core/mysql_client.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

enum class load_state { not_tried, loaded, failed };

load_state state = load_state::not_tried;
mysql_client client;
char failure[512];

// One looked-up call: the field it fills and the library's symbol name.
template <typename F> bool look_up(void* library, F& slot, const char* symbol)
{
    slot = reinterpret_cast<F>(dlsym(library, symbol));
    if (!slot)
        snprintf(failure, sizeof failure, "client library lacks %s", symbol);
    return slot != nullptr;
}

bool look_up_all(void* library)
{
    return look_up(library, client.init, "mysql_init") &&
           look_up(library, client.real_connect, "mysql_real_connect") &&
           look_up(library, client.query, "mysql_query") &&
           look_up(library, client.store_result, "mysql_store_result") &&
           look_up(library, client.field_count, "mysql_field_count") &&
           look_up(library, client.error, "mysql_error") &&
           look_up(library, client.close, "mysql_close") &&
           look_up(library, client.num_fields, "mysql_num_fields") &&
           look_up(library, client.num_rows, "mysql_num_rows") &&
           look_up(library, client.fetch_field, "mysql_fetch_field") &&
           look_up(library, client.fetch_row, "mysql_fetch_row") &&
           look_up(library, client.free_result, "mysql_free_result");
}

void load()
{
    const char* name = getenv("TESSEL_MYSQL_LIBRARY");
    if (!name || !*name)
        name = MYSQL_CLIENT_LIBRARY;
    void* library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        snprintf(failure, sizeof failure, "cannot load client library: %s", why ? why : name);
        state = load_state::failed;
        return;
    }
    // The library stays loaded for the rest of the process, also when a call is missing.
    state = look_up_all(library) ? load_state::loaded : load_state::failed;
}

} // namespace

const mysql_client* mysql_client_load(const char** error)
{
    if (state == load_state::not_tried)
        load();
    if (state == load_state::loaded)
        return &client;
    if (error)
        *error = failure;
    return nullptr;
}
