// Where the two rings lie on the partition and where each goes on after a
// restart. Pure rules over page counts and record times, shared by the daemon
// and the flash tools.
#ifndef KVARD_TMRINGS_H
#define KVARD_TMRINGS_H

#include <cstdint>

// Page ranges of the rings: each starts on a block boundary and is whole blocks.
struct TmRings {
    uint32_t minStart;
    uint32_t minSize;
    uint32_t hDayStart;
    uint32_t hDaySize;
};

// 1 when pages of writesize bytes in blocks of erasesize bytes can carry the
// rings (a page holds one record with its header, a block is whole pages), 0 otherwise.
int32_t TmGeometryUsable(uint32_t writesize, uint32_t erasesize);
// The page count rounded up to whole blocks of pagesPerBlock pages (not 0).
uint32_t TmAlignPages(uint32_t pages, uint32_t pagesPerBlock);
// Three minute lists and then two half-day lists, each rounded up to whole blocks.
void TmRingLayout(uint32_t pagesPerBlock, TmRings *rings);

// The search for a ring's write cursor, fed the valid records of the ring in
// page order. The half-day ring follows the greatest end time (the lowest page
// among equals, an end of 0 or below never); the minute ring follows the
// greatest end time from 0 up (the highest page among equals, 0 included).
struct TmCursorSearch {
    uint32_t start;
    uint32_t size;
    int32_t minuteRule;  // 1 for the minute ring
    int32_t best;        // end time of the record followed; 0 while none
    int64_t noted;       // its page, -1 while none
};

void TmCursorBegin(TmCursorSearch *search, uint32_t start, uint32_t size, int32_t minuteRule);
// Offers the valid record at page, whose end time is tEnd.
void TmCursorOffer(TmCursorSearch *search, uint32_t page, int32_t tEnd);
// The page after the followed record, wrapped to the ring, or the ring's start when none was followed.
uint32_t TmCursorNext(const TmCursorSearch *search);

#endif
