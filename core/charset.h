// Cyrillic code pages: their numbers, conversion between them and the case rule.
//
// The case rule depends on the code page the page sources are written in, which the request
// state above binds once (charset_case_bind). A null text is left alone.
#ifndef TESSEL_CORE_CHARSET_H
#define TESSEL_CORE_CHARSET_H

// Code-page numbers. KOI8-R is the pivot of every conversion.
constexpr int CHARSET_NONE = 0;
constexpr int CHARSET_WIN = 1; // Windows-1251
constexpr int CHARSET_KOI = 2; // KOI8-R
constexpr int CHARSET_ALT = 3; // CP866
constexpr int CHARSET_MAC = 4; // Mac Cyrillic
constexpr int CHARSET_ISO = 5; // ISO 8859-5

// The code page named in value: the first of "WIN", "1251", "KOI", "ALT", "DOS", "866",
// "MAC", "ISO" found in its upper-cased text; 0 for none or null.
int charset_from_name(const char* value);

// Converts text in place from one code page to another through KOI8-R; unchanged when text
// is null, either page is 0, or they are equal. Returns text. Ownership: view.
char* charset_convert(char* text, int from, int to);

// Binds the case rule to the code page of the page sources: source_charset is read at each
// call. Unbound, the sources count as not KOI8-R. Ownership: borrows source_charset for the
// life of the process.
void charset_case_bind(const int* source_charset);

// Sets (upper) or clears bit 32 of every byte >= 128, reversed when the source code page is
// not KOI8-R. Applied after the system's own case conversion. Ownership: view.
char* charset_case(char* text, bool upper);

#endif
