// The 32-byte history record, the same in the lists in memory and on flash.
#ifndef KVARD_TMRECORD_H
#define KVARD_TMRECORD_H

#include <cstdint>

struct TmRecord {
    int32_t tStart;   // start of the period, seconds since the epoch
    int32_t tEnd;     // end of the period, exclusive
    uint64_t tx;      // bytes sent
    uint64_t rx;      // bytes received
    int32_t tUsed;    // seconds of connection
    uint32_t filler;  // no meaning, but covered by the page CRC
};
static_assert(sizeof(TmRecord) == 32, "a record is 32 bytes");

#define TM_MIN_LIST_SIZE 720
#define TM_HDAY_LIST_SIZE 124

#endif
