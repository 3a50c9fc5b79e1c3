// POSIX regular expressions shared by the operators that take a pattern (match, index).
#ifndef TESSEL_OPS_REGEX_H
#define TESSEL_OPS_REGEX_H

#include <regex.h>

// A pattern compiled with regcomp, released when it goes out of scope. Not copyable.
class compiled_regex {
public:
    // Compiles pattern (null reads as empty) with the regcomp flags given.
    compiled_regex(const char* pattern, int flags);
    ~compiled_regex();
    compiled_regex(const compiled_regex&) = delete;
    compiled_regex& operator=(const compiled_regex&) = delete;
    // regcomp's result: 0 when the pattern compiled.
    int status() const { return status_; }
    const regex_t* get() const { return &re_; }
    // Number of parenthesised groups. Requires: status() == 0.
    int groups() const { return (int)re_.re_nsub; }

private:
    regex_t re_;
    int status_;
};

// "[regex error: " with the library's wording for status (cut at 1,023 bytes) and "]".
// Ownership: new result.
char* regex_error_text(int status, const regex_t* re);

#endif
