// Page record format and the flash rings: one 32-byte record per page, behind
// a 2-byte length, 2 filler bytes and a CRC-32 of the record, all little-endian.
// Ring operations speak page indices; 0 success, -1 failure.
#ifndef KVARD_TMFLASH_H
#define KVARD_TMFLASH_H

#include <cstdint>

#include "history/tmpage.h"
#include "history/tmrecord.h"

// 0 and the record when the page holds a valid one; -1 for anything else.
int32_t TmReadFlash(uint32_t index, TmRecord *record);
// 0 when the record was programmed into the (empty, or block-first) page; -1 otherwise.
int32_t TmWriteFlash(uint32_t index, const TmRecord *record);
// Writes into the ring from index on, walking past failed pages; returns the next index to write.
uint32_t WriteToFlash(uint32_t start, uint32_t size, uint32_t index, const TmRecord *record);
// TmReadFlash that prints what it found on one line.
int32_t TmFlashPrintRecord(uint32_t index, TmRecord *record);
// The first 10 bytes of every readable page of the partition; 0.
int32_t TmFlashDumpPages(void);

#endif
