// Opens a shared library with dlopen and looks up its symbols with dlsym.
#include "core/shared_library.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

bool shared_library::open()
{
    const char* name = getenv(env_name_);
    if (!name || !*name)
        name = default_name_;
    handle_ = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = dlerror();
        snprintf(failure_, sizeof failure_, "cannot load %s library: %s", what_, why ? why : name);
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
