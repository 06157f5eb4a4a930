// The timer wake, the heart of the meter: counters and clock, link and clock
// events, the limit, and at each passed minute boundary the minute close, the
// half-day close, the monthly reset and the day and week roll-over.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "core/tmlimit.h"
#include "history/tmcalendar.h"
#include "history/tmflash.h"
#include "history/tmsidefile.h"
#include "history/tmstat.h"
#include "history/tmwrap.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmtext.h"
#include "platform/tmwan.h"

// Debug lines that simulated input with a non-zero msg keeps quiet.
static int TmQuietDebug(void)
{
    return debugFlag && !(tmCore.simActive != 0 && tmCore.sim.simMsg != 0);
}

static unsigned long TmLu(int32_t value)
{
    return (unsigned long)(uint32_t)value;
}

// Entries of minList laid out from baseMin, 60 s each, counters zero.
static void TmLayOutMinList(void)
{
    memset(tmCore.minList, 0, sizeof tmCore.minList);
    for (int i = 0; i < TM_MIN_LIST_SIZE; i++) {
        tmCore.minList[i].tStart = TmWrapAdd(tmCore.baseMin, 60 * i);
        tmCore.minList[i].tEnd = TmWrapAdd(tmCore.minList[i].tStart, 60);
    }
}

// Half-day close: the minutes so far become one record on flash and in the
// running half-day's entry; at the boundary the half-day list moves on.
static void TmCloseHalfDay(int32_t now, int closing, int *changed)
{
    TmExportData &ed = tmCore.exportData;
    uint32_t n = 0;
    if (tmCore.nextMin > tmCore.baseMin) n = (uint32_t)TmWrapSub(tmCore.nextMin, tmCore.baseMin) / 60;
    if (n > TM_MIN_LIST_SIZE) n = TM_MIN_LIST_SIZE;
    TmRecord record;
    memset(&record, 0, sizeof record);
    for (uint32_t i = 0; i < n; i++) {
        record.tx += tmCore.minList[i].tx;
        record.rx += tmCore.minList[i].rx;
        record.tUsed = TmWrapAdd(record.tUsed, tmCore.minList[i].tUsed);
    }
    TmRecord &running = ed.hDayList[TM_HDAY_LIST_SIZE - 1];
    record.tStart = running.tStart;
    record.tEnd = now < tmCore.nextHDay ? tmCore.nextMin : tmCore.nextHDay;
    int hasTraffic = record.tx != 0 || record.rx != 0 || record.tUsed != 0;
    if (closing || hasTraffic) {
        if (debugFlag) printf("Write half day to flash. Write to index %u. ", tmCore.nextHDayFlashIndex);
        tmCore.nextHDayFlashIndex =
            WriteToFlash(tmCore.hDayFlashStart, tmCore.hDayFlashSize, tmCore.nextHDayFlashIndex, &record);
        if (debugFlag) printf("Next index is %u\n", tmCore.nextHDayFlashIndex);
    }
    running.tx += record.tx;
    running.rx += record.rx;
    running.tUsed = TmWrapAdd(running.tUsed, record.tUsed);
    tmCore.baseMin = tmCore.nextMin;
    TmLayOutMinList();
    ed.lastMonthTailTx = ed.lastMonthTailRx = 0;
    ed.lastMonthTailTime = 0;
    if (hasTraffic) *changed = 1;
    if (debugFlag)
        printf("Current half day counter tx:%llu rx:%llu t:%lu\n", (unsigned long long)running.tx,
               (unsigned long long)running.rx, TmLu(running.tUsed));
    // All 720 minutes used before the boundary (a 13-hour half-day): it goes on.
    if (now < tmCore.nextHDay) return;
    memmove(&ed.hDayList[0], &ed.hDayList[1], sizeof(TmRecord) * (TM_HDAY_LIST_SIZE - 1));
    memset(&running, 0, sizeof running);
    running.tStart = tmCore.nextHDay;
    running.tEnd = TmNextHalfDay(running.tStart);
    tmCore.nextHDay = running.tEnd;
    ed.hDayTx = ed.hDayRx = 0;
    ed.hDayTime = 0;
    *changed = 1;
    if (debugFlag) {
        char text[TM_TEXT_SIZE];
        printf("Half Day reach. The next half day is %lu %s", TmLu(tmCore.nextHDay),
               TmTextAsctime(text, tmCore.nextHDay));
    }
}

