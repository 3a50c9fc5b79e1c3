// Putting a process back to the state of a fresh one between two requests.
//
// The CGI program serves one request and exits, so it never calls these: the process's end is
// its reset. A program that serves many requests in one process calls request_env_remember
// once before the first and request_reset after each, so that every request runs as it would
// in a process of its own.
#ifndef TESSEL_PROGRAM_RESET_H
#define TESSEL_PROGRAM_RESET_H

// Remembers the environment as it is now as the one every request starts from; a later call
// replaces what an earlier one remembered.
void request_env_remember();

// Ends a request: closes the SQL connection, frees the form entries and everything the request
// record owns (macros, variables, tables, the content type, the request URI and page path),
// puts every per-request value of the record, of the CGI layer and of the operator families
// back to its start-up value, and restores the environment remembered by
// request_env_remember (the variables .profile set, a PATH_TRANSLATED taken from
// SCRIPT_FILENAME), when one was remembered. Call it between requests only, never while a page
// is being expanded.
void request_reset();

#endif
