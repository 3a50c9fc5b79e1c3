// Form input: decoding of the query string, urlencoded and multipart bodies, and the lookups.
#include "cgi/form.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <vector>

#include "cgi/charset.h"
#include "cgi/request.h"
#include "core/log.h"
#include "core/number.h"
#include "core/setting.h"
#include "core/str.h"

namespace {

constexpr int READ_PIECE = 1048576;          // the body is read in pieces of at most 1 MiB
constexpr const char* FILE_VALUE = "(file)"; // what a file field reads as by name

// The last entry of the list, valid while req.form_entries is not null.
form_entry* form_tail = nullptr;

// The name form_find_next searches for; req.form_cursor_name points at it.
char* cursor_name = nullptr;

// ---- building entries -------------------------------------------------------------------

// Appends an entry at the tail of the list. Ownership: takes name, value and file_name.
void form_append(char* name, char* value, int length, char* file_name)
{
    form_entry* entry = static_cast<form_entry*>(checked_malloc(sizeof(form_entry)));
    entry->name = name;
    entry->value = value;
    entry->next = nullptr;
    entry->length = length;
    entry->file_name = file_name;
    if (req.form_entries)
        form_tail->next = entry;
    else
        req.form_entries = entry;
    form_tail = entry;
}

// "+" is a blank and "%XY" the byte 16 * X + Y by the digit table; an escape cut short by the
// end is dropped. Ownership: borrows text, new result (never null).
char* percent_decode(const char* text, int len)
{
    char* out = static_cast<char*>(checked_malloc(len + 1));
    int n = 0;
    for (int i = 0; i < len; i++) {
        unsigned char c = text[i];
        if (c == '+') {
            out[n++] = ' ';
        } else if (c == '%') {
            if (i + 2 >= len)
                break;
            out[n++] =
                static_cast<char>(16 * str_hex_digit(text[i + 1]) + str_hex_digit(text[i + 2]));
            i += 2;
        } else {
            out[n++] = static_cast<char>(c);
        }
    }
    out[n] = '\0';
    return out;
}

// ---- multipart --------------------------------------------------------------------------

// ASCII capitals to lower case, every other byte unchanged: the C locale's tolower as a table.
constexpr struct lower_table {
    unsigned char map[256];
    constexpr lower_table() : map()
    {
        for (int c = 0; c < 256; c++)
            map[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    }
    constexpr unsigned char operator[](unsigned char c) const { return map[c]; }
} LOWER;

// The next offset in hay[from, len) whose byte, lowered when fold is set, is c; len when there
// is none. memchr does the work when a byte can only match itself.
int skip_to(const char* hay, int len, int from, unsigned char c, bool fold)
{
    if (!fold || c < 'a' || c > 'z') {
        const void* at = memchr(hay + from, c, static_cast<size_t>(len - from));
        return at ? static_cast<int>(static_cast<const char*>(at) - hay) : len;
    }
    while (from < len && LOWER[static_cast<unsigned char>(hay[from])] != c)
        from++;
    return from;
}

// Offset of needle in hay[from, len), -1 when absent. With fold the hay is lower-cased and
// compared against the needle as given, so a needle with capitals is never found; without,
// bytes are compared as they are. One pass over the hay (Knuth-Morris-Pratt), whatever the
// needle: a request's boundary is chosen by the client.
int find_bytes(const char* hay, int len, int from, const char* needle, bool fold)
{
    int n = static_cast<int>(strlen(needle));
    if (n == 0 || from < 0)
        return -1;
    for (int k = 0; fold && k < n; k++)
        if (needle[k] >= 'A' && needle[k] <= 'Z')
            return -1;
    std::vector<int> border(static_cast<size_t>(n), 0); // longest proper border of needle[0, k]
    for (int k = 1, b = 0; k < n; k++) {
        while (b > 0 && needle[k] != needle[b])
            b = border[b - 1];
        if (needle[k] == needle[b])
            b++;
        border[k] = b;
    }
    const unsigned char* pattern = reinterpret_cast<const unsigned char*>(needle);
    for (int i = from, k = 0; i < len; i++) {
        if (k == 0 && (i = skip_to(hay, len, i, pattern[0], fold)) == len)
            return -1;
        unsigned char c = static_cast<unsigned char>(hay[i]);
        if (fold)
            c = LOWER[c];
        while (k > 0 && c != pattern[k])
            k = border[k - 1];
        if (c == pattern[k])
            k++;
        if (k == n)
            return i - n + 1;
    }
    return -1;
}

// A key of a part's header or of the content type (lower case), searched case-insensitively.
int find_lowered(const char* hay, int len, int from, const char* key)
{
    return find_bytes(hay, len, from, key, true);
}

// The value after key (lower case, searched case-insensitively) in text[0, len): a quoted value
// runs to the next double quote, any other ends at a blank, ";", double quote, CR or LF. Null when
// the key is absent or the value empty. Ownership: new result.
char* header_value(const char* text, int len, const char* key)
{
    int at = find_lowered(text, len, 0, key);
    if (at < 0)
        return nullptr;
    int start = at + static_cast<int>(strlen(key));
    int end = start;
    if (start < len && text[start] == '"') {
        end = ++start;
        while (end < len && text[end] != '"')
            end++;
    } else {
        while (end < len && !strchr(" ;\"\r\n", text[end]) && text[end] != '\0')
            end++;
    }
    return end > start ? str_dup_n(text + start, end - start) : nullptr;
}

// Offset just past the first empty line in body[from, to) (two line feeds with only carriage
// returns between them); -1 when there is none.
int find_empty_line(const char* body, int from, int to)
{
    for (int i = from; i < to; i++) {
        if (body[i] != '\n')
            continue;
        int j = i + 1;
        while (j < to && body[j] == '\r')
            j++;
        if (j < to && body[j] == '\n')
            return j + 1;
    }
    return -1;
}

// The last path component of a client's file name, after its last "/" or "\\" (what browsers
// send): a name never carries a folder into a path a page builds from it. "." and ".." name
// folders, so they give "". Ownership: takes name, new result (never null).
char* client_file_base(char* name)
{
    const char* base = str_or_empty(name);
    for (const char* p = base; *p; p++)
        if (*p == '/' || *p == '\\')
            base = p + 1;
    bool dots = strcmp(base, ".") == 0 || strcmp(base, "..") == 0;
    char* result = str_dup(dots ? "" : base);
    str_free(name);
    return result;
}

// Stores one part whose header block is body[head, data) and whose data ends at end.
void multipart_store_part(const char* body, int head, int data, int end)
{
    if (find_lowered(body + head, data - head, 0, "content-disposition: form-data") < 0)
        return;
    char* name = header_value(body + head, data - head, " name=");
    if (!name || end <= data) {
        str_free(name);
        return;
    }
    char* file_name = nullptr;
    if (find_lowered(body + head, data - head, 0, " filename=") >= 0)
        file_name = client_file_base(header_value(body + head, data - head, " filename="));
    char* value = str_copy_bytes(body + data, end - data);
    if (!file_name) // text arrives in the browser's code page; pages are in the source one
        charset_convert(value, req.output_charset, req.source_charset);
    form_append(name, value, end - data, file_name);
}

// Where a part's data ends: before the CR, LF and "--" that lead to the next boundary.
int multipart_data_end(const char* body, int data, int next)
{
    int end = next;
    if (end - 2 >= data && body[end - 1] == '-' && body[end - 2] == '-')
        end -= 2;
    if (end - 1 >= data && body[end - 1] == '\n')
        end--;
    if (end - 1 >= data && body[end - 1] == '\r')
        end--;
    return end;
}

// Logs why a body that holds its boundary as sent gave no field: the boundary has capitals,
// which the lower-cased body never matches.
void multipart_explain_unsplit(const char* body, int len, const char* boundary)
{
    if (find_bytes(body, len, 0, boundary, false) >= 0)
        log_line(LOG_ERROR, "multipart boundary has capital letters: no field was read; set "
                            "TESSEL_MULTIPART_AS_SENT=1");
}

// ---- line breaks ------------------------------------------------------------------------

// Copies src into dst (room for size - 1 bytes and a NUL), turning each run of CR and LF into
// max(CRs, LFs) line feeds when keep is set, into nothing otherwise. True when all fitted.
bool copy_normalised(const char* src, char* dst, int size, bool keep)
{
    int n = 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(src);
    while (*p) {
        if (*p != '\r' && *p != '\n') {
            if (n >= size - 1)
                break;
            dst[n++] = static_cast<char>(*p++);
            continue;
        }
        int crs = 0, lfs = 0;
        for (; *p == '\r' || *p == '\n'; p++)
            (*p == '\r' ? crs : lfs)++;
        for (int k = keep ? int_max(crs, lfs) : 0; k > 0 && n < size - 1; k--)
            dst[n++] = '\n';
    }
    dst[n] = '\0';
    return *p == '\0';
}

// The value a lookup sees: "(file)" for a file field. Ownership: view.
const char* lookup_value(const form_entry* entry)
{
    if (entry->file_name)
        return FILE_VALUE;
    return str_or_empty(entry->value);
}

bool name_matches(const form_entry* entry, const char* name)
{
    return strcmp(str_or_empty(entry->name), str_or_empty(name)) == 0;
}

} // namespace

// ---- reading the request ------------------------------------------------------------------

void form_decode_urlencoded(const char* text, int len)
{
    int pos = 0;
    while (pos < len) {
        const char* eq = static_cast<const char*>(memchr(text + pos, '=', len - pos));
        if (!eq)
            return;
        int name_end = static_cast<int>(eq - text);
        int value_start = name_end + 1;
        const char* amp =
            static_cast<const char*>(memchr(text + value_start, '&', len - value_start));
        int value_end = amp ? static_cast<int>(amp - text) : len;
        char* name = percent_decode(text + pos, name_end - pos);
        char* value = percent_decode(text + value_start, value_end - value_start);
        form_append(name, value, static_cast<int>(strlen(value)), nullptr);
        if (!amp)
            return;
        pos = value_end + 1;
    }
}

void read_query_string()
{
    const char* query = str_or_empty(req.cgi.query_string);
    form_decode_urlencoded(query, static_cast<int>(strlen(query)));
}

int form_decode_multipart(const char* body, int len, const char* content_type)
{
    const char* type = str_or_empty(content_type);
    char* boundary = header_value(type, static_cast<int>(strlen(type)), "boundary=");
    if (!boundary)
        return 2;
    str_holder hold(boundary);
    int blen = static_cast<int>(strlen(boundary));
    // By default the body is lower-cased before the boundary is looked for, so a boundary with
    // capitals (as Chromium sends) splits nothing; the setting matches it byte for byte.
    bool fold = !setting_on("TESSEL_MULTIPART_AS_SENT");
    int first = find_bytes(body, len, 0, boundary, fold);
    if (first < 0 && fold)
        multipart_explain_unsplit(body, len, boundary);
    while (first >= 0) {
        int head = first + blen;
        int next = find_bytes(body, len, head, boundary, fold);
        if (next < 0)
            return 0;
        int data = find_empty_line(body, head, next);
        if (data < 0)
            return 0;
        multipart_store_part(body, head, data, multipart_data_end(body, data, next));
        first = next;
    }
    return 0;
}

int read_form_input()
{
    read_query_string();
    if (strcasecmp(req.cgi.request_method, "post") != 0)
        return 0;
    // A body is read when its content type is urlencoded or multipart (a prefix match either
    // way, so "multipart/form-data; boundary=..." and an empty type both select multipart).
    const char* type = req.cgi.content_type;
    if (strcasecmp(type, "application/x-www-form-urlencoded") == 0)
        return read_post_body(false);
    const char* multipart = "multipart/form-data";
    size_t shorter = std::min(strlen(type), strlen(multipart));
    if (strncasecmp(type, multipart, shorter) == 0)
        return read_post_body(true);
    return 0;
}

int read_post_body(bool multipart)
{
    int wanted = req.content_length;
    if (wanted == 0)
        return 0;
    if (wanted < 0)
        return 1;
    char* body = static_cast<char*>(malloc(static_cast<size_t>(wanted) + 1));
    if (!body)
        return 1;
    FILE* in = req.input_stream ? req.input_stream : stdin;
    int got = 0;
    while (got < wanted) {
        size_t piece = static_cast<size_t>(int_min(wanted - got, READ_PIECE));
        size_t n = fread(body + got, 1, piece, in);
        if (n == 0) // end of input or an error: a body shorter than announced
            break;
        got += static_cast<int>(n);
    }
    if (got != wanted) {
        log_line(LOG_ERROR, "cgiParsePostFormInput: cgiContentLength(%d)!=read_size(%d)", wanted,
                 got);
        free(body);
        return 2;
    }
    body[got] = '\0';
    int code = 0;
    if (multipart)
        code = form_decode_multipart(body, got, req.cgi.content_type);
    else
        form_decode_urlencoded(body, got);
    free(body);
    return code;
}

void form_free_all()
{
    form_entry* entry = req.form_entries;
    while (entry) {
        form_entry* next = entry->next;
        str_free(entry->name);
        str_free(entry->value);
        str_free(entry->file_name);
        str_free(entry);
        entry = next;
    }
    req.form_entries = nullptr;
    req.form_cursor = nullptr;
    form_tail = nullptr;
}

// ---- lookups --------------------------------------------------------------------------------

form_entry* form_find_first(const char* name)
{
    str_free(cursor_name);
    cursor_name = str_dup(str_or_empty(name));
    req.form_cursor_name = cursor_name;
    req.form_cursor = req.form_entries;
    return form_find_next();
}

form_entry* form_find_next()
{
    for (form_entry* entry = req.form_cursor; entry; entry = entry->next) {
        if (name_matches(entry, req.form_cursor_name)) {
            req.form_cursor = entry->next;
            return entry;
        }
    }
    req.form_cursor = nullptr;
    return nullptr;
}

int form_value_length(const char* name, int& size)
{
    const form_entry* entry = form_find_first(name);
    if (!entry) {
        size = 1;
        return FORM_NO_FIELD;
    }
    size = (entry->file_name ? static_cast<int>(strlen(FILE_VALUE)) : entry->length) + 1;
    return FORM_OK;
}

int form_copy_value(const char* name, char* buffer, int size, bool keep_line_breaks)
{
    const form_entry* entry = form_find_first(name);
    if (!entry) {
        buffer[0] = '\0';
        return FORM_NO_FIELD;
    }
    const char* value = lookup_value(entry);
    bool fitted = copy_normalised(value, buffer, size, keep_line_breaks);
    if (!*value)
        return FORM_EMPTY;
    return fitted ? FORM_OK : FORM_TRUNCATED;
}

int form_int(const char* name, int& value, int fallback)
{
    value = fallback;
    const form_entry* entry = form_find_first(name);
    if (!entry)
        return FORM_NO_FIELD;
    const char* text = lookup_value(entry);
    if (!*text)
        return FORM_EMPTY;
    const char* p = text;
    while (isspace((unsigned char)*p))
        p++;
    if (!isdigit((unsigned char)*p) && *p != '-' && *p != '+')
        return FORM_NOT_A_NUMBER;
    value = atoi(text);
    return FORM_OK;
}

int form_all_values(const char* name, char**& values)
{
    values = nullptr;
    int count = 0;
    for (form_entry* e = form_find_first(name); e; e = form_find_next())
        count++;
    if (count == 0)
        return FORM_NO_FIELD;
    values = static_cast<char**>(checked_malloc(sizeof(char*) * (count + 1)));
    int i = 0;
    for (form_entry* e = form_find_first(name); e; e = form_find_next()) {
        const char* value = lookup_value(e);
        int size = static_cast<int>(strlen(value)) + 1;
        values[i] = static_cast<char*>(checked_malloc(size));
        copy_normalised(value, values[i], size, true);
        i++;
    }
    values[count] = nullptr;
    return FORM_OK;
}

void form_free_values(char** values)
{
    if (!values)
        return;
    for (char** v = values; *v; v++)
        str_free(*v);
    str_free(values);
}
