// The period statistics and the proportional share. A record's counters are
// split at a time boundary by proportion of time in single precision (binary32);
// everything else is counted in exact integers.
#ifndef KVARD_TMSTAT_H
#define KVARD_TMSTAT_H

#include <cstdint>

#include "history/tmrecord.h"

// The figures of one period.
struct TmPeriodFigures {
    int32_t conntime;   // seconds of connection time
    uint64_t upload;    // bytes sent (tx)
    uint64_t download;  // bytes received (rx)
    int64_t elapsed;    // seconds the period has run, at least 1: the divisor of the averages
};

// The published figures in numeric form, filled anew by each collection.
struct TmStatistic {
    int32_t start_data_time;    // start of the monthly period
    int32_t next_data_time;     // start of the next monthly period
    int32_t current_data_time;  // moment of the computation
    int32_t manualTime;         // manual reset inside the period, 0 for none
    uint32_t timeLimit;         // 1: the limit counts connection seconds, 0: bytes or no limit
    uint64_t dataLimited;       // the monthly limit, bytes or seconds
    uint64_t volume_left;       // what remains of it, never below 0
    uint64_t dataUsed;          // what counts against it
    TmPeriodFigures today;
    TmPeriodFigures yesterday;
    TmPeriodFigures thisweek;   // from Sunday 00:00, never before the period start
    TmPeriodFigures thismonth;
    TmPeriodFigures lastmonth;
};

// acc + c * part / len, every step in binary32, cut toward zero to u64 (0 below, UINT64_MAX above the range).
uint64_t TmShareU64(uint64_t acc, uint64_t c, int32_t part, int32_t len);
// acc + c * part / len, every step in binary32, cut toward zero to i32 (saturated at INT32_MIN/INT32_MAX).
int32_t TmShareI32(int32_t acc, int32_t c, int32_t part, int32_t len);
// Adds to bucket the share of record's tx, rx and tUsed for part of its tEnd - tStart seconds.
void TmAddShare(TmRecord *bucket, const TmRecord *record, int32_t part);
// Spreads record over count (>= 2; fewer change nothing) gapless ascending buckets: 0 taken or empty, 1 after, -1 before.
int TmApportionRecord(TmRecord *buckets, uint32_t count, const TmRecord *record);
// Fills the caller-zeroed out with the figures of now; 1, or 0 (nothing done) for a null out.
int TmCollectStatistic(TmStatistic *out);

#endif
