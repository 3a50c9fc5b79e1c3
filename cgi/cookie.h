// Cookies: the request's cookies read by name, and Set-Cookie lines for the response.
//
// A null string reads as empty text. Both the cookie operator and the chat's visitor ticket
// go through these two helpers, so a cookie is parsed and written one way only.
#ifndef TESSEL_CGI_COOKIE_H
#define TESSEL_CGI_COOKIE_H

// The days a cookie lasts when the page names no count.
constexpr int COOKIE_DEFAULT_DAYS = 90;

// The value of the first pair named name in HTTP_COOKIE ("a=1; b=2"; blanks before a name are
// skipped, names compare exactly), cut at its first blank and URL-decoded ("+" is a blank,
// "%XX" a byte). Not escaped: the caller escapes it for wherever it goes. Null when no pair
// has that name. Ownership: borrows name, new result.
char* cookie_read(const char* name);

// Writes "Set-Cookie: NAME=VALUE; path=/" at once, name and value URL-encoded in the cookie
// style, with "; expires=Wed, 01-Jan-2025 00:00:00 GMT" for days from now in UTC unless days
// is 0 (a session cookie); a negative count gives an expiry in the past, which deletes the
// cookie at the browser. Attributes, when given, follow as they stand ("; HttpOnly"). Writes
// nothing for an empty name. Ownership: borrows all.
void cookie_write(const char* name, const char* value, int days, const char* attributes = nullptr);

#endif
