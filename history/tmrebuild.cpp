// The rebuild: everything the meter knows of the past (both lists, the ring
// cursors, every period total) is derived anew from the two flash rings, the
// calendar and the stored manual reset time.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmcalendar.h"
#include "history/tmflash.h"
#include "history/tmrings.h"
#include "history/tmsidefile.h"
#include "history/tmstat.h"
#include "history/tmtotals.h"
#include "history/tmwrap.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmtext.h"

static void TmFindCursors(void)
{
    TmRecord r;
    TmCursorSearch search;
    TmCursorBegin(&search, tmCore.hDayFlashStart, tmCore.hDayFlashSize, 0);
    for (uint32_t p = tmCore.hDayFlashStart; p < tmCore.hDayFlashStart + tmCore.hDayFlashSize; p++)
        if (TmReadFlash(p, &r) == 0) TmCursorOffer(&search, p, r.tEnd);
    tmCore.latestHDayFlashTime = search.best;
    tmCore.nextHDayFlashIndex = TmCursorNext(&search);
    TmCursorBegin(&search, tmCore.minFlashStart, tmCore.minFlashSize, 1);
    for (uint32_t p = tmCore.minFlashStart; p < tmCore.minFlashStart + tmCore.minFlashSize; p++)
        if (TmReadFlash(p, &r) == 0) TmCursorOffer(&search, p, r.tEnd);
    tmCore.nextMinFlashIndex = TmCursorNext(&search);
}

static void TmPrintTime(const char *format, int32_t value)
{
    char text[TM_TEXT_SIZE];
    printf(format, (unsigned long)(uint32_t)value, TmTextAsctime(text, value));
}

// The stored manual reset counts only strictly inside the current period.
static void TmTakeManualReset(void)
{
    TmExportData &ed = tmCore.exportData;
    GetManualResetTimeFromFile();
    if (debugFlag) {
        TmPrintTime("manualResetTime.time %lu %s\n", tmCore.manualResetTime.time);
        TmPrintTime("exportData.lastResetTime  %lu %s\n", ed.lastResetTime);
        TmPrintTime("exportData.nextResetTime  %lu %s\n", ed.nextResetTime);
    }
    if (tmCore.manualResetTime.time == 0) return;
    if (tmCore.manualResetTime.time > ed.lastResetTime && tmCore.manualResetTime.time < ed.nextResetTime) {
        ed.manualResetTime = tmCore.manualResetTime.time;
        return;
    }
    // A stale reset belongs to a period that is over: it goes from memory and file alike.
    tmCore.manualResetTime.time = 0;
    ed.manualResetTime = 0;
    WriteManualResetTimeToFile();
}

// Lays out both lists around now: 124 half-days ending with the running one,
// and its 720 minutes.
static void TmFrameLists(int32_t now)
{
    TmExportData &ed = tmCore.exportData;
    // The running half-day begins at the boundary at or before now, also in
    // the first minute after a boundary.
    int32_t start = TmPrevHalfDay(TmWrapAdd(now, 60));
    int32_t end = TmNextHalfDay(now);
    TmCalcDayWeekBoundaries(now);
    for (int i = TM_HDAY_LIST_SIZE - 1; i >= 0; i--) {
        ed.hDayList[i].tStart = start;
        ed.hDayList[i].tEnd = end;
        end = start;
        start = TmPrevHalfDay(start);
    }
    tmCore.nextHDay = ed.hDayList[TM_HDAY_LIST_SIZE - 1].tEnd;
    tmCore.baseMin = ed.hDayList[TM_HDAY_LIST_SIZE - 1].tStart;
    tmCore.nextMin = TmNextMinute(now);
    memset(tmCore.minList, 0, sizeof tmCore.minList);
    for (int i = 0; i < TM_MIN_LIST_SIZE; i++) {
        tmCore.minList[i].tStart = TmWrapAdd(tmCore.baseMin, 60 * i);
        tmCore.minList[i].tEnd = TmWrapAdd(tmCore.minList[i].tStart, 60);
    }
}

// Minute records newer than the newest half-day record go into the minute
// list, or into the half-day list when they are older than the running half-day.
static void TmReplayMinutes(void)
{
    TmRecord r;
    for (uint32_t p = tmCore.minFlashStart; p < tmCore.minFlashStart + tmCore.minFlashSize; p++) {
        if (TmReadFlash(p, &r) != 0 || r.tEnd <= tmCore.latestHDayFlashTime) continue;
        if (TmApportionRecord(tmCore.minList, TM_MIN_LIST_SIZE, &r) == -1)
            TmApportionRecord(tmCore.exportData.hDayList, TM_HDAY_LIST_SIZE, &r);
    }
}

// Closed half-days that hold minutes but were never written become records.
// The entries are emptied again: the half-day ring is replayed into them next,
// and would otherwise count the folded records twice.
static void TmFoldHalfDays(void)
{
    for (int i = 0; i < TM_HDAY_LIST_SIZE; i++) {
        TmRecord &entry = tmCore.exportData.hDayList[i];
        if (entry.tx == 0 && entry.rx == 0 && entry.tUsed == 0) continue;
        tmCore.nextHDayFlashIndex =
            WriteToFlash(tmCore.hDayFlashStart, tmCore.hDayFlashSize, tmCore.nextHDayFlashIndex, &entry);
        entry.tx = entry.rx = 0;
        entry.tUsed = 0;
    }
}

int TmInitTrafficList(int bInit)
{
    TmExportData &ed = tmCore.exportData;
    if (debugFlag) printf("TmInitTrafficList bInit=%d\n", bInit);
    TmFindCursors();
    memset(ed.hDayList, 0, sizeof ed.hDayList);
    TmCalcResetTimes(tmCore.config.resetDay, tmCore.config.resetHour, tmCore.config.resetMinute);
    TmTakeManualReset();

    int32_t now = 0;
    TmNow(&now);
    TmFrameLists(now);
    if (debugFlag)
        printf("minFlashStart:%u minFlashSize:%u latestHDayFlashTime:%lu\n", tmCore.minFlashStart,
               tmCore.minFlashSize, (unsigned long)(uint32_t)tmCore.latestHDayFlashTime);
    TmReplayMinutes();
    TmFoldHalfDays();

    const TmPeriodGroups g = TmZeroPeriodGroups();
    const TmPeriodBounds b = TmPeriodBoundsAt(now);
    TmRecord r;
    for (uint32_t p = tmCore.hDayFlashStart; p < tmCore.hDayFlashStart + tmCore.hDayFlashSize; p++) {
        if (TmReadFlash(p, &r) != 0) continue;
        if (TmApportionRecord(ed.hDayList, TM_HDAY_LIST_SIZE, &r) != 0) continue;
        if (r.tStart < b.L && r.tEnd <= b.L) continue;  // a past period's
        TmAddToPeriods(g, b, r, 1);
    }
    for (int i = 0; i < TM_MIN_LIST_SIZE; i++) {
        const TmRecord &m = tmCore.minList[i];
        TmAddFrom(g.month, m, b.L);
        if (m.tEnd <= b.L) {
            TmAddWhole(g.tail, m);
            continue;
        }
        // The tail takes its share whether a manual reset is in force or not.
        if (m.tStart < b.L) TmAddPart(g.tail, m, TmWrapSub(b.L, m.tStart));
        TmAddWhole(g.halfDay, m);
        TmAddToPeriods(g, b, m, 0);
    }
    bcm_dm_WriteStatistic();
    return 1;
}
