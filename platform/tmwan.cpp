#include "platform/tmwan.h"

#include <cstdio>
#include <cstring>

#include "core/tmcore.h"
#include "platform/bcm_dm_util.h"

int GetWanStatistics(uint64_t *tx, uint64_t *rx)
{
    if (tmCore.simActive == 1) {
        *tx = tmCore.sim.simTx;
        *rx = tmCore.sim.simRx;
        return 1;
    }
    TmNetDevStats stats;
    memset(&stats, 0, sizeof stats);
    char name[16];
    memset(name, 0, sizeof name);
    if (bcm_dm_GetWanIfName(name) == 0) return 0;
    if (TmReadNetDevStats(name, &stats) != 0) return 0;
    // The kernel's zeros (interface away or just created) never reach the
    // core: it sees the last pair that had a non-zero counter.
    if (stats.rxBytes == 0 && stats.txBytes == 0) {
        *tx = tmCore.savedWanTx;
        *rx = tmCore.savedWanRx;
    } else {
        tmCore.savedWanTx = stats.txBytes;
        tmCore.savedWanRx = stats.rxBytes;
        *tx = stats.txBytes;
        *rx = stats.rxBytes;
    }
    return 1;
}

static int TmIsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int TmReadNetDevStats(const char *name, TmNetDevStats *stats)
{
    FILE *file = fopen("/proc/net/dev", "r");
    if (!file) return -1;
    char line[1024];
    // Two header lines.
    for (int header = 0; header < 2; header++)
        if (!fgets(line, 1023, file)) break;
    memset(line, 0, sizeof line);
    while (fgets(line, 1023, file)) {
        char found[16];
        memset(found, 0, sizeof found);
        const char *p = line;
        while (TmIsBlank(*p)) p++;
        const char *start = p;
        while (*p && *p != ':' && !TmIsBlank(*p)) p++;
        size_t length = (size_t)(p - start);
        // An empty name, or one of 16 characters or more, is no name at all.
        if (*p == ':' && length > 0 && length < sizeof found) {
            memcpy(found, start, length);
            if (strcmp(found, name) == 0) {
                sscanf(p + 1, "%llu%llu%u%u%u%u%u%u%llu%llu%u%u%u%u%u%u", &stats->rxBytes, &stats->rxPackets,
                       &stats->rxErrs, &stats->rxDrop, &stats->rxFifo, &stats->rxFrame, &stats->rxCompressed,
                       &stats->rxMulticast, &stats->txBytes, &stats->txPackets, &stats->txErrs, &stats->txDrop,
                       &stats->txFifo, &stats->txColls, &stats->txCarrier, &stats->txCompressed);
                break;
            }
        }
        memset(line, 0, sizeof line);
    }
    fclose(file);
    return 0;
}

int TmResetTrafficCounters(void)
{
    TmExportData &ed = tmCore.exportData;
    int32_t now = 0;
    TmNow(&now);
    uint64_t tx = 0, rx = 0;
    if (GetWanStatistics(&tx, &rx) == 0) {
        puts("Fail to get tx/rx counters");
        tx = 0;
        rx = 0;
    }
    tmCore.lastMinTx = 0;
    tmCore.lastMinRx = 0;
    ed.lastTx = tx;
    ed.lastRx = rx;
    ed.lastTime = now;
    ed.otherTx = ed.otherRx = ed.roundOffRx = 0;
    ed.otherTime = 0;
    ed.hDayTx = ed.hDayRx = 0;
    ed.hDayTime = 0;
    ed.monthlyTx = ed.monthlyRx = 0;
    ed.monthlyTime = 0;
    ed.todayTx = ed.todayRx = 0;
    ed.todayTime = 0;
    ed.yesterdayTx = ed.yesterdayRx = 0;
    ed.yesterdayTime = 0;
    ed.weekTx = ed.weekRx = 0;
    ed.weekTime = 0;
    ed.lastMonthTailTx = ed.lastMonthTailRx = 0;
    ed.lastMonthTailTime = 0;
    return 1;
}
