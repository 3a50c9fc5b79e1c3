// Heap strings, the checked allocator, number formatting and whole-file helpers.
#include "core/str.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include "core/charset.h"
#include "core/file_replace.h"
#include "core/log.h"

// ---- memory ---------------------------------------------------------------------------

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
        fatal_log("unable to malloc %d bytes", (int)size);
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
        fatal_log("unable to realloc %d bytes", (int)size);
    return grown;
}

void str_free(void* s)
{
    free(s);
}

char* str_copy_bytes(const char* s, size_t n)
{
    char* out = (char*)checked_malloc(n + 1);
    memcpy(out, s, n);
    out[n] = '\0';
    return out;
}

// ---- builder --------------------------------------------------------------------------

void str_builder::reserve(size_t size)
{
    if (size + 1 > capacity_) {
        capacity_ = size + 1;
        data_ = (char*)checked_realloc(data_, capacity_);
        data_[size_] = '\0';
    }
}

void str_builder::append(const char* s, size_t n)
{
    if (size_ + n + 1 > capacity_)
        reserve(std::max({capacity_ * 2, size_ + n, (size_t)63}));
    memcpy(data_ + size_, s, n);
    size_ += n;
    data_[size_] = '\0';
}

void str_builder::append(const char* s)
{
    if (s)
        append(s, strlen(s));
}

char* str_builder::take(bool null_if_empty)
{
    char* out = data_;
    if (!out && !null_if_empty)
        out = str_dup("");
    else if (out && size_ == 0 && null_if_empty) {
        str_free(out);
        out = nullptr;
    } else if (out)
        out = (char*)checked_realloc(out, size_ + 1);
    data_ = nullptr;
    size_ = capacity_ = 0;
    return out;
}

// ---- copying and cutting --------------------------------------------------------------

char* str_dup(const char* s)
{
    return s ? str_copy_bytes(s, strlen(s)) : nullptr;
}

char* str_dup_n(const char* s, size_t n)
{
    return s ? str_copy_bytes(s, strnlen(s, n)) : nullptr;
}

char* str_sub(const char* s, int pos, int len)
{
    if (!s)
        return nullptr;
    int size = (int)strlen(s);
    pos = int_max(0, int_min(pos, size));
    len = int_min(len, size - pos);
    return len > 0 ? str_copy_bytes(s + pos, len) : nullptr;
}

char* str_sub_take(char* s, int pos, int len)
{
    char* out = str_sub(s, pos, len);
    str_free(s);
    return out;
}

char* str_join(const char* first, ...)
{
    if (!first)
        return nullptr;
    va_list args;
    va_start(args, first);
    size_t total = strlen(first);
    for (const char* p = va_arg(args, const char*); p; p = va_arg(args, const char*))
        total += strlen(p);
    va_end(args);

    char* out = (char*)checked_malloc(total + 1);
    char* end = stpcpy(out, first);
    va_start(args, first);
    for (const char* p = va_arg(args, const char*); p; p = va_arg(args, const char*))
        end = stpcpy(end, p);
    va_end(args);
    return out;
}

// ---- editing --------------------------------------------------------------------------

char* str_splice(char* s, int pos, int count, const char* insert)
{
    int size = str_len0(s);
    pos = int_max(0, int_min(pos, size));
    count = int_max(0, int_min(count, size - pos));
    int add = str_len0(insert);
    int total = size - count + add;
    char* out = nullptr;
    if (total > 0) {
        out = (char*)checked_malloc(total + 1);
        if (pos)
            memcpy(out, s, pos);
        if (add)
            memcpy(out + pos, insert, add);
        if (size > pos + count) // s may be null, and memcpy takes no null even for 0 bytes
            memcpy(out + pos + add, s + pos + count, size - pos - count);
        out[total] = '\0';
    }
    str_free(s);
    return out;
}

char* str_insert(char* s, int pos, const char* insert)
{
    return str_splice(s, pos, 0, insert);
}

char* str_delete(char* s, int pos, int count)
{
    return str_splice(s, pos, count, nullptr);
}

void str_append(char*& s, const char* t)
{
    if (!t)
        return;
    if (!s) {
        s = str_dup(t);
        return;
    }
    size_t old = strlen(s), add = strlen(t);
    s = (char*)checked_realloc(s, old + add + 1);
    memcpy(s + old, t, add + 1);
}

void str_append_take(char*& s, char* t)
{
    str_append(s, t);
    str_free(t);
}

void str_replace_char(char* s, char from, char to)
{
    for (; s && *s; s++)
        if (*s == from)
            *s = to;
}

