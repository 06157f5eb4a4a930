// Link and clock events: accounting at a change of link type, the minimum
// charge of a short PPP session, the first clock synchronisation and zone changes.
#include <cstdio>
#include <cstring>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmwrap.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmwan.h"

static const char *TmLinkChangeName(uint32_t link)
{
    if (link == TM_LINK_DHCP) return "DHCP/STATIC";
    if (link == TM_LINK_PPP) return "PPPOE/L2TP/PPTP";
    return "NONE";
}

// Link lost: what the counters hold for the running minute waits in the
// "other" fields for the next minute record.
static void TmBankRunningMinute(uint32_t oldLink, uint64_t tx, uint64_t rx, int32_t now)
{
    TmExportData &ed = tmCore.exportData;
    if (ed.lastTx < tx) {
        ed.otherTx += tx - ed.lastTx;
        ed.lastTx = tx;
    }
    if (ed.lastRx < rx) {
        ed.otherRx += rx - ed.lastRx;
        ed.lastRx = rx;
    }
    if (ed.lastTime < now) {
        ed.otherTime = TmWrapAdd(ed.otherTime, TmWrapSub(now, ed.lastTime));
        ed.lastTime = now;
    }
    // A PPP session that received less than roundOff counts as having received exactly that.
    if (oldLink == TM_LINK_PPP && tmCore.config.roundOff != 0 && tmCore.initLinkUpRx < rx) {
        uint64_t sessionRx = rx - tmCore.initLinkUpRx;
        if (sessionRx < tmCore.config.roundOff) ed.roundOffRx = tmCore.config.roundOff - sessionRx;
    }
}

int TmLinkUpdate(uint64_t tx, uint64_t rx, int32_t now)
{
    TmExportData &ed = tmCore.exportData;
    uint32_t link = bcm_dm_GetWanType();
    if (link == ed.link) return 1;
    if (debugFlag) {
        puts("TmLinkUpdate");
        printf("Link changed from %u to %u (0:non1 1:dhcp/static 2:ppp)\n", ed.link, link);
        printf("Link Change: %s\n", TmLinkChangeName(link));
    }
    if (link == TM_LINK_PPP) tmCore.initLinkUpRx = rx;
    if (ed.link == TM_LINK_NONE) {
        // What the counters did while there was no link is not counted.
        ed.lastTx = tx;
        ed.lastRx = rx;
        ed.lastTime = now;
    } else if (link == TM_LINK_NONE) {
        TmBankRunningMinute(ed.link, tx, rx, now);
    }
    ed.link = link;
    bcm_dm_WriteStatistic();
    return 1;
}

int TmHandleLinkUpdate(void)
{
    int32_t now = 0;
    TmNow(&now);
    uint64_t tx = 0, rx = 0;
    if (GetWanStatistics(&tx, &rx) == 0) {
        puts("Fail to get tx/rx counters");
        return 0;
    }
    if (debugFlag)
        printf("TmHandleLinkUpdate tx:%llu rx:%llu\n", (unsigned long long)tx, (unsigned long long)rx);
    return TmLinkUpdate(tx, rx, now);
}

int TmHandleTimeUpdate(void)
{
    TmExportData &ed = tmCore.exportData;
    char zone[50];
    memset(zone, 0, sizeof zone);
    int zoneRead = bcm_dm_GetTimeZone(zone, sizeof zone) == 0;
    uint32_t synced = 1;
    bcm_dm_CheckTimeSync(&synced);
    if (synced != 0 && ed.timeSync == 0) {
        ed.timeSync = 1;
        // Connection time restarts on the calendar's scale.
        TmNow(&ed.lastTime);
        if (debugFlag) puts("Time Sync");
    }
    if (ed.timeSync == 0) return 1;
    if (!zoneRead) return 1;
    if (strcmp(zone, tmCore.timeZone) == 0) return 1;
    strcpy(tmCore.timeZone, zone);
    if (debugFlag) printf("Time Zone Change: Time Zone:%s\n", zone);
    TmInitTrafficList(1);
    return 1;
}
