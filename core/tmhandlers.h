// Entry points of the core's handlers, called by the event loop, the control
// datagrams and each other. Core handlers return 1 for success, 0 for failure.
#ifndef KVARD_TMHANDLERS_H
#define KVARD_TMHANDLERS_H

#include <cstdint>

// Timer wake; kind 1 from a timeout or TM_MSG_TIME_WAKE, 2 from TM_MSG_SIM_WAKE.
// Returns TmNextWakeInterval() on every exit.
uint32_t TmHandleTimeWake(int kind, int unused);
// Accounts a change of link type; 1 always.
int TmLinkUpdate(uint64_t tx, uint64_t rx, int32_t now);
// Reads the counters and accounts the link; 0 when the counters can't be read.
int TmHandleLinkUpdate(void);
// Takes the first clock synchronisation and zone changes; 1 always.
int TmHandleTimeUpdate(void);
// Puts new settings in force; 1 done, 0 refused or failed.
int TmHandleConfigUpdate(void);
// Manual reset of the period's counters; 1 done, 0 failed.
int TmHandleResetCounter2(void);
// Rebuilds lists, cursors and totals from flash.
int TmInitTrafficList(int bInit);
// Side files, status and syslog of the limit state; 0, or 1 if the limit file can't be written.
int TrafficMeter_ProcessLimitWarning(uint32_t limit, uint32_t warn, uint32_t disconnect, int32_t time,
                                     int32_t elapsed);

#endif
