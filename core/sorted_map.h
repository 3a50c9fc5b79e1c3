// A map from text keys to text values, kept sorted by key in two parallel arrays.
//
// It backs the variable store of `var` and `eval` and the macro table. A null string reads as
// empty text, except as a key: a null key is a key of its own that sorts before any text.
#ifndef TESSEL_CORE_SORTED_MAP_H
#define TESSEL_CORE_SORTED_MAP_H

#include <cstddef>

// Keys in ascending order with a value each. The map owns private copies of its keys and its
// values (a copy, or the pointer handed over to set_take), and knows each value's length and
// allocated size, so that appending to a value costs what is appended. Every insertion and
// removal resizes the arrays to the exact count; an empty map holds no arrays. Not copyable.
class sorted_map {
public:
    sorted_map() = default;
    ~sorted_map();
    sorted_map(const sorted_map&) = delete;
    sorted_map& operator=(const sorted_map&) = delete;

    int count() const { return count_; }

    // True when key is present; pos is the lower bound (the first key not less than key),
    // which is the key's index when found.
    bool find(const char* key, int& pos) const;

    // The value stored under key, null when absent. Ownership: view.
    const char* get(const char* key) const;

    // Stores a copy of value under key, replacing an earlier value; a null value removes the
    // key. Ownership: borrows both.
    void set(const char* key, const char* value);

    // As set, but keeps the value pointer itself. Ownership: borrows key, takes value.
    void set_take(const char* key, char* value);

    // Appends text to the value under key, growing it in place by doubling; an absent key
    // gets a copy of text (empty text included). Ownership: borrows both.
    void append(const char* key, const char* text);

    // Removes key and releases its copies; an absent key does nothing.
    void remove(const char* key);

    // The key and value at index. Requires: 0 <= index < count (not checked).
    // Ownership: view.
    const char* key_at(int index) const { return keys_[index]; }
    const char* value_at(int index) const { return values_[index]; }

private:
    // The length of a value and the bytes allocated for it.
    struct value_size {
        size_t length;
        size_t capacity;
    };

    void resize(int count);

    int count_ = 0;
    char** keys_ = nullptr;
    char** values_ = nullptr;
    value_size* sizes_ = nullptr;
};

#endif
