// The meter's small side files: the manual reset time in /data and the limit
// state in /tmp. Plain files, no header, no checksum.
#ifndef KVARD_TMSIDEFILE_H
#define KVARD_TMSIDEFILE_H

#include <cstdint>

#define TM_RESTART_TIME_FILE "/data/tmrestarttime.data"
#define TM_WARN_FILE "/tmp/tmwarn.data"
#define TM_LIMIT_FILE "/tmp/tmlimit.data"

// Stores exportData.manualResetTime as 4 bytes; 0, or -1 when the file can't be opened.
int WriteManualResetTimeToFile(void);
// Reads the 4 bytes into manualResetTime.time ("Read File fail." when missing or short); 1 read, 0 not.
int GetManualResetTimeFromFile(void);
// The three limit states of /tmp/tmwarn.data; 1 when the file opened (outputs kept if short), 0 (all 0) if not.
int TmReadWarnFile(int32_t *disconnect, int32_t *limit, int32_t *warn);
// Writes /tmp/tmwarn.data: '0' plus disconnect, limit and warn, no line end.
void TmWriteWarnFile(int32_t disconnect, int32_t limit, int32_t warn);
// Writes /tmp/tmlimit.data: the set flags "l", "w", "d", then time and elapsed; 0, or 1 when it can't be opened.
int TmWriteLimitFile(uint32_t limit, uint32_t warn, uint32_t disconnect, int32_t time, int32_t elapsed);

#endif
