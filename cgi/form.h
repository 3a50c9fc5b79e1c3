// Form input: the query string and the POST body decoded into one list of entries.
#ifndef TESSEL_CGI_FORM_H
#define TESSEL_CGI_FORM_H

// One field occurrence, in arrival order (query string first, then the body).
struct form_entry {
    char* name;
    char* value;        // NUL-terminated; may hold binary bytes for a file
    form_entry* next;
    int length;         // bytes in value
    char* file_name;    // client file name of an uploaded file; null for ordinary fields
};

// Result codes of the lookups.
constexpr int FORM_OK = 0;
constexpr int FORM_TRUNCATED = 1;
constexpr int FORM_NOT_A_NUMBER = 2;
constexpr int FORM_EMPTY = 3;
constexpr int FORM_NO_FIELD = 4;
constexpr int FORM_NO_MEMORY = 7;

// Sets up the hexadecimal digit table used by percent decoding.
void form_init_hex();

// Decodes QUERY_STRING into entries; 0 on success, 1 on failure.
int read_query_string();

// Reads CONTENT_LENGTH bytes of standard input and decodes them; 0 success, 1 out of memory
// or undecodable, 2 short read or missing boundary.
int read_post_body(bool multipart);

// Frees every entry.
void form_free_all();

#endif
