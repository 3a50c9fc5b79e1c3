// Whole-file reading and writing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

#include "core/file.h"
#include "core/memory.h"
#include "test_support.h"

namespace {

TEST(File, ReadDropsCarriageReturnsAndComments)
{
    std::string path = temp_path("read.txt");
    EXPECT_EQ(write_file(path.c_str(), "#x\ny\r\n\nz", false), nullptr);
    EXPECT_EQ(own(read_file(path.c_str(), false, false)), "y\n\nz");
    EXPECT_EQ(own(read_file(path.c_str(), true, true)), "y\nz");
    EXPECT_EQ(read_file((path + "missing").c_str(), false, false), nullptr);
    unlink(path.c_str());
}

TEST(File, CleanTextMapsKeptBytesToTheirOrigins)
{
    char text[] = "a\r\n# note\n\nbc\n";
    size_t origins[sizeof text] = {};
    file_clean_text(text, false, origins);
    EXPECT_STREQ(text, "a\n\nbc\n");
    const size_t want[] = {0, 2, 10, 11, 12, 13};
    for (size_t i = 0; i < sizeof want / sizeof want[0]; i++)
        EXPECT_EQ(origins[i], want[i]) << "byte " << i;
}

TEST(File, WriteTruncatesAndReportsErrors)
{
    std::string path = temp_path("write.txt");
    EXPECT_EQ(write_file(path.c_str(), "a long first text", true), nullptr);
    EXPECT_EQ(write_file(path.c_str(), "short", false), nullptr);
    EXPECT_EQ(own(read_file(path.c_str(), false, false)), "short");
    EXPECT_EQ(own(write_file(nullptr, "x", false)), "no filename specified");
    EXPECT_NE(own(write_file("/nonexistent-dir/x", "x", false)).find("(#"), std::string::npos);
    EXPECT_EQ(file_remove(path.c_str()), nullptr);
    EXPECT_NE(own(file_remove(path.c_str())).find("(#2)"), std::string::npos);
}

// A locked read that waits for a writer gets the text the writer left, not the size the file
// had before the wait (a cached fragment read during its first fill would come back short).
TEST(File, LockedReadTakesTheSizeAfterTheWait)
{
    std::string path = temp_path("locked.txt");
    str_free(write_file(path.c_str(), "short", false));
    int writer = open(path.c_str(), O_RDWR);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    std::string read_back;
    std::thread reader([&] { read_back = own(read_file(path.c_str(), false, true)); });
    usleep(200000); // the reader has taken the old size and waits for the lock by now
    std::string longer(100000, 'x');
    ASSERT_EQ(pwrite(writer, longer.data(), longer.size(), 0), (ssize_t)longer.size());
    flock(writer, LOCK_UN);
    reader.join();
    close(writer);
    EXPECT_EQ(read_back.size(), longer.size());
    unlink(path.c_str());
}

} // namespace
