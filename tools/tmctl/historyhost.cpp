// The device layer (history/tmmtd.h) and the platform calls that tmctl replaces
// at link time beneath the daemon's code (see historyhost.h): time, fopen of the
// manual reset file, and the publication of the statistics.
#include "tools/tmctl/historyhost.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "history/tmmtd.h"
#include "history/tmsidefile.h"
#include "tools/tmctl/mdm.h"

namespace {

struct Partition {
    tmctl::FlashGeometry geometry;
    std::vector<uint8_t> bytes;
    std::vector<bool> badBlock, unreadable;  // per block, per page
} part;

bool clockSet;
int32_t clockNow;
std::string manualResetFile;

bool inRange(int64_t offset, uint32_t length)
{
    return offset >= 0 && offset + (int64_t)length <= (int64_t)part.bytes.size();
}

}  // namespace

namespace tmctl {

int loadPartition(const FlashScan &scan, std::string *error)
{
    const FlashGeometry &g = scan.geometry;
    part.geometry = g;
    part.bytes.assign(g.size, 0xFF);
    part.badBlock.assign(g.size / g.blockSize, false);
    part.unreadable.assign(g.pages(), false);
    for (const FlashBadPage &b : scan.badPages) {
        if (strcmp(b.problem, "bad-block") == 0) part.badBlock[(uint64_t)b.page * g.pageSize / g.blockSize] = true;
        if (strcmp(b.problem, "unreadable") == 0) part.unreadable[b.page] = true;
    }
    int fd = open(scan.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = scan.path + ": cannot open: " + strerror(errno);
        return kExitFailed;
    }
    // Page by page, so that a device's bad blocks and failing pages are only skipped.
    for (uint32_t p = 0; p < g.pages(); p++) {
        uint64_t offset = (uint64_t)p * g.pageSize;
        if (part.badBlock[offset / g.blockSize] || part.unreadable[p]) continue;
        if (pread(fd, part.bytes.data() + offset, g.pageSize, (off_t)offset) != (ssize_t)g.pageSize)
            part.unreadable[p] = true;
    }
    close(fd);
    return kExitOk;
}

void setHistoryClock(int32_t t)
{
    clockSet = true;
    clockNow = t;
}
void setManualResetFile(const std::string &path) { manualResetFile = path; }

}  // namespace tmctl


// The device layer's contract, as history/tmmtd.h states it, over the copy in memory.

int32_t TmMtdFind(struct mtd_info_user *out)
{
    memset(out, 0, sizeof *out);
    out->type = MTD_NANDFLASH;
    out->flags = MTD_CAP_NANDFLASH;
    out->size = part.geometry.size;
    out->writesize = part.geometry.pageSize;
    out->erasesize = part.geometry.blockSize;
    return part.bytes.empty() ? -1 : 0;
}

int32_t TmMtdIsBadBlock(int64_t offset)
{
    if (part.bytes.empty() || offset < 0 || offset >= (int64_t)part.bytes.size()) return -1;
    return part.badBlock[(uint64_t)offset / part.geometry.blockSize] ? 1 : 0;
}

int32_t TmMtdEraseBlock(int64_t offset)
{
    int32_t state = TmMtdIsBadBlock(offset);
    if (state != 0) return state;
    if (offset % part.geometry.blockSize != 0) return -1;
    memset(part.bytes.data() + offset, 0xFF, part.geometry.blockSize);
    uint32_t first = (uint32_t)(offset / part.geometry.pageSize);
    for (uint32_t i = 0; i < part.geometry.pagesPerBlock(); i++) part.unreadable[first + i] = false;
    return 0;
}

int32_t TmMtdRead(int64_t offset, uint8_t *buffer, uint32_t length)
{
    if (!inRange(offset, length) || TmMtdIsBadBlock(offset) != 0) return -1;
    if (part.unreadable[(uint64_t)offset / part.geometry.pageSize]) return -1;
    memcpy(buffer, part.bytes.data() + offset, length);
    return length > 0 ? 0 : 1;
}

int32_t TmMtdWrite(int64_t offset, const uint8_t *data, uint32_t length)
{
    if (!inRange(offset, length) || length > part.geometry.pageSize) return -1;
    if (TmMtdIsBadBlock(offset) != 0 || offset % part.geometry.pageSize != 0) return -1;
    if (offset % part.geometry.blockSize == 0) {
        int32_t erased = TmMtdEraseBlock(offset);
        if (erased != 0) return erased;
    }
    uint8_t *cells = part.bytes.data() + offset;
    memset(cells, 0xFF, part.geometry.pageSize);
    memcpy(cells, data, length);
    return 0;
}

// The daemon's code asks time() for "now"; once history has set its clock, it gets the moment of --at.
extern "C" time_t __real_time(time_t *out);
extern "C" time_t __wrap_time(time_t *out)
{
    if (!clockSet) return __real_time(out);
    if (out) *out = clockNow;
    return clockNow;
}

// The manual reset file is read from where the user said, and never written:
// a stale reset that the daemon would clear stays as it is.
extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!clockSet || strcmp(path, TM_RESTART_TIME_FILE) != 0) return __real_fopen(path, mode);
    if (strchr(mode, 'r') == nullptr || strchr(mode, '+') != nullptr || manualResetFile.empty()) {
        errno = EROFS;
        return nullptr;
    }
    return __real_fopen(manualResetFile.c_str(), "rb");
}

// bcm_dm_WriteStatistic (platform/bcm_dm_util.h), which the rebuild calls at its
// end: the figures are collected by the caller instead, and the store stays as it is.
extern "C" int __wrap__Z21bcm_dm_WriteStatisticv(void) { return 0; }

// The daemon's shell commands (interfaces, LEDs, uptime) are none of this tool's
// business; the rebuild reaches none of them, and if it ever did they would fail
// here. The other commands of tmctl, which run no daemon code, keep the C library's.
extern "C" int __real_system(const char *command);
extern "C" int __wrap_system(const char *command)
{
    if (!clockSet) return __real_system(command);
    return -1;
}

extern "C" FILE *__real_popen(const char *command, const char *mode);
extern "C" FILE *__wrap_popen(const char *command, const char *mode)
{
    if (!clockSet) return __real_popen(command, mode);
    errno = EPERM;
    return nullptr;
}
