// The system's password hashing (libcrypt), loaded with dlopen on first use.
//
// Only the chat's admin password needs it, so the program is not linked against it: its
// hashing methods and their tables would be mapped at every start. The types come from
// libcrypt-dev's header; call the functions only through crypt_library.
#ifndef TESSEL_CORE_CRYPT_LIBRARY_H
#define TESSEL_CORE_CRYPT_LIBRARY_H

#include <crypt.h>

// The shared library loaded unless the environment variable TESSEL_CRYPT_LIBRARY names
// another file.
constexpr const char* CRYPT_LIBRARY = "libcrypt.so.1";

// The calls, with libcrypt's own signatures.
struct crypt_library {
    decltype(&crypt_r) hash;                 // a hash starting with '*' (or null) on failure
    decltype(&crypt_gensalt_rn) new_setting; // null when no setting could be made
};

// The calls, loaded on the first call of the process. Null when the library or one of its
// calls cannot be found; *error then says why (the same text on every later call).
// Ownership: view of process-wide data; *error is a view of a static buffer.
const crypt_library* crypt_library_load(const char** error);

#endif
