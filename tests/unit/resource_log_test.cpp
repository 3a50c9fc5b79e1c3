// The resource log: the line's format, the thresholds, the file name and one line per process.
#include <cstdlib>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <unistd.h>

#include "ops/resource_log.h"
#include "test_support.h"

namespace {

class ResourceLog : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/tessel-rusage.XXXXXX";
        dir_ = mkdtemp(pattern);
        setenv("REQUEST_URI", "/shop/list.html", 1);
    }
    void TearDown() override
    {
        resource_log_finish(); // forgets any template left
        std::string command = "rm -rf " + dir_;
        ASSERT_EQ(system(command.c_str()), 0);
    }
    std::string path_template() const { return dir_ + "/rusage.%s.log"; }
    std::string read(const std::string& server) const
    {
        return file_text(dir_ + "/rusage." + server + ".log");
    }
    std::string dir_;
};

TEST_F(ResourceLog, ExpensiveRequestAppendsOneLineOnce)
{
    setenv("SERVER_NAME", "shop.example", 1);
    resource_log_configure(path_template().c_str(), "-1", "1e9");
    resource_log_finish();
    resource_log_finish(); // the template is forgotten after the first line
    std::regex line(R"(\[\d\d/\w{3}/\d{4} \d\d:\d\d:\d\d\] \d{3}\.\d{2}s \d{3}\.\d{2}s  )"
                    R"(-?\d+ -?\d+ -?\d+ /shop/list\.html\n)");
    EXPECT_TRUE(std::regex_match(read("shop.example"), line)) << read("shop.example");
    // The memory threshold alone is enough; without a server name the file says "unknown".
    // A cheap request writes nothing: e2e/resource_log shows it on the program itself.
    unsetenv("SERVER_NAME");
    resource_log_configure(path_template().c_str(), "1e9", "-1");
    resource_log_finish();
    EXPECT_NE(read("unknown"), "");
}

TEST_F(ResourceLog, ServerNameKeepsOnlyNameCharacters)
{
    // SERVER_NAME may come from the client's Host header.
    setenv("SERVER_NAME", "../x/Shop.Example:80", 1);
    resource_log_setup(path_template().c_str(), -1, -1);
    resource_log_finish();
    EXPECT_NE(read("..xshop.example80"), "");
    setenv("SERVER_NAME", "/ ", 1);
    resource_log_setup((dir_ + "/missing/rusage.%s.log").c_str(), -1, -1);
    resource_log_finish(); // a file that cannot be opened is passed over
    resource_log_setup(path_template().c_str(), -1, -1);
    resource_log_finish();
    EXPECT_NE(read("unknown"), "");
}

} // namespace
