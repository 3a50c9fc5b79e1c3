// Local time from the zone file or TZ rule, with no lock and no allocation.
#include "core/local_time.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;
constexpr int ZONE_FILE_MAX = 1 << 16; // the largest zone files hold a few kilobytes
constexpr int PATH_MAX_BYTES = 4096;
constexpr int RULE_MAX = 256;
constexpr int TZIF_HEADER = 44;

// The zone file last read. Static so that a handler on a small stack can read one.
unsigned char zone_file[ZONE_FILE_MAX];

int64_t floor_div(int64_t a, int64_t b)
{
    return a / b - (a % b != 0 && (a < 0) != (b < 0));
}

int64_t floor_mod(int64_t a, int64_t b)
{
    return a - floor_div(a, b) * b;
}

bool is_leap(int64_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int days_in_month(int64_t year, int month)
{
    static constexpr int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return DAYS[month - 1] + (month == 2 && is_leap(year));
}

// Days from 1970-01-01 to the date, in the proleptic Gregorian calendar.
int64_t days_from_civil(int64_t year, int month, int day)
{
    year -= month <= 2;
    int64_t era = floor_div(year, 400);
    int64_t year_of_era = year - era * 400;
    int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + day_of_era - 719468;
}

// ---- POSIX TZ rules ("CET-1CEST,M3.5.0,M10.5.0/3") ----------------------------------------

// A rule's day: Jn (1-365, February 29 never counted), n (0-365) or Mm.w.d (weekday d of
// week w, 5 being the last, of month m), and the local time of day of the change.
struct rule_date {
    char kind; // 'J', 'N' or 'M'
    int n, month, week, weekday;
    long time;
};

struct zone_rule {
    long std_offset, dst_offset; // seconds east of UTC
    bool has_dst;
    rule_date start, end;
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads a number of at most digits digits into value.
bool parse_number(const char*& p, int digits, long& value)
{
    if (!is_digit(*p))
        return false;
    value = 0;
    for (int i = 0; i < digits && is_digit(*p); i++)
        value = value * 10 + (*p++ - '0');
    return true;
}

// [+-]hh[:mm[:ss]] as seconds, the sign applied.
bool parse_clock(const char*& p, long& seconds)
{
    int sign = *p == '-' ? -1 : 1;
    if (*p == '+' || *p == '-')
        p++;
    long hours, minutes = 0, secs = 0;
    if (!parse_number(p, 3, hours))
        return false;
    if (*p == ':' && !parse_number(++p, 2, minutes))
        return false;
    if (*p == ':' && !parse_number(++p, 2, secs))
        return false;
    seconds = sign * (hours * 3600 + minutes * 60 + secs);
    return true;
}

// A zone name: three or more letters, or anything between "<" and ">".
bool parse_zone_name(const char*& p)
{
    if (*p == '<') {
        const char* close = strchr(p, '>');
        p = close ? close + 1 : p;
        return close != nullptr;
    }
    const char* start = p;
    while ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z'))
        p++;
    return p - start >= 3;
}

// A rule's date and its optional "/time" (2:00 when absent).
bool parse_rule_date(const char*& p, rule_date& date)
{
    long a = 0, b = 0, c = 0;
    date.kind = *p == 'J' || *p == 'M' ? *p++ : 'N';
    bool ok = parse_number(p, 3, a);
    if (ok && date.kind == 'M')
        ok = *p == '.' && parse_number(++p, 1, b) && *p == '.' && parse_number(++p, 1, c);
    date.n = a;
    date.month = a;
    date.week = b;
    date.weekday = c;
    date.time = 2 * 3600;
    if (ok && *p == '/')
        ok = parse_clock(++p, date.time);
    return ok && (date.kind != 'M' || (a >= 1 && a <= 12 && b >= 1 && b <= 5 && c <= 6));
}

// The whole of text as a rule; false when it is not one.
bool parse_rule(const char* p, zone_rule& rule)
{
    long offset;
    if (!parse_zone_name(p) || !parse_clock(p, offset))
        return false;
    rule.std_offset = -offset; // the rule counts hours west of Greenwich
    rule.has_dst = *p != '\0';
    if (!rule.has_dst)
        return true;
    if (!parse_zone_name(p))
        return false;
    rule.dst_offset = rule.std_offset + 3600;
    if (*p && *p != ',') {
        if (!parse_clock(p, offset))
            return false;
        rule.dst_offset = -offset;
    }
    if (*p == '\0') { // no dates: the United States' rule since 2007
        rule.start = {'M', 0, 3, 2, 0, 2 * 3600};
        rule.end = {'M', 0, 11, 1, 0, 2 * 3600};
        return true;
    }
    return *p == ',' && parse_rule_date(++p, rule.start) && *p == ',' &&
           parse_rule_date(++p, rule.end) && *p == '\0';
}

// The second of the change on date in year, the offset before the change in force.
int64_t rule_change(int64_t year, const rule_date& date, long offset_before)
{
    int64_t day = days_from_civil(year, 1, 1);
    if (date.kind == 'J')
        day += date.n - 1 + (is_leap(year) && date.n >= 60);
    else if (date.kind == 'N')
        day += date.n;
    else {
        int64_t first = days_from_civil(year, date.month, 1);
        day = first + floor_mod(date.weekday - (first + 4), 7) + (date.week - 1) * 7;
        while (day - first >= days_in_month(year, date.month))
            day -= 7;
    }
    return day * SECONDS_PER_DAY + date.time - offset_before;
}

long rule_offset(const zone_rule& rule, int64_t t)
{
    if (!rule.has_dst)
        return rule.std_offset;
    int64_t year = local_time_civil(t, 0).year;
    int64_t start = rule_change(year, rule.start, rule.std_offset);
    int64_t end = rule_change(year, rule.end, rule.dst_offset);
    bool dst = start <= end ? t >= start && t < end : t < end || t >= start;
    return dst ? rule.dst_offset : rule.std_offset;
}

// ---- zone files -------------------------------------------------------------------------

// The signed big-endian number of bytes (4 or 8) at p.
int64_t read_big_endian(const unsigned char* p, int bytes)
{
    uint64_t value = 0;
    for (int i = 0; i < bytes; i++)
        value = value << 8 | p[i];
    return bytes == 4 ? (int64_t)(int32_t)value : (int64_t)value;
}

uint64_t read_count(const unsigned char* p)
{
    return (uint64_t)(uint32_t)read_big_endian(p, 4);
}

// The part of a zone file that localtime reads: the change times, each change's type, the
// types (6 bytes each: the offset, the daylight flag, the name), and what follows the block.
struct zone_block {
    uint64_t time_count, type_count;
    int time_size;
    const unsigned char* times;
    const unsigned char* indices;
    const unsigned char* types;
    const unsigned char* rest;
};

// The block of a header at start: 32-bit times in a first-version file, else the 64-bit
// block that follows the 32-bit one. False when the file is no zone file or is cut short.
bool zone_block_of(long size, uint64_t start, int time_size, zone_block& block)
{
    if (start + TZIF_HEADER > (uint64_t)size || memcmp(zone_file + start, "TZif", 4) != 0)
        return false;
    const unsigned char* header = zone_file + start;
    uint64_t is_ut = read_count(header + 20), is_std = read_count(header + 24);
    uint64_t leaps = read_count(header + 28), chars = read_count(header + 40);
    block.time_count = read_count(header + 32);
    block.type_count = read_count(header + 36);
    block.time_size = time_size;
    uint64_t times = start + TZIF_HEADER;
    uint64_t end = times + block.time_count * (time_size + 1) + block.type_count * 6 + chars +
                   leaps * (time_size + 4) + is_std + is_ut;
    if (end > (uint64_t)size || block.type_count == 0)
        return false;
    block.times = zone_file + times;
    block.indices = block.times + block.time_count * time_size;
    block.types = block.indices + block.time_count;
    block.rest = zone_file + end;
    if (time_size == 8 || zone_file[4] < '2')
        return true;
    return zone_block_of(size, end, 8, block);
}

int64_t change_time(const zone_block& block, uint64_t i)
{
    return read_big_endian(block.times + i * block.time_size, block.time_size);
}

// The type before the first change: the first standard one, else the first.
uint64_t first_standard_type(const zone_block& block)
{
    for (uint64_t type = 0; type < block.type_count; type++)
        if (!block.types[6 * type + 4])
            return type;
    return 0;
}

// The last change at or before t. Requires: t is not before the first change.
uint64_t last_change_at(const zone_block& block, int64_t t)
{
    uint64_t low = 0, high = block.time_count;
    while (high - low > 1) {
        uint64_t middle = low + (high - low) / 2;
        (t < change_time(block, middle) ? high : low) = middle;
    }
    return low;
}

// The rule a 64-bit block's footer ("\nCET-1CEST,M3.5.0,M10.5.0/3\n") gives for the times
// after the last change; false when there is none.
bool footer_rule(const zone_block& block, long size, zone_rule& rule)
{
    long length = zone_file + size - block.rest - 1;
    if (block.time_size != 8 || length <= 0 || block.rest[0] != '\n')
        return false;
    const void* newline = memchr(block.rest + 1, '\n', length);
    long rule_length = newline ? (const unsigned char*)newline - block.rest - 1 : 0;
    char text[RULE_MAX];
    if (rule_length <= 0 || rule_length >= RULE_MAX)
        return false;
    memcpy(text, block.rest + 1, rule_length);
    text[rule_length] = '\0';
    return parse_rule(text, rule);
}

// Reads path into zone_file; its size, or -1. A FIFO or device never blocks the read.
long read_zone_file(const char* path)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    long size = 0;
    ssize_t got;
    while (size < ZONE_FILE_MAX && (got = read(fd, zone_file + size, ZONE_FILE_MAX - size)) > 0)
        size += got;
    close(fd);
    return size;
}

// The offset at t that the zone file of size bytes gives; false when it is no zone file.
// Before the first change the first standard time holds; after the last, the footer's rule.
bool zone_file_offset(long size, int64_t t, long& offset)
{
    zone_block block;
    if (size < 0 || !zone_block_of(size, 0, 4, block))
        return false;
    uint64_t type;
    if (block.time_count == 0 || t < change_time(block, 0)) {
        type = first_standard_type(block);
    } else {
        uint64_t last = last_change_at(block, t);
        zone_rule rule;
        if (last == block.time_count - 1 && footer_rule(block, size, rule)) {
            offset = rule_offset(rule, t);
            return true;
        }
        type = block.indices[last];
    }
    if (type >= block.type_count)
        return false;
    offset = (long)read_big_endian(block.types + 6 * type, 4);
    return true;
}

// The value of the environment variable name, or null. Walks environ by hand: getenv is not
// on the list of calls a signal handler may make.
const char* environment_value(const char* name)
{
    size_t length = strlen(name);
    for (char** entry = environ; entry && *entry; entry++)
        if (strncmp(*entry, name, length) == 0 && (*entry)[length] == '=')
            return *entry + length + 1;
    return nullptr;
}

// The zone file a TZ value names: absolute, or below TZDIR or /usr/share/zoneinfo.
bool zone_file_path(const char* tz, char* path)
{
    const char* dir = environment_value("TZDIR");
    if (!dir || !*dir)
        dir = "/usr/share/zoneinfo";
    size_t dir_length = tz[0] == '/' ? 0 : strlen(dir) + 1, tz_length = strlen(tz);
    if (dir_length + tz_length >= PATH_MAX_BYTES)
        return false;
    if (dir_length) {
        memcpy(path, dir, dir_length - 1);
        path[dir_length - 1] = '/';
    }
    memcpy(path + dir_length, tz, tz_length + 1);
    return true;
}

} // namespace

