// POSIX regular expressions shared by the operators that take a pattern.
#include "ops/regex.h"

#include "core/str.h"
#include "interp/registry.h"

namespace {
constexpr size_t REGEX_ERROR_SIZE = 1024; // the library's wording is cut at 1,023 bytes
}

compiled_regex::compiled_regex(const char* pattern, int flags)
    : status_(regcomp(&re_, str_or_empty(pattern), flags))
{
}

compiled_regex::~compiled_regex()
{
    if (status_ == 0)
        regfree(&re_);
}

char* regex_error_text(int status, const regex_t* re)
{
    char wording[REGEX_ERROR_SIZE];
    regerror(status, re, wording, sizeof wording);
    return page_error("[regex error: %s]", wording);
}
