#include "platform/tmwan.h"

#include <cstdio>
#include <cstdlib>
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

// Reads one number of a line as scanf's %llu (wide) or %u would: blanks, an
// optional sign, decimal digits, converted by strtoull or strtoul. false
// (nothing stored) where scanf would stop converting.
static bool TmScanNumber(const char **text, unsigned long long *wide, unsigned int *narrow)
{
    const char *p = *text;
    while (TmIsBlank(*p)) p++;
    const char *digits = (*p == '+' || *p == '-') ? p + 1 : p;
    if (*digits < '0' || *digits > '9') return false;
    // The usual column, unsigned and too short to overflow even a 32-bit
    // long, needs no library call.
    unsigned long long v = 0;
    const char *q = p;
    while (*q >= '0' && *q <= '9' && q - p < 9) v = v * 10 + (unsigned long long)(*q++ - '0');
    if (digits == p && (*q < '0' || *q > '9')) {
        if (wide) *wide = v;
        else *narrow = (unsigned int)v;
        *text = q;
        return true;
    }
    char *end = nullptr;
    if (wide) *wide = strtoull(p, &end, 10);
    else *narrow = (unsigned int)strtoul(p, &end, 10);
    *text = end;
    return true;
}

int TmReadNetDevStats(const char *name, TmNetDevStats *stats)
{
    FILE *file = fopen("/proc/net/dev", "r");
    if (!file) return -1;
    // A buffer of our own spares stdio the fstat it makes to size one; the
    // whole file of a router fits.
    static char buffer[8192];
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    char line[1024];
    // Two header lines.
    for (int header = 0; header < 2; header++)
        if (!fgets(line, 1023, file)) break;
    while (fgets(line, 1023, file)) {
        const char *p = line;
        while (TmIsBlank(*p)) p++;
        const char *start = p;
        while (*p && *p != ':' && !TmIsBlank(*p)) p++;
        size_t length = (size_t)(p - start);
        // An empty name, or one of 16 characters or more, is no name at all.
        if (*p == ':' && length > 0 && length < 16 && strncmp(start, name, length) == 0 && name[length] == '\0') {
            // The columns in order; the first that is no number ends the line.
            p++;
            unsigned long long *wide[] = {&stats->rxBytes, &stats->rxPackets, &stats->txBytes, &stats->txPackets};
            unsigned int *narrow[] = {&stats->rxErrs, &stats->rxDrop, &stats->rxFifo,   &stats->rxFrame,
                                      &stats->rxCompressed, &stats->rxMulticast, &stats->txErrs, &stats->txDrop,
                                      &stats->txFifo, &stats->txColls, &stats->txCarrier, &stats->txCompressed};
            // Two wide columns, six narrow ones, and again for the transmit side.
            for (int column = 0; column < 16; column++) {
                int half = column / 8, at = column % 8;
                bool ok = at < 2 ? TmScanNumber(&p, wide[half * 2 + at], nullptr)
                                 : TmScanNumber(&p, nullptr, narrow[half * 6 + at - 2]);
                if (!ok) break;
            }
            break;
        }
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
