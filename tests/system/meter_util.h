// Helpers of the metering system tests: local times of a zone, the records of
// the flash image, simulated input, and the state and list dumps parsed back
// into numbers.
#ifndef KVARD_TESTS_SYSTEM_METER_UTIL_H
#define KVARD_TESTS_SYSTEM_METER_UTIL_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/harness.h"

namespace kvard::test::meter {

inline constexpr uint16_t kDumpState = 100;
inline constexpr uint16_t kDumpLists = 101;
inline constexpr uint16_t kSimWake = 5640;
inline constexpr uint16_t kSimInput = 7254;

// The ring layout of the default partition: 2 KiB pages, 128 KiB blocks.
inline constexpr uint32_t kMinRingStart = 0, kMinRingPages = 2304;
inline constexpr uint32_t kHDayRingStart = 2304, kHDayRingPages = 256;
inline constexpr size_t kPageSize = 2048;

struct Record {
    int32_t tStart = 0, tEnd = 0;
    uint64_t tx = 0, rx = 0;
    int32_t tUsed = 0;
    bool operator==(const Record &o) const
    {
        return tStart == o.tStart && tEnd == o.tEnd && tx == o.tx && rx == o.rx && tUsed == o.tUsed;
    }
};
inline void PrintTo(const Record &r, std::ostream *out)
{
    *out << "{" << r.tStart << ".." << r.tEnd << " tx " << r.tx << " rx " << r.rx << " used " << r.tUsed << "}";
}

inline const char *const kBerlin = "Europe/Berlin";

// A seeded router in ZONE whose clock starts at TIME (local).
inline SandboxOptions At(const char *time, const char *zone = kBerlin)
{
    SandboxOptions o;
    o.time = time;
    o.zone = zone;
    return o;
}

// Seconds since the epoch of TEXT ("YYYY-MM-DD hh:mm:ss") as local time in ZONE.
inline int32_t LocalTime(const std::string &zone, const std::string &text)
{
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) throw std::runtime_error("bad time text " + text);
    tm.tm_isdst = -1;
    std::string saved = getenv("TZ") ? getenv("TZ") : "";
    bool had = getenv("TZ") != nullptr;
    setenv("TZ", zone.c_str(), 1);
    tzset();
    time_t t = mktime(&tm);
    if (had) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
    return static_cast<int32_t>(t);
}

// Local time text ("YYYY-MM-DD hh:mm:ss") in ZONE of T.
inline std::string LocalText(const std::string &zone, int32_t t)
{
    std::string saved = getenv("TZ") ? getenv("TZ") : "";
    bool had = getenv("TZ") != nullptr;
    setenv("TZ", zone.c_str(), 1);
    tzset();
    time_t when = t;
    struct tm tm;
    localtime_r(&when, &tm);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    if (had) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
    return text;
}

inline uint32_t Crc32(const uint8_t *data, size_t size)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; i++) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

template <typename T>
T LittleEndian(const uint8_t *p)
{
    uint64_t v = 0;
    for (size_t i = 0; i < sizeof(T); i++) v |= uint64_t(p[i]) << (8 * i);
    return static_cast<T>(v);
}

struct FlashPage {
    uint32_t page;
    Record record;
};

// The valid records of pages FIRST to FIRST + COUNT - 1 of the box's flash
// image, in page order: length 32 and a matching CRC, as every reader demands.
inline std::vector<FlashPage> ReadRing(const Sandbox &box, uint32_t first, uint32_t count)
{
    std::vector<FlashPage> pages;
    auto image = box.ReadFile("sandbox/mtd.img");
    if (!image) return pages;  // not made yet: nothing was ever written
    const auto *bytes = reinterpret_cast<const uint8_t *>(image->data());
    for (uint32_t page = first; page < first + count; page++) {
        size_t offset = size_t(page) * kPageSize;
        if (offset + 40 > image->size()) break;
        const uint8_t *p = bytes + offset;
        if (LittleEndian<uint16_t>(p) != 32) continue;
        if (LittleEndian<uint32_t>(p + 4) != Crc32(p + 8, 32)) continue;
        Record r;
        r.tStart = LittleEndian<int32_t>(p + 8);
        r.tEnd = LittleEndian<int32_t>(p + 12);
        r.tx = LittleEndian<uint64_t>(p + 16);
        r.rx = LittleEndian<uint64_t>(p + 24);
        r.tUsed = LittleEndian<int32_t>(p + 32);
        pages.push_back({page, r});
    }
    return pages;
}
inline std::vector<FlashPage> MinuteRing(const Sandbox &box) { return ReadRing(box, kMinRingStart, kMinRingPages); }
inline std::vector<FlashPage> HalfDayRing(const Sandbox &box) { return ReadRing(box, kHDayRingStart, kHDayRingPages); }
inline std::vector<Record> Records(const std::vector<FlashPage> &pages)
{
    std::vector<Record> records;
    for (const FlashPage &p : pages) records.push_back(p.record);
    return records;
}

