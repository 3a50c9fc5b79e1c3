// The cache family: expanded page fragments kept in files under "./cache/", keyed by text.
//
// ^cache[key;body] returns the cached text of key, or expands body, stores the expansion and
// returns it; ^cache[key] removes the entry. Entries never expire. The cache lives in the
// program's working directory, not beside the page, and every file failure is ignored: a cache
// that cannot be written returns the fresh expansion each time.
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "core/file.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "ops/ops.h"

namespace {

constexpr const char* CACHE_DIR = "./cache/";

// Letters, digits, "_" and "/" stand for themselves (a "/" makes a subdirectory), a blank
// becomes "~", any other byte "-" and two upper-case hex digits. Ownership: borrows key,
// new result.
char* cache_file_name(const char* key)
{
    str_builder name;
    name.append(CACHE_DIR);
    for (const unsigned char* p = (const unsigned char*)str_or_empty(key); *p; p++) {
        if ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9') ||
            *p == '_' || *p == '/') {
            name.append((char)*p);
        } else if (*p == ' ') {
            name.append('~');
        } else {
            char hex[4];
            snprintf(hex, sizeof hex, "-%02X", *p);
            name.append(hex, 3);
        }
    }
    name.append('_');
    return name.take(false);
}

// Makes the directory named by the text before every "/" in path, left to right.
void cache_make_dirs(char* path)
{
    for (char* slash = strchr(path, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        mkdir(path, 0775); // exists already, or cannot be made: the write then fails quietly
        *slash = '/';
    }
}

// cache[key] removes the entry; cache[key;body] returns it, filling it from body when absent.
char* op_cache(int count, char** params)
{
    {
        escape_mode_scope none(ESCAPE_MODE_NONE);
        expand_param(params, 0);
    }
    str_holder file(cache_file_name(params[0]));
    if (count == 1) {
        str_free(file_remove(file.get()));
        return nullptr;
    }
    // An empty file is a fill still under way (the writer creates the file before it locks
    // it), so only a non-empty text counts as a hit.
    str_holder cached(read_file(file.get(), false, true));
    if (str_nonempty(cached.get()))
        return cached.release();
    str_holder fresh(expand_copy(params[1]));
    cache_make_dirs(file.get());
    str_free(write_file(file.get(), fresh.get(), true));
    return fresh.release();
}

} // namespace

// clang-format off
extern constexpr op_row cache_rows[] = {
    // name     handler    params  flags        accepted
    {"cache",   op_cache,  0,      RAW_PARAMS,  {1, 2}},
};
// clang-format on

void register_cache_ops()
{
    register_rows(cache_rows);
}
