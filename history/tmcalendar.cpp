#include "history/tmcalendar.h"

#include <ctime>

#include "core/tmcore.h"
#include "history/tmwrap.h"

struct tm TmLocal(int32_t t)
{
    time_t value = t;
    struct tm out = {};
    localtime_r(&value, &out);
    return out;
}

int32_t TmMake(struct tm *fields)
{
    fields->tm_isdst = -1;
    // A 32-bit time_t cannot hold a moment outside its range: the router's
    // mktime answers such a one with -1, and so does this one.
    int64_t t = (int64_t)mktime(fields);
    return t < INT32_MIN || t > INT32_MAX ? -1 : (int32_t)t;
}

uint32_t TmResetDayOfMonth(uint32_t year, uint32_t month, uint32_t day)
{
    if (day <= 28) return day;
    static const uint32_t days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 1) {
        int leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        return leap ? 29 : 28;
    }
    return days[month % 12];
}

int32_t TmNextMinute(int32_t t)
{
    return TmWrapAdd(t, 60) / 60 * 60;
}

int32_t TmNextHalfDay(int32_t t)
{
    int hour = TmLocal(t).tm_hour;
    // Lands inside the half-day after the one that holds t.
    int32_t u = (hour <= 3 || (hour >= 12 && hour <= 14)) ? TmWrapAdd(t, 50400) : TmWrapAdd(t, 36000);
    struct tm fields = TmLocal(u);
    fields.tm_min = 0;
    fields.tm_sec = 0;
    fields.tm_hour = fields.tm_hour < 12 ? 0 : 12;
    return TmMake(&fields);
}

int32_t TmPrevHalfDay(int32_t t)
{
    struct tm fields = TmLocal(TmWrapSub(t, 60));
    fields.tm_min = 0;
    fields.tm_sec = 0;
    fields.tm_hour = fields.tm_hour > 11 ? 12 : 0;
    return TmMake(&fields);
}

int32_t TmDayStart(int32_t t)
{
    struct tm fields = TmLocal(t);
    fields.tm_hour = 0;
    fields.tm_min = 0;
    fields.tm_sec = 0;
    return TmMake(&fields);
}

int32_t TmPrevDayStart(int32_t d)
{
    return TmDayStart(TmWrapSub(d, 43200));
}

int32_t TmWeekStart(int32_t d)
{
    int wday = TmLocal(d).tm_wday;
    // The probe at about noon stays clear of any shift.
    return TmDayStart(TmWrapAdd(d, 43200 - 86400 * wday));
}

void TmCalcDayWeekBoundaries(int32_t t)
{
    int hour = TmLocal(t).tm_hour;
    int32_t u = hour <= 12 ? TmWrapAdd(t, 93600) : TmWrapAdd(t, 50400);
    tmCore.nextDay = TmDayStart(u);
    int wday = TmLocal(tmCore.nextDay).tm_wday;
    tmCore.nextWeek = wday == 0 ? tmCore.nextDay : TmDayStart(TmWrapAdd(tmCore.nextDay, 43200 + 86400 * (7 - wday)));
}

int TmCalcResetTimes(uint32_t day, uint32_t hour, uint32_t minute)
{
    int32_t now = 0;
    TmNow(&now);
    if (tmCore.exportData.timeSync == 0) return 0;
    if (day == 0) day = 1;
    struct tm fields = TmLocal(now);
    fields.tm_mday = (int)TmResetDayOfMonth((uint32_t)fields.tm_year + 1900, (uint32_t)fields.tm_mon, day);
    fields.tm_hour = (int)hour;
    fields.tm_min = (int)minute;
    fields.tm_sec = 0;
    // mktime normalises the record (an hour of 24 moves to the next day, a
    // skipped hour moves on); the other month is counted from the normalised one.
    int32_t reset = TmMake(&fields);
    int ahead = reset > now;  // this month's reset is still to come
    if (ahead) {
        if (fields.tm_mon == 0) {
            fields.tm_mon = 11;
            fields.tm_year -= 1;
        } else {
            fields.tm_mon -= 1;
        }
    } else {
        fields.tm_mon += 1;
        if (fields.tm_mon > 11) {
            fields.tm_mon = 0;
            fields.tm_year += 1;
        }
    }
    fields.tm_mday = (int)TmResetDayOfMonth((uint32_t)fields.tm_year + 1900, (uint32_t)fields.tm_mon, day);
    int32_t other = TmMake(&fields);
    tmCore.exportData.lastResetTime = ahead ? other : reset;
    tmCore.exportData.nextResetTime = ahead ? reset : other;
    return 1;
}

int32_t TmTodayStart(int32_t d, int32_t L)
{
    return d > L ? d : L;
}

int32_t TmYesterdayStart(int32_t d, int32_t L)
{
    int32_t y = TmPrevDayStart(d);
    return (y < L && L < d) ? L : y;
}

int32_t TmThisWeekStart(int32_t d, int32_t L)
{
    int32_t w = TmWeekStart(d);
    return w > L ? w : L;
}
