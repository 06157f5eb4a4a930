// The traffic core: all of its state in one static TmCore, its start-up and
// its clocks. Handlers return 1 for success and 0 for failure; TmInit returns
// 0 for success and -1 otherwise.
#ifndef KVARD_TMCORE_H
#define KVARD_TMCORE_H

#include <cstdint>

#include "history/tmrecord.h"

#define TM_ENTITY_ID 8802
#define TM_CONTROL_PORT 22724
#define TM_DEBUG_ON_VALUE 5182
#define TM_WAKE_INTERVAL_US 3000000u
#define TM_WAKE_NOW_US 10000u

// WAN type codes, also the values of exportData.link.
#define TM_LINK_NONE 0
#define TM_LINK_DHCP 1
#define TM_LINK_PPP 2

struct TmConfig {
    uint32_t enable;
    uint64_t roundOff;
    uint32_t resetDay;
    uint32_t resetHour;
    uint32_t resetMinute;
    uint64_t limitVol;
    int32_t limitTime;
    uint64_t warnVol;
    int32_t warnTime;
    uint32_t disconnectLimit;
    uint32_t ledflashLimit;
    uint32_t limitType;   // 0 nothing, 1 rx, 2 tx+rx, 3 connection time
};

struct TmExportData {
    uint32_t enable;
    uint32_t link;
    uint32_t timeSync;
    uint32_t limitType;
    uint64_t limitVol;
    int32_t limitTime;
    uint64_t lastTx, lastRx;
    uint64_t otherTx, otherRx;
    uint64_t roundOffRx;
    uint64_t hDayTx, hDayRx;
    uint64_t monthlyTx, monthlyRx;
    uint64_t todayTx, todayRx;
    uint64_t yesterdayTx, yesterdayRx;
    uint64_t weekTx, weekRx;
    uint64_t lastMonthTailTx, lastMonthTailRx;
    int32_t lastTime;
    int32_t otherTime;
    int32_t hDayTime;
    int32_t monthlyTime;
    int32_t todayTime;
    int32_t yesterdayTime;
    int32_t weekTime;
    int32_t lastMonthTailTime;
    int32_t lastResetTime;
    int32_t nextResetTime;
    int32_t manualResetTime;
    uint32_t resetDay;
    TmRecord hDayList[TM_HDAY_LIST_SIZE];
};

// Body of TM_MSG_SIM_INPUT as kept by the core.
struct TmSimInput {
    uint32_t simNow;
    uint64_t simTx;
    uint64_t simRx;
    int32_t simMsg;
};

struct TmManualResetTime {
    int32_t time;
};

struct TmCore {
    char configPath[100];
    TmManualResetTime manualResetTime;
    uint64_t savedWanTx, savedWanRx;
    TmSimInput sim;
    uint32_t simActive;
    TmConfig config;
    int32_t nextWeek;
    int32_t nextDay;
    TmExportData exportData;
    uint32_t ledflashLimitOver;
    uint32_t disconnectLimitOver;
    uint32_t limitwarn;
    uint32_t limitOver;
    int32_t latestHDayFlashTime;
    uint32_t hDayFlashStart;
    uint32_t minFlashStart;
    uint32_t hDayFlashSize;
    uint32_t minFlashSize;
    uint32_t nextHDayFlashIndex;
    uint32_t nextMinFlashIndex;
    uint32_t mtdInit;
    uint32_t wakeNow;
    char timeZone[50];
    int32_t baseMin;
    int32_t sysUptime;
    int32_t nextHDay;
    int32_t nextMin;
    uint64_t lastMinRx;
    uint64_t lastMinTx;
    uint64_t initLinkUpRx;
    TmRecord minList[TM_MIN_LIST_SIZE];
};

extern TmCore tmCore;
// Non-zero turns on the debug printing of every part of the daemon.
extern volatile uint32_t debugFlag;

// Brings the core from all zero to running; 0 ready, -1 failed (process ends).
int TmInit(const char *path);
// Places both rings on the opened partition (minutes first, then half-days, in whole blocks).
void TmPlaceRings(void);
// Current time: simNow while simulated input is active, else time().
void TmNow(int32_t *out);
// Seconds since boot from /proc/uptime through the shell; 0 if that fails.
uint32_t TmUptime(void);
// Microseconds to the next timer wake: 10 ms once after wakeNow was set, else 3 s.
uint32_t TmNextWakeInterval(void);
// Sets debugFlag to 1 for TM_DEBUG_ON_VALUE, 0 for anything else; returns 1.
int TmSetDebug(uint32_t word);
// Stores simulated input from a datagram body (28 bytes read); returns 1.
int TmSetSimInput(const uint8_t *body);

#endif
