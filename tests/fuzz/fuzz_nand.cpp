#include "tests/fuzz/fuzz_nand.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "history/tmmtd.h"

namespace {

uint8_t chip[FUZZ_NAND_MAX_PAGES * FUZZ_NAND_PAGE];
bool programmed[FUZZ_NAND_MAX_PAGES];
struct mtd_info_user info;
uint64_t bad;
uint32_t erases, programs;

[[noreturn]] void Broken(const char *rule, int64_t offset)
{
    fprintf(stderr, "fuzz NAND: the daemon broke a NAND rule: %s at offset %lld\n", rule, (long long)offset);
    abort();
}

bool InRange(int64_t offset, uint32_t length)
{
    return offset >= 0 && offset + (int64_t)length <= (int64_t)info.size;
}

}  // namespace

void FuzzNandReset(uint32_t pagesPerBlock, uint32_t blocks, uint64_t badBlocks)
{
    if (pagesPerBlock * blocks > FUZZ_NAND_MAX_PAGES) abort();
    memset(chip, 0xFF, sizeof chip);
    memset(programmed, 0, sizeof programmed);
    memset(&info, 0, sizeof info);
    info.type = MTD_NANDFLASH;
    info.flags = MTD_CAP_NANDFLASH;
    info.writesize = FUZZ_NAND_PAGE;
    info.erasesize = FUZZ_NAND_PAGE * pagesPerBlock;
    info.size = info.erasesize * blocks;
    bad = badBlocks;
    erases = programs = 0;
}

void FuzzNandPlace(uint32_t page, const uint8_t *data, size_t size)
{
    if (page >= FuzzNandPages() || size < 2 || (data[0] == 0xFF && data[1] == 0xFF)) return;
    if (size > FUZZ_NAND_PAGE) size = FUZZ_NAND_PAGE;
    memcpy(chip + page * FUZZ_NAND_PAGE, data, size);
    programmed[page] = true;
}

uint32_t FuzzNandPages(void) { return info.size / FUZZ_NAND_PAGE; }
uint32_t FuzzNandErases(void) { return erases; }
uint32_t FuzzNandPrograms(void) { return programs; }

// The device layer's contract, as history/tmmtd.h states it.

int32_t TmMtdFind(struct mtd_info_user *out)
{
    memcpy(out, &info, sizeof info);
    return 0;
}

int32_t TmMtdIsBadBlock(int64_t offset)
{
    if (info.erasesize == 0 || offset < 0 || offset >= (int64_t)info.size) return -1;
    uint64_t block = (uint64_t)offset / info.erasesize;
    return block < 64 && (bad >> block & 1) ? 1 : 0;
}

int32_t TmMtdEraseBlock(int64_t offset)
{
    int32_t state = TmMtdIsBadBlock(offset);
    if (state != 0) return state;
    if (offset % info.erasesize != 0) Broken("erase not at a block start", offset);
    memset(chip + offset, 0xFF, info.erasesize);
    memset(programmed + offset / FUZZ_NAND_PAGE, 0, info.erasesize / FUZZ_NAND_PAGE);
    erases++;
    return 0;
}

int32_t TmMtdRead(int64_t offset, uint8_t *buffer, uint32_t length)
{
    if (info.erasesize == 0 || !InRange(offset, length) || TmMtdIsBadBlock(offset) != 0) return -1;
    memcpy(buffer, chip + offset, length);
    return length > 0 ? 0 : 1;
}

int32_t TmMtdWrite(int64_t offset, const uint8_t *data, uint32_t length)
{
    if (info.erasesize == 0 || !InRange(offset, length) || length > info.writesize) return -1;
    if (TmMtdIsBadBlock(offset) != 0) return -1;
    if (offset % info.writesize != 0) Broken("program not at a page start", offset);
    if (offset % info.erasesize == 0) {
        int32_t erased = TmMtdEraseBlock(offset);
        if (erased != 0) return erased;
    }
    uint8_t page[FUZZ_NAND_PAGE];
    memset(page, 0xFF, sizeof page);
    memcpy(page, data, length);
    uint8_t *cells = chip + offset;
    if (programmed[offset / FUZZ_NAND_PAGE]) Broken("second program of a page without an erase", offset);
    for (uint32_t i = 0; i < FUZZ_NAND_PAGE; i++)
        if ((cells[i] & page[i]) != page[i]) Broken("a bit programmed from 0 to 1", offset + i);
    memcpy(cells, page, sizeof page);
    programmed[offset / FUZZ_NAND_PAGE] = true;
    programs++;
    return 0;
}
