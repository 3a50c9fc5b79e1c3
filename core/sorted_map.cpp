// The sorted string map: binary search over parallel key and value arrays.
#include "core/sorted_map.h"

#include <algorithm>
#include <cstdint>
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
    str_free(sizes_);
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
    size_t length = strlen(value);
    if (find(key, pos)) {
        str_free(values_[pos]);
        values_[pos] = value;
        sizes_[pos] = {length, length + 1};
        return;
    }
    resize(count_ + 1);
    int above = count_ - 1 - pos;
    memmove(keys_ + pos + 1, keys_ + pos, above * sizeof(char*));
    memmove(values_ + pos + 1, values_ + pos, above * sizeof(char*));
    memmove(sizes_ + pos + 1, sizes_ + pos, above * sizeof(value_size));
    keys_[pos] = str_dup(key);
    values_[pos] = value;
    sizes_[pos] = {length, length + 1};
}

void sorted_map::append(const char* key, const char* text)
{
    int pos;
    if (!find(key, pos)) {
        set(key, str_or_empty(text));
        return;
    }
    value_size& size = sizes_[pos];
    auto at = (uintptr_t)text, value = (uintptr_t)values_[pos];
    str_holder own(at >= value && at <= value + size.length ? str_dup(text) : nullptr);
    if (own.get())
        text = own.get(); // a part of the value itself moves when the value grows
    size_t add = strlen(str_or_empty(text));
    if (size.length + add + 1 > size.capacity) {
        size.capacity = std::max(size.length + add + 1, 2 * size.capacity);
        values_[pos] = (char*)checked_realloc(values_[pos], size.capacity);
    }
    memcpy(values_[pos] + size.length, str_or_empty(text), add + 1);
    size.length += add;
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
    memmove(sizes_ + pos, sizes_ + pos + 1, above * sizeof(value_size));
    resize(count_ - 1);
}

// The arrays to exactly count entries; 0 releases them.
void sorted_map::resize(int count)
{
    size_t bytes = (size_t)count * sizeof(char*);
    keys_ = (char**)checked_realloc(keys_, bytes);
    values_ = (char**)checked_realloc(values_, bytes);
    sizes_ = (value_size*)checked_realloc(sizes_, (size_t)count * sizeof(value_size));
    count_ = count;
}
