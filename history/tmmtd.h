// Access to the raw flash partition named "tm" through the Linux MTD device.
// Low layer (byte offsets): 0 done, -1 refused or failed, 1 bad block or short
// transfer. Page-index layer: geometry, the page buffer, ring arithmetic.
#ifndef KVARD_TMMTD_H
#define KVARD_TMMTD_H

#include <cstdint>

#include <mtd/mtd-user.h>

static_assert(sizeof(struct mtd_info_user) == 32, "MEMGETINFO answers 32 bytes");

// Low layer.
// Finds the "tm" partition through /proc/mtd and reads its geometry; 0 found, -1 not.
int32_t TmMtdFind(struct mtd_info_user *out);
// 0 good block, positive bad, -1 no geometry, no device or request failed.
int32_t TmMtdIsBadBlock(int64_t offset);
// Erases the block that starts at offset; 0 erased.
int32_t TmMtdEraseBlock(int64_t offset);
// Reads length bytes at offset; 0 when all came back.
int32_t TmMtdRead(int64_t offset, uint8_t *buffer, uint32_t length);
// Programs one page (data then 0xFF), erasing first at a block start; 0 when written and read back.
int32_t TmMtdWrite(int64_t offset, const uint8_t *data, uint32_t length);

// Page-index layer.
// Finds the partition, allocates the page buffer; 0 ready, -1 otherwise (also for unusable geometry).
int32_t TmFlashInit(void);
// Forgets the geometry and frees the page buffer; 0.
int32_t TmFlashCleanup(void);
// Pages in an erase block.
uint32_t TmFlashPagesPerBlock(void);
// The page count rounded up to whole erase blocks.
uint32_t TmFlashAlignToBlock(uint32_t pages);
// Prints the partition's geometry on one line.
void TmFlashPrintGeometry(void);

// Geometry of the page-index layer (zero when not initialised) and its page buffer.
extern struct mtd_info_user mtdGeometry;
extern uint8_t *pageBuffer;

#endif
