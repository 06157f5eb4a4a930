// Helpers of the metering and history tests: local time in the box's zone, the flash rings
// read and written from the byte format, simulated input, the dumps parsed back into numbers.
#ifndef KVARD_TESTS_SYSTEM_METER_UTIL_H
#define KVARD_TESTS_SYSTEM_METER_UTIL_H

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <thread>

#include "tests/system/harness.h"

namespace kvard::test::meter {

using namespace kvard::test;
inline constexpr uint16_t kDumpState = 100, kDumpLists = 101, kSimWake = 5640, kSimInput = 7254;
// The rings of the default partition (2 KiB pages): minutes first, then half-days.
inline constexpr uint32_t kMinPages = 2304, kHDayStart = 2304, kHDayPages = 256, kPageSize = 2048;
inline constexpr const char *kZone = "Europe/Berlin";
// The tests compute their dates in the zone the box runs in.
inline const bool kZoneSet = (setenv("TZ", kZone, 1), tzset(), true);

// Seconds of local "YYYY-MM-DD hh:mm:ss", and back (FORMAT as strftime's).
inline int32_t T(const std::string &text)
{
    struct tm tm = {};
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) throw std::runtime_error("bad time " + text);
    return tm.tm_isdst = -1, int32_t(mktime(&tm));
}
inline std::string Text(int32_t t, const char *format = "%Y-%m-%d %H:%M:%S")
{
    time_t v = t;
    struct tm tm;
    char out[48];
    strftime(out, sizeof out, format, localtime_r(&v, &tm));
    return out;
}
inline std::string Asc(int32_t t) { return Text(t, "%a %b %e %H:%M:%S %Y\n"); }  // as asctime

inline SandboxOptions At(const std::string &time) { return {.time = time, .zone = kZone}; }
inline void Go(Sandbox &box, const std::vector<NetDev> &counters = {})
{
    if (!counters.empty()) box.SetNetDev(counters);
    box.Start();
    if (auto ready = box.WaitReady(); !ready) throw std::runtime_error(ready.message());
}

struct Record {  // as on flash and in the lists
    int32_t tStart = 0, tEnd = 0;
    uint64_t tx = 0, rx = 0;
    int32_t tUsed = 0;
    bool operator==(const Record &) const = default;
};
inline void PrintTo(const Record &r, std::ostream *out)
{
    *out << "{" << Text(r.tStart) << ".." << Text(r.tEnd) << " tx " << r.tx << " rx " << r.rx << " t " << r.tUsed << "}";
}

