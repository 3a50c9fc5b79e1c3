// The dlopen loader of gd, against the installed libgd.so.3.
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

    // The calls work through the table: a GIF made and read back keeps its palette and pixel.
    unsigned char gif[] = {'G', 'I', 'F', '8', '9', 'a', 1, 0,    1, 0, 0x80, 0,
                           0,   1,   2,   3,   4,   5,   6, 0x2c, 0, 0, 0,    0,
                           1,   0,   1,   0,   0,   2,   2, 0x4c, 1, 0, 0x3b};
    gdImagePtr image = gd->create_from_gif(sizeof gif, gif);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(gdImageSX(image), 1);
    EXPECT_EQ(gd->color_exact(image, 4, 5, 6), 1);
    EXPECT_EQ(gd->get_pixel(image, 0, 0), 1);
    gd->destroy(image);
}
