// A metered run for the flash reliability tests: PPP traffic driven by simulation wakes and
// restarts, the exact model beside it, the NAND log read back, and pages classified by the
// byte format alone (blank, a record with a good CRC, or anything else).
#ifndef KVARD_TESTS_RELIABILITY_METERED_RUN_H
#define KVARD_TESTS_RELIABILITY_METERED_RUN_H

#include <random>
#include <ranges>
#include <set>
#include <sstream>

#include "tests/system/meter_model.h"

namespace kvard::test::reliability {

using namespace kvard::test::meter;

inline constexpr uint32_t kBlockPages = 64, kRingPages = kHDayStart + kHDayPages;
inline const std::string kLogEnv = "MTDSIM_LOG=/.sandbox/nand.log";

inline uint64_t EnvNumber(const char *name, uint64_t fallback)
{
    const char *v = getenv(name);
    return v && *v ? strtoull(v, nullptr, 0) : fallback;
}

struct View {  // a page as a reader of the byte format sees it
    enum Kind { kBlank, kRecord, kOther } kind = kBlank;
    Record r;
    bool operator==(const View &) const = default;
};
inline View Classify(const char *p)
{
    if (std::all_of(p, p + kPageSize, [](char c) { return c == '\xFF'; })) return {};
    if (Le(p, 2) != 32 || Le(p + 4, 4) != Crc32(p + 8, 32)) return {View::kOther, {}};
    return {View::kRecord, {int32_t(Le(p + 8, 4)), int32_t(Le(p + 12, 4)), Le(p + 16, 8), Le(p + 24, 8), int32_t(Le(p + 32, 4))}};
}
inline std::vector<View> Views(const std::string &image)
{
    std::vector<View> out;
    for (uint32_t page = 0; page < kRingPages && size_t(page + 1) * kPageSize <= image.size(); page++)
        out.push_back(Classify(image.data() + size_t(page) * kPageSize));
    return out;
}

struct NandOp { std::string op; uint32_t offset; std::string result, detail; };
inline std::vector<NandOp> NandLog(const Sandbox &box, size_t from = 0)
{
    std::vector<NandOp> ops;
    std::istringstream lines(box.ReadFile("sandbox/nand.log").value_or("").substr(from));
    for (NandOp o; lines >> o.op >> o.offset;) {
        std::string length, rest;
        lines >> length >> o.result;
        std::getline(lines, rest);
        o.detail = rest.empty() ? "" : rest.substr(1);
        ops.push_back(o);
    }
    return ops;
}

// Old records before the test's time, in no list and no figure, that fill the rings up to
// the pages given, so that they wrap early; pages of bad blocks stay blank.
inline Image OldRings(uint32_t minutesUpTo, uint32_t halvesUpTo, const std::set<uint32_t> &badBlocks = {})
{
    Image image;
    int32_t half = T("2025-06-01 00:00:00"), minute = T("2025-08-01 00:00:00");
    for (uint32_t page = 0; page < kRingPages; page++) {
        bool minutes = page < kHDayStart;
        if (page >= (minutes ? minutesUpTo : halvesUpTo) || badBlocks.count(page / kBlockPages)) continue;
        if (minutes) image.Put(page, {minute, minute + 60, 1000 + page, 2000 + page, 60}), minute += 60;
        else image.Put(page, {half, HalfEnd(half), 5000 + page, 9000 + page, 43200}), half = HalfEnd(half);
    }
    return image;
}

class MeteredRun {
public:
    Sandbox box;
    Model model;
    std::mt19937_64 rng;
    int32_t t;
    uint64_t tx = 1000, rx = 5000;

    MeteredRun(const std::string &start, uint64_t seed) : box(At(start)), rng(seed), t(T(start)) { Settings(box); }

    int32_t Below(uint64_t n) { return int32_t(rng() % n); }
    void Traffic(int32_t seconds)  // mostly busy minutes, some idle
    {
        for (int32_t m = 0; m < (seconds + 59) / 60; m++)
            if (Below(5)) rx += Below(3000000), tx += Below(300000);
    }
    bool Killed() { return box.WaitExit(milliseconds(10000)).rfind("killed 9", 0) == 0; }

    // Starts at AT with ENV; false when the program was killed before it was ready.
    bool Start(int32_t at, const std::vector<std::string> &env = {kLogEnv})
    {
        Traffic(at - t);  // what goes by while the program is down is never seen
        SetClock(box, t = at);
        box.SetNetDev({{"ppp0.2", rx, tx}});
        box.Start(env);
        if (auto ready = box.WaitReady(); !ready) {
            if (Killed()) return false;
            throw std::runtime_error(ready.message());
        }
        // The start replays the half-day ring in page order, which after a wrap is not that of time.
        model.order.clear();
        for (const View &v : Views(box.ReadFile("sandbox/mtd.img").value_or("")) | std::views::drop(kHDayStart))
            if (v.kind == View::kRecord) model.order.push_back(v.r.tStart);
        model.Start(t, tx, rx);
        Check("after the start at");
        return true;
    }
    void Stop()
    {
        if (box.Stop().rfind("exited", 0) != 0 && box.Status().rfind("killed 15", 0) != 0) ADD_FAILURE() << box.Status();
    }

