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
void TmAddPart(const TmTotals &t, const TmRecord &r, int64_t part);
// The lower-bound rule: whole from the bound on, the share across it (none while a manual reset is in force).
void TmAddFrom(const TmTotals &t, const TmRecord &r, int32_t from);
// The yesterday rule: the record's time between from and to, likewise.
void TmAddBetween(const TmTotals &t, const TmRecord &r, int32_t from, int32_t to);

#endif
