// The container base classes: tobject and object_array<T>, a growable array of owned pointers.
//
// object_array<T> grows and shrinks by a fixed step ("delta") and treats every misuse as
// fatal: the message goes to the error log and the process exits with status 254, so callers
// never see an error return. It is used as object_array<char> (heap strings: the rows of a
// table) and object_array<table> (the table registry). A null string reads as empty text.
#ifndef TESSEL_CORE_OBJECT_ARRAY_H
#define TESSEL_CORE_OBJECT_ARRAY_H

#include <cstring>
#include <type_traits>

#include "core/log.h"
#include "core/memory.h"

// ---- tobject ----------------------------------------------------------------------------

// The common root of the container classes: only a virtual destructor.
class tobject {
public:
    tobject() = default;
    virtual ~tobject() = default;
    tobject(const tobject&) = delete;
    tobject& operator=(const tobject&) = delete;
};

// ---- object_array<T> ------------------------------------------------------------------

// An array of `limit` pointer slots, `count` of them in use (null slots may sit inside the
// used range). The array owns what its slots point to: heap strings are released with
// str_free, objects through their virtual destructor. Not copyable.
template <typename T> class object_array : public tobject {
public:
    // Requires: delta >= 0 ("array negative delta").
    object_array(int limit, int delta) : delta_(delta)
    {
        if (delta < 0)
            log_fatal("array negative delta");
        set_limit(limit);
    }
    ~object_array() override { destruct(); }

    int count() const { return count_; }
    int limit() const { return limit_; }
    int delta() const { return delta_; }

    // Resizes the slot array to n slots (n <= 0 releases it); new slots are zero.
    // Requires: n >= count ("array set_limit error").
    void set_limit(int n);

    // Adds delta slots. Requires: delta >= 1 ("array increase error").
    void increase()
    {
        if (delta_ < 1)
            log_fatal("array increase error");
        set_limit(limit_ + delta_);
    }

    // Stores item after the used range, growing when full. Ownership: takes item.
    void append(T* item)
    {
        if (count_ >= limit_)
            increase();
        items_[count_++] = item;
    }

    // The item at index. Requires: 0 <= index < count ("array index %d out of range [0..%d]")
    // and a non-null slot ("array at %d error"). Ownership: view.
    T* at(int index) const
    {
        if (index < 0 || index >= count_)
            log_fatal("array index %d out of range [0..%d]", index, count_ - 1);
        if (!items_[index])
            log_fatal("array at %d error", index);
        return items_[index];
    }

    // True when index is in the used range and its slot is not null; never fatal.
    bool exists(int index) const { return index >= 0 && index < count_ && items_[index]; }

    // Stores item into an empty slot inside the used range or anywhere past it (the slots
    // between stay null). Requires: index >= 0 and an empty slot ("array item %d put error").
    // Ownership: takes item.
    void put(int index, T* item);

    // Stores item at index, moving the slots from index up by one; past the used range it
    // behaves as put. Requires: index >= 0 ("array negative insert index").
    // Ownership: takes item.
    void insert(int index, T* item);

    // Releases the item at index when it exists, then packs. Never fatal.
    void remove(int index)
    {
        if (exists(index)) {
            release(items_[index]);
            items_[index] = nullptr;
        }
        pack();
    }

    // Closes the gaps left by null slots and shrinks in whole delta steps, keeping at most
    // count + delta slots.
    void pack();

    // Releases every item and the slot array.
    void destruct()
    {
        for (int i = 0; i < count_; i++)
            release(items_[i]);
        count_ = 0;
        set_limit(0);
    }

protected:
    // The raw slot array, for in-place reordering by a subclass. Ownership: view.
    T** slots() const { return items_; }

private:
    // Extends the used range to index + 1 with null slots between the old count and index:
    // slots vacated by pack still hold the pointers moved down, which must not reappear.
    void null_gap(int index)
    {
        memset(items_ + count_, 0, sizeof(T*) * (index - count_));
        count_ = index + 1;
    }

    static void release(T* item)
    {
        if constexpr (std::is_same_v<T, char>)
            str_free(item);
        else
            delete item;
    }

    int limit_ = 0;
    int delta_ = 0;
    T** items_ = nullptr;
    int count_ = 0;
};

template <typename T> void object_array<T>::set_limit(int n)
{
    if (n == limit_)
        return;
    if (n <= 0) {
        items_ = (T**)checked_realloc(items_, 0);
        limit_ = 0;
        return;
    }
    T** grown = (T**)checked_realloc(items_, sizeof(T*) * n);
    if (!grown || n < count_)
        log_fatal("array set_limit error");
    if (n > limit_)
        memset(grown + limit_, 0, sizeof(T*) * (n - limit_));
    items_ = grown;
    limit_ = n;
}

template <typename T> void object_array<T>::put(int index, T* item)
{
    while (index >= limit_)
        increase();
    if (index < count_) {
        if (index < 0 || items_[index])
            log_fatal("array item %d put error", index);
        items_[index] = item;
        return;
    }
    null_gap(index);
    items_[index] = item;
}

template <typename T> void object_array<T>::insert(int index, T* item)
{
    if (index < 0)
        log_fatal("array negative insert index");
    while (count_ >= limit_ || index >= limit_)
        increase();
    if (index >= count_) {
        null_gap(index);
        items_[index] = item;
        return;
    }
    memmove(items_ + index + 1, items_ + index, sizeof(T*) * (count_ - index));
    count_++;
    items_[index] = item;
}

template <typename T> void object_array<T>::pack()
{
    int kept = 0;
    for (int i = 0; i < count_; i++)
        if (items_[i])
            items_[kept++] = items_[i];
    count_ = kept;
    if (delta_ != 0)
        while (limit_ - delta_ > count_)
            set_limit(limit_ - delta_);
}

#endif
