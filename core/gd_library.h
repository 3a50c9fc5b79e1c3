// The gd graphics library, loaded with dlopen on the first GIF template of a request.
//
// The program is not linked against gd: loading it costs more than rendering a small page, and
// only pictures need it. The few calls used are looked up once per process. The image type and
// the size and transparency macros (gdImageSX, gdImageSY, gdImageGetTransparent) come from
// libgd-dev's header; never call a gd function by its own name, only through gd_library,
// or the program no longer links. A null string reads as empty text.
#ifndef TESSEL_CORE_GD_LIBRARY_H
#define TESSEL_CORE_GD_LIBRARY_H

#include <gd.h>

// The shared library loaded unless the environment variable TESSEL_GD_LIBRARY names another
// file.
constexpr const char* GD_LIBRARY = "libgd.so.3";

// The gd calls, with gd's own signatures. Pictures travel as bytes in memory, never as
// streams: the library runs on its own C library, which must not touch the program's FILEs.
struct gd_library {
    decltype(&gdImageCreateFromGifPtr) create_from_gif; // null when the bytes are no GIF
    decltype(&gdImageGifPtr) gif_bytes;                 // free the bytes with free_bytes
    decltype(&gdFree) free_bytes;
    decltype(&gdImageDestroy) destroy;
    decltype(&gdImageColorExact) color_exact;       // -1 when no palette entry matches
    decltype(&gdImageColorAllocate) color_allocate; // -1 when the palette is full
    decltype(&gdImageCopy) copy;
    decltype(&gdImageGetPixel) get_pixel; // 0 outside the image
    decltype(&gdImageSetPixel) set_pixel; // ignored outside the image
};

// The gd calls, loaded on the first call of the process. Null when the library or one of its
// calls cannot be found; *error then says why (the same text on every later call).
// Ownership: view of process-wide data; *error is a view of a static buffer.
const gd_library* gd_library_load(const char** error);

#endif
