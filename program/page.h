// The page main and its steps: .profile, checks, registration, macros, the page, the response.
#ifndef TESSEL_PROGRAM_PAGE_H
#define TESSEL_PROGRAM_PAGE_H

#include <cstdio>

// The banner shown when the program is run without a page.
constexpr const char* TESSEL_BANNER = "tessel 1.0 (168mysql-omr2 build)";

// Serves the request that the CGI environment and standard input describe, printing the
// response on standard output; returns the exit status (255 for an undecodable request).
// Fatal errors end the process from inside.
int serve_request();

// The request's part of serve_request, with the body read from in and the response written to
// out: what a resident worker runs for each request (program/resident.h), where fatal errors
// end the request by throwing run_ended (core/run.h).
int serve_request_from(FILE* in, FILE* out);

// The page main: .profile, checks, registration, macros, the page, the response.
void render_page();

// Applies ".profile" of the working directory: KEY=VALUE lines become environment variables.
void apply_profile();

// Squeezes runs of blanks (HTML) or of line breaks (other content types) in place.
void compact_page(char* text);

#endif
