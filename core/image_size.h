// Pixel sizes of GIF and JPEG files, read from their headers without a graphics library.
#ifndef TESSEL_CORE_IMAGE_SIZE_H
#define TESSEL_CORE_IMAGE_SIZE_H

#include <cstddef>

// The number of bytes that hold a GIF's signature and logical screen descriptor.
constexpr size_t GIF_HEADER_SIZE = 13;

// The logical screen size of a GIF from its first bytes: width in bytes 6 and 7, height in 8
// and 9, little-endian. False when there are fewer than GIF_HEADER_SIZE bytes or they do not
// begin with "GIF". Ownership: borrows bytes.
bool image_gif_header_size(const unsigned char* bytes, size_t length, int& width, int& height);

// The size of the picture in the file at path; the extension after the last "." of the
// path, in any case, chooses the reader: "GIF" or "JPG" (".jpeg" is not read). False when the
// file cannot be opened, has another extension, or its header cannot be read.
//
// A JPEG must have 0xD8 as its second byte. Every byte after it is then scanned, payloads
// included, for 0xFF and the marker byte after it: the 8 bytes after a frame header marker
// (0xC0 baseline, 0xC2 progressive) replace any earlier frame header, so the last one wins;
// the first 0xE0 marker consumes the 17 bytes after it; end-of-image does not stop the scan.
// Height and width are big-endian in bytes 3-4 and 5-6 of the frame header; a file without a
// complete frame header reads as 0 by 0, and that is a success. Ownership: borrows path.
bool image_file_size(const char* path, int& width, int& height);

#endif
