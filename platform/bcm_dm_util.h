// The only place that touches the router's data model. Every operation takes
// and releases the data-model lock itself. Results: 0 success, non-zero failure,
// unless a line says otherwise.
#ifndef KVARD_BCM_DM_UTIL_H
#define KVARD_BCM_DM_UTIL_H

#include <cstdint>

#include "core/tmcore.h"

// 0 when the data-model lock is held, 1 after the 30 s timeout (logged, lock state dumped).
int bcm_dm_lock(void);
// Releases the lock; 0.
int bcm_dm_release(void);
// Leaves the NUL-terminated operation mode in buffer; "RT" when unreadable or empty.
void bcm_dm_GetOperationMode(char *buffer, int size);
// WAN type code: 0 none or unreadable, 1 DHCP/Static, 2 PPPoE/PPTP/L2TP.
uint32_t bcm_dm_GetWanType(void);
// WAN type code; for 1 and 2 the interface name goes into the zeroed 16-byte buffer.
uint32_t bcm_dm_GetWanIfName(char *buffer);
// 0 and *synced 0/1; 1 lock failed; the read's code when the time object is unreadable.
int bcm_dm_CheckTimeSync(uint32_t *synced);
// 0 and the zone name in buffer; non-zero (buffer untouched) on failure.
int bcm_dm_GetTimeZone(char *buffer, int size);
// Writes markStatus and the reached time; 1 when a lock or read failed, else the last set's result.
int bcm_dm_WriteMarkStatus(int status, int32_t time);
// Fills the zeroed config from the settings object; 0 done, 1 lock or read failed.
int bcm_dm_ReadConfig(const char *path, TmConfig *config);
// Publishes the figures in the statistics object; 0 stored, 1 lock or object unavailable.
int bcm_dm_WriteStatistic(void);

#endif
