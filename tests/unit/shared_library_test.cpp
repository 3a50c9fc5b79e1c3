// Libraries opened on first use: why a load failed, and that it is not tried again.
#include <gtest/gtest.h>
#include <string>

#include "core/shared_library.h"

TEST(SharedLibrary, FailureSaysWhyAndSticks)
{
    shared_library missing("x", "TESSEL_TEST_UNSET_VARIABLE", "/nonexistent/libx.so");
    const char* error = nullptr;
    int look_ups = 0;
    auto count = [&](shared_library&) { return ++look_ups > 0; };
    EXPECT_FALSE(missing.load(count, &error));
    EXPECT_EQ(std::string(error).rfind("cannot load x library: ", 0), 0u) << error;
    EXPECT_EQ(look_ups, 0);

    // The C library is there, but it has no such call; the first failure is the answer for
    // good, without a second look-up.
    shared_library lacking("c", "TESSEL_TEST_UNSET_VARIABLE", "libc.so.6");
    void (*call)() = nullptr;
    auto look_up = [&](shared_library& lib) { return ++look_ups && lib.look_up(call, "no_such"); };
    EXPECT_FALSE(lacking.load(look_up, &error));
    EXPECT_FALSE(lacking.load(look_up, &error));
    EXPECT_STREQ(error, "c library lacks no_such");
    EXPECT_EQ(look_ups, 1);
}
