// An in-memory NAND partition that stands in for the MTD device layer
// (history/tmmtd.h) in the fuzz targets. It keeps the chip's rules strictly:
// erase only whole blocks from their start, program only whole, aligned,
// erased pages and only bits from 1 to 0, and bad blocks refuse both. The
// daemon breaking one of them aborts the process, so the fuzzer reports it.
#ifndef KVARD_FUZZ_NAND_H
#define KVARD_FUZZ_NAND_H

#include <cstddef>
#include <cstdint>

#define FUZZ_NAND_PAGE 64u      // bytes; a record with its header takes 40
#define FUZZ_NAND_MAX_PAGES 2688u

// Erases the whole chip and sets its geometry (pages per block, blocks) and its bad blocks (bit n: block n, n < 64).
void FuzzNandReset(uint32_t pagesPerBlock, uint32_t blocks, uint64_t badBlocks);
// Puts bytes into a page as an earlier run of the daemon would have left them. A page
// whose length field reads empty (0xFFFF) stays fully erased: the daemon's writer
// never leaves such a page, and it takes that field alone as the mark of an empty page.
void FuzzNandPlace(uint32_t page, const uint8_t *data, size_t size);
// Pages in the partition.
uint32_t FuzzNandPages(void);
// Blocks erased and pages programmed since the last reset.
uint32_t FuzzNandErases(void);
uint32_t FuzzNandPrograms(void);

#endif
