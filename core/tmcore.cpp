// The core's state, its start-up and its clocks.
#include "core/tmcore.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/tmhandlers.h"
#include "history/tmcalendar.h"
#include "history/tmmtd.h"
#include "history/tmrings.h"
#include "history/tmsidefile.h"
#include "history/tmtotals.h"
#include "history/tmwrap.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmdump.h"
#include "platform/tmwan.h"

TmCore tmCore;
volatile uint32_t debugFlag;

// The common failure tail of TmInit: release the flash layer if it was taken.
static int TmInitFail(void)
{
    if (tmCore.mtdInit == 1) {
        TmFlashCleanup();
        tmCore.mtdInit = 0;
    }
    return -1;
}

int TmInit(const char *path)
{
    TmExportData &ed = tmCore.exportData;
    memset(&ed, 0, sizeof ed);
    if (strlen(path) > 99) return -1;

    memset(&tmCore.config, 0, sizeof tmCore.config);
    if (bcm_dm_ReadConfig(path, &tmCore.config) != 0) {
        puts("Read Config  fail");
        return TmInitFail();
    }
    strcpy(tmCore.configPath, path);
    ed.enable = tmCore.config.enable;
    ed.limitType = tmCore.config.limitType;
    ed.limitVol = tmCore.config.limitVol;
    ed.limitTime = tmCore.config.limitTime;
    ed.resetDay = tmCore.config.resetDay;
    if (debugFlag) TmDumpConfig();

    if (TmFlashInit() != 0) {
        puts("Init MTD fail");
        puts("Initialize Flash fail!");
        return TmInitFail();
    }
    if (debugFlag) TmFlashPrintGeometry();
    tmCore.mtdInit = 1;
    TmPlaceRings();

    ed.link = TM_LINK_NONE;
    tmCore.initLinkUpRx = 0;
    TmResetTrafficCounters();
    TmHandleLinkUpdate();
    ed.timeSync = 0;
    TmHandleTimeUpdate();
    if (ed.timeSync == 0) {
        // No calendar yet: minutes and half-days run on the uptime scale.
        tmCore.sysUptime = (int32_t)TmUptime();
        tmCore.baseMin = tmCore.sysUptime - tmCore.sysUptime % 60;
        tmCore.nextMin = TmWrapAdd(tmCore.baseMin, 60);
        tmCore.nextHDay = TmWrapAdd(tmCore.baseMin, 43200);
        if (debugFlag)
            printf("sysUptime:%lu baseMin:%lu nextMin:%lu nextHDay:%lu\n", (unsigned long)(uint32_t)tmCore.sysUptime,
                   (unsigned long)(uint32_t)tmCore.baseMin, (unsigned long)(uint32_t)tmCore.nextMin,
                   (unsigned long)(uint32_t)tmCore.nextHDay);
    }
    if (debugFlag) TmDumpAll(0);
    bcm_dm_WriteStatistic();
    // Nothing of a former run's limit state outlives a restart.
    TrafficMeter_ProcessLimitWarning(0, 0, 0, 0, 0);
    return 0;
}

void TmPlaceRings(void)
{
    TmRings rings;
    TmRingLayout(TmFlashPagesPerBlock(), &rings);
    tmCore.minFlashSize = rings.minSize;
    tmCore.hDayFlashSize = rings.hDaySize;
    tmCore.minFlashStart = rings.minStart;
    tmCore.hDayFlashStart = rings.hDayStart;
}

void TmNow(int32_t *out)
{
    if (tmCore.simActive == 1) {
        *out = (int32_t)tmCore.sim.simNow;
        return;
    }
    *out = (int32_t)time(nullptr);
}

uint32_t TmUptime(void)
{
    FILE *pipe = popen("cat /proc/uptime | cut -d ' ' -f1", "r");
    if (!pipe) return 0;
    char line[20];
    memset(line, 0, sizeof line);
    if (!fgets(line, 19, pipe)) line[0] = '\0';
    pclose(pipe);
    // strtoul of a 32-bit unsigned long; it stops at the decimal point.
    unsigned long long seconds = strtoull(line, nullptr, 10);
    return seconds > UINT32_MAX ? UINT32_MAX : (uint32_t)seconds;
}

