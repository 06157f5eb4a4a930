/* The flash itself: a NAND chip held in an image file, with the programmed
 * state of every page in a sidecar file beside it (IMAGE.pages), so that the
 * state outlives the process. Enforces the chip's rules, injects the
 * configured faults and logs every erase and program. */
#ifndef KVARD_MTDSIM_NAND_H
#define KVARD_MTDSIM_NAND_H

#include "mtdsim_config.h"

#include <mtd/mtd-user.h>
#include <stdint.h>
#include <sys/types.h>

/* One opened device: the configuration read at its open (never changed nor
 * freed: a later configuration is another one) and the chip size. */
typedef struct {
    const MtdsimConfig *cfg;
    uint64_t generation;   /* of cfg, as MtdsimConfigCurrent counts them */
    uint64_t size;
} MtdsimDevice;

/* Makes the image of cfg ready: creates it erased, grows it with erased
 * blocks to MTDSIM_SIZE, checks its size and the bad-block list, and brings
 * the sidecar in line. 0 ready, dev filled; -1 with errno set, after one line
 * on stderr. */
int MtdsimNandPrepare(const MtdsimConfig *cfg, MtdsimDevice *dev);

/* Opens the image of cfg for a descriptor of the device (O_RDWR and the
 * open flags in keep), after MtdsimNandPrepare when the image or the sidecar
 * is not as this process last left or checked them. The descriptor, dev
 * filled; -1 with errno set, after one line on stderr. */
int MtdsimNandOpen(const MtdsimConfig *cfg, uint64_t generation, MtdsimDevice *dev, int keep);

/* The MEMGETINFO answer for dev. */
void MtdsimNandInfo(const MtdsimDevice *dev, struct mtd_info_user *info);

/* 1 the block holding offset is bad, 0 good; -1 with errno EINVAL for an
 * offset outside the chip. */
int MtdsimNandIsBad(const MtdsimDevice *dev, int64_t offset);

/* Erases one whole block at start through the image descriptor fd. 0 erased;
 * -1 with errno: EINVAL misuse, EIO bad block, injected fault or I/O. */
int MtdsimNandErase(const MtdsimDevice *dev, int fd, uint64_t start, uint64_t length);

/* Programs the page at offset with length bytes of data through the image
 * descriptor fd. 0 programmed; -1 with errno: EINVAL misuse, ENOSPC past the
 * end, EIO bad block, page already programmed, injected fault or I/O. At the
 * configured power cut the page is torn and the process killed: no return. */
int MtdsimNandProgram(const MtdsimDevice *dev, int fd, int64_t offset, const void *data, size_t length);

/* Restarts the counts behind MTDSIM_FAIL_AFTER and MTDSIM_CUT_AFTER. */
void MtdsimNandResetCounts(void);

#endif