char* str_upper_locale(char* s)
{
    for (unsigned char* p = (unsigned char*)s; p && *p; p++)
        *p = (unsigned char)toupper(*p);
    return s;
}

char* str_upper(char* s)
{
    str_upper_locale(s);
    return charset_case(s, true);
}

char* str_lower(char* s)
{
    for (unsigned char* p = (unsigned char*)s; p && *p; p++)
        *p = (unsigned char)tolower(*p);
    return charset_case(s, false);
}

// ---- splitting ------------------------------------------------------------------------

char* str_cut_at(char* s, char c)
{
    char* at = s ? strchr(s, c) : nullptr;
    if (!at)
        return nullptr;
    *at = '\0';
    return at + 1;
}

char* str_cut_at_last(char* s, char c)
{
    char* at = s ? strrchr(s, c) : nullptr;
    if (!at)
        return nullptr;
    *at = '\0';
    return at + 1;
}

char* str_cut_at_str(char* s, const char* sep)
{
    if (!sep)
        return s;
    char* at = s ? strstr(s, sep) : nullptr;
    if (!at)
        return nullptr;
    *at = '\0';
    return at + strlen(sep);
}

char* str_cut_at_last_str(char* s, const char* sep)
{
    if (!s || !sep)
        return s;
    char* last = nullptr;
    size_t n = strlen(sep);
    if (n == 0)
        return nullptr;
    for (char* at = strstr(s, sep); at; at = strstr(at + 1, sep))
        last = at;
    if (!last)
        return nullptr;
    *last = '\0';
    return last + n;
}

char* str_take_token(char*& cursor, char c)
{
    char* token = cursor;
    cursor = str_cut_at(cursor, c);
    return token;
}

char* str_take_token_str(char*& cursor, const char* sep)
{
    char* token = cursor;
    cursor = str_cut_at_str(cursor, sep);
    return token;
}

char* str_next_field(char*& cursor, char c)
{
    char* field = cursor;
    cursor = str_cut_at(cursor, c);
    if (!cursor && field && !*field)
        return nullptr;
    return field;
}

// ---- tests and numbers ----------------------------------------------------------------

bool str_nonempty(const char* s)
{
    return s && *s;
}

int str_len0(const char* s)
{
    return s ? (int)strlen(s) : 0;
}

const char* str_or_null(const char* s)
{
    return s ? s : "(null)";
}

bool str_equal(const char* a, const char* b)
{
    if (!a || !b)
        return a == b;
    return strcmp(a, b) == 0;
}

const char* str_find(const char* s, const char* t)
{
    return s && t ? strstr(s, t) : nullptr;
}

bool str_starts_with(const char* s, const char* t)
{
    return s && t && strstr(s, t) == s;
}

bool str_ends_with(const char* s, const char* t)
{
    const char* at = str_find(s, t);
    return at && at + strlen(t) == s + strlen(s);
}

int str_compare(const char* a, const char* b)
{
    if (!a || !b)
        return (a != nullptr) - (b != nullptr);
    return strcmp(a, b);
}

