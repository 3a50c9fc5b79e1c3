// Local time computed without the C library's time-zone state, for use inside a signal
// handler.
//
// localtime and strftime take a lock and, on their first call, allocate while they read the
// zone; a handler that interrupts either would deadlock or corrupt the heap. These helpers
// only read the environment, open and read the zone file into static storage, and compute:
// they allocate nothing and take no lock, so they are async-signal-safe. They are not
// reentrant (one static buffer), which one handler that ends the process does not need.
//
// The zone is the one localtime uses: TZ naming a zone file (absolute, or under TZDIR or
// /usr/share/zoneinfo, with or without a leading ":") or, when no such file reads, a POSIX
// rule such as "CET-1CEST,M3.5.0,M10.5.0/3"; without TZ, /etc/localtime; an empty TZ or
// anything unreadable is UTC. Leap-second ("right/") zones are read as if they had none.
#ifndef TESSEL_CORE_LOCAL_TIME_H
#define TESSEL_CORE_LOCAL_TIME_H

#include <cstdint>

// A broken-down time: month 1-12, weekday 0 (Sunday) to 6.
struct civil_time {
    int64_t year;
    int month, day, hour, minute, second, weekday;
};

// The broken-down time of t seconds after the epoch plus offset seconds.
civil_time local_time_civil(int64_t t, long offset);

// The local zone's offset east of UTC, in seconds, at time t.
long local_time_offset(int64_t t);

#endif
