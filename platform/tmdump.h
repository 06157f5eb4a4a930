// Diagnostic printers: configuration, state, lists and flash contents on stdout.
#ifndef KVARD_TMDUMP_H
#define KVARD_TMDUMP_H

#include <cstdint>

#include "history/tmrecord.h"

// The settings in force, one per line.
void TmDumpConfig(void);
// The core's state; with withLists non-zero also both lists.
void TmDumpAll(int withLists);
// One list entry on one line.
void TmDumpRecord(uint32_t index, const TmRecord *record);
// 0 minute ring, 1 half-day ring, 2 first bytes of every page; 1, or 0 for another kind.
int TmDumpFlash(int kind);

#endif