bool str_is_digits(const char* s)
{
    if (!str_nonempty(s))
        return false;
    for (; *s; s++)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

int str_to_int(const char* s)
{
    return s ? atoi(s) : 0;
}

namespace {

// The decimal digits of magnitude, after a minus sign when negative, at the end of buffer:
// what "%d" and "%lu" print, without the formatted-print machinery that a start of the
// program would otherwise page in for a number. Ownership: view of buffer.
template <size_t N>
const char* fmt_decimal(char (&buffer)[N], unsigned long magnitude, bool negative)
{
    static_assert(N > 21, "room for every unsigned long, a sign and the terminator");
    char* p = buffer + N;
    *--p = '\0';
    do {
        *--p = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    if (negative)
        *--p = '-';
    return p;
}

} // namespace

const char* fmt_int(int n)
{
    static char buffer[24];
    return fmt_decimal(buffer, n < 0 ? 0ul - (unsigned long)n : (unsigned long)n, n < 0);
}

const char* fmt_ulong(unsigned long n)
{
    static char buffer[24];
    return fmt_decimal(buffer, n, false);
}

// ---- files ----------------------------------------------------------------------------

void file_clean_text(char* text, bool drop_blank_lines, size_t* origins)
{
    if (!text)
        return;
    char* out = text;
    const char* in = text;
    bool line_start = true;
    while (*in) {
        char c = *in;
        if (line_start && c == '#') { // a comment line goes with its line end
            const char* end = strchr(in, '\n');
            in = end ? end + 1 : in + strlen(in);
            continue;
        }
        size_t n = 0;
        if (c == '\n') {
            n = !(drop_blank_lines && line_start);
            line_start = true;
        } else if (c != '\r') {
            n = strcspn(in, "\r\n"); // the rest of the line moves as one block
            line_start = false;
        }
        if (origins)
            for (size_t k = 0; k < n; k++)
                origins[out - text + k] = in - text + k;
        if (n && out != in)
            memmove(out, in, n);
        out += n;
        in += c == '\r' || c == '\n' ? 1 : n;
    }
    *out = '\0';
}

char* read_file(const char* path, bool drop_blank_lines, bool lock)
{
    struct stat info;
    if (!path || stat(path, &info) != 0)
        return nullptr;
    int fd = open(path, O_RDONLY);
    if (fd < 0)
        return nullptr;
    // A writer that held the lock may have changed the file since the stat: with the lock the
    // size is taken again, or a text being written would come back cut short.
    if (lock) {
        flock(fd, LOCK_EX);
        fstat(fd, &info);
    }
    char* text = (char*)checked_malloc(info.st_size + 1);
    ssize_t got = info.st_size > 0 ? read(fd, text, info.st_size) : 0;
    text[got > 0 ? got : 0] = '\0';
    if (lock)
        flock(fd, LOCK_UN);
    ::close(fd);
    file_clean_text(text, drop_blank_lines);
    return text;
}

char* write_file(const char* path, const char* text, bool)
{
    // A replaced file needs no lock: a reader sees its old or its new content whole, and of two
    // writers at once the later rename wins with its whole text.
    return file_replace(path, text, str_len0(text));
}

time_t file_mtime(const char* path, time_t new_time)
{
    struct stat info;
    if (!path || stat(path, &info) != 0)
        return 0;
    if (new_time) {
        struct utimbuf times = {info.st_atime, new_time};
        utime(path, &times);
    }
    return info.st_mtime;
}

char* file_remove(const char* path)
{
    if (!path)
        return str_dup("no filename specified");
    return unlink(path) == 0 ? nullptr : system_error_text();
}

char* system_error_text()
{
    int number = errno;
    char digits[16];
    snprintf(digits, sizeof digits, "%d", number);
    return str_join(strerror(number), "(#", digits, ")", nullptr);
}

void lock_stream(FILE* stream)
{
    flock(fileno(stream), LOCK_EX);
}

void unlock_stream(FILE* stream)
{
    flock(fileno(stream), LOCK_UN);
}

// ---- directory walk -------------------------------------------------------------------

dir_walk::dir_walk(const char* path)
{
    snprintf(path_, sizeof path_, "%s", str_or_empty(path));
    dir_ = opendir(path_);
}

dir_walk::~dir_walk()
{
    close();
}

bool dir_walk::next()
{
    if (!dir_)
        return false;
    struct dirent* entry = readdir((DIR*)dir_);
    if (!entry)
        return false;
    snprintf(name_, sizeof name_, "%s", entry->d_name);
    char full[2048];
    snprintf(full, sizeof full, "%s/%s", path_, name_);
    if (stat(full, &info_) != 0)
        info_ = {};
    return true;
}

void dir_walk::close()
{
    if (dir_)
        closedir((DIR*)dir_);
    dir_ = nullptr;
}

// ---- child processes ------------------------------------------------------------------

// Makes a pipe when wanted; false when the system refuses one.
static bool open_pipe(bool wanted, int fds[2])
{
    fds[0] = fds[1] = -1;
    return !wanted || pipe(fds) == 0;
}

static void close_fd(int fd)
{
    if (fd >= 0)
        ::close(fd);
}

bool spawn_with_pipes(const char* program, const char* argument, bool want_in, bool want_out,
                      bool want_err, child_process& child)
{
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    // On failure every pipe made so far is closed again: a page may try many times, and each
    // lost descriptor would stay open for the rest of the request.
    auto close_all = [&] {
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            close_fd(fd);
        return false;
    };
    if (!open_pipe(want_in, in) || !open_pipe(want_out, out) || !open_pipe(want_err, err))
        return close_all();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return close_all();
    if (pid == 0) {
        if (want_in)
            dup2(in[0], 0);
        if (want_out)
            dup2(out[1], 1);
        if (want_err)
            dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            close_fd(fd);
        execl(program, program, argument, (char*)nullptr);
        _exit(127);
    }
    close_fd(in[0]);
    close_fd(out[1]);
    close_fd(err[1]);
    child = {pid, in[1], out[0], err[0]};
    return true;
}

int wait_child(const child_process& child)
{
    int status = 0;
    pid_t got = waitpid(child.pid, &status, 0);
    if (got == 0)
        return -1;
    if (WIFSIGNALED(status))
        return -2;
    return (signed char)WEXITSTATUS(status);
}
