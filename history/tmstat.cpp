#include "history/tmstat.h"

#include <cfloat>
#include <ctime>

#include "core/tmcore.h"
#include "core/tmtrace.h"
#include "history/tmcalendar.h"
#include "history/tmwrap.h"
#include "platform/tmwan.h"

// The published digits are those of binary32 arithmetic step by step. A
// machine that evaluated float expressions in a wider format (x87) would give
// other digits; together with -ffp-contract=off (no fused multiply-add) this
// pins every step to single precision.
static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must be evaluated in float");

// The two probes that land in the month before a period start.
#define TM_PROBE_EARLY_RESET 1468800  // 17 days, for a reset day of 1 to 14
#define TM_PROBE_LATE_RESET 2764800   // 32 days, for a reset day of 15 and later

// Float to integer, cut toward zero. A value outside the integer's range would
// make the plain conversion undefined (and the x86 instruction gives a value
// the router never would), so such values saturate, as the ARM VFP conversion
// instructions do: NaN and everything at or below -1 give 0 (u64) or 0 and
// INT32_MIN (i32), everything at or above 2^64 (2^31) gives the maximum.
static uint64_t TmFloatToU64(float value)
{
    if (!(value >= 1.0f)) return 0;  // NaN, negatives, and fractions below 1
    if (value >= 18446744073709551616.0f) return UINT64_MAX;
    return (uint64_t)value;
}

static int32_t TmFloatToI32(float value)
{
    if (value != value) return 0;
    if (value >= 2147483648.0f) return INT32_MAX;
    if (value < -2147483648.0f) return INT32_MIN;
    return (int32_t)value;
}

// Multiplying first and dividing second is part of the result: the other
// order gives other digits. The accumulator goes through binary32 too, so a
// counter above 2^24 is rounded by every share it takes, even a share of 0.
static float Share(float sum, float count, int32_t part, int32_t len)
{
    float seconds = (float)part;
    float length = (float)len;
    float product = count * seconds;
    float quotient = product / length;
    return quotient + sum;
}

uint64_t TmShareU64(uint64_t acc, uint64_t c, int32_t part, int32_t len)
{
    return TmFloatToU64(Share((float)acc, (float)c, part, len));
}

int32_t TmShareI32(int32_t acc, int32_t c, int32_t part, int32_t len)
{
    return TmFloatToI32(Share((float)acc, (float)c, part, len));
}

void TmAddShare(TmRecord *bucket, const TmRecord *record, int32_t part)
{
    int32_t len = TmWrapSub(record->tEnd, record->tStart);
    bucket->tx = TmShareU64(bucket->tx, record->tx, part, len);
    bucket->rx = TmShareU64(bucket->rx, record->rx, part, len);
    bucket->tUsed = TmShareI32(bucket->tUsed, record->tUsed, part, len);
}

int TmApportionRecord(TmRecord *buckets, uint32_t count, const TmRecord *record)
{
    if (!buckets || !record || count < 2) return 0;
    int32_t S = record->tStart;
    int32_t E = record->tEnd;
    TmRecord *F = &buckets[0];
    TmRecord *G = &buckets[count - 1];
    if (S >= E) return 0;
    if (G->tEnd <= S) return 1;
    if (F->tStart >= E) return -1;
    // Begins before the array: what lies before it is dropped, and a record
    // reaching past the first bucket leaves all the rest to bucket 1.
    if (F->tStart > S) {
        if (E <= F->tEnd) {
            TmAddShare(F, record, TmWrapSub(E, F->tStart));
        } else {
            TmAddShare(F, record, TmWrapSub(F->tEnd, F->tStart));
            TmAddShare(&buckets[1], record, TmWrapSub(E, F->tEnd));
        }
        return 0;
    }
    // Ends after the array: what lies after it is dropped, and a record that
    // began before the last bucket leaves all the rest to the one before it.
    if (G->tEnd < E) {
        if (S >= G->tStart) {
            TmAddShare(G, record, TmWrapSub(G->tEnd, S));
        } else {
            TmAddShare(G, record, TmWrapSub(G->tEnd, G->tStart));
            TmAddShare(&buckets[count - 2], record, TmWrapSub(G->tStart, S));
        }
        return 0;
    }
    // Within the array: B is the first bucket that reaches E. A record that
    // fits B alone, boundaries included, needs no split and adds exactly.
    uint32_t i = 0;
    while (buckets[i].tEnd < E) i++;
    TmRecord *B = &buckets[i];
    if (B->tStart <= S) {
        B->tx += record->tx;
        B->rx += record->rx;
        B->tUsed = TmWrapAdd(B->tUsed, record->tUsed);
        return 0;
    }
    // B.tStart > S = F.tStart or later, so B is not the first bucket.
    TmRecord *A = &buckets[i - 1];
    TmAddShare(B, record, TmWrapSub(E, B->tStart));
    if (A->tStart <= S) {
        TmAddShare(A, record, TmWrapSub(B->tStart, S));
    } else {
        // Longer than two buckets: the third takes all the rest.
        TmAddShare(A, record, TmWrapSub(A->tEnd, A->tStart));
        TmAddShare(&buckets[i - 2], record, TmWrapSub(A->tStart, S));
    }
    return 0;
}

