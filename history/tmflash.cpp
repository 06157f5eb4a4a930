// Pages of the partition: reading, writing and printing one, and writing into a
// ring. The byte format itself is in tmpage.cpp.
#include "history/tmflash.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "history/tmmtd.h"

// Byte offset of a page: the product is taken in 32 bits, as on the router.
static uint32_t TmPageOffset(uint32_t index)
{
    return index * mtdGeometry.writesize;
}

int32_t TmReadFlash(uint32_t index, TmRecord *record)
{
    if (mtdGeometry.erasesize == 0) return -1;
    uint8_t page[TM_FLASH_DATA_SIZE];
    if (TmMtdRead(TmPageOffset(index), page, sizeof page) != 0) return -1;
    return TmDecodePage(page, record, nullptr) == TM_PAGE_VALID ? 0 : -1;
}

int32_t TmWriteFlash(uint32_t index, const TmRecord *record)
{
    if (mtdGeometry.erasesize == 0 || !pageBuffer) return -1;
    uint32_t offset = TmPageOffset(index);
    unsigned long long at = offset;
    unsigned long long pageNumber = offset / mtdGeometry.writesize;
    uint8_t data[TM_FLASH_DATA_SIZE];
    TmEncodePage(record, data);
    // A block's first page is about to be erased with its block, so it is not looked at.
    if (offset % mtdGeometry.erasesize != 0) {
        if (TmMtdRead(offset, pageBuffer, TM_FLASH_DATA_SIZE) != 0) {
            printf("TmWriteFlash fail at %llu(%llu). Page can be read!\n", at, pageNumber);
            return -1;
        }
        if (pageBuffer[0] != 0xFF || pageBuffer[1] != 0xFF) {
            printf("TmWriteFlash fail at %llu(%llu). The page is not empty.\n", at, pageNumber);
            return -1;
        }
    }
    if (TmMtdWrite(offset, data, TM_FLASH_DATA_SIZE) != 0) {
        printf("TmWriteFlash fail at %llu(%llu). Write returns error!\n", at, pageNumber);
        return -1;
    }
    return 0;
}

uint32_t WriteToFlash(uint32_t start, uint32_t size, uint32_t index, const TmRecord *record)
{
    uint32_t c = index;
    for (uint32_t tries = 0; tries < size; tries++, c++) {
        uint32_t page = start + (c - start) % size;
        if (TmWriteFlash(page, record) == 0) return start + (c + 1 - start) % size;
        if (debugFlag) printf("WriteToFlash error index=%u\n", page);
    }
    // No page took the record: the cursor moves on by one all the same.
    return start + (c + 1 - start) % size;
}

int32_t TmFlashPrintRecord(uint32_t index, TmRecord *record)
{
    printf("Index: %3u | ", index);
    if (mtdGeometry.erasesize == 0) {
        puts(" MTD not initialized");
        return -1;
    }
    uint32_t offset = TmPageOffset(index);
    printf("of: %llu ", (unsigned long long)offset);
    uint8_t page[TM_FLASH_DATA_SIZE];
    if (TmMtdRead(offset, page, sizeof page) != 0) {
        puts("READ FAIL: Low Layer");
        return -1;
    }
    TmPageCheck check;
    int32_t state = TmDecodePage(page, record, &check);
    if (state == TM_PAGE_EMPTY || state == TM_PAGE_BAD_LENGTH) {
        puts("READ FAIL: Length Mismatch");
        return -1;
    }
    if (state == TM_PAGE_BAD_CRC) {
        printf("READ FAIL: CRC FAIL (f:%8.8lx c:%8.8lx)\n", (unsigned long)check.storedCrc,
               (unsigned long)check.computedCrc);
        return -1;
    }
    time_t ts = record->tStart, te = record->tEnd;
    struct tm s = {}, e = {};
    if (!localtime_r(&ts, &s)) s = {};
    if (!localtime_r(&te, &e)) e = {};
    printf("tx:%llu rx:%llu used:%lu tStart:%2.2d/%2.2d/%2.2d %2.2d:%2.2d:%2.2d d:%d tEnd:%2.2d/%2.2d/%2.2d "
           "%2.2d:%2.2d:%2.2d d:%d\n",
           (unsigned long long)record->tx, (unsigned long long)record->rx, (unsigned long)(uint32_t)record->tUsed,
           s.tm_year + 1900, s.tm_mon + 1, s.tm_mday, s.tm_hour, s.tm_min, s.tm_sec, s.tm_isdst, e.tm_year + 1900,
           e.tm_mon + 1, e.tm_mday, e.tm_hour, e.tm_min, e.tm_sec, e.tm_isdst);
    return 0;
}

int32_t TmFlashDumpPages(void)
{
    // The page size is never 0 here: TmFlashInit refuses such a geometry.
    if (mtdGeometry.writesize == 0) return 0;
    for (uint64_t offset = 0; offset < mtdGeometry.size; offset += mtdGeometry.writesize) {
        uint8_t head[10];
        if (TmMtdRead((int64_t)offset, head, sizeof head) != 0) continue;
        printf("Index %llu: ", (unsigned long long)(offset / mtdGeometry.writesize));
        for (int i = 0; i < 10; i++) printf("%2.2x ", head[i]);
        printf("\n");
    }
    return 0;
}
