// Adding records to the period totals: whole, or by their share of time at a
// bound. Shared by the rebuild from flash and the configuration update.
#ifndef KVARD_TMTOTALS_H
#define KVARD_TMTOTALS_H

#include <cstdint>

#include "history/tmrecord.h"

// One group of totals of exportData: bytes sent, received, seconds.
struct TmTotals {
    uint64_t *tx;
    uint64_t *rx;
    int32_t *time;
};

// Adds the whole record, in exact integers.
void TmAddWhole(const TmTotals &t, const TmRecord &r);
// Adds the share of part seconds of the record, in single precision.
void TmAddPart(const TmTotals &t, const TmRecord &r, int32_t part);
// The lower-bound rule: whole from the bound on, the share across it (none while a manual reset is in force).
void TmAddFrom(const TmTotals &t, const TmRecord &r, int32_t from);
// The yesterday rule: the record's time between from and to, likewise.
void TmAddBetween(const TmTotals &t, const TmRecord &r, int32_t from, int32_t to);

// The bounds of the period totals at a moment: the period start L, today,
// yesterday (from, to) and this week, none reaching back past L.
struct TmPeriodBounds {
    int32_t L, todayFrom, yesterdayFrom, yesterdayTo, weekFrom;
};

// The six groups of totals of exportData.
struct TmPeriodGroups {
    TmTotals month, today, yesterday, week, tail, halfDay;
};

// Bounds of the totals at now, with exportData.lastResetTime as the period start.
TmPeriodBounds TmPeriodBoundsAt(int32_t now);
// The groups of exportData, all set to zero.
TmPeriodGroups TmZeroPeriodGroups(void);
// Adds a record to today, yesterday and the week by their rules, and to the month if withMonth.
void TmAddToPeriods(const TmPeriodGroups &g, const TmPeriodBounds &b, const TmRecord &r, int withMonth);

#endif
