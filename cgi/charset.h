// The value `mangle` gives, and the database's character set, beside the code pages of
// core/charset.h.
#ifndef TESSEL_CGI_CHARSET_H
#define TESSEL_CGI_CHARSET_H

#include "core/charset.h"

// text converted from the source to the output code page, then URL-encoded in the form style
// (url_encode of interp/escape.h); null for null or empty text.
// Ownership: borrows text, new result.
char* cookie_value_out(const char* text);

// The database's character set, as the setting TESSEL_DB_CHARSET names it: the name the
// connection announces to the server (null: none is announced, the server's own setting
// holds) and the code page that text is recoded to and from (CHARSET_NONE: none).
struct database_charset {
    const char* name;
    int code_page;
};

// Unset or empty: no name and KOI8-R, the engine's default. "koi8r", "cp1251" and "cp866" name
// the three Cyrillic code pages the server knows; any other name (utf8mb4, latin1...) is
// announced as it is and the text passes unrecoded. Ownership: view of the environment.
database_charset database_charset_get();

#endif
