// Loads the MySQL client library with dlopen and looks up the calls of mysql_client once.
//
// The client tried first is the build's own module, the client from its static archive with
// TLS left out: loading it maps one small file and the C library, where the system's shared
// client also maps and relocates the TLS and crypto libraries, several times the work, for
// connections that never ask for TLS.
//
// When the system's client starts, it starts its TLS library, which reads the system's TLS
// configuration and loads the library's message tables. No connection made here asks for
// TLS, so when that library is OpenSSL it is started beforehand without either, and the
// client's own start-up then finds it started.
#include "core/mysql_client.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/shared_library.h"
#include "core/str.h"

#ifndef TESSEL_MYSQL_MODULE_DIR
#define TESSEL_MYSQL_MODULE_DIR ""
#endif

namespace {

// OpenSSL start-up options: no configuration file, no message tables (crypto, then TLS).
constexpr unsigned long long OPENSSL_NO_CONFIG_NO_STRINGS = 0x80 | 0x1 | 0x100000;

// The port registered for the service "mysql".
constexpr unsigned MYSQL_SERVICE_PORT = 3306;

// The module's two places are filled in by the first load (on the heap: most requests never
// need them), then the system's client.
const char* client_files[] = {"", "", MYSQL_CLIENT_LIBRARY, nullptr};
shared_library library("client", "TESSEL_MYSQL_LIBRARY", client_files);
mysql_client client;

// Fills in the module's paths: in the program's own folder (where the build and the test
// servers keep it) and in the installed module folder.
void find_module_files()
{
    char program[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    char* slash = length > 0 ? (char*)memrchr(program, '/', length) : nullptr;
    if (slash) {
        slash[1] = '\0';
        client_files[0] = str_join(program, MYSQL_CLIENT_MODULE, nullptr);
    }
    if (*TESSEL_MYSQL_MODULE_DIR)
        client_files[1] = str_join(TESSEL_MYSQL_MODULE_DIR, "/", MYSQL_CLIENT_MODULE, nullptr);
}

// Starts OpenSSL lean where the client uses it (a client built with another TLS library keeps
// its own start-up). Requires: the library is open.
void start_tls_lean(shared_library& lib)
{
    int (*start_tls)(unsigned long long options, const void* settings) = nullptr;
    if (lib.look_up(start_tls, "OPENSSL_init_ssl"))
        start_tls(OPENSSL_NO_CONFIG_NO_STRINGS, nullptr);
}

// A client that exports its default port and has none yet looks the service "mysql" up
// through the name-service switch at start-up; giving it the registered port first saves
// that. MYSQL_TCP_PORT in the environment is left for the client to read. Requires: the
// library is open.
void preset_default_port(shared_library& lib)
{
    unsigned* default_port = nullptr;
    if (!getenv("MYSQL_TCP_PORT") && lib.look_up(default_port, "mysql_port") && !*default_port)
        *default_port = MYSQL_SERVICE_PORT;
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
                 lib.look_up(client.free_result, "mysql_free_result") &&
                 lib.look_up(client.get_info, "mariadb_get_infov") &&
                 lib.look_up(client.set_character_set, "mysql_set_character_set");
    if (found) {
        // Neither call is one the client must have: their absence is no failure.
        start_tls_lean(lib);
        preset_default_port(lib);
    }
    return found;
}

} // namespace

const mysql_client* mysql_client_load(const char** error)
{
    static bool found = false;
    if (!found) {
        find_module_files();
        found = true;
    }
    return library.load(look_up_all, error) ? &client : nullptr;
}
