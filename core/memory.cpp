// The checked allocator and the string builder.
#include "core/memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "core/log.h"

// ---- allocator ------------------------------------------------------------------------

// Blocks of a whole page text are large and written once from start to end. They are
// placed on 2 MB boundaries and backed by huge pages where the system offers them, and mapped
// in one call rather than one fault per 4 KB page: for a page of a few megabytes that halves
// the time the process spends in the kernel.
constexpr size_t LARGE_BLOCK = 1024 * 1024;
constexpr size_t HUGE_PAGE = 2 * 1024 * 1024;

static void* large_alloc(size_t size)
{
    void* block = nullptr;
    if (posix_memalign(&block, HUGE_PAGE, size) != 0)
        return nullptr;
    size_t whole = size & ~(HUGE_PAGE - 1);
    if (whole)
        madvise(block, whole, MADV_HUGEPAGE);
    size_t pages = size & ~(size_t)4095;
    madvise(block, pages, MADV_POPULATE_WRITE);
    return block;
}

void* checked_malloc(size_t size)
{
    if (size == 0)
        return nullptr;
    void* block = size >= LARGE_BLOCK ? large_alloc(size) : malloc(size);
    if (!block)
        log_fatal("unable to malloc %d bytes", (int)size);
    return block;
}

void* checked_realloc(void* block, size_t size)
{
    if (size == 0) {
        free(block);
        return nullptr;
    }
    void* grown = !block && size >= LARGE_BLOCK ? large_alloc(size) : realloc(block, size);
    if (!grown)
        log_fatal("unable to realloc %d bytes", (int)size);
    return grown;
}

void str_free(void* s)
{
    free(s);
}

// ---- builder --------------------------------------------------------------------------

void str_builder::reserve(size_t size)
{
    if (size + 1 <= capacity_)
        return;
    if (data_ == inline_) {
        data_ = (char*)checked_malloc(size + 1);
        memcpy(data_, inline_, size_ + 1);
    } else {
        data_ = (char*)checked_realloc(data_, size + 1);
    }
    capacity_ = size + 1;
}

void str_builder::append(const char* s, size_t n)
{
    if (size_ + n + 1 > capacity_)
        reserve(std::max(capacity_ * 2, size_ + n));
    memcpy(data_ + size_, s, n);
    size_ += n;
    data_[size_] = '\0';
}

void str_builder::append(const char* s)
{
    if (s)
        append(s, strlen(s));
}

// A heap text is handed over as it is when it wastes little: shrinking costs a realloc per
// text, and most texts fill what was reserved for them.
char* str_builder::take(bool null_if_empty)
{
    char* out = data_;
    if (size_ == 0 && null_if_empty) {
        out = nullptr;
        if (data_ != inline_)
            str_free(data_);
    } else if (data_ == inline_) {
        out = (char*)checked_malloc(size_ + 1);
        memcpy(out, inline_, size_ + 1);
    } else if (capacity_ - size_ - 1 > std::max((size_t)64, size_ / 8)) {
        out = (char*)checked_realloc(out, size_ + 1);
    }
    data_ = inline_;
    inline_[0] = '\0';
    size_ = 0;
    capacity_ = INLINE_SIZE;
    return out;
}
