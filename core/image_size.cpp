// Reads the logical screen of a GIF and the last frame header of a JPEG.
#include "core/image_size.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

#include "core/str.h"

namespace {

constexpr int JPEG_START = 0xD8;
constexpr int JPEG_MARK = 0xFF;
constexpr int JPEG_BASELINE = 0xC0;
constexpr int JPEG_PROGRESSIVE = 0xC2;
constexpr int JPEG_APP0 = 0xE0;
constexpr size_t JPEG_FRAME_SIZE = 8; // length 2, precision 1, height 2, width 2, components 1
constexpr size_t JPEG_APP0_SKIP = 17;

int big_endian(const unsigned char* p)
{
    return p[0] << 8 | p[1];
}

bool gif_size(FILE* f, int& width, int& height)
{
    unsigned char header[GIF_HEADER_SIZE];
    size_t got = fread(header, 1, sizeof header, f);
    return image_gif_header_size(header, got, width, height);
}

bool jpeg_size(FILE* f, int& width, int& height)
{
    unsigned char start[2];
    if (fread(start, 1, 2, f) < 2 || start[1] != JPEG_START)
        return false;
    unsigned char frame[JPEG_FRAME_SIZE] = {};
    unsigned char bytes[JPEG_APP0_SKIP];
    bool app0_seen = false;
    // One process, one thread: the stream needs no locking per byte.
    for (int c = getc_unlocked(f); c != EOF; c = getc_unlocked(f)) {
        if (c != JPEG_MARK)
            continue;
        int marker = getc_unlocked(f);
        if (marker == JPEG_BASELINE || marker == JPEG_PROGRESSIVE) {
            if (fread(bytes, 1, JPEG_FRAME_SIZE, f) == JPEG_FRAME_SIZE) // a cut-off one is not kept
                memcpy(frame, bytes, JPEG_FRAME_SIZE);
        } else if (marker == JPEG_APP0 && !app0_seen) {
            app0_seen = true;
            (void)!fread(bytes, 1, JPEG_APP0_SKIP, f); // skipped, whatever its length
        }
    }
    height = big_endian(frame + 3);
    width = big_endian(frame + 5);
    return true;
}

// The extension after the last "." in upper case; empty when there is none or it does not
// fit the buffer. Ownership: view of buffer.
const char* upper_extension(const char* path, char (&buffer)[8])
{
    const char* dot = strrchr(path, '.');
    buffer[0] = '\0';
    if (!dot || strlen(dot + 1) >= sizeof buffer)
        return buffer;
    for (int i = 0; (buffer[i] = (char)toupper((unsigned char)dot[i + 1])); i++) {
    }
    return buffer;
}

} // namespace

bool image_gif_header_size(const unsigned char* bytes, size_t length, int& width, int& height)
{
    if (length < GIF_HEADER_SIZE || memcmp(bytes, "GIF", 3) != 0)
        return false;
    width = bytes[6] | bytes[7] << 8;
    height = bytes[8] | bytes[9] << 8;
    return true;
}

bool image_file_size(const char* path, int& width, int& height)
{
    if (!str_nonempty(path))
        return false;
    std::unique_ptr<FILE, decltype(&fclose)> f(fopen(path, "rb"), &fclose);
    if (!f.get())
        return false;
    char buffer[8];
    const char* extension = upper_extension(path, buffer);
    if (strcmp(extension, "GIF") == 0)
        return gif_size(f.get(), width, height);
    if (strcmp(extension, "JPG") == 0)
        return jpeg_size(f.get(), width, height);
    return false;
}
