// Child processes on pipes.
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "core/process.h"

namespace {

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