// Seconds from start to now, at least 1. The difference of two times is a
// time itself, so a span of more than 68 years wraps.
static int64_t TmElapsed(int32_t now, int32_t start)
{
    return now > start ? TmWrapSub(now, start) : 1;
}

// The start P of the monthly period before the one that began at L. It comes
// from L itself: a probe 17 or 32 days back lands in the month before, where
// the reset day is clamped afresh, at the hour and minute of L.
static int32_t TmPrevPeriodStart(int32_t L, uint32_t resetDay)
{
    uint32_t r = resetDay == 0 ? 1 : resetDay;
    struct tm at = TmLocal(L);
    int32_t probe = TmWrapSub(L, r <= 14 ? TM_PROBE_EARLY_RESET : TM_PROBE_LATE_RESET);
    struct tm fields = TmLocal(probe);
    fields.tm_mday = (int)TmResetDayOfMonth((uint32_t)fields.tm_year + 1900, (uint32_t)fields.tm_mon, r);
    fields.tm_hour = at.tm_hour;
    fields.tm_min = at.tm_min;
    fields.tm_sec = 0;
    return TmMake(&fields);
}

// Without a synchronised clock there is no period: the figures are zero and
// the start shown is the first of the current calendar month.
static void TmCollectUnsynchronised(TmStatistic *out, int32_t now)
{
    struct tm fields = TmLocal(now);
    fields.tm_mday = 1;
    fields.tm_hour = 0;
    fields.tm_min = 0;
    fields.tm_sec = 0;
    out->current_data_time = now;
    out->start_data_time = TmMake(&fields);
    out->timeLimit = 0;
    out->volume_left = 0;
    out->dataUsed = 0;
    TmPeriodFigures *periods[] = {&out->today, &out->yesterday, &out->thisweek, &out->thismonth, &out->lastmonth};
    for (TmPeriodFigures *p : periods) {
        p->conntime = 0;
        p->upload = 0;
        p->download = 0;
        p->elapsed = 1;
    }
}

// Last month from the half-day list: whole entries exactly, an entry across
// P or L by its share of time, even when its counters are zero.
static void TmCollectLastMonth(TmPeriodFigures *last, int32_t P, int32_t L)
{
    const TmExportData &ed = tmCore.exportData;
    last->conntime = 0;
    last->upload = 0;
    last->download = 0;
    for (uint32_t k = 0; k < TM_HDAY_LIST_SIZE; k++) {
        const TmRecord &e = ed.hDayList[k];
        if (e.tEnd <= P || e.tStart >= L) continue;
        if (e.tStart >= P && e.tEnd <= L) {
            last->upload += e.tx;
            last->download += e.rx;
            last->conntime = TmWrapAdd(last->conntime, e.tUsed);
            continue;
        }
        int32_t len = TmWrapSub(e.tEnd, e.tStart);
        int32_t part;
        if (e.tStart < P && e.tEnd > L)
            part = TmWrapSub(L, P);
        else if (e.tStart < P)
            part = TmWrapSub(e.tEnd, P);
        else
            part = TmWrapSub(L, e.tStart);
        last->upload = TmShareU64(last->upload, e.tx, part, len);
        last->download = TmShareU64(last->download, e.rx, part, len);
        last->conntime = TmShareI32(last->conntime, e.tUsed, part, len);
    }
    last->upload += ed.lastMonthTailTx;
    last->download += ed.lastMonthTailRx;
    last->conntime = TmWrapAdd(last->conntime, ed.lastMonthTailTime);
}

