#include "core/tmlimit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/tmaction.h"
#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmsidefile.h"
#include "history/tmwrap.h"
#include "platform/bcm_dm_util.h"

TmLimitState TmEvaluateLimit(uint64_t tx, uint64_t rx, int32_t now)
{
    const TmConfig &c = tmCore.config;
    const TmExportData &ed = tmCore.exportData;
    TmLimitState s = {0, 0, 0, 0};
    if (!c.enable || !c.limitType || !ed.timeSync) return s;
    int over = 0;
    if (c.limitType == 1 || c.limitType == 2) {
        uint64_t volume;
        if (c.limitType == 1) {
            volume = rx + ed.monthlyRx + ed.otherRx + ed.roundOffRx - ed.lastRx;
            if (debugFlag) {
                printf("exportData.monthlyRx:%llu exportData.lastRx:%llu exportData.otherRx:%llu "
                       "exportData.roundOffRx:%llu config.warnVol:%llu\n",
                       (unsigned long long)ed.monthlyRx, (unsigned long long)ed.lastRx,
                       (unsigned long long)ed.otherRx, (unsigned long long)ed.roundOffRx,
                       (unsigned long long)c.warnVol);
                printf("%llu > %llu , %llu\n", (unsigned long long)volume, (unsigned long long)c.warnVol,
                       (unsigned long long)c.limitVol);
            }
        } else {
            // The PPP supplement is not in the both-directions sum.
            volume = tx + rx + ed.monthlyRx + ed.otherRx + ed.monthlyTx + ed.otherTx - ed.lastRx - ed.lastTx;
            if (debugFlag) printf("%llu > %llu \n", (unsigned long long)volume, (unsigned long long)c.warnVol);
        }
        s.warn = c.warnVol != 0 && volume > c.warnVol;
        over = volume > c.limitVol;
    } else if (c.limitType == 3) {
        if (bcm_dm_GetWanType() != TM_LINK_PPP || now <= ed.lastTime) return s;
        int32_t used = TmWrapAdd(TmWrapAdd(TmWrapSub(now, ed.lastTime), ed.monthlyTime), ed.otherTime);
        if (debugFlag)
            printf("exportData.monthlyTime:%lu exportData.lastTime:%lu exportData.otherTime:%lu "
                   "config.warnTime:%lu config.limitTime:%lu t:%lu\n",
                   (unsigned long)(uint32_t)ed.monthlyTime, (unsigned long)(uint32_t)ed.lastTime,
                   (unsigned long)(uint32_t)ed.otherTime, (unsigned long)(uint32_t)c.warnTime,
                   (unsigned long)(uint32_t)c.limitTime, (unsigned long)(uint32_t)used);
        s.warn = c.warnTime != 0 && used > c.warnTime;
        over = used > c.limitTime;
    } else {
        return s;
    }
    if (over) {
        s.limit = 1;
        s.disconnect = c.disconnectLimit != 0;
        s.ledflash = c.ledflashLimit != 0;
    }
    return s;
}

void TmReactToLimit(const TmLimitState &s)
{
    if (debugFlag)
        printf("limit:%u limitOver:%u warn:%u limitwarn:%u disconnect:%u disconnectLimitOver:%u ledflash:%u "
               "ledflashLimitOver:%u\n",
               s.limit, tmCore.limitOver, s.warn, tmCore.limitwarn, s.disconnect, tmCore.disconnectLimitOver,
               s.ledflash, tmCore.ledflashLimitOver);
    if (s.limit == tmCore.limitOver && s.warn == tmCore.limitwarn && s.disconnect == tmCore.disconnectLimitOver &&
        s.ledflash == tmCore.ledflashLimitOver)
        return;
    tmCore.limitOver = s.limit;
    tmCore.limitwarn = s.warn;
    if (s.disconnect != tmCore.disconnectLimitOver) {
        if (s.disconnect) TmShutdownWan();
        else TmRestoreWan();
        tmCore.disconnectLimitOver = s.disconnect;
    }
    if (s.ledflash != tmCore.ledflashLimitOver) {
        if (s.ledflash) TmStartLedFlash();
        else TmStopLedFlash();
        tmCore.ledflashLimitOver = s.ledflash;
    }
    // The notice carries the system's own time, not the simulated clock.
    int32_t t = (int32_t)time(nullptr);
    TrafficMeter_ProcessLimitWarning(s.limit, s.warn, s.disconnect, t, TmWrapSub(t, tmCore.exportData.lastResetTime));
    if (debugFlag) printf("KVARD: Update Limit Warning (l:%d w:%d d:%d\n", (int)s.limit, (int)s.warn, (int)s.disconnect);
}

