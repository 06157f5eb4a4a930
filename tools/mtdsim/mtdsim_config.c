#include "mtdsim_config.h"

#include "mtdsim_report.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* An unset variable and an empty one mean the same: the default. */
static const char *Env(const char *name)
{
    const char *v = getenv(name);
    return (v != NULL && v[0] != '\0') ? v : NULL;
}

/* Every open of every file asks whether its path is the device, so the
 * variables are looked up again only when the environment changed. setenv,
 * putenv and unsetenv all change the array of pointers to its entries (a new
 * entry, a new pointer, an entry moved down), which is kept here to compare;
 * only a string changed in place after putenv goes unnoticed. */
extern char **environ;
#define SNAPSHOT_ENTRIES 1024
static char *seen[SNAPSHOT_ENTRIES + 1];
static char **seenEnviron;
static size_t seenCount;
static int seenValid;

static struct {
    const char *device;        /* MTDSIM_DEVICE or the default; valid while seen is */
    int hasImage;
    int have;                  /* current is the valid configuration of this environment */
    const MtdsimConfig *current;
    uint64_t generation;       /* counts the valid configurations met */
} state;

/* Every configuration met stays: descriptors opened under it go on using it. */
typedef struct Kept {
    MtdsimConfig config;
    struct Kept *older;
} Kept;
static Kept *kept;

/* Walks the array only as far as it is the one seen: a shorter array in the
 * same place (cleared and built again) ends at its own null. */
static int EnvironmentSame(void)
{
    if (!seenValid || environ != seenEnviron)
        return 0;
    for (size_t i = 0; i < seenCount; i++)
        if (environ[i] != seen[i])
            return 0;
    return environ[seenCount] == NULL;
}

/* Brings the device path and the image's presence in line with the environment. */
static void Refresh(void)
{
    if (EnvironmentSame())
        return;
    const char *v = Env("MTDSIM_DEVICE");
    state.device = v != NULL ? v : MTDSIM_DEFAULT_DEVICE;
    state.hasImage = Env("MTDSIM_IMAGE") != NULL;
    state.have = 0;
    seenValid = 0;
    if (environ == NULL)
        return;
    size_t i = 0;
    for (; environ[i] != NULL; i++) {
        if (i == SNAPSHOT_ENTRIES)
            return; /* too large to keep: looked up at every call */
        seen[i] = environ[i];
    }
    seen[i] = NULL;
    seenCount = i;
    seenEnviron = environ;
    seenValid = 1;
}

const char *MtdsimConfigDevice(void)
{
    Refresh();
    return state.device;
}

int MtdsimConfigMatches(const char *path)
{
    if (path == NULL)
        return 0;
    Refresh();
    return state.hasImage && strcmp(path, state.device) == 0;
}

/* Parses a decimal number of at most max from text, digits only. 0 ok, -1 not. */
static int ParseNumber(const char *text, uint64_t max, uint64_t *out)
{
    if (!isdigit((unsigned char)text[0]))
        return -1;
    errno = 0;
    char *end = NULL;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > max)
        return -1;
    *out = v;
    return 0;
}

/* Reads a numeric variable; unset leaves *out as it is. 0 ok, -1 refused. */
static int ReadNumber(const char *name, uint64_t min, uint64_t max, uint64_t *out)
{
    const char *v = Env(name);
    if (v == NULL)
        return 0;
    uint64_t n;
    if (ParseNumber(v, max, &n) != 0 || n < min) {
        MtdsimReportConfig(name, v, "not a whole number in the allowed range");
        return -1;
    }
    *out = n;
    return 0;
}

static int CopyPath(const char *name, const char *value, char *out)
{
    size_t n = strlen(value);
    if (n >= PATH_MAX) {
        MtdsimReportConfig(name, value, "path too long");
        return -1;
    }
    memcpy(out, value, n + 1);
    return 0;
}

/* "3,5, 7": block numbers, separated by commas, blanks allowed around them. */
static int ReadBadBlocks(MtdsimConfig *cfg)
{
    const char *list = Env("MTDSIM_BADBLOCKS");
    if (list == NULL)
        return 0;
    const char *p = list;
    for (;;) {
        while (*p == ' ' || *p == '\t')
            p++;
        char item[24];
        size_t n = 0;
        while (isdigit((unsigned char)*p) && n + 1 < sizeof item)
            item[n++] = *p++;
        item[n] = '\0';
        while (*p == ' ' || *p == '\t')
            p++;
        uint64_t block;
        if (n == 0 || (*p != ',' && *p != '\0') || ParseNumber(item, UINT32_MAX, &block) != 0) {
            MtdsimReportConfig("MTDSIM_BADBLOCKS", list, "expected block numbers separated by commas");
            return -1;
        }
        if (cfg->badCount == MTDSIM_MAX_BAD_BLOCKS) {
            MtdsimReportConfig("MTDSIM_BADBLOCKS", list, "too many blocks listed");
            return -1;
        }
        cfg->bad[cfg->badCount++] = (uint32_t)block;
        if (*p == '\0')
            return 0;
        p++;
    }
}