inline Record Rec(int32_t tStart, int32_t tEnd, uint64_t tx, uint64_t rx, int32_t tUsed)
{
    Record r;
    r.tStart = tStart;
    r.tEnd = tEnd;
    r.tx = tx;
    r.rx = rx;
    r.tUsed = tUsed;
    return r;
}

// Body of TM_MSG_SIM_INPUT. A non-zero MSG keeps the echo line and the
// quiet debug lines out of the output.
inline std::string SimInputBody(int32_t now, uint64_t tx, uint64_t rx, int32_t msg = 1)
{
    std::string b(28, '\0');
    memcpy(&b[0], &now, 4);
    memcpy(&b[8], &tx, 8);
    memcpy(&b[16], &rx, 8);
    memcpy(&b[24], &msg, 4);
    return b;
}

inline void Expect(std::optional<int32_t> reply, int32_t want, const char *what)
{
    if (reply != want)
        throw std::runtime_error(std::string(what) + ": reply " + (reply ? std::to_string(*reply) : "none") +
                                 ", expected " + std::to_string(want));
}

// Stores simulated clock and counters (from now on the core's only ones).
inline void SimInput(Sandbox &box, int32_t now, uint64_t tx, uint64_t rx)
{
    Expect(box.Send(kSimInput, SimInputBody(now, tx, rx)), 1, "TM_MSG_SIM_INPUT");
}
// Runs the wake on the simulated input.
inline void SimWake(Sandbox &box) { Expect(box.Send(kSimWake), 3000000, "TM_MSG_SIM_WAKE"); }
// Moves the fake clock and runs a wake.
inline void WakeAt(Sandbox &box, const std::string &clock)
{
    box.SetTime(clock);
    Expect(box.Send(kTimeWake), 1, "TM_MSG_TIME_WAKE");
}

