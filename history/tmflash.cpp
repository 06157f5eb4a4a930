// The byte format of a stored partition. Pages are encoded and decoded byte by
// byte, never by copying a struct, so the format is the same on every machine.
#include "history/tmflash.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "history/tmmtd.h"

#define TM_CRC_POLY 0x04C11DB7u

static uint32_t crcTable[256];

// Most-significant-bit-first table; the reflection of the standard CRC is done
// on each input byte and on the result instead.
void TmCrcInit(void)
{
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t value = i << 24;
        for (int step = 0; step < 8; step++) value = (value & 0x80000000u) ? (value << 1) ^ TM_CRC_POLY : value << 1;
        crcTable[i] = value;
    }
}

static uint8_t TmReverse8(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; i++) r = (uint8_t)((r << 1) | ((b >> i) & 1));
    return r;
}

static uint32_t TmReverse32(uint32_t v)
{
    uint32_t r = 0;
    for (int i = 0; i < 32; i++) r = (r << 1) | ((v >> i) & 1);
    return r;
}

uint32_t TmCrc32(const uint8_t *data, uint32_t length)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (uint32_t i = 0; i < length; i++) crc = crcTable[(TmReverse8(data[i]) ^ (crc >> 24)) & 0xFF] ^ (crc << 8);
    return ~TmReverse32(crc);
}

static void TmPutLe(uint8_t *out, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; i++) out[i] = (uint8_t)(value >> (8 * i));
}

static uint64_t TmGetLe(const uint8_t *in, int bytes)
{
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; i--) value = (value << 8) | in[i];
    return value;
}

void TmRecordEncode(const TmRecord *r, uint8_t *out)
{
    TmPutLe(out + 0, (uint32_t)r->tStart, 4);
    TmPutLe(out + 4, (uint32_t)r->tEnd, 4);
    TmPutLe(out + 8, r->tx, 8);
    TmPutLe(out + 16, r->rx, 8);
    TmPutLe(out + 24, (uint32_t)r->tUsed, 4);
    TmPutLe(out + 28, r->filler, 4);
}

void TmRecordDecode(const uint8_t *in, TmRecord *r)
{
    r->tStart = (int32_t)(uint32_t)TmGetLe(in + 0, 4);
    r->tEnd = (int32_t)(uint32_t)TmGetLe(in + 4, 4);
    r->tx = TmGetLe(in + 8, 8);
    r->rx = TmGetLe(in + 16, 8);
    r->tUsed = (int32_t)(uint32_t)TmGetLe(in + 24, 4);
    r->filler = (uint32_t)TmGetLe(in + 28, 4);
}

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
    if (TmGetLe(page, 2) != TM_FLASH_RECORD_LEN) return -1;
    if (TmCrc32(page + 8, TM_FLASH_RECORD_LEN) != (uint32_t)TmGetLe(page + 4, 4)) return -1;
    TmRecordDecode(page + 8, record);
    return 0;
}

int32_t TmWriteFlash(uint32_t index, const TmRecord *record)
{
    if (mtdGeometry.erasesize == 0 || !pageBuffer) return -1;
    uint32_t offset = TmPageOffset(index);
    unsigned long long at = offset;
    unsigned long long pageNumber = offset / mtdGeometry.writesize;
    uint8_t data[TM_FLASH_DATA_SIZE];
    memset(data, 0, sizeof data);  // the two filler bytes of the header are written as 0
    TmPutLe(data, TM_FLASH_RECORD_LEN, 2);
    TmRecordEncode(record, data + 8);
    TmPutLe(data + 4, TmCrc32(data + 8, TM_FLASH_RECORD_LEN), 4);
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
    if (TmGetLe(page, 2) != TM_FLASH_RECORD_LEN) {
        puts("READ FAIL: Length Mismatch");
        return -1;
    }
    uint32_t stored = (uint32_t)TmGetLe(page + 4, 4);
    uint32_t computed = TmCrc32(page + 8, TM_FLASH_RECORD_LEN);
    if (stored != computed) {
        printf("READ FAIL: CRC FAIL (f:%8.8lx c:%8.8lx)\n", (unsigned long)stored, (unsigned long)computed);
        return -1;
    }
    TmRecordDecode(page + 8, record);
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
