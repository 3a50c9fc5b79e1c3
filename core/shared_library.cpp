// Opens a shared library with dlopen and looks up its symbols with dlsym.
#include "core/shared_library.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

bool shared_library::open()
{
    // A file named by the environment is the only one tried.
    const char* chosen = getenv(env_name_);
    const char* const named[] = {chosen, nullptr};
    snprintf(chosen_, sizeof chosen_, "%s", chosen ? chosen : "");
    handle_ = nullptr; // a handle opened before stays open, unused
    failure_[0] = '\0';
    for (const char* const* names = chosen && *chosen ? named : default_names_; *names && !handle_;
         names++) {
        if (!**names)
            continue;
        handle_ = dlopen(*names, RTLD_NOW | RTLD_LOCAL);
        if (!handle_) {
            const char* why = dlerror();
            snprintf(failure_, sizeof failure_, "cannot load %s library: %s", what_,
                     why ? why : *names);
        }
    }
    return handle_ != nullptr;
}

bool shared_library::same_choice() const
{
    const char* chosen = getenv(env_name_);
    return strcmp(chosen ? chosen : "", chosen_) == 0;
}

void* shared_library::address_of(const char* symbol)
{
    void* address = dlsym(handle_, symbol);
    if (!address)
        snprintf(failure_, sizeof failure_, "%s library lacks %s", what_, symbol);
    return address;
}
