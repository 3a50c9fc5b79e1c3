// Whole-file replacement: the new content whole, the old mode kept, nothing left behind when a
// step fails.
#include <dirent.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/file_replace.h"
#include "test_support.h"

namespace {

class FileReplace : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/tessel-replace.XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0); }
    std::string path(const char* name) const { return dir_ + "/" + name; }
    // The names in the folder, sorted, separated by blanks.
    std::string names() const
    {
        std::string all;
        struct dirent** entries;
        int n = scandir(dir_.c_str(), &entries, nullptr, alphasort);
        for (int i = 0; i < n; i++) {
            if (entries[i]->d_name[0] != '.')
                all += std::string(all.empty() ? "" : " ") + entries[i]->d_name;
            free(entries[i]);
        }
        free(entries);
        return all;
    }
    static mode_t mode_of(const std::string& path)
    {
        struct stat info;
        return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
    }
    std::string dir_;
};

TEST_F(FileReplace, NewContentWholeModeKept)
{
    std::string table = path("_table");
    EXPECT_EQ(own(file_replace(table.c_str(), "a\nb\n", 4)), "(null)");
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(mode_of(table), 0666 & ~mask);
    chmod(table.c_str(), 0640);
    EXPECT_EQ(own(file_replace(table.c_str(), "c", 1)), "(null)");
    EXPECT_EQ(file_text(table), "c");
    EXPECT_EQ(mode_of(table), 0640u);
    EXPECT_EQ(own(file_replace(table.c_str(), "", 0)), "(null)");
    EXPECT_EQ(file_text(table), "");
    EXPECT_EQ(names(), "_table");
}

TEST_F(FileReplace, LinkKeptTargetReplaced)
{
    std::string target = path("target"), link = path("link");
    ASSERT_EQ(own(file_replace(target.c_str(), "old", 3)), "(null)");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    EXPECT_EQ(own(file_replace(link.c_str(), "new", 3)), "(null)");
    struct stat info;
    ASSERT_EQ(lstat(link.c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_EQ(file_text(target), "new");
}

TEST_F(FileReplace, FailureNamesItsCauseAndLeavesNothing)
{
    EXPECT_EQ(own(file_replace(path("missing/x").c_str(), "x", 1)),
              "No such file or directory(#2)");
    ASSERT_EQ(mkdir(path("folder").c_str(), 0755), 0);
    EXPECT_EQ(own(file_replace(path("folder").c_str(), "x", 1)), "Is a directory(#21)");
    EXPECT_EQ(names(), "folder");
    EXPECT_EQ(own(file_replace(nullptr, "x", 1)), "no filename specified");
}

} // namespace