civil_time local_time_civil(int64_t t, long offset)
{
    int64_t seconds = t + offset;
    int64_t days = floor_div(seconds, SECONDS_PER_DAY);
    int64_t of_day = seconds - days * SECONDS_PER_DAY;
    civil_time c;
    c.hour = of_day / 3600;
    c.minute = of_day / 60 % 60;
    c.second = of_day % 60;
    c.weekday = floor_mod(days + 4, 7); // 1970-01-01 was a Thursday
    int64_t z = days + 719468;
    int64_t era = floor_div(z, 146097);
    int64_t day_of_era = z - era * 146097;
    int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    int64_t shifted_month = (5 * day_of_year + 2) / 153; // 0 is March
    c.day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    c.month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    c.year = year_of_era + era * 400 + (c.month <= 2);
    return c;
}

long local_time_offset(int64_t t)
{
    const char* tz = environment_value("TZ");
    if (tz && *tz == ':')
        tz++;
    if (tz && !*tz)
        return 0;
    char path[PATH_MAX_BYTES];
    long offset;
    if (zone_file_path(tz ? tz : "/etc/localtime", path) &&
        zone_file_offset(read_zone_file(path), t, offset))
        return offset;
    zone_rule rule;
    return tz && parse_rule(tz, rule) ? rule_offset(rule, t) : 0;
}
