// "tmctl flash" reading (flashscan.h). The device is opened read-only, so that
// nothing here can erase or program it; bad blocks are asked for first and
// their pages are not read, as the daemon does not read them either.
#include "tools/tmctl/flashscan.h"

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "history/tmpage.h"
#include "history/tmrings.h"
#include "tools/tmctl/mdm.h"

namespace tmctl {

namespace {

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { if (fd_ >= 0) close(fd_); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
private:
    int fd_;
};

}  // namespace

std::string unusableGeometry(uint32_t page, uint32_t block)
{
    return std::to_string(page) + "-byte pages in " + std::to_string(block) +
           "-byte blocks: no room for the rings (a page holds a " + std::to_string(TM_FLASH_DATA_SIZE) +
           "-byte record, a block whole pages)";
}

namespace {

// Reads one ring page by page in the daemon's order, counting and collecting.
void scanRing(int fd, const FlashGeometry &g, const std::vector<bool> &badBlock, FlashRing *ring, FlashScan *scan)
{
    TmCursorSearch search;
    TmCursorBegin(&search, ring->firstPage, ring->pageCount, ring == &scan->minute ? 1 : 0);
    for (uint32_t p = ring->firstPage; p < ring->firstPage + ring->pageCount; p++) {
        uint64_t offset = (uint64_t)p * g.pageSize;
        if (offset + TM_FLASH_DATA_SIZE > g.size) {
            ring->pastEnd++;
            continue;
        }
        uint8_t page[TM_FLASH_DATA_SIZE];
        bool bad = badBlock[offset / g.blockSize];
        if (bad || pread(fd, page, sizeof page, (off_t)offset) != (ssize_t)sizeof page) {
            ring->unreadable++;
            scan->badPages.push_back({ring->name, p, bad ? "bad-block" : "unreadable", 0, 0, 0});
            continue;
        }
        TmRecord r;
        TmPageCheck check;
        switch (TmDecodePage(page, &r, &check)) {
        case TM_PAGE_VALID:
            ring->records++;
            scan->records.push_back({ring->name, p, r});
            TmCursorOffer(&search, p, r.tEnd);
            break;
        case TM_PAGE_EMPTY:
            ring->blank++;
            break;
        case TM_PAGE_BAD_LENGTH:
            ring->badLength++;
            scan->badPages.push_back({ring->name, p, "length", check.length, 0, 0});
            break;
        default:
            ring->badCrc++;
            scan->badPages.push_back({ring->name, p, "crc", check.length, check.storedCrc, check.computedCrc});
            break;
        }
    }
    ring->nextPage = TmCursorNext(&search);
    ring->followedPage = search.noted;
    ring->followedEnd = search.best;
}

}  // namespace

int scanFlash(const std::string &path, const FlashOptions &options, FlashScan *scan, std::string *error)
{
    scan->path = path;
    FlashGeometry &g = scan->geometry;
    int raw = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (raw < 0) {
        *error = path + ": cannot open: " + strerror(errno);
        return kExitFailed;
    }
    Fd fd(raw);
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        *error = path + ": cannot stat: " + strerror(errno);
        return kExitFailed;
    }
    struct mtd_info_user info;
    memset(&info, 0, sizeof info);
    if (ioctl(fd.get(), MEMGETINFO, &info) == 0) {
        if (options.pageSize || options.blockSize) {
            *error = path + " is an MTD device: its geometry comes from the device, not from --page-size or --block-size";
            return kExitUsage;
        }
        g.device = true;
        g.size = info.size;
        g.pageSize = info.writesize;
        g.blockSize = info.erasesize;
        if (!TmGeometryUsable(g.pageSize, g.blockSize)) {
            *error = path + ": the device has " + unusableGeometry(g.pageSize, g.blockSize);
            return kExitFailed;
        }
    } else if (S_ISCHR(st.st_mode)) {
        *error = path + ": not an MTD device (MEMGETINFO: " + strerror(errno) + ")";
        return kExitFailed;
    } else if (!S_ISREG(st.st_mode)) {
        *error = path + ": neither an image file nor an MTD device";
        return kExitFailed;
    } else {
        g.pageSize = options.pageSize ? options.pageSize : kDefaultPageSize;
        g.blockSize = options.blockSize ? options.blockSize : kDefaultBlockSize;
        if (!TmGeometryUsable(g.pageSize, g.blockSize)) {
            *error = unusableGeometry(g.pageSize, g.blockSize);
            return kExitUsage;
        }
        if (st.st_size == 0) {
            *error = path + ": the image is empty";
            return kExitFailed;
        }
        if ((unsigned long long)st.st_size > UINT32_MAX) {
            *error = path + ": " + std::to_string((long long)st.st_size) + " bytes, a partition is below 4 GiB";
            return kExitFailed;
        }
        if (st.st_size % g.blockSize != 0) {
            *error = path + ": " + std::to_string((long long)st.st_size) + " bytes is not a whole number of " +
                     std::to_string(g.blockSize) + "-byte blocks (is --block-size right?)";
            return kExitFailed;
        }
        g.size = (uint32_t)st.st_size;
    }

    // Which blocks the device reports bad; an image file has none.
    std::vector<bool> badBlock(g.size / g.blockSize, false);
    for (uint32_t b = 0; g.device && b < badBlock.size(); b++) {
        loff_t at = (loff_t)b * g.blockSize;
        int answer = ioctl(fd.get(), MEMGETBADBLOCK, &at);
        if (answer < 0 && errno != EOPNOTSUPP) {
            *error = path + ": block " + std::to_string(b) + ": MEMGETBADBLOCK failed: " + strerror(errno);
            return kExitFailed;
        }
        badBlock[b] = answer > 0;
    }

    TmCrcInit();
    TmRings rings;
    TmRingLayout(g.pagesPerBlock(), &rings);
    scan->minute.firstPage = rings.minStart;
    scan->minute.pageCount = rings.minSize;
    scan->halfDay.firstPage = rings.hDayStart;
    scan->halfDay.pageCount = rings.hDaySize;
    scanRing(fd.get(), g, badBlock, &scan->minute, scan);
    scanRing(fd.get(), g, badBlock, &scan->halfDay, scan);

    // Oldest by start, newest by end; the first in ring order among equals.
    for (size_t i = 0; i < scan->records.size(); i++) {
        const TmRecord &r = scan->records[i].record;
        if (scan->oldest < 0 || r.tStart < scan->records[scan->oldest].record.tStart) scan->oldest = (int64_t)i;
        if (scan->newest < 0 || r.tEnd > scan->records[scan->newest].record.tEnd) scan->newest = (int64_t)i;
    }
    return kExitOk;
}

std::string localTime(int32_t t)
{
    time_t at = t;
    struct tm fields;
    char text[32];
    if (!localtime_r(&at, &fields) || !strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields)) return "?";
    return text;
}

}  // namespace tmctl
