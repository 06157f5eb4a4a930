// Reads the rings of a "tm" partition, from an image file or read-only from an
// MTD device, with the daemon's own page decoder, ring layout and cursor rule.
#ifndef KVARD_TMCTL_FLASHSCAN_H
#define KVARD_TMCTL_FLASHSCAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "history/tmrecord.h"

namespace tmctl {

struct FlashGeometry {
    bool device = false;     // an MTD device (geometry from MEMGETINFO), else an image file
    uint32_t size = 0;       // partition bytes
    uint32_t pageSize = 0;
    uint32_t blockSize = 0;
    uint32_t pagesPerBlock() const { return blockSize / pageSize; }
    uint32_t pages() const { return size / pageSize; }
};

struct FlashRecord {
    const char *ring;        // "minute" or "half-day"
    uint32_t page;
    TmRecord record;
};

// A page that holds no record although it is not blank.
struct FlashBadPage {
    const char *ring;
    uint32_t page;
    const char *problem;     // "length", "crc", "bad-block" or "unreadable" (the read failed)
    uint16_t length;         // for "length" and "crc"
    uint32_t storedCrc;      // for "crc"
    uint32_t computedCrc;
};

struct FlashRing {
    const char *name;
    uint32_t firstPage = 0, pageCount = 0;
    uint32_t records = 0, blank = 0, badLength = 0, badCrc = 0, unreadable = 0, pastEnd = 0;
    uint32_t nextPage = 0;   // where the daemon would write next
    int64_t followedPage = -1;  // the record the cursor follows; -1 when none
    int32_t followedEnd = 0;
};

struct FlashScan {
    std::string path;
    FlashGeometry geometry;
    FlashRing minute{"minute"}, halfDay{"half-day"};
    std::vector<FlashRecord> records;     // minute ring, then half-day ring, each in page order
    std::vector<FlashBadPage> badPages;
    int64_t oldest = -1, newest = -1;     // indices into records
};

// Image geometry asked for on the command line; 0 means "not given".
struct FlashOptions {
    uint32_t pageSize = 0;
    uint32_t blockSize = 0;
};

constexpr uint32_t kDefaultPageSize = 2048;
constexpr uint32_t kDefaultBlockSize = 131072;

// The error text for a geometry that cannot carry the rings.
std::string unusableGeometry(uint32_t pageSize, uint32_t blockSize);

// Reads path into *scan. Returns 0, or an exit status (1 run time, 2 bad
// arguments) with *error the one line to print.
int scanFlash(const std::string &path, const FlashOptions &options, FlashScan *scan, std::string *error);

// A moment as local "YYYY-MM-DD hh:mm:ss" in this process's zone, as every verb prints it; "?" if it has none.
std::string localTime(int32_t t);

}  // namespace tmctl

#endif
