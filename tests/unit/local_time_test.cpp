// The signal-safe local time against the C library's gmtime and localtime, zone by zone.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "core/local_time.h"

namespace {

// TZ for both the C library and local_time_offset; null unsets it.
void use_zone(const char* tz)
{
    if (tz)
        setenv("TZ", tz, 1);
    else
        unsetenv("TZ");
    tzset();
}

long library_offset(time_t t)
{
    struct tm local;
    localtime_r(&t, &local);
    return local.tm_gmtoff;
}

TEST(LocalTime, CivilTimeMatchesGmtime)
{
    std::mt19937_64 random(7);
    std::uniform_int_distribution<int64_t> any_time(-5'000'000'000, 9'000'000'000);
    for (int i = 0; i < 20000; i++) {
        time_t t = any_time(random);
        struct tm utc;
        gmtime_r(&t, &utc);
        civil_time c = local_time_civil(t, 0);
        ASSERT_EQ(c.year, utc.tm_year + 1900) << t;
        ASSERT_EQ(c.month, utc.tm_mon + 1) << t;
        ASSERT_EQ(c.day, utc.tm_mday) << t;
        ASSERT_EQ(c.hour * 3600 + c.minute * 60 + c.second,
                  utc.tm_hour * 3600 + utc.tm_min * 60 + utc.tm_sec)
            << t;
        ASSERT_EQ(c.weekday, utc.tm_wday) << t;
    }
}

// Zone files of both hemispheres, half-hour offsets and changes, the forms TZ names a file in,
// rules given in TZ itself, and names that read as UTC. Times run from 1971 to 2128, past the
// last change a zone file lists (where its footer rule takes over), and every change between
// two hours of 2024 and 2040 is checked on both sides of its second.
TEST(LocalTime, OffsetMatchesLocaltime)
{
    const char* zones[] = {nullptr,
                           "",
                           "UTC",
                           "Europe/Berlin",
                           "America/New_York",
                           "Australia/Lord_Howe",
                           "America/Sao_Paulo",
                           "Asia/Kolkata",
                           ":Europe/London",
                           "/usr/share/zoneinfo/Pacific/Chatham",
                           "CET-1CEST,M3.5.0,M10.5.0/3",
                           "AEST-10AEDT,M10.1.0,M4.1.0/3",
                           "<+0330>-3:30",
                           "XST5XDT,J60/1:30,300/-1",
                           "Nowhere/Zone"};
    const char* outer = getenv("TZ");
    std::string saved = outer ? outer : "";
    std::mt19937_64 random(11);
    std::uniform_int_distribution<int64_t> any_time(31'536'000, 5'000'000'000);
    for (const char* zone : zones) {
        use_zone(zone);
        const char* name = zone ? zone : "(unset)";
        for (int i = 0; i < 300; i++) {
            time_t t = any_time(random);
            ASSERT_EQ(local_time_offset(t), library_offset(t)) << name << " at " << t;
        }
        for (time_t year : {1704067200L, 2208988800L}) { // 2024 and 2040
            for (time_t t = year; t < year + 366 * 86400L; t += 3600) {
                if (library_offset(t) == library_offset(t + 3600))
                    continue;
                time_t low = t, high = t + 3600; // the change lies in (low, high]
                while (high - low > 1)
                    (library_offset(low + (high - low) / 2) == library_offset(t) ? low : high) =
                        low + (high - low) / 2;
                ASSERT_EQ(local_time_offset(low), library_offset(low)) << name << " at " << low;
                ASSERT_EQ(local_time_offset(high), library_offset(high)) << name << " at " << high;
            }
        }
    }
    use_zone(outer ? saved.c_str() : nullptr);
}

} // namespace