static void TmCollectLimit(TmStatistic *out)
{
    const TmExportData &ed = tmCore.exportData;
    switch (ed.limitType) {
    case 3: {
        // Seconds, sign-extended; a negative limit or usage compares as such.
        int64_t limit = ed.limitTime;
        int64_t used = out->thismonth.conntime;
        out->timeLimit = 1;
        out->dataLimited = (uint64_t)limit;
        out->dataUsed = (uint64_t)used;
        out->volume_left = limit > used ? (uint64_t)limit - (uint64_t)used : 0;
        return;
    }
    case 1:
        out->dataUsed = out->thismonth.download;
        break;
    case 2:
        out->dataUsed = out->thismonth.upload + out->thismonth.download;
        break;
    default:
        out->timeLimit = 0;
        out->dataLimited = 0;
        out->dataUsed = 0;
        out->volume_left = 0;
        return;
    }
    out->timeLimit = 0;
    out->dataLimited = ed.limitVol;
    out->volume_left = out->dataLimited > out->dataUsed ? out->dataLimited - out->dataUsed : 0;
}

int TmCollectStatistic(TmStatistic *out)
{
    if (!out) return 0;
    TM_TRACE();
    // The system clock itself: simulated time does not reach the figures.
    int32_t now = (int32_t)time(nullptr);
    const TmExportData &ed = tmCore.exportData;
    if (ed.timeSync == 0) {
        TmCollectUnsynchronised(out, now);
        return 1;
    }
    int32_t L = ed.lastResetTime;
    out->current_data_time = now;
    out->start_data_time = L;
    out->next_data_time = ed.nextResetTime;
    out->manualTime = ed.manualResetTime;

    int32_t d = TmDayStart(now);
    int32_t w = TmWeekStart(d);
    int32_t P = TmPrevPeriodStart(L, ed.resetDay);
    // today and yesterday publish no averages; they get their effective spans
    // all the same, so that no period ever carries an elapsed of 0.
    out->today.elapsed = TmElapsed(now, TmTodayStart(d, L));
    out->yesterday.elapsed = TmElapsed(d, TmYesterdayStart(d, L));
    out->thisweek.elapsed = TmElapsed(now, w > L ? w : L);
    out->thismonth.elapsed = TmElapsed(now, L);  // a manual reset does not move it
    out->lastmonth.elapsed = TmElapsed(L, P);

    out->today.conntime = TmWrapAdd(ed.todayTime, ed.otherTime);
    out->today.upload = ed.todayTx + ed.otherTx;
    out->today.download = ed.todayRx + ed.otherRx + ed.roundOffRx;
    out->yesterday.conntime = ed.yesterdayTime;
    out->yesterday.upload = ed.yesterdayTx;
    out->yesterday.download = ed.yesterdayRx;
    out->thisweek.conntime = TmWrapAdd(ed.weekTime, ed.otherTime);
    out->thisweek.upload = ed.weekTx + ed.otherTx;
    out->thisweek.download = ed.weekRx + ed.otherRx + ed.roundOffRx;
    out->thismonth.conntime = TmWrapAdd(ed.monthlyTime, ed.otherTime);
    out->thismonth.upload = ed.monthlyTx + ed.otherTx;
    out->thismonth.download = ed.monthlyRx + ed.otherRx + ed.roundOffRx;

    // The running minute counts for the current periods only.
    TmPeriodFigures *running[] = {&out->today, &out->thisweek, &out->thismonth};
    if (ed.enable != 0) {
        uint64_t tx = 0, rx = 0;
        if (GetWanStatistics(&tx, &rx) == 1) {
            for (TmPeriodFigures *p : running) {
                if (tx > ed.lastTx) p->upload += tx - ed.lastTx;
                if (rx > ed.lastRx) p->download += rx - ed.lastRx;
            }
        }
        if (ed.link != 0 && ed.lastTime < now) {
            for (TmPeriodFigures *p : running) p->conntime = TmWrapAdd(p->conntime, TmWrapSub(now, ed.lastTime));
        }
    }

    TmCollectLastMonth(&out->lastmonth, P, L);
    TmCollectLimit(out);
    return 1;
}
