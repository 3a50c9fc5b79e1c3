// Code pages, Cyrillic case, URL encoding and the small response-header writers.
#ifndef TESSEL_CGI_CHARSET_H
#define TESSEL_CGI_CHARSET_H

// Code-page numbers. KOI8-R is the pivot of every conversion.
constexpr int CHARSET_NONE = 0;
constexpr int CHARSET_WIN = 1;   // Windows-1251
constexpr int CHARSET_KOI = 2;   // KOI8-R
constexpr int CHARSET_ALT = 3;   // CP866
constexpr int CHARSET_MAC = 4;   // Mac Cyrillic
constexpr int CHARSET_ISO = 5;   // ISO 8859-5

// The code page named in value: the first of "WIN", "1251", "KOI", "ALT", "DOS", "866",
// "MAC", "ISO" found in its upper-cased text; 0 for none or null.
int charset_from_name(const char* value);

// Converts text in place from one code page to another through KOI8-R; unchanged when text
// is null, either page is 0, or they are equal. Returns text. Ownership: view.
char* charset_convert(char* text, int from, int to);

// Sets (upper) or clears bit 32 of every byte >= 128, reversed when the source code page is
// not KOI8-R. Applied after the system's own case conversion. Ownership: view.
char* charset_case(char* text, bool upper);

// A blank becomes "+", letters and digits stay, every other byte becomes "%xx" (lower-case
// hex); null for null or empty text. Ownership: borrows text, new result.
char* url_encode(const char* text);

// text converted from the source to the output code page, then url_encode'd.
// Ownership: borrows text, new result.
char* cookie_value_out(const char* text);

// Header writers on the output stream.
void write_location(const char* url);                 // "Location: %s\n\n"
void write_status(int code, const char* reason);      // "Status: %d %s\n\n"
void write_content_type(const char* type);            // "Content-type: %s\n\n"
// "Set-Cookie: NAME=VALUE; path=/SUFFIX\n" with name and value url_encode'd.
void write_cookie(const char* name, const char* value, const char* path_suffix);

#endif