// Monthly reset at exportData.nextResetTime: the sums start again from zero,
// and what the minute list still holds of the old period becomes its tail.
static void TmResetPeriod(int *changed)
{
    TmExportData &ed = tmCore.exportData;
    int32_t reset = ed.nextResetTime;
    int32_t closedEnd = ed.hDayList[TM_HDAY_LIST_SIZE - 2].tEnd;
    ed.monthlyTx = ed.monthlyRx = ed.todayTx = ed.todayRx = ed.yesterdayTx = ed.yesterdayRx = 0;
    ed.weekTx = ed.weekRx = ed.lastMonthTailTx = ed.lastMonthTailRx = 0;
    ed.monthlyTime = ed.todayTime = ed.yesterdayTime = ed.weekTime = ed.lastMonthTailTime = 0;
    uint64_t tx = 0, rx = 0;
    int32_t used = 0;
    for (int i = 0; i < TM_MIN_LIST_SIZE; i++) {
        const TmRecord &m = tmCore.minList[i];
        if (m.tStart < closedEnd) continue;
        if (m.tEnd <= reset) {
            tx += m.tx;
            rx += m.rx;
            used = TmWrapAdd(used, m.tUsed);
        } else if (m.tStart < reset) {
            int32_t part = TmWrapSub(reset, m.tStart), len = TmWrapSub(m.tEnd, m.tStart);
            tx = TmShareU64(tx, m.tx, part, len);
            rx = TmShareU64(rx, m.rx, part, len);
            used = TmShareI32(used, m.tUsed, part, len);
        }
    }
    ed.lastMonthTailTx = tx;
    ed.lastMonthTailRx = rx;
    ed.lastMonthTailTime = used;
    ed.manualResetTime = 0;
    WriteManualResetTimeToFile();
    TmCalcResetTimes(tmCore.config.resetDay, tmCore.config.resetHour, tmCore.config.resetMinute);
    *changed = 1;
}

// Today becomes yesterday at midnight; the week starts again on Sunday.
static void TmRollDayAndWeek(int32_t now, int *changed)
{
    TmExportData &ed = tmCore.exportData;
    int32_t nextDay = tmCore.nextDay, nextWeek = tmCore.nextWeek;
    int fired = 0;
    if (now >= nextDay) {
        ed.yesterdayTx = ed.todayTx;
        ed.yesterdayRx = ed.todayRx;
        ed.yesterdayTime = ed.todayTime;
        ed.todayTx = ed.todayRx = 0;
        ed.todayTime = 0;
        fired = 1;
    }
    if (now >= nextWeek) {
        ed.weekTx = ed.weekRx = 0;
        ed.weekTime = 0;
        fired = 1;
    }
    if (fired) {
        *changed = 1;
        TmCalcDayWeekBoundaries(now);
    }
}

