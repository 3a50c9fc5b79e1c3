// The sorted string map: binary search over parallel key and value arrays.
#include "core/sorted_map.h"

#include <cstring>

#include "core/str.h"

sorted_map::~sorted_map()
{
    for (int i = 0; i < count_; i++) {
        str_free(keys_[i]);
        str_free(values_[i]);
    }
    str_free(keys_);
    str_free(values_);
}

bool sorted_map::find(const char* key, int& pos) const
{
    return str_lower_bound(
        count_, [this](int i) { return keys_[i]; }, key, pos);
}

const char* sorted_map::get(const char* key) const
{
    int pos;
    return find(key, pos) ? values_[pos] : nullptr;
}

void sorted_map::set(const char* key, const char* value)
{
    set_take(key, str_dup(value));
}

void sorted_map::set_take(const char* key, char* value)
{
    if (!value) {
        remove(key);
        return;
    }
    int pos;
    if (find(key, pos)) {
        str_free(values_[pos]);
        values_[pos] = value;
        return;
    }
    resize(count_ + 1);
    int above = count_ - 1 - pos;
    memmove(keys_ + pos + 1, keys_ + pos, above * sizeof(char*));
    memmove(values_ + pos + 1, values_ + pos, above * sizeof(char*));
    keys_[pos] = str_dup(key);
    values_[pos] = value;
}

void sorted_map::remove(const char* key)
{
    int pos;
    if (!find(key, pos))
        return;
    str_free(keys_[pos]);
    str_free(values_[pos]);
    int above = count_ - 1 - pos;
    memmove(keys_ + pos, keys_ + pos + 1, above * sizeof(char*));
    memmove(values_ + pos, values_ + pos + 1, above * sizeof(char*));
    resize(count_ - 1);
}

// Both arrays to exactly count entries; 0 releases them.
void sorted_map::resize(int count)
{
    size_t bytes = (size_t)count * sizeof(char*);
    keys_ = (char**)checked_realloc(keys_, bytes);
    values_ = (char**)checked_realloc(values_, bytes);
    count_ = count;
}