int MtdsimConfigRead(MtdsimConfig *cfg)
{
    memset(cfg, 0, sizeof *cfg);
    if (CopyPath("MTDSIM_DEVICE", MtdsimConfigDevice(), cfg->device) != 0)
        return -1;
    const char *image = Env("MTDSIM_IMAGE");
    if (image == NULL) {
        MtdsimReportConfig("MTDSIM_IMAGE", "", "no backing image configured");
        return -1;
    }
    if (CopyPath("MTDSIM_IMAGE", image, cfg->image) != 0)
        return -1;
    const char *log = Env("MTDSIM_LOG");
    if (log != NULL && CopyPath("MTDSIM_LOG", log, cfg->log) != 0)
        return -1;

    uint64_t writesize = MTDSIM_DEFAULT_WRITESIZE;
    uint64_t erasesize = MTDSIM_DEFAULT_ERASESIZE;
    uint64_t size = 0;
    if (ReadNumber("MTDSIM_WRITESIZE", 1, UINT32_MAX, &writesize) != 0 ||
        ReadNumber("MTDSIM_ERASESIZE", 1, UINT32_MAX, &erasesize) != 0 ||
        ReadNumber("MTDSIM_SIZE", 1, UINT32_MAX, &size) != 0)
        return -1;
    char shown[24];
    if (erasesize % writesize != 0) {
        snprintf(shown, sizeof shown, "%llu", (unsigned long long)erasesize);
        MtdsimReportConfig("MTDSIM_ERASESIZE", shown, "not a whole number of pages");
        return -1;
    }
    if (size % erasesize != 0) {
        snprintf(shown, sizeof shown, "%llu", (unsigned long long)size);
        MtdsimReportConfig("MTDSIM_SIZE", shown, "not a whole number of erase blocks");
        return -1;
    }
    cfg->writesize = (uint32_t)writesize;
    cfg->erasesize = (uint32_t)erasesize;
    cfg->size = size;
    if (ReadBadBlocks(cfg) != 0)
        return -1;

    uint64_t failAfter = UINT64_MAX, failCount = 1, cutAfter = UINT64_MAX, cutBytes = UINT64_MAX;
    if (ReadNumber("MTDSIM_FAIL_AFTER", 0, INT64_MAX, &failAfter) != 0 ||
        ReadNumber("MTDSIM_FAIL_COUNT", 0, UINT32_MAX, &failCount) != 0 ||
        ReadNumber("MTDSIM_CUT_AFTER", 0, INT64_MAX, &cutAfter) != 0 ||
        ReadNumber("MTDSIM_CUT_BYTES", 0, cfg->writesize, &cutBytes) != 0)
        return -1;
    cfg->failAfter = failAfter == UINT64_MAX ? -1 : (int64_t)failAfter;
    cfg->failCount = (uint32_t)failCount;
    cfg->cutAfter = cutAfter == UINT64_MAX ? -1 : (int64_t)cutAfter;
    cfg->cutBytes = cutBytes == UINT64_MAX ? -1 : (int64_t)cutBytes;
    return 0;
}

const MtdsimConfig *MtdsimConfigCurrent(uint64_t *generation)
{
    if (state.have) {
        *generation = state.generation;
        return state.current;
    }
    static MtdsimConfig fresh;
    if (MtdsimConfigRead(&fresh) != 0)
        return NULL;
    if (state.current == NULL || memcmp(&fresh, state.current, sizeof fresh) != 0) {
        Kept *k = malloc(sizeof *k);
        if (k == NULL) {
            MtdsimReportProblem(fresh.device, "out of memory");
            errno = ENOMEM;
            return NULL;
        }
        memcpy(&k->config, &fresh, sizeof fresh);
        k->older = kept;
        kept = k;
        state.current = &k->config;
        state.generation++;
    }
    state.have = seenValid;
    *generation = state.generation;
    return state.current;
}

int MtdsimConfigIsBadBlock(const MtdsimConfig *cfg, uint32_t block)
{
    for (uint32_t i = 0; i < cfg->badCount; i++)
        if (cfg->bad[i] == block)
            return 1;
    return 0;
}