    // The next wake: on time mostly, else late, the half-day boundary always on time. With AIM
    // wakes before it, and room for them in the half-day, the wake after them is at the boundary.
    int32_t Next(int aim = -1)
    {
        int32_t due = model.nextMin, boundary = HalfEnd(due - 1), roll = Below(100);
        if ((aim == 1 && due <= boundary - 60) || (aim > 1 && due + 60 * aim <= boundary)) return aim == 1 ? boundary - 60 : due;
        int32_t w = due + 60 * (roll < 90 ? 0 : roll < 98 ? 1 + Below(10) : 10 + Below(170));
        return due == boundary ? due : std::max(due, std::min(w, boundary - 60));
    }
    // A wake at W; false when the program was killed in it. APPLY leaves the model to the caller.
    bool Wake(int32_t w, bool apply = true)
    {
        Traffic(w - t);
        SimInput(box, t = w, tx, rx);
        SetClock(box, w);
        auto reply = box.Send(kSimWake);
        if (!reply && Killed()) return false;
        Want(reply, 3000000, "sim wake");
        if (apply) Apply(w);
        return true;
    }
    // The model takes the wake at W, whose figures are checked if it was PUBLISHED; the record
    // that it writes, to one ring or the other.
    std::pair<bool, Record> Apply(int32_t w, bool published = true)
    {
        const int32_t m = model.nextMin - 60, h = Half(m);
        model.Wake(w, tx, rx);
        if (published) Check("after the wake at");
        const Sums &s = w < HalfEnd(m) ? model.booked[m] : model.halves[h];
        return {w >= HalfEnd(m), {w < HalfEnd(m) ? m : h, w < HalfEnd(m) ? m + 60 : HalfEnd(m), s.tx, s.rx, s.t}};
    }
    void Check(const char *when)
    {
        StoreObject got = box.ReadObject("2889").value_or(StoreObject{});
        std::string wrong;
        for (const auto &[name, value] : model.Figures(t, tx, rx))
            if (got[name] != value) wrong += "\n  " + name + ": \"" + got[name] + "\", model \"" + value + "\"";
        if (!wrong.empty()) ADD_FAILURE() << when << " " << Text(t) << wrong;
    }

    // The records from FROM on that flash must hold, by ring and start: each booked minute but
    // the half-days' last ones, which go into their half-day's record, and each closed half-day,
    // written at its end or folded at a start.
    std::multiset<std::pair<bool, int32_t>> Expected(int32_t from) const
    {
        std::multiset<std::pair<bool, int32_t>> out;
        for (const auto &[m, sums] : model.booked)
            if (m >= from && m + 60 != HalfEnd(m)) out.insert({false, m});
        for (const auto &[h, sums] : model.halves)
            if (h >= Half(from) && HalfEnd(h) <= Half(t)) out.insert({true, h});
        return out;
    }
    static std::string Diff(const std::multiset<std::pair<bool, int32_t>> &a, const std::multiset<std::pair<bool, int32_t>> &b)
    {
        std::string out;
        for (auto &x : a) if (a.count(x) != b.count(x)) out += (x.first ? " H" : " M") + Text(x.second) + "x" + std::to_string(a.count(x));
        out += " |";
        for (auto &x : b) if (a.count(x) != b.count(x)) out += (x.first ? " H" : " M") + Text(x.second) + "x" + std::to_string(b.count(x));
        return out;
    }
    // The records from FROM on in the image, each checked against the model's figures.
    std::multiset<std::pair<bool, int32_t>> Stored(int32_t from) const
    {
        std::multiset<std::pair<bool, int32_t>> out;
        std::vector<View> views = Views(box.ReadFile("sandbox/mtd.img").value_or(""));
        for (uint32_t page = 0; page < views.size(); page++) {
            const Record &r = views[page].r;
            const bool half = page >= kHDayStart;
            if (views[page].kind != View::kRecord || r.tStart < (half ? Half(from) : from)) continue;
            out.insert({half, r.tStart});
            const auto &sums = half ? model.halves : model.booked;
            Sums want = sums.count(r.tStart) ? sums.at(r.tStart) : Sums{};
            EXPECT_EQ(r, (Record{r.tStart, half ? HalfEnd(r.tStart) : r.tStart + 60, want.tx, want.rx, want.t}))
                << "page " << page;
        }
        return out;
    }
};

}  // namespace kvard::test::reliability

#endif
