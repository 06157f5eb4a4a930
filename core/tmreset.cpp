// The manual reset: the period starts again now. The history on flash would
// bring the period's traffic back at the next rebuild, so every record of the
// current period is rewritten with zero figures, block by block.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmflash.h"
#include "history/tmmtd.h"
#include "history/tmsidefile.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmwan.h"

// Work arrays of one ring, one element per page.
struct TmRingWork {
    TmRecord *records;
    uint32_t *valid;
    uint32_t *changed;
};

// Reads the ring and zeroes the figures of the records that began in the period.
static void TmMarkRing(const TmRingWork &w, uint32_t start, uint32_t size)
{
    memset(w.records, 0, sizeof(TmRecord) * size);
    memset(w.valid, 0, sizeof(uint32_t) * size);
    memset(w.changed, 0, sizeof(uint32_t) * size);
    for (uint32_t p = 0; p < size; p++) {
        TmRecord &r = w.records[p];
        if (TmReadFlash(start + p, &r) != 0) {
            memset(&r, 0, sizeof r);
            continue;
        }
        w.valid[p] = 1;
        // A record that began before the period keeps its figures.
        if (r.tStart >= tmCore.exportData.lastResetTime && (r.tx != 0 || r.rx != 0 || r.tUsed != 0)) {
            w.changed[p] = 1;
            r.tx = r.rx = 0;
            r.tUsed = 0;
        }
    }
}

// Rewrites each block that holds a changed record: every page before the first
// changed one (the block's first page erases the block), then the valid ones.
// Returns 1, or 0 when a page could not be written.
static int TmRewriteRing(const TmRingWork &w, uint32_t start, uint32_t size, const char *failure)
{
    int result = 1;
    uint32_t perBlock = TmFlashPagesPerBlock();
    for (uint32_t block = 0; block < size; block += perBlock) {
        uint32_t end = block + perBlock < size ? block + perBlock : size;
        uint32_t first = end;
        for (uint32_t p = block; p < end; p++) {
            if (w.changed[p]) {
                first = p;
                break;
            }
        }
        if (first == end) continue;
        for (uint32_t p = block; p < end; p++) {
            if (p >= first && !w.valid[p]) continue;
            if (TmWriteFlash(start + p, &w.records[p]) != 0) {
                result = 0;
                if (debugFlag) printf(failure, "TmHandleResetCounter2", (int)(start + p), (int)p);
            }
        }
    }
    return result;
}

int TmHandleResetCounter2(void)
{
    TmExportData &ed = tmCore.exportData;
    TmNow(&ed.manualResetTime);
    WriteManualResetTimeToFile();
    TmResetTrafficCounters();
    int result = 1;
    // Without a synchronised clock there is no period to go by: every stored
    // record would count as the current period's, so flash is left alone and
    // the history is rebuilt once the clock is set.
    if (tmCore.mtdInit && ed.timeSync) {
        uint32_t size = tmCore.minFlashSize;
        TmRingWork w;
        w.records = (TmRecord *)malloc(sizeof(TmRecord) * size);
        w.valid = (uint32_t *)malloc(sizeof(uint32_t) * size);
        w.changed = (uint32_t *)malloc(sizeof(uint32_t) * size);
        if (w.records && w.valid && w.changed) {
            TmMarkRing(w, tmCore.minFlashStart, tmCore.minFlashSize);
            if (!TmRewriteRing(w, tmCore.minFlashStart, tmCore.minFlashSize,
                               "%s: Write Min Flash fail, flash's index=%d, data's index=%d\n"))
                result = 0;
            TmMarkRing(w, tmCore.hDayFlashStart, tmCore.hDayFlashSize);
            if (!TmRewriteRing(w, tmCore.hDayFlashStart, tmCore.hDayFlashSize,
                               "%s: Write Half Day Flash fail, flash's index=%d, data's index=%d\n"))
                result = 0;
        } else {
            result = 0;
        }
        free(w.records);
        free(w.valid);
        free(w.changed);
        TmInitTrafficList(1);
    }
    bcm_dm_WriteStatistic();
    return result;
}
