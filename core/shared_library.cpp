// Opens a shared library with dlopen and looks up its symbols with dlsym.
#include "core/shared_library.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

bool shared_library::open()
{
    // A file named by the environment is the only one tried.
    const char* chosen = getenv(env_name_);
    bool named = chosen && *chosen;
    const char* const single[] = {named ? chosen : default_name_, nullptr};
    const char* const* names = named || !default_names_ ? single : default_names_;
    for (; *names && !handle_; names++) {
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

void* shared_library::address_of(const char* symbol)
{
    void* address = dlsym(handle_, symbol);
    if (!address)
        snprintf(failure_, sizeof failure_, "%s library lacks %s", what_, symbol);
    return address;
}
