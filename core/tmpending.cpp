// Minimal versions of the handlers whose real work is not built yet: the
// metering wake, the rebuild from flash, the limit processing, configuration
// update, manual reset, and statistics publication. Each keeps
// its caller's contract (result polarity, wake interval) and does nothing else.
#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "platform/bcm_dm_util.h"

uint32_t TmHandleTimeWake(int kind, int unused)
{
    (void)kind;
    (void)unused;
    return TmNextWakeInterval();
}

int TmInitTrafficList(int bInit)
{
    (void)bInit;
    return 1;
}

int TrafficMeter_ProcessLimitWarning(uint32_t limit, uint32_t warn, uint32_t disconnect, int32_t time,
                                     int32_t elapsed)
{
    (void)limit;
    (void)warn;
    (void)disconnect;
    (void)time;
    (void)elapsed;
    return 0;
}

int TmHandleConfigUpdate(void)
{
    return 0;
}

int TmHandleResetCounter2(void)
{
    return 0;
}

int bcm_dm_WriteStatistic(void)
{
    return 0;
}
