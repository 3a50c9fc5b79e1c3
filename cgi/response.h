// The response header: every header line the program writes goes through these writers.
//
// A null string reads as empty text. A line is written whole, however long it is. Every
// control byte (below 32, and 127: carriage return, line feed and tab among them) in a name
// or a value is written as a blank, so text taken from a form field, a cookie or a file name
// can neither start a header line of its own nor end the header block early. Bytes of 128
// and above are written unchanged (names and values in a Cyrillic code page). None of the
// writers formats with printf: the page's own header is on the path of every request.
#ifndef TESSEL_CGI_RESPONSE_H
#define TESSEL_CGI_RESPONSE_H

#include <cstdio>

// The stream the response goes to: the request's output stream, or standard output before
// the request record is filled. Ownership: view.
FILE* response_stream();

// ---- header lines ----------------------------------------------------------------------

// Writes "NAME: VALUE\n".
void response_header(const char* name, const char* value);

// Writes "Content-type: TYPE\nContent-length: LENGTH\n".
void response_content(const char* type, int length);

// Writes "Content-Disposition: filename=\"NAME\"\n". A double quote or a backslash in name
// gets a backslash before it, so the name stays inside its quotes.
void response_filename(const char* name);

// Writes "Set-Cookie: NAME=VALUE; path=/TAIL\n" with name and value URL-encoded in the
// cookie style (see url_encode); tail is what follows "path=/", such as "; expires=...".
void response_set_cookie(const char* name, const char* value, const char* tail);

// Writes the blank line that ends the header block; the body follows it.
void response_end_header();

#endif
