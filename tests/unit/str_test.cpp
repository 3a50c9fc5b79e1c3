// Heap-string and file helpers.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/str.h"
#include "test_support.h"

namespace {

TEST(Str, CopiesAndSubstrings)
{
    EXPECT_EQ(own(str_sub("abc", 1, 10)), "bc");
    EXPECT_EQ(own(str_sub("abc", 1, 0)), "(null)");
    EXPECT_EQ(own(str_sub("abc", 7, 2)), "(null)");
    EXPECT_EQ(own(str_sub(nullptr, 0, 2)), "(null)");
    EXPECT_EQ(own(str_dup_n("abcdef", 3)), "abc");
    EXPECT_EQ(own(str_join("a", nullptr, "b", nullptr)), "a");
    EXPECT_EQ(own(str_join("a", "b", "c", nullptr)), "abc");
}

TEST(Str, SpliceClampsAndEmptiesToNull)
{
    EXPECT_EQ(own(str_splice(str_dup("abc"), 0, 3, nullptr)), "(null)");
    EXPECT_EQ(own(str_splice(str_dup("abc"), 1, 1, "XYZ")), "aXYZc");
    EXPECT_EQ(own(str_splice(str_dup("abc"), 9, 9, "!")), "abc!");
    EXPECT_EQ(own(str_insert(nullptr, 0, "x")), "x");
    EXPECT_EQ(own(str_delete(str_dup("abc"), -4, 1)), "bc");
}

TEST(Str, AppendGrowsFromNull)
{
    char* s = nullptr;
    str_append(s, nullptr);
    EXPECT_EQ(s, nullptr);
    str_append(s, "ab");
    str_append_take(s, str_dup("cd"));
    EXPECT_EQ(own(s), "abcd");

    str_builder b;
    for (int i = 0; i < 1000; i++)
        b.append("xy");
    EXPECT_EQ(b.size(), 2000u);
    EXPECT_EQ(own(b.take(true)).size(), 2000u);
    EXPECT_EQ(b.take(true), nullptr);
    EXPECT_EQ(own(b.take(false)), "");
}

TEST(Str, CuttingAndFields)
{
    char text[] = "a,b,";
    char* cursor = text;
    EXPECT_STREQ(str_next_field(cursor, ','), "a");
    EXPECT_STREQ(str_next_field(cursor, ','), "b");
    EXPECT_EQ(str_next_field(cursor, ','), nullptr);

    char pair[] = "key=value=more";
    EXPECT_STREQ(str_cut_at(pair, '='), "value=more");
    EXPECT_STREQ(pair, "key");
    char path[] = "/a/b/c";
    EXPECT_STREQ(str_cut_at_last(path, '/'), "c");
    char sep[] = "x--y--z";
    EXPECT_STREQ(str_cut_at_last_str(sep, "--"), "z");
    EXPECT_STREQ(sep, "x--y");
    char none[] = "xyz";
    EXPECT_EQ(str_cut_at_str(none, "--"), nullptr);
    EXPECT_EQ(str_cut_at_str(none, nullptr), none);
}

TEST(Str, Predicates)
{
    EXPECT_TRUE(str_equal(nullptr, nullptr));
    EXPECT_FALSE(str_equal(nullptr, ""));
    EXPECT_TRUE(str_ends_with("xab", "ab"));
    EXPECT_FALSE(str_ends_with("abab", "ab")); // only the first occurrence counts
    EXPECT_TRUE(str_starts_with("abc", "ab"));
    EXPECT_FALSE(str_starts_with(nullptr, "ab"));
    EXPECT_TRUE(str_is_digits("0123"));
    EXPECT_FALSE(str_is_digits(""));
    EXPECT_FALSE(str_is_digits("12a"));
}

// The formatters print what "%d" and "%lu" print, at the ends of the ranges too.
TEST(Str, FormattersMatchPrintf)
{
    char expected[32];
    for (int n : {0, 7, -7, 10, -10, 42, 1000000, INT_MAX, INT_MIN, INT_MIN + 1}) {
        snprintf(expected, sizeof expected, "%d", n);
        EXPECT_STREQ(fmt_int(n), expected);
    }
    for (unsigned long n : {0ul, 9ul, 4000000000ul, ULONG_MAX}) {
        snprintf(expected, sizeof expected, "%lu", n);
        EXPECT_STREQ(fmt_ulong(n), expected);
    }
}

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

TEST(File, MtimeIsSetAndReported)
{
    std::string path = temp_path("mtime.txt");
    str_free(write_file(path.c_str(), "x", false));
    EXPECT_GT(file_mtime(path.c_str(), 1000000), 0);
    EXPECT_EQ(file_mtime(path.c_str(), 0), 1000000);
    EXPECT_EQ(file_mtime((path + "missing").c_str(), 0), 0);
    unlink(path.c_str());
}

TEST(Process, ChildStreamsAndExitCode)
{
    child_process child;
    ASSERT_TRUE(spawn_with_pipes("/bin/cat", nullptr, true, true, false, child));
    ASSERT_EQ(write(child.in_fd, "ping", 4), 4);
    close(child.in_fd);
    char buffer[8] = {};
    EXPECT_EQ(read(child.out_fd, buffer, sizeof buffer), 4);
    EXPECT_STREQ(buffer, "ping");
    close(child.out_fd);
    EXPECT_EQ(wait_child(child), 0);

    ASSERT_TRUE(spawn_with_pipes("/bin/false", nullptr, false, false, false, child));
    EXPECT_EQ(wait_child(child), 1);
}

// The number of descriptors the process holds open.
int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; fd++)
        count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// A spawn that fails part way gives back the pipes it had made: with room left for one pipe
// only, the second is refused, and the process holds as many descriptors as before.
TEST(Process, FailedSpawnClosesItsPipes)
{
    EXPECT_EXIT(
        {
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = 64;
            setrlimit(RLIMIT_NOFILE, &limit);
            int fds[2];
            std::vector<int> filler;
            while (pipe(fds) == 0)
                filler.insert(filler.end(), {fds[0], fds[1]});
            close(filler.back());
            filler.pop_back();
            close(filler.back()); // room for one pipe, not for two
            int before = open_descriptors();
            child_process child;
            bool spawned = spawn_with_pipes("/bin/cat", nullptr, true, true, true, child);
            exit(!spawned && open_descriptors() == before ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
