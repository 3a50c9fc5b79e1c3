// The dlopen loader of gd, against the installed libgd.so.3. The calls through its table draw
// every picture of tests/images/gif_template_test.py.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "core/gd_library.h"

TEST(GdLibrary, LoadedByTheFirstCallOnly)
{
    // RTLD_NOLOAD finds a library only when the process has loaded it already.
    EXPECT_EQ(dlopen(GD_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    const char* error = nullptr;
    const gd_library* gd = gd_library_load(&error);
    ASSERT_NE(gd, nullptr) << error;
    void* loaded = dlopen(GD_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(loaded, nullptr);
    if (loaded)
        dlclose(loaded);
    EXPECT_EQ(gd_library_load(nullptr), gd);
}
