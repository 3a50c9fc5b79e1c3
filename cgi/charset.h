// The value `mangle` gives, beside the code pages of core/charset.h.
#ifndef TESSEL_CGI_CHARSET_H
#define TESSEL_CGI_CHARSET_H

#include "core/charset.h"

// text converted from the source to the output code page, then URL-encoded in the form style
// (url_encode of interp/escape.h); null for null or empty text.
// Ownership: borrows text, new result.
char* cookie_value_out(const char* text);

#endif
