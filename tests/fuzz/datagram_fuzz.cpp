// Fuzz target: the control datagram handler with the whole core behind it, the
// store stand-in and the in-memory NAND. Every input starts a daemon of its own
// (core state zero as at process start, the seeded store, an erased chip), so a
// finding reproduces from its input alone.
//
// Input: the zone (u8), then operations until the end, each an opcode (u8) and
// its operands; the daemon starts (TmInit) before the first datagram.
//   0 raw datagram: length (u8, at most 101), bytes
//   1 datagram with a valid header: code (u8, picks a known code), body (u8 length, bytes)
//   2 simulated input then a simulated wake: now (u32), tx (u64), rx (u64), msg (u8)
//   3 the same, moved on from the last one: seconds (u16), tx and rx in kB (u16 each)
//   4 a store field: object (u8), field (u8), value (u8 length, bytes)
//   5 the system clock (s32)   6 the uptime (u32)   7 the WAN counters in /proc/net/dev (u64 tx, u64 rx)
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "daemon/tmmsg.h"
#include "history/tmmtd.h"
#include "tests/fuzz/fuzz_host.h"
#include "tests/fuzz/fuzz_nand.h"

namespace {

const uint16_t kCodes[] = {
    TM_MSG_HEARTBEAT,    TM_MSG_CONFIG_UPDATE,   TM_MSG_LINK_UPDATE, TM_MSG_TIME_UPDATE,
    TM_MSG_RESET_COUNTER, TM_MSG_WRITE_STATISTIC, TM_MSG_TIME_WAKE,   TM_MSG_DUMP_STATE,
    TM_MSG_SET_DEBUG,    TM_MSG_SIM_WAKE,        TM_MSG_SIM_INPUT,   0,
};
// The dumps of the lists and the flash print every entry and page: picked less
// often (code byte 240 and up), so that most of the time goes to the meter.
const uint16_t kDumps[] = {TM_MSG_DUMP_STATE_LISTS, TM_MSG_DUMP_MIN_FLASH, TM_MSG_DUMP_HDAY_FLASH,
                           TM_MSG_DUMP_RAW_FLASH};

const struct {
    MdmObjectId oid;
    uint32_t row;
} kObjects[] = {{2888, 0}, {1400, 0}, {1045, 0}, {1152, 1}, {2700, 0}};

// The event loop's receive buffer: kept between datagrams, and the reply goes out of it.
uint8_t buffer[TM_MSG_BUFFER_SIZE];

struct {
    uint32_t now;
    uint64_t tx, rx;
} sim;

void Send(size_t length)
{
    int32_t reply = HandleMessage(buffer, (int32_t)length);
    memcpy(buffer, &reply, sizeof reply);
}

void SendCoded(uint16_t code, const void *body, size_t length)
{
    TmMessageHeader header = {TM_MSG_MAGIC, code, (uint16_t)length, 0};
    memcpy(buffer, &header, sizeof header);
    memcpy(buffer + TM_MSG_HEADER_SIZE, body, length);
    Send(TM_MSG_HEADER_SIZE + length);
}

void SimStep(int32_t msg)
{
    uint8_t body[28] = {};
    memcpy(body + 0, &sim.now, 4);
    memcpy(body + 8, &sim.tx, 8);
    memcpy(body + 16, &sim.rx, 8);
    memcpy(body + 24, &msg, 4);
    SendCoded(TM_MSG_SIM_INPUT, body, sizeof body);
    SendCoded(TM_MSG_SIM_WAKE, "", 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzReader in{data, size};
    FuzzHostReset();
    FuzzNandReset(64, 40, 0);
    memset(&tmCore, 0, sizeof tmCore);
    debugFlag = 0;
    memset(buffer, 0, sizeof buffer);
    sim = {(uint32_t)time(nullptr), 0, 0};
    FuzzSetZone(in.u8());
    bool started = false;
    while (in.more()) {
        uint8_t op = in.u8() % 8;
        if (op < 4 && !started) {
            if (TmInit("/tmp/kvard.conf") != 0) break;  // the daemon would end here
            started = true;
        }
        switch (op) {
        case 0: {
            size_t n = in.u8() % (TM_MSG_MAX_DATAGRAM + 1);
            for (size_t i = 0; i < n; i++) buffer[i] = in.u8();
            if (n > 0) Send(n);
            break;
        }
        case 1: {
            uint8_t pick = in.u8();
            uint16_t code = pick >= 240 ? kDumps[pick % 4] : kCodes[pick % (sizeof kCodes / sizeof kCodes[0])];
            std::string body = in.text(TM_MSG_MAX_DATAGRAM - TM_MSG_HEADER_SIZE);
            SendCoded(code, body.data(), body.size());
            break;
        }
        case 2:
            sim.now = in.u32();
            sim.tx = in.u64();
            sim.rx = in.u64();
            SimStep(in.u8());
            break;
        case 3:
            sim.now += in.u16();
            sim.tx += in.u16() * 1000ull;
            sim.rx += in.u16() * 1000ull;
            SimStep(1);
            break;
        case 4: {
            const auto &object = kObjects[in.u8() % (sizeof kObjects / sizeof kObjects[0])];
            uint8_t field = in.u8();
            FuzzStoreSet(object.oid, object.row, field, in.text(40));
            break;
        }
        case 5:
            FuzzSetClock((int32_t)in.u32());
            break;
        case 6:
            FuzzSetUptime(in.u32());
            break;
        case 7: {
            uint64_t tx = in.u64();
            FuzzSetWanCounters(tx, in.u64());
            break;
        }
        }
    }
    if (started) TmFlashCleanup();  // the page buffer; the next input starts another daemon
    return 0;
}
