// The stored format of a page. Pages are encoded and decoded byte by byte,
// never by copying a struct, so the format is the same on every machine.
#include "history/tmpage.h"

#include <cstring>

#define TM_CRC_POLY 0x04C11DB7u

static uint32_t crcTable[256];
static uint8_t reversedByte[256];   // each byte with its bits in reverse order

static uint8_t TmReverse8(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; i++) r = (uint8_t)((r << 1) | ((b >> i) & 1));
    return r;
}

// Most-significant-bit-first table; the reflection of the standard CRC is done
// on each input byte and on the result instead.
void TmCrcInit(void)
{
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t value = i << 24;
        for (int step = 0; step < 8; step++) value = (value & 0x80000000u) ? (value << 1) ^ TM_CRC_POLY : value << 1;
        crcTable[i] = value;
        reversedByte[i] = TmReverse8((uint8_t)i);
    }
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
    for (uint32_t i = 0; i < length; i++) crc = crcTable[(reversedByte[data[i]] ^ (crc >> 24)) & 0xFF] ^ (crc << 8);
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

void TmEncodePage(const TmRecord *record, uint8_t *page)
{
    memset(page, 0, TM_FLASH_DATA_SIZE);  // the two filler bytes of the header are written as 0
    TmPutLe(page, TM_FLASH_RECORD_LEN, 2);
    TmRecordEncode(record, page + 8);
    TmPutLe(page + 4, TmCrc32(page + 8, TM_FLASH_RECORD_LEN), 4);
}

int32_t TmDecodePage(const uint8_t *page, TmRecord *record, TmPageCheck *check)
{
    TmPageCheck seen = {(uint16_t)TmGetLe(page, 2), 0, 0};
    int32_t state = TM_PAGE_VALID;
    if (seen.length == TM_FLASH_EMPTY_LEN) {
        state = TM_PAGE_EMPTY;
    } else if (seen.length != TM_FLASH_RECORD_LEN) {
        state = TM_PAGE_BAD_LENGTH;
    } else {
        seen.storedCrc = (uint32_t)TmGetLe(page + 4, 4);
        seen.computedCrc = TmCrc32(page + 8, TM_FLASH_RECORD_LEN);
        if (seen.storedCrc != seen.computedCrc) state = TM_PAGE_BAD_CRC;
    }
    if (state == TM_PAGE_VALID) TmRecordDecode(page + 8, record);
    if (check) *check = seen;
    return state;
}