// Closes the minute that ends at nextMin into its list entry and all running
// sums; returns the entry, or null when the index is out of range.
static TmRecord *TmCloseMinute(uint64_t tx, uint64_t rx, int32_t now, uint32_t *index)
{
    TmExportData &ed = tmCore.exportData;
    if (tmCore.nextMin <= tmCore.baseMin) return nullptr;
    *index = (uint32_t)TmWrapSub(tmCore.nextMin, tmCore.baseMin) / 60;
    if (*index < 1 || *index > TM_MIN_LIST_SIZE) return nullptr;
    TmRecord *minute = &tmCore.minList[*index - 1];
    if (TmQuietDebug())
        printf("1 Minute Event: Minute List Index=%u Link=%u ; exportData.otherTime:%lu exportData.lastTime:%lu "
               "<<-------\n",
               *index, ed.link, TmLu(ed.otherTime), TmLu(ed.lastTime));
    minute->tx = ed.otherTx;
    minute->rx = ed.otherRx + ed.roundOffRx;
    minute->tUsed = ed.otherTime;
    if (ed.link != 0) {
        if (debugFlag) puts("Update next minute data!");
        if (ed.lastTx < tx) minute->tx += tx - ed.lastTx;
        if (ed.lastRx < rx) minute->rx += rx - ed.lastRx;
        if (ed.lastTime < now) minute->tUsed = TmWrapAdd(minute->tUsed, TmWrapSub(now, ed.lastTime));
    }
    if (TmQuietDebug())
        printf("Current counter tx:%llu rx:%llu time:%lu config.enable=%u\n", (unsigned long long)minute->tx,
               (unsigned long long)minute->rx, TmLu(minute->tUsed), tmCore.config.enable);
    tmCore.lastMinTx = minute->tx;
    tmCore.lastMinRx = minute->rx;
    ed.monthlyTx += minute->tx;
    ed.todayTx += minute->tx;
    ed.weekTx += minute->tx;
    ed.hDayTx += minute->tx;
    ed.monthlyRx += minute->rx;
    ed.todayRx += minute->rx;
    ed.weekRx += minute->rx;
    ed.hDayRx += minute->rx;
    ed.monthlyTime = TmWrapAdd(ed.monthlyTime, minute->tUsed);
    ed.todayTime = TmWrapAdd(ed.todayTime, minute->tUsed);
    ed.weekTime = TmWrapAdd(ed.weekTime, minute->tUsed);
    ed.hDayTime = TmWrapAdd(ed.hDayTime, minute->tUsed);
    return minute;
}

// Stores a closed minute in the minute ring, unless it ends the half-day
// (then it goes into the half-day record only); returns 1 for that case.
static int TmStoreMinute(TmRecord *minute, uint32_t index, int32_t now)
{
    if (debugFlag) printf("now:%lu nextHDay:%lu index:%u \n", TmLu(now), TmLu(tmCore.nextHDay), index);
    if (index == TM_MIN_LIST_SIZE || now >= tmCore.nextHDay) return 1;
    // Connection time is kept on flash for the PPP family only.
    if (tmCore.exportData.link != TM_LINK_PPP) minute->tUsed = 0;
    if (minute->tx == 0 && minute->rx == 0 && minute->tUsed == 0) return 0;
    if (TmQuietDebug())
        printf("Write minute to flash. Write to index %u. pCurMin->tx:%llu pCurMin->rx:%llu pCurMin->tUsed:%lu \n",
               tmCore.nextMinFlashIndex, (unsigned long long)minute->tx, (unsigned long long)minute->rx,
               TmLu(minute->tUsed));
    tmCore.nextMinFlashIndex =
        WriteToFlash(tmCore.minFlashStart, tmCore.minFlashSize, tmCore.nextMinFlashIndex, minute);
    if (TmQuietDebug()) printf("Next index is %u\n", tmCore.nextMinFlashIndex);
    return 0;
}

