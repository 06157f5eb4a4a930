// Fuzz target: the /proc/net/dev reader. Two kinds of input, by the first byte:
// - odd: a file built from the input's numbers and spacing, in the kernel's
//   format, among lines of other interfaces; every column must come back.
// - even: the rest of the input is the file, read for one of the daemon's WAN
//   names; now and then through GetWanStatistics with the store's WAN name.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/tmwan.h"
#include "tests/fuzz/fuzz_host.h"

namespace {

const char *const kNames[] = {"eth0.1", "ppp0.2", "ppp0", "eth1.1", "lo", "wlan0"};
const int kNameCount = sizeof kNames / sizeof kNames[0];

// One line of the kernel's table: the name right-aligned in 6 columns, then the 16 columns.
void AppendLine(std::string &out, const char *name, const unsigned long long (&columns)[16], FuzzReader &in)
{
    char text[64];
    snprintf(text, sizeof text, "%6s:", name);
    out += text;
    for (unsigned long long value : columns) {
        out.append(in.u8() % 4, in.u8() & 1 ? '\t' : ' ');
        snprintf(text, sizeof text, " %llu", value);
        out += text;
    }
    out += '\n';
}

void RoundTrip(FuzzReader &in)
{
    int wanted = in.u8() % kNameCount;
    unsigned long long expect[16];
    std::string file = "Inter-|   Receive\n face |bytes\n";
    for (int line = 0, lines = 1 + in.u8() % 4; line <= lines; line++) {
        unsigned long long columns[16];
        for (int c = 0; c < 16; c++) columns[c] = c == 0 || c == 1 || c == 8 || c == 9 ? in.u64() : in.u32();
        if (line == lines) memcpy(expect, columns, sizeof expect);
        AppendLine(file, line == lines ? kNames[wanted] : kNames[(wanted + 1 + line % (kNameCount - 1)) % kNameCount],
                   columns, in);
    }
    FuzzSetNetDev(file.data(), file.size());
    TmNetDevStats s;
    memset(&s, 0, sizeof s);
    if (TmReadNetDevStats(kNames[wanted], &s) != 0) abort();
    const unsigned long long read[16] = {s.rxBytes, s.rxPackets, s.rxErrs,   s.rxDrop,    s.rxFifo,   s.rxFrame,
                                         s.rxCompressed, s.rxMulticast, s.txBytes, s.txPackets, s.txErrs,
                                         s.txDrop,  s.txFifo,  s.txColls,  s.txCarrier, s.txCompressed};
    if (memcmp(read, expect, sizeof read) != 0) {
        fprintf(stderr, "netdev: a column of %s came back changed from:\n%s", kNames[wanted], file.c_str());
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzReader in{data, size};
    uint8_t mode = in.u8();
    if (mode & 1) {
        RoundTrip(in);
        return 0;
    }
    FuzzSetNetDev(in.data, in.size);
    if (mode & 2) {
        uint64_t tx = 7, rx = 7;
        GetWanStatistics(&tx, &rx);
        return 0;
    }
    TmNetDevStats stats;
    memset(&stats, 0xA5, sizeof stats);
    if (TmReadNetDevStats(kNames[(mode >> 2) % kNameCount], &stats) != 0) abort();
    return 0;
}