// What a datagram printed: the output after the reply, up to where it is
// complete by DONE (the output so far, from the offset of the request).
template <typename Done>
std::string DumpOutput(Sandbox &box, uint16_t code, Done done)
{
    size_t from = box.Stdout().size();
    box.Send(code);
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
        std::string out = box.Stdout();
        std::string text = out.size() > from ? out.substr(from) : std::string();
        if (done(text)) return text;
        if (std::chrono::steady_clock::now() > until)
            throw std::runtime_error("dump " + std::to_string(code) + " incomplete: " + text.substr(0, 2000));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// The number behind LABEL in TEXT, searched from FROM.
inline long long NumberAfter(const std::string &text, const std::string &label, size_t from = 0)
{
    size_t at = text.find(label, from);
    if (at == std::string::npos) throw std::runtime_error("no \"" + label + "\" in dump: " + text.substr(0, 2000));
    return strtoll(text.c_str() + at + label.size(), nullptr, 10);
}
inline std::string LineAfter(const std::string &text, const std::string &label)
{
    size_t at = text.find(label);
    if (at == std::string::npos) throw std::runtime_error("no \"" + label + "\" in dump");
    at += label.size();
    return text.substr(at, text.find('\n', at) - at);
}

struct State {
    uint64_t lastTx, lastRx, initLinkUpRx, lastMinTx, lastMinRx;
    std::string wan, zone;
    int timeSync;
    int32_t latestHDay, lastReset, nextReset, baseMin, nextMin, nextHDay;
    uint32_t nextMinFlash, nextHDayFlash;
};

inline State ParseState(const std::string &t)
{
    State s;
    s.latestHDay = int32_t(NumberAfter(t, "Latest Half Day time: "));
    s.lastTx = uint64_t(NumberAfter(t, "Last Tx:"));
    s.lastRx = uint64_t(NumberAfter(t, "Last Tx:" + std::to_string(s.lastTx) + " Rx:"));
    s.initLinkUpRx = uint64_t(NumberAfter(t, "Init Link Up Rx:"));
    s.lastMinTx = uint64_t(NumberAfter(t, "Last Minute tx:"));
    s.lastMinRx = uint64_t(NumberAfter(t, "Last Minute tx:" + std::to_string(s.lastMinTx) + " rx:"));
    s.wan = LineAfter(t, "WAN: ");
    s.timeSync = int(NumberAfter(t, "Time Sync:"));
    s.zone = LineAfter(t, " Time Zone:");
    // Times print as unsigned 32-bit numbers.
    s.lastReset = int32_t(uint32_t(NumberAfter(t, "Last Reset Time: ")));
    s.nextReset = int32_t(uint32_t(NumberAfter(t, "Next Reset Time: ")));
    s.baseMin = int32_t(uint32_t(NumberAfter(t, "Base Minute Time: ")));
    s.nextMin = int32_t(uint32_t(NumberAfter(t, "Next Minute Time: ")));
    s.nextHDay = int32_t(uint32_t(NumberAfter(t, "Next Half Day Time: ")));
    s.nextMinFlash = uint32_t(NumberAfter(t, "Next Flash Index min:"));
    s.nextHDayFlash = uint32_t(NumberAfter(t, " hday:"));
    return s;
}

// TM_MSG_DUMP_STATE, parsed.
inline State DumpState(Sandbox &box)
{
    return ParseState(DumpOutput(box, kDumpState, [](const std::string &text) {
        size_t at = text.find("Next Flash Index min:");
        return at != std::string::npos && text.find('\n', at) != std::string::npos;
    }));
}

struct Lists {
    State state;
    std::vector<Record> minutes;   // 720
    std::vector<Record> halfDays;  // 124
};

// One "Index: ..." line of the list dump.
inline Record ParseListLine(const std::string &line)
{
    Record r;
    r.tStart = int32_t(uint32_t(NumberAfter(line, "Start: ")));
    r.tEnd = int32_t(uint32_t(NumberAfter(line, "End: ")));
    r.tx = uint64_t(NumberAfter(line, "tx: "));
    r.rx = uint64_t(NumberAfter(line, "rx: "));
    r.tUsed = int32_t(uint32_t(NumberAfter(line, "Time: ")));
    return r;
}

inline std::vector<Record> ParseList(const std::string &text, const std::string &title, size_t count)
{
    std::vector<Record> list;
    size_t at = text.find(title);
    if (at == std::string::npos) throw std::runtime_error("no " + title);
    at += title.size();
    while (list.size() < count) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) throw std::runtime_error(title + " cut short");
        list.push_back(ParseListLine(text.substr(at, end - at)));
        at = end + 1;
    }
    return list;
}

// TM_MSG_DUMP_STATE_LISTS, parsed.
inline Lists DumpLists(Sandbox &box)
{
    std::string text = DumpOutput(box, kDumpLists, [](const std::string &t) {
        size_t at = t.find("\nHalf Day List:\n");
        if (at == std::string::npos) return false;
        size_t lines = 0;
        for (size_t i = at + 16; i < t.size(); i++) lines += t[i] == '\n';
        return lines >= 124;
    });
    Lists lists;
    lists.state = ParseState(text);
    lists.minutes = ParseList(text, "\nMinute List:\n", 720);
    lists.halfDays = ParseList(text, "\nHalf Day List:\n", 124);
    return lists;
}

// A field of the statistics object ("" when missing).
inline std::string Stat(const Sandbox &box, const std::string &field)
{
    auto object = box.ReadObject("2889");
    if (!object) return "";
    auto it = object->find(field);
    return it == object->end() ? "" : it->second;
}

}  // namespace kvard::test::meter

#endif
