// Heap strings: copying, cutting, editing, splitting and comparing.
#include "core/str.h"

#include <cctype>
#include <cstdarg>
#include <cstring>

#include "core/charset.h"
#include "core/number.h"

// ---- copying and cutting --------------------------------------------------------------

char* str_copy_bytes(const char* s, size_t n)
{
    char* out = (char*)checked_malloc(n + 1);
    memcpy(out, s, n);
    out[n] = '\0';
    return out;
}

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

// As str_cut_at at the first occurrence of sep; a null sep returns s itself.
static char* str_cut_at_str(char* s, const char* sep)
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

// ---- tests ----------------------------------------------------------------------------

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
