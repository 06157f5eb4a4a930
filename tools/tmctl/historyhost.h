// What the daemon's rebuild and statistics code meets when "tmctl history" runs
// it: a partition held in memory, a clock that stands still at the moment asked
// for, a manual reset time read from a file the user names, and a store that
// is read but never published into. Writes the rebuild makes (the fold of
// unfinished half-days) stay in memory; nothing reaches the device or the router.
#ifndef KVARD_TMCTL_HISTORYHOST_H
#define KVARD_TMCTL_HISTORYHOST_H

#include <cstdint>
#include <string>

#include "tools/tmctl/flashscan.h"

namespace tmctl {

// Copies the scanned partition into memory, with the bad blocks and the
// unreadable pages the scan found. 0, or kExitFailed with *error.
int loadPartition(const FlashScan &scan, std::string *error);
// The moment time() answers for the daemon's code.
void setHistoryClock(int32_t t);
// Where the daemon's manual reset time is read from; empty: nowhere (no manual reset).
void setManualResetFile(const std::string &path);

}  // namespace tmctl

#endif
