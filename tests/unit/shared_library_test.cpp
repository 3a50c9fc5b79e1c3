// Libraries opened on first use: why a load failed, and that it is not tried again.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "core/shared_library.h"

TEST(SharedLibrary, FailureSaysWhyAndSticks)
{
    const char* const missing_file[] = {"/nonexistent/libx.so", nullptr};
    shared_library missing("x", "TESSEL_TEST_UNSET_VARIABLE", missing_file);
    const char* error = nullptr;
    int look_ups = 0;
    auto count = [&](shared_library&) { return ++look_ups > 0; };
    EXPECT_FALSE(missing.load(count, &error));
    EXPECT_EQ(std::string(error).rfind("cannot load x library: ", 0), 0u) << error;
    EXPECT_EQ(look_ups, 0);

    // The C library is there, but it has no such call; the first failure is the answer for
    // good, without a second look-up.
    const char* const c_library[] = {"libc.so.6", nullptr};
    shared_library lacking("c", "TESSEL_TEST_UNSET_VARIABLE", c_library);
    void (*call)() = nullptr;
    auto look_up = [&](shared_library& lib) { return ++look_ups && lib.look_up(call, "no_such"); };
    EXPECT_FALSE(lacking.load(look_up, &error));
    EXPECT_FALSE(lacking.load(look_up, &error));
    EXPECT_STREQ(error, "c library lacks no_such");
    EXPECT_EQ(look_ups, 1);
}

TEST(SharedLibrary, FirstFileThatOpensWins)
{
    auto found = [](shared_library&) { return true; };
    const char* error = nullptr;

    // A missing file and an empty name are passed over; the C library opens.
    const char* const usable[] = {"/nonexistent/liba.so", "", "libc.so.6", "/nonexistent/libz.so",
                                  nullptr};
    shared_library later("c", "TESSEL_TEST_UNSET_VARIABLE", usable);
    EXPECT_TRUE(later.load(found, &error));

    // When none opens, the failure names the last file tried.
    const char* const none[] = {"/nonexistent/liba.so", "/nonexistent/libb.so", nullptr};
    shared_library missing("x", "TESSEL_TEST_UNSET_VARIABLE", none);
    EXPECT_FALSE(missing.load(found, &error));
    EXPECT_NE(std::string(error).find("/nonexistent/libb.so"), std::string::npos) << error;

    // A file named by the environment is the only one tried.
    setenv("TESSEL_TEST_LIBRARY", "/nonexistent/libenv.so", 1);
    shared_library chosen("c", "TESSEL_TEST_LIBRARY", usable);
    EXPECT_FALSE(chosen.load(found, &error));
    EXPECT_NE(std::string(error).find("/nonexistent/libenv.so"), std::string::npos) << error;
    unsetenv("TESSEL_TEST_LIBRARY");
}

// A resident process serves requests whose environments name different files: each finds what
// a fresh process would, a missing file after a loaded one and the default after a failure.
TEST(SharedLibrary, AnotherFileNamedIsTriedAgain)
{
    auto found = [](shared_library&) { return true; };
    const char* const usable[] = {"libc.so.6", nullptr};
    shared_library lib("c", "TESSEL_TEST_LIBRARY", usable);
    setenv("TESSEL_TEST_LIBRARY", "/nonexistent/libenv.so", 1);
    EXPECT_FALSE(lib.load(found, nullptr));
    unsetenv("TESSEL_TEST_LIBRARY");
    EXPECT_TRUE(lib.load(found, nullptr));
    setenv("TESSEL_TEST_LIBRARY", "/nonexistent/libenv.so", 1);
    const char* error = nullptr;
    EXPECT_FALSE(lib.load(found, &error));
    EXPECT_NE(std::string(error).find("/nonexistent/libenv.so"), std::string::npos) << error;
    unsetenv("TESSEL_TEST_LIBRARY");
}
