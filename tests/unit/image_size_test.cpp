// GIF and JPEG size readers on hand-made headers; files made by an image library, progressive
// and cut-short files and missing ones are checked in tests/images/image_size_test.py.
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "core/image_size.h"
#include "test_support.h"

namespace {

// Writes bytes to a temp file with the given name and reads its size: "WxH", or "fail".
std::string size_of(const char* name, const std::string& bytes)
{
    std::string path = temp_path(name);
    FILE* f = fopen(path.c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    int width = -1, height = -1;
    bool read = image_file_size(path.c_str(), width, height);
    unlink(path.c_str());
    return read ? std::to_string(width) + "x" + std::to_string(height) : "fail";
}

// A frame header marker with its 8 bytes: length, precision, height, width, components.
std::string sof(char marker, int width, int height)
{
    return std::string("\xff") + marker + std::string("\x00\x11\x08", 3) + char(height >> 8) +
           char(height) + char(width >> 8) + char(width) + "\x03";
}

const std::string SOI("\xff\xd8", 2);
const std::string EOI("\xff\xd9", 2);

TEST(ImageSize, GifScreenIsLittleEndian)
{
    std::string gif = std::string("GIF89a\x80\x02\xe0\x01", 10) + std::string(3, '\0');
    EXPECT_EQ(size_of("a.b.GiF", gif), "640x480");
    EXPECT_EQ(size_of("png.gif", "\x89PNG" + gif.substr(4)), "fail");
    EXPECT_EQ(size_of("a.jpg", gif), "fail"); // the extension chooses the reader
    int width, height;
    EXPECT_FALSE(image_file_size(nullptr, width, height));
}

TEST(ImageSize, JpegLastFrameHeaderWins)
{
    // A thumbnail's frame header first, then the main one; end-of-image does not stop.
    std::string thumb = SOI + sof('\xc0', 16, 12) + EOI;
    EXPECT_EQ(size_of("b.JPG", SOI + "\xff\xe1" + thumb + sof('\xc0', 800, 600) + EOI), "800x600");
    // Other frame types are not read; a file without frame header reads as 0 by 0.
    EXPECT_EQ(size_of("lossless.jpg", SOI + sof('\xc3', 300, 200) + EOI), "0x0");
    EXPECT_EQ(size_of("c.jpeg", SOI + sof('\xc0', 300, 200)), "fail");
}

TEST(ImageSize, JpegScanReadsBytesLiterally)
{
    // Only the second byte is checked.
    EXPECT_EQ(size_of("first.jpg", std::string("\x00\xd8", 2) + sof('\xc0', 5, 7)), "5x7");
    EXPECT_EQ(size_of("second.jpg", "\xff\xd9" + sof('\xc0', 5, 7)), "fail");
    EXPECT_EQ(size_of("one.jpg", "\xff"), "fail");
    // The first application segment hides 17 bytes from the scan, a second one does not.
    std::string hidden = sof('\xc0', 9, 9) + std::string(7, 'x');
    EXPECT_EQ(size_of("app0.jpg", SOI + "\xff\xe0" + hidden), "0x0");
    EXPECT_EQ(
        size_of("app0twice.jpg", SOI + "\xff\xe0" + std::string(17, 'x') + "\xff\xe0" + hidden),
        "9x9");
    // After 0xFF the next byte is the marker even when it is 0xFF itself.
    EXPECT_EQ(size_of("ffff.jpg", SOI + "\xff" + sof('\xc0', 4, 4)), "0x0");
    // A frame header cut off by the end of the file leaves the one before it.
    std::string cut = sof('\xc0', 70, 80).substr(0, 6);
    EXPECT_EQ(size_of("cut.jpg", SOI + sof('\xc2', 3, 2) + cut), "3x2");
}

} // namespace
