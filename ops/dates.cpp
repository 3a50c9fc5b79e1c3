// Date operators: a timestamp, a moved timestamp and calendar listings, stored as tables under
// the current table name.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

constexpr long SECONDS_PER_DAY = 86400;
constexpr int DAYS_PER_WEEK = 7;
constexpr int NOON = 12;    // listing days are taken at noon, clear of daylight-saving shifts
constexpr int EVENING = 18; // dateoffset works at 18:00 for the same reason
constexpr const char* STAMP_HEADER = "year\tmonth\tday\thour\tmin\n";
constexpr const char* WEEK_HEADER = "year\tmonth\tday\tweekday\n";
constexpr int MONTH_DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// A date and time as the tables show it: month 1-12, never normalised.
struct stamp {
    int year, month, day, hour, min;
};

bool date_is_leap(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Days of month (1-12) in year.
int date_month_length(int year, int month)
{
    return MONTH_DAYS[month - 1] + (month == 2 && date_is_leap(year) ? 1 : 0);
}

// The present local time; false when it cannot be broken down.
bool date_now(stamp& s)
{
    time_t now = time(nullptr);
    struct tm local;
    if (!localtime_r(&now, &local))
        return false;
    s = {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min};
    return true;
}

// Replaces the fields named by "YYYY.MM.DD HH:MM"; missing or empty pieces keep their value.
void date_parse(const char* text, stamp& s)
{
    str_holder copy(str_dup(text));
    char* cursor = copy.get();
    int* fields[] = {&s.year, &s.month, &s.day, &s.hour, &s.min};
    const char separators[] = {'.', '.', ' ', ':', '\0'};
    for (int i = 0; i < 5 && cursor; i++) {
        char* piece = separators[i] ? str_take_token(cursor, separators[i]) : cursor;
        if (*piece)
            *fields[i] = atoi(piece);
        if (!separators[i])
            break;
    }
}

// The local time of the date at hour:00:00, normalised by mktime; -1 when out of range.
time_t date_time(int year, int month, int day, int hour)
{
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_isdst = -1;
    return mktime(&t);
}

// Stores a named table made from text under the current name. Ownership: takes text.
void date_store(char* text)
{
    request_store_table(std::make_unique<table_named>(text));
}

char* date_stamp_text(const stamp& s)
{
    char row[128];
    snprintf(row, sizeof row, "%04d\t%02d\t%02d\t%02d\t%02d", s.year, s.month, s.day, s.hour,
             s.min);
    return str_join(STAMP_HEADER, row, nullptr);
}

// An item of the current table as a number.
int date_item(const table* t, const char* name)
{
    str_holder cell(t->item_by_name(name));
    return str_to_int(cell.get());
}

// Appends the rows of the days from start on (local time at noon), each with its position in
// the week: 0 is Monday, or Sunday under the English convention.
void date_list_days(str_builder& out, time_t start, int days, bool english)
{
    for (int i = 0; i < days; i++) {
        time_t when = start + i * SECONDS_PER_DAY;
        struct tm d;
        localtime_r(&when, &d);
        int position = english ? d.tm_wday : (d.tm_wday + 6) % DAYS_PER_WEEK;
        char row[64];
        snprintf(row, sizeof row, "%04d\t%02d\t%02d\t%02d\n", d.tm_year + 1900, d.tm_mon + 1,
                 d.tm_mday, position);
        out.append(row);
    }
}

// True when the date names a real day of a year from 1900 to 9999.
bool date_is_valid(const stamp& s)
{
    return s.year >= 1900 && s.year <= 9999 && s.month >= 1 && s.month <= 12 && s.day >= 1 &&
           s.day <= date_month_length(s.year, s.month);
}

// loadtimestamp[] stores the present minute; loadtimestamp[YYYY.MM.DD HH:MM] the given
// fields, the missing ones taken from the present.
char* op_loadtimestamp(int count, char** params)
{
    stamp s;
    if (!date_now(s))
        return page_error("[loadtimestamp: bad input date]");
    if (count == 1)
        date_parse(params[0], s);
    req.tables->remove_current();
    date_store(date_stamp_text(s));
    return nullptr;
}

// dateoffset[years;months;days]: moves the date of the current timestamp table. A month
// counts as the length of the date's month (the one before when going back).
char* op_dateoffset(int count, char** params)
{
    const table* current = req.tables->get_current();
    if (!current)
        return nullptr;
    long long year = (long long)date_item(current, "year") + param_int(count, params, 0);
    if (year < INT_MIN + 1900LL || year > INT_MAX) // mktime counts years from 1900 in an int
        return page_error("[dateoffset: bad input date]");
    time_t t =
        date_time((int)year, date_item(current, "month"), date_item(current, "day"), EVENING);
    struct tm moved;
    if (t == -1 || !localtime_r(&t, &moved))
        return page_error("[dateoffset: bad input date]");
    int months = param_int(count, params, 1);
    int month = months >= 0 ? moved.tm_mon + 1 : (moved.tm_mon + 11) % 12 + 1;
    t += static_cast<long>(date_month_length(moved.tm_year + 1900, month)) * months *
         SECONDS_PER_DAY;
    t += static_cast<long>(param_int(count, params, 2)) * SECONDS_PER_DAY;
    if (!localtime_r(&t, &moved))
        return page_error("[dateoffset: bad input date]");
    stamp s = {moved.tm_year + 1900, moved.tm_mon + 1, moved.tm_mday, date_item(current, "hour"),
               date_item(current, "min")};
    date_store(date_stamp_text(s));
    return nullptr;
}

// calendar[mode;date]: "week" lists the seven days of the date's week, "month" every day of
// its month; a mode ending in "eng" starts weeks on Sunday instead of Monday. The date is
// "YYYY.MM.DD" (missing pieces from today), today when absent.
char* op_calendar(int count, char** params)
{
    const char* mode = param_text(count, params, 0);
    bool week = str_starts_with(mode, "week");
    if (!week && !str_starts_with(mode, "month"))
        return nullptr;
    stamp s;
    if (!date_now(s))
        return page_error("[calendar: bad input date]");
    if (count >= 2)
        date_parse(params[1], s);
    time_t day = date_is_valid(s) ? date_time(s.year, s.month, s.day, NOON) : -1;
    struct tm d;
    if (day == -1 || !localtime_r(&day, &d))
        return page_error("[calendar: bad input date]");
    bool english = str_ends_with(mode, "eng");
    str_builder out;
    out.append(WEEK_HEADER);
    if (week) {
        int position = english ? d.tm_wday : (d.tm_wday + 6) % DAYS_PER_WEEK;
        date_list_days(out, day - position * SECONDS_PER_DAY, DAYS_PER_WEEK, english);
    } else {
        time_t first = date_time(s.year, s.month, 1, NOON);
        date_list_days(out, first, date_month_length(s.year, s.month), english);
    }
    date_store(out.take(false));
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row dates_rows[] = {
    // name            handler            params  flags       accepted
    {"calendar",       op_calendar,       0,      0,          {1, 2}},
    {"loadtimestamp",  op_loadtimestamp,  0,      0,          {1, 1}},
    {"dateoffset",     op_dateoffset,     3,      0},
};
// clang-format on

void register_date_ops()
{
    register_rows(dates_rows);
}
