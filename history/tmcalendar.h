// The local calendar: minutes, half-days, days, Sunday weeks and the monthly
// period. Every boundary is found through localtime and mktime from a probe
// well inside the target day or half-day, never by adding a day length.
#ifndef KVARD_TMCALENDAR_H
#define KVARD_TMCALENDAR_H

#include <cstdint>
#include <ctime>

// Broken-down local time of a 32-bit time value, and mktime (daylight saving
// time decided by the zone) narrowed to the 32-bit time of the records.
struct tm TmLocal(int32_t t);
int32_t TmMake(struct tm *fields);

// The day of the month on which a reset day falls (29-31 mean the month's last day).
uint32_t TmResetDayOfMonth(uint32_t year, uint32_t month, uint32_t day);
// The first multiple of 60 strictly after t.
int32_t TmNextMinute(int32_t t);
// The first local 00:00 or 12:00 strictly after t.
int32_t TmNextHalfDay(int32_t t);
// The start of the half-day that holds t - 60.
int32_t TmPrevHalfDay(int32_t t);
// Local midnight that begins the day of t.
int32_t TmDayStart(int32_t t);
// Local midnight of the day before the midnight d.
int32_t TmPrevDayStart(int32_t d);
// The Sunday midnight that begins the week of the midnight d.
int32_t TmWeekStart(int32_t d);
// Sets nextDay and nextWeek from t.
void TmCalcDayWeekBoundaries(int32_t t);
// Sets the monthly period around now; 1, or 0 (nothing changed) while the clock is unsynchronised.
int TmCalcResetTimes(uint32_t day, uint32_t hour, uint32_t minute);

// Effective starts of today, yesterday and this week: never before the period start L.
int32_t TmTodayStart(int32_t d, int32_t L);
int32_t TmYesterdayStart(int32_t d, int32_t L);
int32_t TmThisWeekStart(int32_t d, int32_t L);

#endif