static void TmSyslog(const char *format, unsigned long long value)
{
    char line[512];
    snprintf(line, sizeof line, format, value);
    system(line);
}

static void TmSyslogLine(int isLimit)
{
    const TmConfig &c = tmCore.config;
    if (c.limitType == 1 || c.limitType == 2) {
        if (isLimit)
            TmSyslog("logger -p local5.warn -t \"t Router operation\" [RouterOp][Traffic Meter] The monthly limit "
                     "%llu MBytes has been reached,",
                     (unsigned long long)(c.limitVol / 1000000));
        else
            TmSyslog("logger -p local5.warn -t \"t Router operation\" [RouterOp][Traffic Meter]The counter is %llu "
                     "MBytes before the monthly limit is reached,",
                     (unsigned long long)((c.limitVol - c.warnVol) / 1000000));
    } else if (c.limitType == 3) {
        char line[512];
        // "%lu" of a signed 32-bit quotient: its unsigned 32-bit reading.
        if (isLimit)
            snprintf(line, sizeof line,
                     "logger -p local5.warn -t \"t Router operation\" [RouterOp][Traffic Meter] The monthly limit %lu "
                     "hours has been reached,",
                     (unsigned long)(uint32_t)(c.limitTime / 3600));
        else
            snprintf(line, sizeof line,
                     "logger -p local5.warn -t \"t Router operation\" [RouterOp][Traffic Meter]The counter is %lu "
                     "hours before the monthly limit is reached,",
                     (unsigned long)(uint32_t)(TmWrapSub(c.limitTime, c.warnTime) / 3600));
        system(line);
    }
}

int TrafficMeter_ProcessLimitWarning(uint32_t limit, uint32_t warn, uint32_t disconnect, int32_t time,
                                     int32_t elapsed)
{
    int32_t fileDisconnect = 0, fileLimit = 0, fileWarn = 0;
    TmReadWarnFile(&fileDisconnect, &fileLimit, &fileWarn);
    // The disconnect state compares by value, the other two as set or clear;
    // only what differs takes the argument, and all three are written back.
    int changed = 0;
    if (fileDisconnect != (int32_t)disconnect) fileDisconnect = (int32_t)disconnect, changed = 1;
    if ((fileLimit != 0) != (limit != 0)) fileLimit = (int32_t)limit, changed = 1;
    if ((fileWarn != 0) != (warn != 0)) fileWarn = (int32_t)warn, changed = 1;
    if (changed) TmWriteWarnFile(fileDisconnect, fileLimit, fileWarn);
    if (!limit && !warn && !disconnect) {
        char command[64];
        snprintf(command, sizeof command, "rm %s >/dev/null 2>/dev/null", TM_LIMIT_FILE);
        system(command);
        bcm_dm_WriteMarkStatus(0, time);
        return 0;
    }
    if (warn && !limit && !disconnect) {
        bcm_dm_WriteMarkStatus(1, time);
        TmSyslogLine(0);
    } else if (limit && !disconnect) {
        bcm_dm_WriteMarkStatus(3, time);
        TmSyslogLine(1);
    } else if (limit && disconnect) {
        bcm_dm_WriteMarkStatus(4, time);
        TmSyslogLine(1);
    }
    return TmWriteLimitFile(limit, warn, disconnect, time, elapsed);
}
