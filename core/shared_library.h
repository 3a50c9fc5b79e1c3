// A shared library loaded with dlopen on first use, its calls looked up once per process.
//
// The program is linked statically and must start fast, so client libraries that only some
// pages need (the SQL client, gd) are opened by the first call that needs them.
#ifndef TESSEL_CORE_SHARED_LIBRARY_H
#define TESSEL_CORE_SHARED_LIBRARY_H

#include <cstddef>

// One library: where to find it and whether it was loaded. Not copyable.
class shared_library {
public:
    // what names the library in messages ("client", "gd"); the environment variable env_name,
    // when set and not empty, names the one file to open. Otherwise the default files are
    // tried in order: the first that opens is the library, an empty name is skipped, a null
    // ends the list, and a failure reports the last file tried. Ownership: borrows all three
    // and the names for the life of the object; a name may be filled in before the first load.
    constexpr shared_library(const char* what, const char* env_name,
                             const char* const* default_names)
        : what_(what), env_name_(env_name), default_names_(default_names)
    {
    }
    shared_library(const shared_library&) = delete;
    shared_library& operator=(const shared_library&) = delete;

    // True when the library and its calls are there. The first call opens the library and
    // runs look_up_all(*this), which fills the caller's call table through look_up; later
    // calls only report, unless the environment now names another file than at the last try
    // (a resident process serves requests of several sites): then they try again, as a fresh
    // process would. On failure *error (when error is not null) says why: "cannot load WHAT
    // library: REASON" or "WHAT library lacks SYMBOL". Ownership: *error is a view.
    template <typename LookUpAll> bool load(LookUpAll look_up_all, const char** error)
    {
        if (state_ == state::not_tried || !same_choice())
            state_ = open() && look_up_all(*this) ? state::loaded : state::failed;
        if (state_ == state::failed && error)
            *error = failure_;
        return state_ == state::loaded;
    }

    // Fills slot with the library's symbol; false (and the failure text set) when missing.
    // Requires: the library is open (only from inside look_up_all).
    template <typename F> bool look_up(F& slot, const char* symbol)
    {
        slot = reinterpret_cast<F>(address_of(symbol));
        return slot != nullptr;
    }

private:
    enum class state { not_tried, loaded, failed };
    bool open();
    bool same_choice() const;
    void* address_of(const char* symbol);

    const char* what_;
    const char* env_name_;
    const char* const* default_names_;
    state state_ = state::not_tried;
    void* handle_ = nullptr; // stays open for the rest of the process, also after a failure
    char chosen_[4096] = {}; // the file the environment named at the last try ("": none)
    char failure_[512] = {};
};

#endif
