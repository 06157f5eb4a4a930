// The byte format of one flash page: a 2-byte length, 2 filler bytes, a CRC-32
// of the record and the 32-byte record, all little-endian. Pure functions over
// byte buffers, shared by the daemon's ring code and the flash tools.
#ifndef KVARD_TMPAGE_H
#define KVARD_TMPAGE_H

#include <cstdint>

#include "history/tmrecord.h"

#define TM_FLASH_RECORD_LEN 32
#define TM_FLASH_DATA_SIZE 40   // length, filler, CRC and the record
#define TM_FLASH_EMPTY_LEN 0xFFFF  // the length field of an erased page

// What the first TM_FLASH_DATA_SIZE bytes of a page hold.
enum TmPageState {
    TM_PAGE_VALID = 0,       // length 32 and a matching CRC
    TM_PAGE_EMPTY = 1,       // length field 0xFFFF: erased since its last record
    TM_PAGE_BAD_LENGTH = 2,  // any other length
    TM_PAGE_BAD_CRC = 3,     // length 32, CRC does not match
};

// What the decoder looked at: the length always, the two CRCs once the length was 32.
struct TmPageCheck {
    uint16_t length;
    uint32_t storedCrc;
    uint32_t computedCrc;
};

// Fills the CRC table; needed once before TmCrc32 and TmDecodePage.
void TmCrcInit(void);
// CRC-32 (IEEE 802.3, reflected, check value 0xCBF43926).
uint32_t TmCrc32(const uint8_t *data, uint32_t length);

// The record's 32 bytes as stored, little-endian, and back.
void TmRecordEncode(const TmRecord *record, uint8_t *out);
void TmRecordDecode(const uint8_t *in, TmRecord *record);

// The TM_FLASH_DATA_SIZE bytes that carry the record at the start of its page.
void TmEncodePage(const TmRecord *record, uint8_t *page);
// A TmPageState; the record is copied out only when TM_PAGE_VALID. check may be null.
int32_t TmDecodePage(const uint8_t *page, TmRecord *record, TmPageCheck *check);

#endif
