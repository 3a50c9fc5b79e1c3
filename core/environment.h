// The process environment, as the requests of a resident worker see it.
//
// The CGI program gets its environment from the server and changes it with setenv (.profile,
// `exec`'s variables); the process's end undoes it all. A resident worker serves one request
// after another, each with the variables its server passed, and the C library's setenv keeps
// every distinct string it was given for the life of the process, so setting per-request values
// with it would grow the worker without bound. Once env_keep_base has run, this module owns
// the environment instead: every request starts from the base plus the server's variables,
// each change is a string of its own, and all of them are freed when the request ends.
#ifndef TESSEL_CORE_ENVIRONMENT_H
#define TESSEL_CORE_ENVIRONMENT_H

// Takes the environment as it is now as the base every request starts from, and from then on
// keeps the environment in this module's own strings. A later call replaces the base.
void env_keep_base();

// True once env_keep_base has run.
bool env_is_kept();

// Sets the environment to the base plus params ("NAME=value" strings, ending with a null;
// a name already in the base takes the later value). Ownership: copies params.
void env_begin_request(char** params);

// Sets the environment back to the base and frees every string the request made.
void env_end_request();

// setenv(name, value, 1) and unsetenv(name). Before env_keep_base they are the C library's; after
// it, a replaced string stays allocated until the request ends, since a caller may still hold
// what getenv returned for it.
void env_set(const char* name, const char* value);
void env_unset(const char* name);

#endif
