/* The emulated NAND's configuration, read from MTDSIM_* environment variables
 * (docs/mtdsim.md): at the first open of the device path, and again at an open
 * after the environment changed. */
#ifndef KVARD_MTDSIM_CONFIG_H
#define KVARD_MTDSIM_CONFIG_H

#include <limits.h>
#include <stdint.h>

#define MTDSIM_DEFAULT_DEVICE "/dev/mtd0"
#define MTDSIM_DEFAULT_WRITESIZE 2048u
#define MTDSIM_DEFAULT_ERASESIZE 131072u
#define MTDSIM_DEFAULT_NEW_SIZE (8u * 1024u * 1024u)
#define MTDSIM_MAX_BAD_BLOCKS 256

/* Always filled through MtdsimConfigRead, which clears it first, so two
 * configurations can be compared with memcmp. */
typedef struct {
    char device[PATH_MAX];
    char image[PATH_MAX];
    char log[PATH_MAX];       /* empty: no operation log */
    uint32_t writesize;
    uint32_t erasesize;
    uint64_t size;            /* 0: the image's own size, or the default for a new one */
    uint32_t badCount;
    uint32_t bad[MTDSIM_MAX_BAD_BLOCKS];
    int64_t failAfter;        /* -1: no injected failures */
    uint32_t failCount;       /* length of the failing run; 0: every later operation */
    int64_t cutAfter;         /* -1: no power cut */
    int64_t cutBytes;         /* -1: half a page */
} MtdsimConfig;

/* The intercepted device path: MTDSIM_DEVICE or its default. */
const char *MtdsimConfigDevice(void);

/* 1 when path is the intercepted device path and an image is configured, else 0. */
int MtdsimConfigMatches(const char *path);

/* Reads and checks every variable into cfg. 0 valid; -1 invalid, after one
 * line on stderr that names the variable and its value. */
int MtdsimConfigRead(MtdsimConfig *cfg);

/* The configuration of the current environment, for an open that
 * MtdsimConfigMatches has just found to be of the device (it looked at the
 * environment; this does not again). Read and checked anew only when the
 * environment changed since the configuration was last read; null when it is invalid,
 * after one line on stderr (at every call while it stays invalid).
 * *generation changes exactly when the configuration differs from the last
 * valid one: the first valid one is 1. */
const MtdsimConfig *MtdsimConfigCurrent(uint64_t *generation);

/* 1 when block number block is listed in MTDSIM_BADBLOCKS, else 0. */
int MtdsimConfigIsBadBlock(const MtdsimConfig *cfg, uint32_t block);

#endif