uint32_t TmNextWakeInterval(void)
{
    if (tmCore.wakeNow) {
        tmCore.wakeNow = 0;
        return TM_WAKE_NOW_US;
    }
    return TM_WAKE_INTERVAL_US;
}

int TmSetDebug(uint32_t word)
{
    debugFlag = word == TM_DEBUG_ON_VALUE ? 1 : 0;
    return 1;
}

int TmSetSimInput(const uint8_t *body)
{
    tmCore.simActive = 1;
    // Host byte order, as the sender wrote it; a short body leaves whatever the
    // receive buffer held in the fields beyond it.
    memcpy(&tmCore.sim.simNow, body + 0, 4);
    memcpy(&tmCore.sim.simTx, body + 8, 8);
    memcpy(&tmCore.sim.simRx, body + 16, 8);
    memcpy(&tmCore.sim.simMsg, body + 24, 4);
    if (tmCore.sim.simMsg == 0)
        printf("tx=%llu rx=%llu now=%lu msg=%d\n", (unsigned long long)tmCore.sim.simTx,
               (unsigned long long)tmCore.sim.simRx, (unsigned long)tmCore.sim.simNow, tmCore.sim.simMsg);
    return 1;
}

// New reset moment: the period totals are derived again from the lists in
// memory, cut at the new bounds. Flash is neither read nor written.
static void TmRecountPeriod(int32_t now)
{
    const TmExportData &ed = tmCore.exportData;
    const TmPeriodGroups g = TmZeroPeriodGroups();
    const TmPeriodBounds b = TmPeriodBoundsAt(now);
    const int32_t runningFrom = ed.hDayList[TM_HDAY_LIST_SIZE - 2].tEnd;
    for (int i = 0; i < TM_HDAY_LIST_SIZE; i++) {
        const TmRecord &h = ed.hDayList[i];
        if (h.tStart < b.L && h.tEnd <= b.L) continue;  // an earlier period's
        TmAddToPeriods(g, b, h, 1);
    }
    for (int i = 0; i < TM_MIN_LIST_SIZE; i++) {
        const TmRecord &m = tmCore.minList[i];
        TmAddFrom(g.month, m, b.L);
        if (m.tStart >= runningFrom) {
            if (m.tEnd <= b.L) TmAddWhole(g.tail, m);
            else if (m.tStart < b.L) TmAddPart(g.tail, m, TmWrapSub(b.L, m.tStart));
        }
        if (m.tEnd <= b.L) continue;
        TmAddWhole(g.halfDay, m);
        TmAddToPeriods(g, b, m, 0);
    }
}

int TmHandleConfigUpdate(void)
{
    TmExportData &ed = tmCore.exportData;
    if (tmCore.configPath[0] == '\0') return 0;
    TmConfig fresh;
    memset(&fresh, 0, sizeof fresh);
    if (bcm_dm_ReadConfig(tmCore.configPath, &fresh) != 0) {
        puts("Read Config  fail");
        return 0;
    }
    ed.enable = fresh.enable;
    ed.limitType = fresh.limitType;
    ed.limitVol = fresh.limitVol;
    ed.limitTime = fresh.limitTime;
    ed.resetDay = fresh.resetDay;
    int moved = fresh.resetDay != tmCore.config.resetDay || fresh.resetHour != tmCore.config.resetHour ||
                fresh.resetMinute != tmCore.config.resetMinute;
    tmCore.config = fresh;
    if (moved) {
        // A new reset moment ends any manual reset of the old period.
        ed.manualResetTime = 0;
        WriteManualResetTimeToFile();
        if (TmCalcResetTimes(fresh.resetDay, fresh.resetHour, fresh.resetMinute) == 0) return 0;
        int32_t now = 0;
        TmNow(&now);
        TmRecountPeriod(now);
    }
    if (debugFlag) TmDumpConfig();
    bcm_dm_WriteStatistic();
    // The next wake, 10 ms from now, measures the limit against the new settings.
    tmCore.wakeNow = 1;
    return 1;
}
