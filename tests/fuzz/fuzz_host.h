// The machine around the daemon in a fuzz process. The shell, the clock,
// /proc and the fixed paths of the side files are this process's own: no
// command is ever run, /proc/uptime and /proc/net/dev are served from memory,
// and the side files and the store live in a scratch directory under $TMPDIR
// that goes when the process ends normally.
#ifndef KVARD_FUZZ_HOST_H
#define KVARD_FUZZ_HOST_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/cms/cms.h"

// Once, from LLVMFuzzerInitialize, which is defined with it for every target:
// scratch directory, store, zone, the CRC table, and argv[0], whose commands
// (libFuzzer's own -merge and -fork runs) still reach the shell.
void FuzzHostStart(const char *argv0);
// Back to a fresh router: the seeded store, no side files, default clock, uptime and counters, zone.
void FuzzHostReset(void);
// A file of the scratch directory ("mdm/<name>" for the store's).
std::string FuzzPath(const std::string &name);
void FuzzWriteFile(const std::string &name, const void *data, size_t size);
// Sets one field (field index modulo the object's fields) of a stored object, under the store's lock.
void FuzzStoreSet(MdmObjectId oid, uint32_t row, uint32_t field, const std::string &value);
// What time() answers, and the seconds the /proc/uptime pipeline gives.
void FuzzSetClock(int32_t seconds);
void FuzzSetUptime(uint32_t seconds);
// What /proc/net/dev holds, and a well-formed one with these WAN counters.
void FuzzSetNetDev(const void *data, size_t size);
void FuzzSetWanCounters(uint64_t tx, uint64_t rx);
// The process's zone, one of a few with and without daylight saving, in both hemispheres.
void FuzzSetZone(uint32_t choice);

// Reads an input front to back; past its end every value is 0.
struct FuzzReader {
    const uint8_t *data;
    size_t size;
    bool more() const { return size > 0; }
    uint64_t take(int bytes)
    {
        uint64_t value = 0;
        for (int i = 0; i < bytes && size > 0; i++, size--) value |= (uint64_t)*data++ << (8 * i);
        return value;
    }
    uint8_t u8() { return (uint8_t)take(1); }
    uint16_t u16() { return (uint16_t)take(2); }
    uint32_t u32() { return (uint32_t)take(4); }
    uint64_t u64() { return take(8); }
    std::string text(size_t limit)
    {
        size_t n = u8() % (limit + 1);
        n = n < size ? n : size;
        std::string s((const char *)data, n);
        data += n, size -= n;
        return s;
    }
};

#endif
