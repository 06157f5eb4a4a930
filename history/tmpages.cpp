// The page-index layer over the MTD device layer: the partition's geometry,
// the page buffer and the block arithmetic of the rings. It reaches the device
// only through TmMtdFind, so a build can put another device layer beneath it.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "history/tmflash.h"
#include "history/tmmtd.h"
#include "history/tmrings.h"

struct mtd_info_user mtdGeometry;
uint8_t *pageBuffer;

int32_t TmFlashInit(void)
{
    TmCrcInit();
    memset(&mtdGeometry, 0, sizeof mtdGeometry);
    if (TmMtdFind(&mtdGeometry) != 0) return -1;
    // A geometry the rings can't be laid on is refused here, so that the
    // daemon never runs on with it: no page or block size (the device did not
    // answer), a block that is not a whole number of pages, or pages too small
    // for one record with its header.
    if (!TmGeometryUsable(mtdGeometry.writesize, mtdGeometry.erasesize)) {
        memset(&mtdGeometry, 0, sizeof mtdGeometry);
        return -1;
    }
    pageBuffer = (uint8_t *)malloc(mtdGeometry.writesize);
    return pageBuffer ? 0 : -1;
}

int32_t TmFlashCleanup(void)
{
    memset(&mtdGeometry, 0, sizeof mtdGeometry);
    if (pageBuffer) {
        free(pageBuffer);
        pageBuffer = nullptr;
    }
    return 0;
}

uint32_t TmFlashPagesPerBlock(void)
{
    return mtdGeometry.erasesize / mtdGeometry.writesize;
}

uint32_t TmFlashAlignToBlock(uint32_t pages)
{
    return TmAlignPages(pages, TmFlashPagesPerBlock());
}

void TmFlashPrintGeometry(void)
{
    printf("MTD Size: %u bytes(%u pages) Block Size:%u bytes(%u pages) Page Size: %u bytes\n", mtdGeometry.size,
           mtdGeometry.size / mtdGeometry.writesize, mtdGeometry.erasesize,
           mtdGeometry.erasesize / mtdGeometry.writesize, mtdGeometry.writesize);
}
