// Heap strings, the checked allocator, number formatting and whole-file helpers.
//
// Every text in tessel is a NUL-terminated byte string from the checked allocator. A null
// pointer means "no text" and every helper here reads it as the empty string unless its
// comment says otherwise. Helpers that "take" an argument free it (or reuse its storage):
// the caller must use the returned pointer instead.
#ifndef TESSEL_CORE_STR_H
#define TESSEL_CORE_STR_H

#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <sys/types.h>

// ---- memory ---------------------------------------------------------------------------

// A block of size bytes; null for size 0. On exhaustion logs "unable to malloc %d bytes"
// and exits with status 254. Ownership: new result.
void* checked_malloc(size_t size);

// Resizes block; size 0 frees it and returns null. On exhaustion logs
// "unable to realloc %d bytes" and exits with status 254. Ownership: takes block, new result.
void* checked_realloc(void* block, size_t size);

// Frees a heap string; null is ignored. Ownership: takes s.
void str_free(void* s);

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

// Builds a long text by appending, growing with amortised doubling.
class str_builder {
public:
    str_builder() = default;
    ~str_builder() { str_free(data_); }
    str_builder(const str_builder&) = delete;
    str_builder& operator=(const str_builder&) = delete;
    // Makes room for size bytes in all, so appending up to there does not reallocate.
    void reserve(size_t size);
    void append(const char* s, size_t n);
    void append(const char* s); // null appends nothing
    void append(char c) { append(&c, 1); }
    size_t size() const { return size_; }
    // The text built so far (never null). Ownership: view.
    const char* view() const { return data_ ? data_ : ""; }
    // Hands the text over and empties the builder: "" when nothing was appended, or null when
    // null_if_empty is set. Ownership: new result.
    char* take(bool null_if_empty);

private:
    char* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

// ---- copying and cutting --------------------------------------------------------------

// Copy of s; null for null. Ownership: borrows s, new result.
char* str_dup(const char* s);

// Copy of n bytes at s, which may hold NULs, with a NUL after them; never null (n 0 gives
// ""). Requires: s has n readable bytes. Ownership: borrows s, new result.
char* str_copy_bytes(const char* s, size_t n);

// Copy of at most n bytes of s, stopping early at a NUL; null for null s.
// Ownership: borrows s, new result.
char* str_dup_n(const char* s, size_t n);

// Copy of len bytes from pos, pos clamped to the length and len to what remains; null when s
// is null or the substring is empty. Ownership: borrows s, new result.
char* str_sub(const char* s, int pos, int len);

// As str_sub. Ownership: takes s, new result.
char* str_sub_take(char* s, int pos, int len);

// Concatenation of the arguments up to the first null one (a null in the middle ends the
// list). Ownership: borrows all, new result.
char* str_join(const char* first, ...);

// ---- editing --------------------------------------------------------------------------

// s[0..pos) + insert + s[pos+count..], pos clamped to the length and count to what remains;
// null when the result is empty. Ownership: takes s, borrows insert, new result.
char* str_splice(char* s, int pos, int count, const char* insert);

// str_splice with count 0. Ownership: takes s, borrows insert, new result.
char* str_insert(char* s, int pos, const char* insert);

// str_splice with no insert. Ownership: takes s, new result.
char* str_delete(char* s, int pos, int count);

// Appends t to s, growing s; null t does nothing, null s becomes a copy of t.
// Ownership: borrows t.
void str_append(char*& s, const char* t);

// str_append, then frees t. Ownership: takes t.
void str_append_take(char*& s, char* t);

// Every byte equal to from becomes to, in place. Ownership: borrows s.
void str_replace_char(char* s, char from, char to);

// Every byte through toupper() of the current locale, in place; returns s. Ownership: view.
char* str_upper_locale(char* s);

// Every byte through toupper()/tolower(), then the Cyrillic rule charset_case; in place,
// returns s. Ownership: view.
char* str_upper(char* s);
char* str_lower(char* s);

// ---- splitting (in place: the separator becomes NUL) ------------------------------------

// At the first c: writes NUL there and returns the text after it; null (s unchanged) when c
// is absent or s is null. Ownership: view into s.
char* str_cut_at(char* s, char c);

// As str_cut_at at the last c. Ownership: view into s.
char* str_cut_at_last(char* s, char c);

// At the first occurrence of sep: NUL there, returns the text after sep; null when absent;
// a null sep returns s itself. Ownership: view into s.
char* str_cut_at_str(char* s, const char* sep);

// As str_cut_at_str at the last occurrence; null s or null sep returns s.
// Ownership: view into s.
char* str_cut_at_last_str(char* s, const char* sep);

// Returns the cursor's text and moves the cursor past the next c (null when there is none).
// Ownership: view.
char* str_take_token(char*& cursor, char c);
char* str_take_token_str(char*& cursor, const char* sep);

// Returns the text up to the next c and moves the cursor past it; with no further c the
// cursor becomes null and the rest is returned, except that an empty rest returns null.
// Ownership: view.
char* str_next_field(char*& cursor, char c);

// ---- tests and numbers ----------------------------------------------------------------

bool str_nonempty(const char* s);
int str_len0(const char* s);
// s, or "(null)" for null (for printing). Ownership: view.
const char* str_or_null(const char* s);
// s, or "" for null: a text to print or compare where null must read as empty. Ownership: view.
inline const char* str_or_empty(const char* s)
{
    return s ? s : "";
}
// Null equals only null; otherwise exact byte comparison.
bool str_equal(const char* a, const char* b);
// First occurrence of t in s; null when either is null. Ownership: view into s.
const char* str_find(const char* s, const char* t);
// True when the first occurrence of t is at the start of s; false when either is null.
bool str_starts_with(const char* s, const char* t);
// True when the first occurrence of t lies exactly at the end of s: "abab" does not end
// with "ab" by this test, deliberately.
bool str_ends_with(const char* s, const char* t);
// Byte order as strcmp, with null equal to null and before any text: the key order of the
// sorted containers (the macro table, the variable store, the table registry).
int str_compare(const char* a, const char* b);

// Binary search over count keys in ascending str_compare order, key_at(i) giving key i. True
// when key is present; pos is the lower bound (the first key not less than key), which is the
// match when found.
template <typename KeyAt> bool str_lower_bound(int count, KeyAt key_at, const char* key, int& pos)
{
    int low = 0, high = count - 1;
    bool found = false;
    while (low <= high) {
        int mid = (low + high) / 2;
        int order = str_compare(key_at(mid), key);
        if (order >= 0) {
            high = mid - 1;
            found = found || order == 0;
        } else {
            low = mid + 1;
        }
    }
    pos = low;
    return found;
}

// Value of each byte as a hexadecimal digit: "0".."9", "A".."F" and "a".."f" are 0..15, every
// other byte 0 (so a bad escape decodes as a digit 0 rather than failing).
inline constexpr std::array<unsigned char, 256> STR_HEX_DIGITS = [] {
    std::array<unsigned char, 256> digits{};
    for (int i = 0; i < 10; i++)
        digits['0' + i] = (unsigned char)i;
    for (int i = 0; i < 6; i++)
        digits['A' + i] = digits['a' + i] = (unsigned char)(10 + i);
    return digits;
}();

// The value of c as a hexadecimal digit, 0 when it is none (see STR_HEX_DIGITS).
inline int str_hex_digit(char c)
{
    return STR_HEX_DIGITS[(unsigned char)c];
}

// True when s is non-empty and all bytes are '0'..'9'.
bool str_is_digits(const char* s);
// atoi of s, 0 for null.
int str_to_int(const char* s);
inline int int_max(int a, int b)
{
    return a > b ? a : b;
}
inline int int_min(int a, int b)
{
    return a < b ? a : b;
}

// n in decimal, as "%d" and "%lu" print it, in a static buffer of each formatter that is
// valid until the same formatter is called again. Ownership: view of a static buffer.
const char* fmt_int(int n);
const char* fmt_ulong(unsigned long n);

// ---- files ----------------------------------------------------------------------------

// The whole file, with carriage returns removed and lines beginning with "#" dropped; with
// drop_blank_lines also empty lines. An exclusive flock is held during the read when lock is
// set, and the file's size is then taken under it. Null when path is null or the file cannot
// be opened. Ownership: new result.
char* read_file(const char* path, bool drop_blank_lines, bool lock);

// Removes carriage returns and "#" comment lines (and, with drop_blank_lines, empty lines)
// in place: the clean-up every text file of the system gets. When origins is given (room for
// one entry per byte of text), origins[i] receives the offset in the original text of the
// byte kept at position i. Ownership: borrows text, borrows origins.
void file_clean_text(char* text, bool drop_blank_lines, size_t* origins = nullptr);

// Replaces the file's contents by text, creating it when missing, through file_replace
// (core/file_replace.h): after a crash or on a full disk the file holds its old text or the new
// one. lock is no longer needed and is ignored. Null on success, otherwise an error text ("no
// filename specified" or the system's message). Ownership: borrows both, new result.
char* write_file(const char* path, const char* text, bool lock);

// The file's modification time before any change, 0 when it cannot be examined; a non-zero
// new_time becomes the modification time (the access time is kept).
time_t file_mtime(const char* path, time_t new_time);

// unlink; null on success, otherwise an error text. Ownership: new result.
char* file_remove(const char* path);

// The system's message for errno followed by "(#", the number and ")". Ownership: new result.
char* system_error_text();

// Exclusive flock on a stream's descriptor, and its release.
void lock_stream(FILE* stream);
void unlock_stream(FILE* stream);

// Walks the entries of one directory, each with the result of stat on "dir/name" (a zeroed
// record when stat fails). Closed by close() or the destructor.
class dir_walk {
public:
    explicit dir_walk(const char* path);
    ~dir_walk();
    dir_walk(const dir_walk&) = delete;
    dir_walk& operator=(const dir_walk&) = delete;
    bool is_open() const { return dir_ != nullptr; }
    // Moves to the next entry; false at the end.
    bool next();
    const char* name() const { return name_; }
    const struct stat& info() const { return info_; }
    void close();

private:
    void* dir_ = nullptr;
    char path_[1000] = {};
    char name_[1000] = {};
    struct stat info_ = {};
};

// A child process with any of its standard streams on pipes. Unused pipes stay -1.
struct child_process {
    pid_t pid = -1;
    int in_fd = -1;  // write end of the child's standard input
    int out_fd = -1; // read end of the child's standard output
    int err_fd = -1; // read end of the child's standard error
};

// Runs program with one argument (null for none) and pipes for the streams asked for;
// false when the pipes or the fork fail.
bool spawn_with_pipes(const char* program, const char* argument, bool want_in, bool want_out,
                      bool want_err, child_process& child);

// Waits for the child: its exit code as a signed 8-bit value, -1 when waitpid returns 0,
// -2 when the child ended by a signal.
int wait_child(const child_process& child);

#endif
