// Ring layout and the cursor rule. The layout depends on the block and page
// sizes alone: a partition shorter than the rings still gets them, and the
// pages past its end read as holding no record.
#include "history/tmrings.h"

#include "history/tmpage.h"
#include "history/tmrecord.h"

int32_t TmGeometryUsable(uint32_t writesize, uint32_t erasesize)
{
    if (writesize < TM_FLASH_DATA_SIZE || erasesize < writesize || erasesize % writesize != 0) return 0;
    return 1;
}

uint32_t TmAlignPages(uint32_t pages, uint32_t pagesPerBlock)
{
    uint32_t aligned = pagesPerBlock * (pages / pagesPerBlock);
    if (pages % pagesPerBlock != 0) aligned += pagesPerBlock;
    return aligned;
}

void TmRingLayout(uint32_t pagesPerBlock, TmRings *rings)
{
    // Room for three minute lists and two half-day lists, each in whole blocks.
    rings->minSize = 3 * TmAlignPages(TM_MIN_LIST_SIZE, pagesPerBlock);
    rings->hDaySize = 2 * TmAlignPages(TM_HDAY_LIST_SIZE, pagesPerBlock);
    rings->minStart = 0;
    rings->hDayStart = rings->minSize;
}

void TmCursorBegin(TmCursorSearch *search, uint32_t start, uint32_t size, int32_t minuteRule)
{
    search->start = start;
    search->size = size;
    search->minuteRule = minuteRule;
    search->best = 0;
    search->noted = -1;
}

void TmCursorOffer(TmCursorSearch *search, uint32_t page, int32_t tEnd)
{
    if (search->minuteRule ? tEnd >= search->best : tEnd > search->best) {
        search->best = tEnd;
        search->noted = page;
    }
}

uint32_t TmCursorNext(const TmCursorSearch *search)
{
    if (search->noted < 0) return search->start;
    return search->start + (uint32_t)(search->noted - search->start + 1) % search->size;
}
