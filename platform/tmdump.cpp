#include "platform/tmdump.h"

#include <cstdio>
#include <ctime>

#include "core/tmcore.h"
#include "history/tmflash.h"

void TmDumpConfig(void)
{
    const TmConfig &c = tmCore.config;
    puts("TM Config:");
    printf("Enable:%u\n", c.enable);
    printf("Round Off Value:%llu\n", (unsigned long long)c.roundOff);
    printf("Reset Day:%u\n", c.resetDay);
    printf("Reset Hour:%u\n", c.resetHour);
    printf("Reset Minute:%u\n", c.resetMinute);
    printf("Limit Type:%u(0:none 1:rx: 2:tx+rx 3: time)\n", c.limitType);
    printf("Limit Volumn(MBytes):%llu\n", (unsigned long long)(c.limitVol / 1000000));
    printf("Warn Volumn(MBytes):%llu\n", (unsigned long long)(c.warnVol / 1000000));
    // %lu of a 32-bit long: the signed quotient printed as its unsigned 32-bit reading.
    printf("Limit Time(hours):%lu\n", (unsigned long)(uint32_t)(c.limitTime / 3600));
    printf("Warn Time(hours):%lu\n", (unsigned long)(uint32_t)(c.warnTime / 3600));
    printf("Disconnect when over limit:%d\n", (int)c.disconnectLimit);
    printf("LED to flashing green/amber:%d\n", (int)c.ledflashLimit);
}

// "%lu(YYYY/MM/DD hh:mm:ss(dst)" of a time value, followed by tail.
static void TmPrintDated(const char *label, int32_t value, const char *tail)
{
    time_t t = value;
    struct tm local = {};
    if (!localtime_r(&t, &local)) local = {};
    printf("%s%lu(%2.2d/%2.2d/%2.2d %2.2d:%2.2d:%2.2d(%d)%s", label, (unsigned long)(uint32_t)value,
           local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           local.tm_isdst, tail);
}

static const char *TmLinkName(uint32_t link)
{
    if (link == TM_LINK_DHCP) return "DHCP/STATIC";
    if (link == TM_LINK_PPP) return "PPPOE/L2TP/PPTP";
    return "NONE";
}

void TmDumpAll(int withLists)
{
    const TmExportData &ed = tmCore.exportData;
    printf("Minute Flash Size: %u\n", tmCore.minFlashSize);
    printf("Minute Flash Start: %u\n", tmCore.minFlashStart);
    printf("Half Day Flash Size: %u\n", tmCore.hDayFlashSize);
    printf("Half Day Flash Start: %u\n", tmCore.hDayFlashStart);
    time_t latest = tmCore.latestHDayFlashTime;
    struct tm *local = localtime(&latest);
    printf("Latest Half Day time: %lu=%s", (unsigned long)(uint32_t)tmCore.latestHDayFlashTime,
           local ? asctime(local) : "\n");
    printf("Last Tx:%llu Rx:%llu Init Link Up Rx:%llu\n", (unsigned long long)ed.lastTx,
           (unsigned long long)ed.lastRx, (unsigned long long)tmCore.initLinkUpRx);
    printf("Last Minute tx:%llu rx:%llu\n", (unsigned long long)tmCore.lastMinTx,
           (unsigned long long)tmCore.lastMinRx);
    printf("WAN: %s\n", TmLinkName(ed.link));
    printf("Time Sync:%d Time Zone:%s\n", (int)ed.timeSync, tmCore.timeZone);
    TmPrintDated("Last Reset Time: ", ed.lastResetTime, " ");
    TmPrintDated("Next Reset Time: ", ed.nextResetTime, "\n");
    TmPrintDated("Base Minute Time: ", tmCore.baseMin, " ");
    TmPrintDated("Next Minute Time: ", tmCore.nextMin, "\n");
    TmPrintDated("Next Half Day Time: ", tmCore.nextHDay, "\n");
    printf("Next Flash Index min:%u hday:%u\n", tmCore.nextMinFlashIndex, tmCore.nextHDayFlashIndex);
    if (!withLists) return;
    puts("Tmp Minute List:");
    puts("Tmp Half Day List:");
    puts("Minute List:");
    for (uint32_t i = 0; i < TM_MIN_LIST_SIZE; i++) TmDumpRecord(i, &tmCore.minList[i]);
    puts("Half Day List:");
    for (uint32_t i = 0; i < TM_HDAY_LIST_SIZE; i++) TmDumpRecord(i, &ed.hDayList[i]);
}

void TmDumpRecord(uint32_t index, const TmRecord *record)
{
    printf("Index: %u ", index);
    TmPrintDated("Start: ", record->tStart, " ");
    TmPrintDated("End: ", record->tEnd, " ");
    printf("tx: %llu ", (unsigned long long)record->tx);
    printf("rx: %llu ", (unsigned long long)record->rx);
    printf("Time: %lu ", (unsigned long)(uint32_t)record->tUsed);
    printf("\n");
}

int TmDumpFlash(int kind)
{
    TmRecord record;
    if (kind == 0) {
        for (uint32_t page = tmCore.minFlashStart; page < tmCore.minFlashStart + tmCore.minFlashSize; page++)
            TmFlashPrintRecord(page, &record);
    } else if (kind == 1) {
        for (uint32_t page = tmCore.hDayFlashStart; page < tmCore.hDayFlashStart + tmCore.hDayFlashSize; page++)
            TmFlashPrintRecord(page, &record);
    } else if (kind == 2) {
        TmFlashDumpPages();
    } else {
        return 0;
    }
    return 1;
}