uint32_t TmHandleTimeWake(int kind, int unused)
{
    (void)unused;
    // Once simulated input is stored, only the simulation's own wakes run.
    if (kind == 1 ? tmCore.simActive != 0 : kind != 2) return TmNextWakeInterval();
    TmExportData &ed = tmCore.exportData;

    if (TmQuietDebug()) printf("TmHandleTimeWake ");
    uint64_t tx = 0, rx = 0;
    if (GetWanStatistics(&tx, &rx) == 0) {
        if (debugFlag) printf("\nFail to get tx/rx counters");
        return TmNextWakeInterval();
    }
    int32_t now = 0;
    if (ed.timeSync) TmNow(&now);
    else now = (int32_t)TmUptime();
    if (debugFlag) printf("exportData.timeSync:%u <--\n", ed.timeSync);

    uint32_t link = bcm_dm_GetWanType();
    if (debugFlag) printf("link:%u exportData.link:%u now:%lu \n", link, ed.link, TmLu(now));
    if (link != ed.link) TmLinkUpdate(tx, rx, now);

    if (ed.timeSync == 0) {
        uint32_t synced = 1;
        bcm_dm_CheckTimeSync(&synced);
        if (synced) TmHandleTimeUpdate();
    } else {
        char zone[50];
        memset(zone, 0, sizeof zone);
        if (bcm_dm_GetTimeZone(zone, sizeof zone) == 0 && strcmp(zone, tmCore.timeZone) != 0) TmHandleTimeUpdate();
    }
    if (debugFlag) printf("exportData.timeSync:%u <---\n", ed.timeSync);
    if (TmQuietDebug()) {
        char text[TM_TEXT_SIZE];
        printf("TmHandle Timer %lu %s\n", TmLu(now), TmTextAsctime(text, now));
    }

    // Counters that ran backwards (an interface that restarted): start again
    // from the lower reading; what was pending since the last point is lost.
    int changed = 0;
    if (ed.lastTx > tx || ed.lastRx > rx) {
        ed.lastTx = tx;
        ed.lastRx = rx;
        changed = 1;
    }

    if (debugFlag)
        printf("config.enable:%u config.limitType:%u exportData.timeSync:%u\n", tmCore.config.enable,
               tmCore.config.limitType, ed.timeSync);
    TmReactToLimit(TmEvaluateLimit(tx, rx, now));

    if (debugFlag) {
        printf("Tx:%llu Rx:%llu\n", (unsigned long long)tx, (unsigned long long)rx);
        printf("config.enable:%u now:%lu nextMin:%lu baseMin:%lu nextHDay:%lu <----\n", tmCore.config.enable,
               TmLu(now), TmLu(tmCore.nextMin), TmLu(tmCore.baseMin), TmLu(tmCore.nextHDay));
        printf("config.disconnectLimit:%u config.ledflashLimit:%u\n", tmCore.config.disconnectLimit,
               tmCore.config.ledflashLimit);
    }
    if (now < tmCore.nextMin) return TmNextWakeInterval();

    if (tmCore.config.enable) {
        // No minute can be placed on the calendar before the clock is set:
        // everything stays pending for the first minute after that.
        if (ed.timeSync == 0) return TmNextWakeInterval();
        uint32_t index = 0;
        int closing = 0;
        TmRecord *minute = TmCloseMinute(tx, rx, now, &index);
        if (minute) {
            changed = 1;
            closing = TmStoreMinute(minute, index, now);
        }
        if (closing || now >= tmCore.nextHDay) TmCloseHalfDay(now, closing, &changed);
    }

    tmCore.nextMin = TmNextMinute(now);
    ed.lastTime = now;
    ed.otherTime = 0;
    ed.lastTx = tx;
    ed.lastRx = rx;
    ed.otherTx = ed.otherRx = ed.roundOffRx = 0;
    if (debugFlag) {
        char text[TM_TEXT_SIZE];
        printf("exportData.nextResetTime %lu %s\n", TmLu(ed.nextResetTime), TmTextAsctime(text, ed.nextResetTime));
        printf("now %lu %s\n", TmLu(now), TmTextAsctime(text, now));
    }

    if (ed.nextResetTime != 0 && ed.nextResetTime <= now) TmResetPeriod(&changed);
    TmRollDayAndWeek(now, &changed);
    if (changed) bcm_dm_WriteStatistic();
    return TmNextWakeInterval();
}
