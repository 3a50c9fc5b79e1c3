// URL encoding, cookie values and the small response-header writers, beside the code pages
// of core/charset.h.
#ifndef TESSEL_CGI_CHARSET_H
#define TESSEL_CGI_CHARSET_H

#include "core/charset.h"

// A blank becomes "+", letters and digits stay, every other byte becomes "%xx" (lower-case
// hex); null for null or empty text. Ownership: borrows text, new result.
char* url_encode(const char* text);

// text converted from the source to the output code page, then url_encode'd.
// Ownership: borrows text, new result.
char* cookie_value_out(const char* text);

// Header writers on the output stream.
void write_location(const char* url);            // "Location: %s\n\n"
void write_status(int code, const char* reason); // "Status: %d %s\n\n"
void write_content_type(const char* type);       // "Content-type: %s\n\n"
// "Set-Cookie: NAME=VALUE; path=/SUFFIX\n" with name and value url_encode'd.
void write_cookie(const char* name, const char* value, const char* path_suffix);

#endif
