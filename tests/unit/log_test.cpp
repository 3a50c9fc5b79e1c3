// The log lines: the signal handler's line reads as log_line's, and is written even when the
// signal interrupts the C library's time-zone code.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log.h"
#include "core/str.h"
#include "test_support.h"

namespace {

constexpr const char* CPU_LINE = "CPU time limit exceeded";

// Binds the logs to a fresh error log of the test and to page; unbinds them when done.
class bound_log {
public:
    explicit bound_log(const char* page) : page_(str_dup(page)), path_(temp_path("log_test"))
    {
        unlink(path_.c_str());
        files_[1] = path_.c_str();
        log_bind(&page_, files_);
    }
    ~bound_log()
    {
        log_bind(&req.page_path, req.log_names);
        unlink(path_.c_str());
        str_free(page_);
    }
    std::string text() const { return file_text(path_); }

private:
    char* page_;
    std::string path_;
    const char* files_[2] = {nullptr, nullptr};
};

// Same stamp, page and message, in a zone east of UTC by a quarter hour, and the same cut
// for a message longer than a line.
TEST(Log, SignalLineReadsAsLogLine)
{
    const char* outer = getenv("TZ");
    std::string saved = outer ? outer : "";
    setenv("TZ", "Asia/Kathmandu", 1);
    tzset();
    std::string long_message(2000, 'x');
    for (const char* message : {CPU_LINE, long_message.c_str()}) {
        std::string first, second;
        for (int attempt = 0; attempt < 3 && (first.empty() || first != second); attempt++) {
            bound_log log("/site/spin.html");
            log_line(LOG_ERROR, "%s", message);
            std::string one = log.text();
            log_signal_line(message);
            first = one;
            second = log.text().substr(one.size());
        }
        EXPECT_EQ(second, first);
        EXPECT_LE(first.size(), 1024u);
    }
    if (outer)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

void on_cpu_limit(int)
{
    log_signal_line(CPU_LINE);
    _exit(254);
}

// tzset opening a zone file that is a FIFO blocks with the C library's time-zone lock held;
// the signal comes then. A handler that went through localtime would wait for that lock for
// ever (the alarm ends such a child instead).
TEST(LogDeathTest, SignalLineWhileTheTimeZoneLockIsHeld)
{
    std::string fifo = temp_path("log_test_fifo");
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    bound_log log("/site/spin.html");
    EXPECT_EXIT(
        {
            ignore_leaks_from_here();
            signal(SIGXCPU, on_cpu_limit);
            alarm(5);
            struct sigevent event = {};
            event.sigev_notify = SIGEV_SIGNAL;
            event.sigev_signo = SIGXCPU;
            timer_t timer;
            timer_create(CLOCK_MONOTONIC, &event, &timer);
            struct itimerspec when = {};
            when.it_value.tv_nsec = 200'000'000;
            timer_settime(timer, 0, &when, nullptr);
            setenv("TZ", fifo.c_str(), 1);
            tzset();
        },
        testing::ExitedWithCode(254), "");
    unlink(fifo.c_str());
    std::string text = log.text();
    std::string tail = std::string("] /site/spin.html: ") + CPU_LINE + "\n";
    EXPECT_TRUE(text.size() > tail.size() && text[0] == '[' &&
                text.compare(text.size() - tail.size(), tail.size(), tail) == 0)
        << text;
}

} // namespace