constexpr uint32_t Crc32(const char *p, size_t n)
{
    uint32_t crc = 0xFFFFFFFFu;
    while (n--) {
        crc ^= uint8_t(*p++);
        for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

inline uint64_t Le(const char *p, int n) { return n ? Le(p + 1, n - 1) << 8 | uint8_t(*p) : 0; }

// The records of one ring of the box's image in page order: pages of length 32 with a matching CRC.
inline std::vector<Record> Records(const Sandbox &box, bool halfDay)
{
    std::vector<Record> out;
    std::string img = box.ReadFile("sandbox/mtd.img").value_or("");
    for (uint32_t page = halfDay ? kHDayStart : 0; page < (halfDay ? kHDayStart + kHDayPages : kMinPages); page++) {
        const char *p = img.data() + size_t(page) * kPageSize;
        if (size_t(page + 1) * kPageSize > img.size() || Le(p, 2) != 32 || Le(p + 4, 4) != Crc32(p + 8, 32)) continue;
        out.push_back({int32_t(Le(p + 8, 4)), int32_t(Le(p + 12, 4)), Le(p + 16, 8), Le(p + 24, 8), int32_t(Le(p + 32, 4))});
    }
    return out;
}

// A blank 8 MiB partition to lay records into; libmtdsim derives the page states from the content.
struct Image {
    std::string bytes = std::string(8u << 20, '\xFF');
    void Put(uint32_t page, const Record &r)
    {
        char *at = &bytes[size_t(page) * kPageSize];
        auto put = [](char *p, uint64_t v, int n) { for (; n--; v >>= 8) *p++ = char(v); };
        put(at, 32, 8);  // the length, filler, and at offset 4 the CRC, put last
        put(at + 8, uint32_t(r.tStart), 4);
        put(at + 12, uint32_t(r.tEnd), 4);
        put(at + 16, r.tx, 8);
        put(at + 24, r.rx, 8);
        put(at + 32, uint32_t(r.tUsed), 8);  // and 4 bytes of filler
        put(at + 4, Crc32(at + 8, 32), 4);
    }
    void WriteTo(Sandbox &box) const
    {
        box.WriteFile("sandbox/mtd.img", bytes);
        box.RemoveFile("sandbox/mtd.img.pages");
    }
};

inline void Want(std::optional<int32_t> reply, int32_t want, const char *what)
{
    if (reply != want) throw std::runtime_error(std::string(what) + ": reply " + std::to_string(reply.value_or(-1)));
}
inline void SetClock(Sandbox &box, int32_t t) { box.WriteFile("sandbox/clock", Text(t) + "\n"); }
// Simulated clock and counters; from then on only the simulation wake runs.
inline void SimInput(Sandbox &box, int32_t now, uint64_t tx, uint64_t rx)
{
    struct { int32_t now, unused; uint64_t tx, rx; int32_t quiet; } in{now, 0, tx, rx, 1};
    Want(box.Send(kSimInput, std::string_view(reinterpret_cast<const char *>(&in), 28)), 1, "sim input");
}
// The statistics read the system clock, the core the simulated one: both are set alike.
inline void SimWake(Sandbox &box, int32_t now, uint64_t tx, uint64_t rx)
{
    SimInput(box, now, tx, rx);
    SetClock(box, now);
    Want(box.Send(kSimWake), 3000000, "sim wake");
}
inline void WakeAt(Sandbox &box, int32_t t, const std::vector<NetDev> &counters = {})
{
    if (!counters.empty()) box.SetNetDev(counters);
    SetClock(box, t);
    Want(box.Send(kTimeWake), 1, "wake");
}

// What a dump printed, once complete: the state, or the state and both lists.
inline std::string Dump(Sandbox &box, uint16_t code)
{
    size_t from = box.Stdout().size();
    box.Send(code);
    for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);;) {
        std::string out = box.Stdout().substr(from);  // stdout only grows
        size_t at = out.find(code == kDumpLists ? "Half Day List:" : "Next Flash Index");
        if (at != std::string::npos && std::count(out.begin() + at, out.end(), '\n') >= (code == kDumpLists ? 125 : 1)) return out;
        if (std::chrono::steady_clock::now() > until) throw std::runtime_error("dump incomplete: " + out.substr(0, 2000));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}
// The number behind the first LABEL in TEXT.
inline int64_t Num(const std::string &text, const std::string &label)
{
    size_t at = text.find(label);
    if (at == std::string::npos) throw std::runtime_error("no \"" + label + "\" in " + text.substr(0, 2000));
    return strtoll(text.c_str() + at + label.size(), nullptr, 10);
}
inline const std::string kNextMin = "Next Minute Time: ", kNextHDay = "Next Half Day Time: ",
                         kMinCursor = "Next Flash Index min:", kHDayCursor = " hday:", kLatest = "Latest Half Day time: ";

// Both lists: entries 0-719 the minutes, kH + 0 to kH + 123 the half-days.
inline constexpr size_t kH = 720;
inline std::vector<Record> Lists(Sandbox &box, std::string *state = nullptr)
{
    std::string text = Dump(box, kDumpLists);
    std::vector<Record> list;
    for (size_t at = text.find("\nMinute List:"); (at = text.find("Index: ", at + 1)) != std::string::npos;) {
        std::string line = text.substr(at, text.find('\n', at) - at);
        list.push_back({int32_t(Num(line, "Start: ")), int32_t(Num(line, "End: ")), uint64_t(Num(line, "tx: ")),
                        uint64_t(Num(line, "rx: ")), int32_t(Num(line, "Time: "))});
    }
    if (state) *state = text;
    return list;
}

inline std::string Stat(const Sandbox &box, const std::string &field) { return box.ReadObject("2889").value_or(StoreObject{})[field]; }
inline void ExpectStats(const Sandbox &box, const StoreObject &want)
{
    for (const auto &[name, value] : want) EXPECT_EQ(Stat(box, name), value) << name;
}

}  // namespace kvard::test::meter

#endif
