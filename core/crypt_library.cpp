// Loads libcrypt with dlopen and looks up the calls of crypt_library once.
#include "core/crypt_library.h"

#include "core/shared_library.h"

namespace {

constexpr const char* CRYPT_FILES[] = {CRYPT_LIBRARY, nullptr};
shared_library library("crypt", "TESSEL_CRYPT_LIBRARY", CRYPT_FILES);
crypt_library calls;

bool look_up_all(shared_library& lib)
{
    return lib.look_up(calls.hash, "crypt_r") && lib.look_up(calls.new_setting, "crypt_gensalt_rn");
}

} // namespace

const crypt_library* crypt_library_load(const char** error)
{
    return library.load(look_up_all, error) ? &calls : nullptr;
}
