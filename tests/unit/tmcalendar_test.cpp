// Calendar boundaries in five zones. Expected moments are written as local
// wall-clock text with their UTC offset, turned into epoch seconds by plain
// UTC arithmetic (timegm), so the oracle shares nothing with localtime/mktime.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "core/tmcore.h"
#include "history/tmcalendar.h"

namespace {

void Zone(const char *zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// "YYYY-MM-DD hh:mm:ss+HH:MM" (or -HH:MM) to epoch seconds.
int32_t At(const char *text)
{
    struct tm f = {};
    int sign = 1, oh = 0, om = 0;
    char s = '+';
    int n = sscanf(text, "%d-%d-%d %d:%d:%d%c%d:%d", &f.tm_year, &f.tm_mon, &f.tm_mday, &f.tm_hour, &f.tm_min,
                   &f.tm_sec, &s, &oh, &om);
    EXPECT_EQ(n, 9) << text;
    if (s == '-') sign = -1;
    f.tm_year -= 1900;
    f.tm_mon -= 1;
    return (int32_t)(timegm(&f) - sign * (oh * 3600 + om * 60));
}

std::string Show(int32_t t)
{
    time_t v = t;
    char buf[64];
    struct tm f;
    localtime_r(&v, &f);
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %z", &f);
    return buf;
}

struct Case {
    const char *zone;
    const char *in;
    const char *out;
};

void Check(int32_t (*fn)(int32_t), const char *name, const Case *cases, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        Zone(cases[i].zone);
        int32_t got = fn(At(cases[i].in));
        EXPECT_EQ(got, At(cases[i].out)) << name << "(" << cases[i].in << ") in " << cases[i].zone << " gave "
                                          << Show(got);
    }
}

TEST(Calendar, next_minute_is_strictly_after)
{
    EXPECT_EQ(TmNextMinute(0), 60);
    EXPECT_EQ(TmNextMinute(59), 60);
    EXPECT_EQ(TmNextMinute(60), 120);
    EXPECT_EQ(TmNextMinute(1700000040), 1700000100);
}

TEST(Calendar, next_half_day)
{
    const Case cases[] = {
        {"UTC", "2026-06-10 12:00:00+00:00", "2026-06-11 00:00:00+00:00"},
        {"UTC", "2026-06-10 00:00:00+00:00", "2026-06-10 12:00:00+00:00"},
        {"UTC", "2026-06-10 11:59:59+00:00", "2026-06-10 12:00:00+00:00"},
        {"UTC", "2026-06-10 23:59:59+00:00", "2026-06-11 00:00:00+00:00"},
        {"UTC", "2026-12-31 18:00:00+00:00", "2027-01-01 00:00:00+00:00"},
        // Europe: the 23-hour day's first half-day has 11 hours, the 25-hour day's 13.
        {"Europe/Berlin", "2026-03-29 00:00:00+01:00", "2026-03-29 12:00:00+02:00"},
        {"Europe/Berlin", "2026-03-29 01:59:59+01:00", "2026-03-29 12:00:00+02:00"},
        {"Europe/Berlin", "2026-03-29 03:00:00+02:00", "2026-03-29 12:00:00+02:00"},
        {"Europe/Berlin", "2026-03-28 12:00:00+01:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 00:00:00+02:00", "2026-10-25 12:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 02:30:00+02:00", "2026-10-25 12:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 02:30:00+01:00", "2026-10-25 12:00:00+01:00"},
        {"Europe/Berlin", "2026-10-24 12:00:00+02:00", "2026-10-25 00:00:00+02:00"},
        {"America/New_York", "2026-03-08 00:00:00-05:00", "2026-03-08 12:00:00-04:00"},
        {"America/New_York", "2026-11-01 00:00:00-04:00", "2026-11-01 12:00:00-05:00"},
        {"America/New_York", "2026-11-01 01:30:00-05:00", "2026-11-01 12:00:00-05:00"},
        // Southern hemisphere: summer time ends in April, starts in October.
        {"Australia/Sydney", "2026-04-05 00:00:00+11:00", "2026-04-05 12:00:00+10:00"},
        {"Australia/Sydney", "2026-10-04 00:00:00+10:00", "2026-10-04 12:00:00+11:00"},
        {"Australia/Sydney", "2026-10-03 12:00:00+10:00", "2026-10-04 00:00:00+10:00"},
        // A 30-minute shift.
        {"Australia/Lord_Howe", "2026-04-05 00:00:00+11:00", "2026-04-05 12:00:00+10:30"},
        {"Australia/Lord_Howe", "2026-04-05 01:45:00+10:30", "2026-04-05 12:00:00+10:30"},
        {"Australia/Lord_Howe", "2026-10-04 00:00:00+10:30", "2026-10-04 12:00:00+11:00"},
        {"Australia/Lord_Howe", "2026-10-04 12:00:00+11:00", "2026-10-05 00:00:00+11:00"},
    };
    Check(TmNextHalfDay, "TmNextHalfDay", cases, std::size(cases));
}

TEST(Calendar, previous_half_day_looks_60_seconds_back)
{
    const Case cases[] = {
        {"UTC", "2026-06-10 12:00:00+00:00", "2026-06-10 00:00:00+00:00"},
        {"UTC", "2026-06-10 12:00:59+00:00", "2026-06-10 00:00:00+00:00"},
        {"UTC", "2026-06-10 12:01:00+00:00", "2026-06-10 12:00:00+00:00"},
        {"UTC", "2026-06-10 00:00:00+00:00", "2026-06-09 12:00:00+00:00"},
        {"UTC", "2027-01-01 00:00:00+00:00", "2026-12-31 12:00:00+00:00"},
        {"Europe/Berlin", "2026-03-29 12:00:00+02:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 12:00:00+01:00", "2026-10-25 00:00:00+02:00"},
        {"America/New_York", "2026-11-01 12:00:00-05:00", "2026-11-01 00:00:00-04:00"},
        {"Australia/Sydney", "2026-04-05 12:00:00+10:00", "2026-04-05 00:00:00+11:00"},
        {"Australia/Lord_Howe", "2026-10-04 12:00:00+11:00", "2026-10-04 00:00:00+10:30"},
    };
    Check(TmPrevHalfDay, "TmPrevHalfDay", cases, std::size(cases));
}

TEST(Calendar, day_starts_on_23_and_25_hour_days)
{
    const Case start[] = {
        {"UTC", "2026-06-10 23:59:59+00:00", "2026-06-10 00:00:00+00:00"},
        {"Europe/Berlin", "2026-03-29 23:00:00+02:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 23:00:00+01:00", "2026-10-25 00:00:00+02:00"},
        {"America/New_York", "2026-03-08 22:00:00-04:00", "2026-03-08 00:00:00-05:00"},
        {"Australia/Sydney", "2026-10-04 05:00:00+11:00", "2026-10-04 00:00:00+10:00"},
        {"Australia/Lord_Howe", "2026-04-05 20:00:00+10:30", "2026-04-05 00:00:00+11:00"},
    };
    Check(TmDayStart, "TmDayStart", start, std::size(start));
    const Case prev[] = {
        {"UTC", "2026-03-01 00:00:00+00:00", "2026-02-28 00:00:00+00:00"},
        {"Europe/Berlin", "2026-03-30 00:00:00+02:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-26 00:00:00+01:00", "2026-10-25 00:00:00+02:00"},
        {"America/New_York", "2026-11-02 00:00:00-05:00", "2026-11-01 00:00:00-04:00"},
        {"Australia/Lord_Howe", "2026-10-05 00:00:00+11:00", "2026-10-04 00:00:00+10:30"},
    };
    Check(TmPrevDayStart, "TmPrevDayStart", prev, std::size(prev));
    const Case week[] = {
        {"UTC", "2026-06-10 00:00:00+00:00", "2026-06-07 00:00:00+00:00"},  // Wednesday
        {"UTC", "2026-06-07 00:00:00+00:00", "2026-06-07 00:00:00+00:00"},  // Sunday is its own
        {"UTC", "2026-06-13 00:00:00+00:00", "2026-06-07 00:00:00+00:00"},  // Saturday
        {"Europe/Berlin", "2026-04-01 00:00:00+02:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-31 00:00:00+01:00", "2026-10-25 00:00:00+02:00"},
        {"Australia/Sydney", "2026-04-08 00:00:00+10:00", "2026-04-05 00:00:00+11:00"},
    };
    Check(TmWeekStart, "TmWeekStart", week, std::size(week));
}

TEST(Calendar, day_and_week_boundaries)
{
    struct DW {
        const char *zone, *now, *nextDay, *nextWeek;
    } cases[] = {
        {"UTC", "2026-06-13 10:00:00+00:00", "2026-06-14 00:00:00+00:00", "2026-06-14 00:00:00+00:00"},  // Saturday
        {"UTC", "2026-06-14 00:00:00+00:00", "2026-06-15 00:00:00+00:00", "2026-06-21 00:00:00+00:00"},  // Sunday
        {"UTC", "2026-06-10 23:59:59+00:00", "2026-06-11 00:00:00+00:00", "2026-06-14 00:00:00+00:00"},
        {"Europe/Berlin", "2026-03-29 00:00:00+01:00", "2026-03-30 00:00:00+02:00", "2026-04-05 00:00:00+02:00"},
        {"Europe/Berlin", "2026-03-28 12:00:00+01:00", "2026-03-29 00:00:00+01:00", "2026-03-29 00:00:00+01:00"},
        {"Europe/Berlin", "2026-10-25 23:30:00+01:00", "2026-10-26 00:00:00+01:00", "2026-11-01 00:00:00+01:00"},
        {"America/New_York", "2026-10-31 13:00:00-04:00", "2026-11-01 00:00:00-04:00",
         "2026-11-01 00:00:00-04:00"},
        {"Australia/Sydney", "2026-10-03 20:00:00+10:00", "2026-10-04 00:00:00+10:00", "2026-10-04 00:00:00+10:00"},
        {"Australia/Lord_Howe", "2026-04-04 12:30:00+11:00", "2026-04-05 00:00:00+11:00",
         "2026-04-05 00:00:00+11:00"},
    };
    for (const DW &c : cases) {
        Zone(c.zone);
        TmCalcDayWeekBoundaries(At(c.now));
        EXPECT_EQ(tmCore.nextDay, At(c.nextDay)) << c.zone << " " << c.now << ": " << Show(tmCore.nextDay);
        EXPECT_EQ(tmCore.nextWeek, At(c.nextWeek)) << c.zone << " " << c.now << ": " << Show(tmCore.nextWeek);
    }
}

TEST(Calendar, a_reset_day_of_29_or_more_means_the_months_last_day)
{
    struct R {
        uint32_t year, month, day, expect;
    } cases[] = {
        {2026, 0, 28, 28}, {2026, 1, 28, 28}, {2026, 0, 29, 31}, {2026, 1, 29, 28}, {2028, 1, 29, 29},
        {2026, 1, 30, 28}, {2026, 1, 31, 28}, {2028, 1, 31, 29}, {2000, 1, 31, 29}, {1900, 1, 31, 28},
        {2100, 1, 30, 28}, {2026, 3, 31, 30}, {2026, 11, 31, 31}, {2026, 5, 0, 0},   {2026, 5, 40, 30},
    };
    for (const R &c : cases)
        EXPECT_EQ(TmResetDayOfMonth(c.year, c.month, c.day), c.expect) << c.year << "/" << c.month << " day " << c.day;
}

struct Reset {
    const char *zone;
    uint32_t day, hour, minute;
    const char *now, *last, *next;
};

void CheckResets(const Reset *cases, size_t count)
{
    memset(&tmCore, 0, sizeof tmCore);
    tmCore.exportData.timeSync = 1;
    tmCore.simActive = 1;  // TmNow gives simNow
    for (size_t i = 0; i < count; i++) {
        const Reset &c = cases[i];
        Zone(c.zone);
        tmCore.sim.simNow = (uint32_t)At(c.now);
        ASSERT_EQ(TmCalcResetTimes(c.day, c.hour, c.minute), 1);
        EXPECT_EQ(tmCore.exportData.lastResetTime, At(c.last))
            << c.zone << " day " << c.day << " " << c.hour << ":" << c.minute << " at " << c.now << ": last "
            << Show(tmCore.exportData.lastResetTime);
        EXPECT_EQ(tmCore.exportData.nextResetTime, At(c.next))
            << c.zone << " day " << c.day << " " << c.hour << ":" << c.minute << " at " << c.now << ": next "
            << Show(tmCore.exportData.nextResetTime);
    }
    tmCore.simActive = 0;
}

TEST(Calendar, the_monthly_period_around_now)
{
    const Reset cases[] = {
        {"UTC", 1, 0, 0, "2026-06-10 12:00:00+00:00", "2026-06-01 00:00:00+00:00", "2026-07-01 00:00:00+00:00"},
        {"UTC", 0, 0, 0, "2026-06-10 12:00:00+00:00", "2026-06-01 00:00:00+00:00", "2026-07-01 00:00:00+00:00"},
        // The reset moment itself is the last reset.
        {"UTC", 10, 12, 0, "2026-06-10 12:00:00+00:00", "2026-06-10 12:00:00+00:00", "2026-07-10 12:00:00+00:00"},
        {"UTC", 10, 12, 0, "2026-06-10 11:59:59+00:00", "2026-05-10 12:00:00+00:00", "2026-06-10 12:00:00+00:00"},
        // Day 31 through the year, clamped per month.
        {"UTC", 31, 0, 0, "2026-02-10 00:00:00+00:00", "2026-01-31 00:00:00+00:00", "2026-02-28 00:00:00+00:00"},
        {"UTC", 31, 0, 0, "2026-03-01 00:00:00+00:00", "2026-02-28 00:00:00+00:00", "2026-03-31 00:00:00+00:00"},
        {"UTC", 31, 0, 0, "2028-02-10 00:00:00+00:00", "2028-01-31 00:00:00+00:00", "2028-02-29 00:00:00+00:00"},
        {"UTC", 31, 0, 0, "2026-04-15 00:00:00+00:00", "2026-03-31 00:00:00+00:00", "2026-04-30 00:00:00+00:00"},
        {"UTC", 30, 0, 0, "2026-02-28 00:00:00+00:00", "2026-02-28 00:00:00+00:00", "2026-03-31 00:00:00+00:00"},
        {"UTC", 29, 0, 0, "2026-01-30 00:00:00+00:00", "2025-12-31 00:00:00+00:00", "2026-01-31 00:00:00+00:00"},
        {"UTC", 29, 0, 0, "2026-03-01 00:00:00+00:00", "2026-02-28 00:00:00+00:00", "2026-03-31 00:00:00+00:00"},
        {"UTC", 29, 0, 0, "2028-03-01 00:00:00+00:00", "2028-02-29 00:00:00+00:00", "2028-03-31 00:00:00+00:00"},
        {"UTC", 28, 23, 59, "2027-02-28 23:59:00+00:00", "2027-02-28 23:59:00+00:00", "2027-03-28 23:59:00+00:00"},
        // Turns of the year.
        {"UTC", 20, 0, 0, "2026-12-10 00:00:00+00:00", "2026-11-20 00:00:00+00:00", "2026-12-20 00:00:00+00:00"},
        {"UTC", 20, 0, 0, "2026-12-25 00:00:00+00:00", "2026-12-20 00:00:00+00:00", "2027-01-20 00:00:00+00:00"},
        {"UTC", 20, 0, 0, "2027-01-05 00:00:00+00:00", "2026-12-20 00:00:00+00:00", "2027-01-20 00:00:00+00:00"},
        // Hour 24 is carried into the next day; the other month counts from there with hour 0.
        {"UTC", 31, 24, 0, "2026-01-15 00:00:00+00:00", "2026-01-31 00:00:00+00:00", "2026-02-01 00:00:00+00:00"},
        {"UTC", 15, 24, 0, "2026-06-20 00:00:00+00:00", "2026-06-16 00:00:00+00:00", "2026-07-15 00:00:00+00:00"},
        {"UTC", 31, 24, 30, "2026-12-15 00:00:00+00:00", "2026-12-31 00:30:00+00:00", "2027-01-01 00:30:00+00:00"},
        // Daylight saving: each reset in its own month's offset.
        {"Europe/Berlin", 1, 0, 0, "2026-04-10 00:00:00+02:00", "2026-04-01 00:00:00+02:00",
         "2026-05-01 00:00:00+02:00"},
        {"Europe/Berlin", 15, 6, 0, "2026-03-20 00:00:00+01:00", "2026-03-15 06:00:00+01:00",
         "2026-04-15 06:00:00+02:00"},
        {"Europe/Berlin", 25, 2, 30, "2026-11-01 00:00:00+01:00", "2026-10-25 02:30:00+01:00",
         "2026-11-25 02:30:00+01:00"},
        {"America/New_York", 8, 12, 0, "2026-03-01 00:00:00-05:00", "2026-02-08 12:00:00-05:00",
         "2026-03-08 12:00:00-04:00"},
        {"Australia/Sydney", 5, 0, 0, "2026-04-20 00:00:00+10:00", "2026-04-05 00:00:00+11:00",
         "2026-05-05 00:00:00+10:00"},
        {"Australia/Lord_Howe", 4, 12, 0, "2026-09-30 00:00:00+10:30", "2026-09-04 12:00:00+10:30",
         "2026-10-04 12:00:00+11:00"},
    };
    CheckResets(cases, std::size(cases));
}

TEST(Calendar, a_reset_inside_the_skipped_hour_is_normalised_and_that_time_serves_both_months)
{
    // 02:30 does not exist on 28 March 2027 in Berlin: mktime moves it on by
    // the shift, and the other month's reset takes the normalised 03:30.
    const Reset cases[] = {
        {"Europe/Berlin", 28, 2, 30, "2027-03-10 00:00:00+01:00", "2027-02-28 03:30:00+01:00",
         "2027-03-28 03:30:00+02:00"},
        {"Europe/Berlin", 28, 2, 30, "2027-03-28 04:00:00+02:00", "2027-03-28 03:30:00+02:00",
         "2027-04-28 03:30:00+02:00"},
        {"America/New_York", 8, 2, 15, "2026-03-20 00:00:00-04:00", "2026-03-08 03:15:00-04:00",
         "2026-04-08 03:15:00-04:00"},
        {"Australia/Lord_Howe", 4, 2, 10, "2026-10-01 00:00:00+10:30", "2026-09-04 02:40:00+10:30",
         "2026-10-04 02:40:00+11:00"},
    };
    CheckResets(cases, std::size(cases));
}

TEST(Calendar, nothing_moves_while_the_clock_is_unsynchronised)
{
    memset(&tmCore, 0, sizeof tmCore);
    tmCore.exportData.lastResetTime = 5;
    tmCore.exportData.nextResetTime = 6;
    EXPECT_EQ(TmCalcResetTimes(1, 0, 0), 0);
    EXPECT_EQ(tmCore.exportData.lastResetTime, 5);
    EXPECT_EQ(tmCore.exportData.nextResetTime, 6);
}

TEST(Calendar, effective_period_starts_never_reach_back_past_the_period)
{
    Zone("UTC");
    int32_t d = At("2026-06-10 00:00:00+00:00");  // a Wednesday
    int32_t y = At("2026-06-09 00:00:00+00:00");
    int32_t w = At("2026-06-07 00:00:00+00:00");
    struct E {
        int32_t L, today, yesterday, week;
    } cases[] = {
        {At("2026-06-01 00:00:00+00:00"), d, y, w},
        {At("2026-06-09 06:00:00+00:00"), d, At("2026-06-09 06:00:00+00:00"), At("2026-06-09 06:00:00+00:00")},
        {y, d, y, y},
        {d, d, y, d},
        {At("2026-06-10 08:00:00+00:00"), At("2026-06-10 08:00:00+00:00"), y, At("2026-06-10 08:00:00+00:00")},
    };
    for (const E &c : cases) {
        EXPECT_EQ(TmTodayStart(d, c.L), c.today) << Show(c.L);
        EXPECT_EQ(TmYesterdayStart(d, c.L), c.yesterday) << Show(c.L);
        EXPECT_EQ(TmThisWeekStart(d, c.L), c.week) << Show(c.L);
    }
}

}  // namespace
