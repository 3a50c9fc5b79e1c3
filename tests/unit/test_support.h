// Helpers the unit tests share: heap strings, temp files, fatal exits, registered operators.
#ifndef TESSEL_TESTS_UNIT_TEST_SUPPORT_H
#define TESSEL_TESTS_UNIT_TEST_SUPPORT_H

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__) || defined(__has_feature)
#include <sanitizer/lsan_interface.h>
#endif

#include <map>

#include "cgi/request.h"
#include "core/memory.h"
#include "interp/registry.h"
#include "ops/ops.h"

// The text of a heap string, "(null)" for null. Ownership: takes s.
inline std::string own(char* s)
{
    std::string out = s ? s : "(null)";
    str_free(s);
    return out;
}

// A path in the test's temp folder, unique to this process.
inline std::string temp_path(const std::string& name)
{
    return testing::TempDir() + "/" + std::to_string(getpid()) + name;
}

// The whole text of a file; empty when it cannot be read.
inline std::string file_text(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The child of a death test ends by a fatal exit in the middle of its action, which may drop
// the only pointer to what it allocated: not lost memory, so a sanitizer build's leak check
// ignores what the child allocates.
inline void ignore_leaks_from_here()
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable();
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    __lsan_disable();
#endif
#endif
}

// Runs action in a child process and checks that it exits with 254 and that the error log
// ends with ": message".
inline void expect_fatal(const std::function<void()>& action, const std::string& message)
{
    std::string log = temp_path("fatal_error_log");
    unlink(log.c_str());
    const char* saved = req.log_names[1];
    req.log_names[1] = log.c_str();
    EXPECT_EXIT(
        {
            ignore_leaks_from_here();
            action();
        },
        testing::ExitedWithCode(254), "");
    req.log_names[1] = saved;
    std::string line = file_text(log);
    unlink(log.c_str());
    std::string tail = ": " + message + "\n";
    EXPECT_TRUE(line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
        << "log line: " << line;
}

// name -> family of every operator the families register: the family's name in
// OPERATOR_FAMILIES, or the stem of the ops/<family>.cpp file whose register_rows a test called
// first. Operators that tests register have no source and are left out.
inline std::map<std::string, std::string> registered_families()
{
    register_all_operators();
    std::map<std::string, std::string> families;
    for (const operator_entry* entry : registry_operators()) {
        if (!entry->source)
            continue;
        std::string path = entry->source;
        path = path.substr(path.find_last_of('/') + 1);
        families[entry->row->name] = path.substr(0, path.find('.'));
    }
    return families;
}

#endif
