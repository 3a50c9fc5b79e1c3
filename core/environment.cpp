// The process environment of a resident worker: the base, and each request's own strings.
#include "core/environment.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

using entry_list = std::vector<char*>; // "NAME=value" strings, ending with a null

struct kept_environment {
    entry_list base;        // owned: the environment every request starts from
    entry_list entries;     // what environ points at; each string owned here or in retired
    entry_list retired;     // replaced or removed strings of this request, freed at its end
    std::vector<int> slots; // env_begin_request's index of the entries by name, reused
};

kept_environment* kept = nullptr;

char* entry_make(const char* name, size_t name_size, const char* value)
{
    size_t value_size = strlen(value);
    char* entry = (char*)malloc(name_size + value_size + 2);
    memcpy(entry, name, name_size);
    entry[name_size] = '=';
    memcpy(entry + name_size + 1, value, value_size + 1);
    return entry;
}

// The entry for the name of name_size bytes, or the terminating null's index.
size_t entry_find(const entry_list& entries, const char* name, size_t name_size)
{
    size_t i = 0;
    for (; entries[i]; i++)
        if (strncmp(entries[i], name, name_size) == 0 && entries[i][name_size] == '=')
            return i;
    return i;
}

// Puts entry (owned) in place of the one of its name, or adds it.
void entry_put(char* entry, size_t name_size)
{
    entry_list& entries = kept->entries;
    size_t i = entry_find(entries, entry, name_size);
    if (entries[i]) {
        kept->retired.push_back(entries[i]);
        entries[i] = entry;
    } else {
        entries.back() = entry;
        entries.push_back(nullptr);
    }
    environ = entries.data();
}

void entries_free(entry_list& entries)
{
    for (char* entry : entries)
        free(entry);
    entries.clear();
}

// Makes the request's entries fresh copies of the base.
void entries_from_base()
{
    entries_free(kept->entries);
    entries_free(kept->retired);
    for (char* entry : kept->base)
        kept->entries.push_back(entry ? strdup(entry) : nullptr);
    environ = kept->entries.data();
}

// The slot of kept->slots (a power of two in size, with a free slot) that holds the index of
// the entry named by the name_size bytes at name, or the free slot where that index goes.
int& entry_slot(const char* name, size_t name_size)
{
    std::vector<int>& slots = kept->slots;
    size_t hash = 14695981039346656037u; // FNV-1a
    for (size_t i = 0; i < name_size; i++)
        hash = (hash ^ (unsigned char)name[i]) * 1099511628211u;
    size_t mask = slots.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const char* entry = slots[i] < 0 ? nullptr : kept->entries[slots[i]];
        if (!entry || (strncmp(entry, name, name_size) == 0 && entry[name_size] == '='))
            return slots[i];
    }
}

} // namespace

void env_keep_base()
{
    if (!kept)
        kept = new kept_environment;
    entry_list base;
    for (char** entry = environ; *entry; entry++)
        if (strchr(*entry, '='))
            base.push_back(strdup(*entry));
    base.push_back(nullptr);
    entries_free(kept->base);
    kept->base = base;
    entries_from_base();
}

bool env_is_kept()
{
    return kept != nullptr;
}

void env_begin_request(char** params)
{
    entries_from_base();
    entry_list& entries = kept->entries;
    entries.pop_back(); // the terminating null, put back once the params are in
    size_t count = entries.size();
    for (char** param = params; param && *param; param++)
        count++;
    // The entries indexed by name, so that a request costs what its params hold however many a
    // server sends (one for each header of the request). A param takes the place of the first
    // entry of its name, the one getenv reads.
    size_t size = 64;
    while (size < 2 * count)
        size *= 2;
    kept->slots.assign(size, -1);
    for (size_t i = 0; i < entries.size(); i++) {
        int& slot = entry_slot(entries[i], strchr(entries[i], '=') - entries[i]);
        if (slot < 0)
            slot = (int)i;
    }
    for (char** param = params; param && *param; param++) {
        const char* equals = strchr(*param, '=');
        if (!equals)
            continue;
        char* entry = strdup(*param);
        int& slot = entry_slot(entry, equals - *param);
        if (slot < 0) {
            slot = (int)entries.size();
            entries.push_back(entry);
        } else {
            free(entries[slot]); // no string a caller holds yet: the request has not started
            entries[slot] = entry;
        }
    }
    entries.push_back(nullptr);
    environ = entries.data();
}

void env_end_request()
{
    entries_from_base();
}

void env_set(const char* name, const char* value)
{
    if (!*name || strchr(name, '=')) // the C library refuses these names too
        return;
    if (!kept) {
        setenv(name, value, 1);
        return;
    }
    size_t name_size = strlen(name);
    entry_put(entry_make(name, name_size, value), name_size);
}

void env_unset(const char* name)
{
    if (!kept) {
        unsetenv(name);
        return;
    }
    entry_list& entries = kept->entries;
    size_t i = entry_find(entries, name, strlen(name));
    if (!entries[i])
        return;
    kept->retired.push_back(entries[i]);
    entries.erase(entries.begin() + i);
    environ = entries.data();
}
