// The checked allocator, and the holders that free heap strings: where every text's memory
// comes from.
//
// A heap string is a NUL-terminated byte string from checked_malloc or checked_realloc, freed
// with str_free; a null pointer is a valid string everywhere and means "no text". The
// allocator never returns null for a non-zero size: exhaustion is fatal, so no caller tests
// an allocation.
#ifndef TESSEL_CORE_MEMORY_H
#define TESSEL_CORE_MEMORY_H

#include <cstddef>

// ---- allocator ------------------------------------------------------------------------

// A block of size bytes; null for size 0. On exhaustion logs "unable to malloc %d bytes"
// and exits with status 254. Ownership: new result.
void* checked_malloc(size_t size);

// Resizes block; size 0 frees it and returns null. On exhaustion logs
// "unable to realloc %d bytes" and exits with status 254. Ownership: takes block, new result.
void* checked_realloc(void* block, size_t size);

// Frees a heap string; null is ignored. Ownership: takes s.
void str_free(void* s);

// ---- holders --------------------------------------------------------------------------

// Frees its string when it goes out of scope: the owned temporary of a handler.
class str_holder {
public:
    explicit str_holder(char* s = nullptr) : s_(s) {}
    ~str_holder() { str_free(s_); }
    str_holder(const str_holder&) = delete;
    str_holder& operator=(const str_holder&) = delete;
    char* get() const { return s_; }
    char*& ref() { return s_; }
    char* release()
    {
        char* s = s_;
        s_ = nullptr;
        return s;
    }
    void reset(char* s)
    {
        str_free(s_);
        s_ = s;
    }

private:
    char* s_;
};

// Builds a long text by appending, growing with amortised doubling. The first bytes sit in
// the builder itself, so a short text costs one allocation, of its exact size, when taken.
class str_builder {
public:
    str_builder() { inline_[0] = '\0'; }
    ~str_builder()
    {
        if (data_ != inline_)
            str_free(data_);
    }
    str_builder(const str_builder&) = delete;
    str_builder& operator=(const str_builder&) = delete;
    // Makes room for size bytes in all, so appending up to there does not reallocate.
    void reserve(size_t size);
    void append(const char* s, size_t n);
    void append(const char* s); // null appends nothing
    void append(char c)
    {
        if (size_ + 2 > capacity_)
            return append(&c, 1);
        data_[size_++] = c;
        data_[size_] = '\0';
    }
    size_t size() const { return size_; }
    // The text built so far (never null). Ownership: view.
    const char* view() const { return data_; }
    // Hands the text over and empties the builder: "" when nothing was appended, or null when
    // null_if_empty is set. Ownership: new result.
    char* take(bool null_if_empty);

private:
    static constexpr size_t INLINE_SIZE = 128;
    char inline_[INLINE_SIZE]; // only the bytes up to size_ and its NUL are ever read
    char* data_ = inline_;
    size_t size_ = 0;
    size_t capacity_ = INLINE_SIZE;
};

#endif
