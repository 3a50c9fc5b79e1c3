// Loads the gd graphics library with dlopen and looks up the calls of gd_library once.
#include "core/gd_library.h"

#include "core/shared_library.h"

namespace {

constexpr const char* GD_FILES[] = {GD_LIBRARY, nullptr};
shared_library library("gd", "TESSEL_GD_LIBRARY", GD_FILES);
gd_library gd;

bool look_up_all(shared_library& lib)
{
    return lib.look_up(gd.create_from_gif, "gdImageCreateFromGifPtr") &&
           lib.look_up(gd.gif_bytes, "gdImageGifPtr") && lib.look_up(gd.free_bytes, "gdFree") &&
           lib.look_up(gd.destroy, "gdImageDestroy") &&
           lib.look_up(gd.color_exact, "gdImageColorExact") &&
           lib.look_up(gd.color_allocate, "gdImageColorAllocate") &&
           lib.look_up(gd.copy, "gdImageCopy") && lib.look_up(gd.get_pixel, "gdImageGetPixel") &&
           lib.look_up(gd.set_pixel, "gdImageSetPixel");
}

} // namespace

const gd_library* gd_library_load(const char** error)
{
    return library.load(look_up_all, error) ? &gd : nullptr;
}
