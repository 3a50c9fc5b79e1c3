// Heap strings: copying, cutting, editing, splitting and comparing.
//
// Every text in tessel is a NUL-terminated byte string from the checked allocator
// (core/memory.h, which this header includes because every helper here returns memory from
// it). A null pointer means "no text" and every helper here reads it as the empty string
// unless its comment says otherwise. Helpers that "take" an argument free it (or reuse its
// storage): the caller must use the returned pointer instead.
#ifndef TESSEL_CORE_STR_H
#define TESSEL_CORE_STR_H

#include <cstddef>

#include "core/memory.h"

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

// Concatenation of the arguments up to the first null one (a null in the middle ends the
// list). Ownership: borrows all, new result.
char* str_join(const char* first, ...);

// ---- editing --------------------------------------------------------------------------

// s[0..pos) + insert + s[pos+count..], pos clamped to the length and count to what remains;
// null when the result is empty. Ownership: takes s, borrows insert, new result.
char* str_splice(char* s, int pos, int count, const char* insert);

// Appends t to s, growing s; null t does nothing, null s becomes a copy of t.
// Ownership: borrows t.
void str_append(char*& s, const char* t);

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

// At the last occurrence of sep: NUL there, returns the text after sep; null when absent or
// sep is empty; null s or null sep returns s. Ownership: view into s.
char* str_cut_at_last_str(char* s, const char* sep);

// Returns the cursor's text and moves the cursor past the next c, or past the next sep (null
// when there is none; a null sep leaves the cursor where it is). Ownership: view.
char* str_take_token(char*& cursor, char c);
char* str_take_token_str(char*& cursor, const char* sep);

// Returns the text up to the next c and moves the cursor past it; with no further c the
// cursor becomes null and the rest is returned, except that an empty rest returns null.
// Ownership: view.
char* str_next_field(char*& cursor, char c);

// ---- tests ----------------------------------------------------------------------------

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

#endif
