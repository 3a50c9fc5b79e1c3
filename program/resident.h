// A resident worker's request: served as a fresh CGI process would serve it, then forgotten.
//
// The worker calls resident_start once, then resident_serve for each request. What ends a CGI
// process (an error page, a fatal log line, a zero divisor) ends only the request here: the
// answer says how the process would have ended, and the worker decides what the client gets.
#ifndef TESSEL_PROGRAM_RESIDENT_H
#define TESSEL_PROGRAM_RESIDENT_H

#include <cstddef>
#include <cstdio>

// How a request ended, as the CGI process would have ended.
struct resident_answer {
    int status = 0;       // the exit status: 0, 253 (error page), 254 (fatal), 255 (bad form)
    int signal = 0;       // the signal the process would have died of, or 0
    bool spoiled = false; // the worker must be replaced (memory ran out, a zero divisor)
};

// Makes this process a resident worker: the environment as it is now becomes the base of every
// request, the working folder now is where every request starts, and fatal conditions end
// the request instead of the process.
void resident_start();

// Serves one request: the environment is the base plus params ("NAME=value", ending with a
// null), the body is read from in, the response (header and body, as the CGI program prints
// it) is written to out. Afterwards every piece of per-request state is as in a fresh process
// (request_reset, program/reset.h).
resident_answer resident_serve(char** params, FILE* in, FILE* out);

// True when a response of size bytes holds a complete header: lines up to an empty line, which
// is what a server needs from a CGI program (the header may be empty).
bool resident_response_complete(const char* response, size_t size);

// The response a server makes of a CGI program that ended without a complete header.
constexpr const char RESIDENT_FAILED_RESPONSE[] =
    "Status: 500 Internal Server Error\nContent-type: text/html\n\n"
    "<html><head><title>500 Internal Server Error</title></head><body>\n"
    "<h1>Internal Server Error</h1>\n</body></html>\n";

#endif
