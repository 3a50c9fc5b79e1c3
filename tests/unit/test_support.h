// Helpers the unit tests share.
#ifndef TESSEL_TESTS_UNIT_TEST_SUPPORT_H
#define TESSEL_TESTS_UNIT_TEST_SUPPORT_H

#include <string>

#include "core/str.h"

// The text of a heap string, "(null)" for null. Ownership: takes s.
inline std::string own(char* s)
{
    std::string out = s ? s : "(null)";
    str_free(s);
    return out;
}

#endif
