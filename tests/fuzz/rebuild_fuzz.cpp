// Fuzz target: the page decoder and the rebuild over a fuzzed partition image on
// the in-memory NAND, and then the writers that meet that image: timer wakes
// that store minutes and half-days at the rebuilt cursors, the manual reset that
// rewrites the rings block by block, and the printing of the rings.
//
// Input: a header, then page entries up to the end.
//   header: geometry (u8), bad blocks (u64, bit n block n), clock (s32), zone (u8),
//           reset day, hour and minute (u8 each), manual reset time (u8 flags, s32),
//           actions after the start (u8)
//   entry:  page (u16, modulo the partition's pages), kind (u8), record (32 bytes)
// kind & 3: 0 or 1 a valid page, 2 its CRC with one bit flipped, 3 a length other
// than 32; kind & 4: tStart and tEnd count from the clock, so that records land
// near the lists. The header's filler bytes carry the kind, as any value may.
#include <cstdio>
#include <cstring>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmflash.h"
#include "history/tmmtd.h"
#include "platform/tmdump.h"
#include "tests/fuzz/fuzz_host.h"
#include "tests/fuzz/fuzz_nand.h"

namespace {

void PlacePage(FuzzReader &in, int32_t clock)
{
    uint32_t page = in.u16() % FuzzNandPages();
    uint8_t kind = in.u8();
    uint8_t bytes[TM_FLASH_DATA_SIZE] = {0x20, 0x00, kind, kind};
    for (int i = 8; i < TM_FLASH_DATA_SIZE; i++) bytes[i] = in.u8();
    if (kind & 4) {
        for (int at = 8; at <= 12; at += 4) {
            uint32_t t;
            memcpy(&t, bytes + at, 4);
            t += (uint32_t)clock;
            memcpy(bytes + at, &t, 4);  // little-endian hosts only, as the daemon's side files
        }
    }
    uint32_t crc = TmCrc32(bytes + 8, TM_FLASH_RECORD_LEN);
    if ((kind & 3) == 2) crc ^= 1u << (kind >> 3);
    if ((kind & 3) == 3) bytes[1] = (uint8_t)(1 + (kind >> 3));
    for (int i = 0; i < 4; i++) bytes[4 + i] = (uint8_t)(crc >> (8 * i));
    FuzzNandPlace(page, bytes, sizeof bytes);
}

// Timer wakes on the system clock, a minute (or a half-day) apart, with traffic in each.
void Wakes(int count, int32_t step, int32_t *clock, uint64_t *counter)
{
    for (int i = 0; i < count; i++) {
        *clock = (int32_t)((uint32_t)*clock + (uint32_t)step);
        *counter += 1000000;
        FuzzSetClock(*clock);
        FuzzSetWanCounters(*counter, *counter * 3);
        TmHandleTimeWake(1, 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzReader in{data, size};
    FuzzHostReset();
    memset(&tmCore, 0, sizeof tmCore);
    debugFlag = 0;

    static const uint32_t kPagesPerBlock[] = {64, 32, 16};
    uint8_t geometry = in.u8();
    uint32_t perBlock = kPagesPerBlock[geometry % 3];
    FuzzNandReset(perBlock, (2432 + 64 * (geometry / 3 % 4)) / perBlock, in.u64());
    int32_t clock = (int32_t)in.u32();
    FuzzSetClock(clock);
    FuzzSetZone(in.u8());
    char settings[160];
    unsigned day = in.u8(), hour = in.u8(), minute = in.u8();
    int n = snprintf(settings, sizeof settings, "traffic_on=true\nday=%u\nhour=%u\nmin=%u\n", day, hour, minute);
    FuzzWriteFile("mdm/2888", settings, (size_t)n);
    uint8_t manual = in.u8();
    uint32_t manualTime = in.u32() + (manual & 2 ? (uint32_t)clock : 0);
    if (manual & 1) FuzzWriteFile("tmrestarttime.data", &manualTime, 4);
    uint8_t actions = in.u8();
    while (in.more()) PlacePage(in, clock);

    if (TmInit("/tmp/kvard.conf") != 0) return 0;  // the partition was refused: the daemon ends
    uint64_t counter = 1000;
    int32_t step = actions & 8 ? 43200 : 60;
    if (actions & 16) TmHandleResetCounter2();
    Wakes(actions & 7, step, &clock, &counter);
    if (actions & 32) TmHandleResetCounter2();
    if (actions & 64) {
        TmDumpFlash(0);
        TmDumpFlash(1);
    }
    if (actions & 128) TmInitTrafficList(1);
    TmFlashCleanup();
    return 0;
}
