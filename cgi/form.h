// Form input: the query string and the POST body decoded into one list of entries.
//
// Entries are read by name through the lookups below, which report numeric result codes
// rather than messages. A null name or value reads as empty text.
#ifndef TESSEL_CGI_FORM_H
#define TESSEL_CGI_FORM_H

// One field occurrence, in arrival order (query string first, then the body).
struct form_entry {
    char* name;
    char* value; // NUL-terminated; may hold binary bytes for a file
    form_entry* next;
    int length;      // bytes in value
    char* file_name; // client file name of an uploaded file; null for ordinary fields
};

// Result codes of the lookups.
constexpr int FORM_OK = 0;
constexpr int FORM_TRUNCATED = 1;
constexpr int FORM_NOT_A_NUMBER = 2;
constexpr int FORM_EMPTY = 3;
constexpr int FORM_NO_FIELD = 4;

// ---- reading the request ----------------------------------------------------------------

// Decodes QUERY_STRING into entries.
void read_query_string();

// Reads the form input of the request: the query string, then for a POST the body when its
// content type selects one (read_post_body). 0 success, else read_post_body's code, on which
// the request is refused.
int read_form_input();

// Reads CONTENT_LENGTH bytes of the input stream and decodes them as a multipart or an
// urlencoded body; 0 success, 1 out of memory or undecodable, 2 short read or missing
// boundary. A short read logs "cgiParsePostFormInput: cgiContentLength(N)!=read_size(M)".
int read_post_body(bool multipart);

// Decodes an urlencoded text of len bytes ("a=1&b=2") and appends its entries; a trailing
// piece without "=" is ignored. Ownership: borrows text.
void form_decode_urlencoded(const char* text, int len);

// Decodes a multipart body of len bytes split by the boundary named in content_type and
// appends its entries; 2 when content_type names no boundary, else 0. The boundary is looked
// for in the lower-cased body, so one with capital letters yields no fields (logged when the
// body holds it as sent); with TESSEL_MULTIPART_AS_SENT=1 it is matched byte for byte.
// Ownership: borrows both.
int form_decode_multipart(const char* body, int len, const char* content_type);

// Frees every entry and empties the list.
void form_free_all();

// ---- lookups ----------------------------------------------------------------------------

// The first entry whose name equals name byte for byte, null when none; it also starts the
// cursor that form_find_next continues. Ownership: view.
form_entry* form_find_first(const char* name);

// The next entry of the name given to form_find_first, in list order; null when none is
// left. Ownership: view.
form_entry* form_find_next();

// size = length of the first value plus one, where a file field's value reads as "(file)";
// code 0, or 4 with size 1 when the field is absent.
int form_value_length(const char* name, int& size);

// Copies the first value of name into buffer (size bytes, size >= 1), a file field as
// "(file)". A run of carriage returns and line feeds becomes as many line feeds as the larger
// of its two counts with keep_line_breaks, and nothing without. Codes: 0; 1 truncated at
// size - 1 bytes; 3 empty value; 4 absent (buffer set to ""). Ownership: borrows name.
int form_copy_value(const char* name, char* buffer, int size, bool keep_line_breaks);

// value = atoi of the first value when its first non-blank byte is a digit, "-" or "+";
// otherwise value = fallback with code 2 (not a number), 3 (empty) or 4 (absent).
int form_int(const char* name, int& value, int fallback);

// values = a null-terminated array of copies of every value of name in arrival order, line
// breaks normalised and kept; code 0, or 4 (values null) when there is none.
// Ownership: borrows name, new values (free with form_free_values).
int form_all_values(const char* name, char**& values);

// Frees an array made by form_all_values; null is ignored. Ownership: takes values.
void form_free_values(char** values);

#endif
