// The exact model of the metering tests: what the daemon books minute by minute, the sums a
// start rebuilds from flash, and the figures it publishes, with the reset on the 27th at 06:30
// and a limit never reached (Settings gives the box the same).
#ifndef KVARD_TESTS_SYSTEM_METER_MODEL_H
#define KVARD_TESTS_SYSTEM_METER_MODEL_H

#include <array>
#include <cinttypes>
#include <map>
#include <set>
#include <vector>

#include "tests/system/meter_util.h"

namespace kvard::test::meter {

inline constexpr uint64_t kLimit = 100000;  // MB on tx + rx, never reached

// Local time of T with day, hour and month moved or set: midnights, half-days, the monthly
// reset on the 27th at 06:30 MONTHS after T's month, and the period that holds T.
inline int32_t Local(int32_t t, int days, int hour, int months = 0, int mday = 0, int min = 0)
{
    time_t v = t;
    struct tm f;
    localtime_r(&v, &f);
    f.tm_mday = mday ? mday : f.tm_mday + days, f.tm_mon += months, f.tm_hour = hour, f.tm_min = min, f.tm_sec = 0;
    return f.tm_isdst = -1, int32_t(mktime(&f));
}
inline int32_t Day(int32_t t, int days = 0) { return Local(t, days, 0); }
inline int32_t Week(int32_t t) { return Day(t, -std::stoi(Text(t, "%w"))); }
inline int32_t Half(int32_t t) { return Local(t, 0, std::stoi(Text(t, "%H")) < 12 ? 0 : 12); }
inline int32_t HalfEnd(int32_t t) { return Half(Half(t) + 14 * 3600); }
inline int32_t Reset(int32_t t, int months) { return Local(t, 0, 6, months, 27, 30); }
inline std::pair<int32_t, int32_t> Period(int32_t t)
{
    return Reset(t, 0) <= t ? std::pair{Reset(t, 0), Reset(t, 1)} : std::pair{Reset(t, -1), Reset(t, 0)};
}

// ACC + X * PART / LEN in binary32, step by step.
template <typename V>
V Share(V acc, V x, int64_t part, int64_t len)
{
    volatile float product = float(x) * float(part), quotient = product / float(len), sum = quotient + float(acc);
    return V(sum);
}
struct Sums {
    uint64_t tx = 0, rx = 0;
    int32_t t = 0;
    void Add(const Sums &o) { tx += o.tx, rx += o.rx, t += o.t; }
    void Part(const Sums &o, int64_t p, int64_t l)
    {
        tx = Share(tx, o.tx, p, l), rx = Share(rx, o.rx, p, l), t = Share(t, o.t, p, l);
    }
    bool operator==(const Sums &) const = default;
};
// Adds to INTO the share of V, booked on [A, E), that falls in [LO, HI).
inline void Take(Sums &into, const Sums &v, int32_t a, int32_t e, int32_t lo, int32_t hi)
{
    if (std::max(a, lo) >= std::min(e, hi)) return;
    if (a >= lo && e <= hi) into.Add(v);
    else into.Part(v, int64_t(std::min(e, hi)) - std::max(a, lo), int64_t(e) - a);
}
inline std::string Format(const char *format, auto... values)
{
    char out[64];
    snprintf(out, sizeof out, format, values...);
    return out;
}
inline std::string Mb(uint64_t bytes) { volatile float mb = float(bytes) / 1000000.0f; return Format("%.2f", double(mb)); }

enum { kMonth, kToday, kYesterday, kWeek };

struct Model {
    std::map<int32_t, Sums> booked;  // minute start -> what the daemon booked on it
    std::map<int32_t, Sums> halves;  // half-day start -> its booked minutes
    std::array<Sums, 4> sums;
    Sums last;  // the counters and the time of the last accounting
    int32_t L = 0, R = 0, nextMin = 0;
    std::vector<int32_t> order;  // half-day starts in the half-day ring's page order, when it has wrapped

    void Start(int32_t t, uint64_t tx, uint64_t rx)
    {
        std::tie(L, R) = Period(t);
        last = {tx, rx, t}, nextMin = (t + 60) / 60 * 60;
        sums = Rebuilt(t);
    }
    void Wake(int32_t w, uint64_t tx, uint64_t rx)
    {
        Sums minute{tx - last.tx, rx - last.rx, w - last.t};
        bool day = Day(w) != Day(last.t), week = Week(w) != Week(last.t);
        booked[nextMin - 60] = minute;
        halves[Half(nextMin - 60)].Add(minute);
        for (int g : {kMonth, kToday, kWeek}) sums[g].Add(minute);
        last = {tx, rx, w}, nextMin = (w + 60) / 60 * 60;
        if (w >= R) sums = {}, std::tie(L, R) = Period(w);
        if (day) sums[kYesterday] = std::exchange(sums[kToday], {});
        if (week) sums[kWeek] = {};
    }
    // The published figures at NOW with the counters at TX and RX.
    StoreObject Figures(int32_t now, uint64_t tx, uint64_t rx) const
    {
        std::array<Sums, 4> s = sums;
        for (int g : {kMonth, kToday, kWeek}) s[g].Add({tx - last.tx, rx - last.rx, now - last.t});
        StoreObject out;
        const std::string names[] = {"thismonth", "today", "yesterday", "thisweek", "lastmonth"};
        for (int g = 0; g < 5; g++) {
            const Sums &v = g < 4 ? s[g] : LastMonth(now);
            out[names[g] + "_upload"] = Mb(v.tx), out[names[g] + "_download"] = Mb(v.rx);
            out[names[g] + "_conntime"] = Format("%02d:%02d", v.t / 3600, v.t % 3600 / 60);
        }
        uint64_t used = s[kMonth].tx + s[kMonth].rx, left = kLimit * 1000000 - used;
        out["dataUsed"] = std::to_string(used / 1000000);
        out["volume_left"] = Format(" %" PRIu64 " G %" PRIu64 " M %" PRIu64 " K ", left >> 30, (left >> 20) & 1023,
                                    (left >> 10) & 1023);
        return out;
    }
    // Lower bounds of month, today, yesterday (up to midnight) and week at T.
    std::array<int32_t, 4> From(int32_t t) const
    {
        const int32_t d = Day(t), y = Day(d - 43200), w = Week(t);
        return {L, std::max(d, L), (y < L && L < d) ? L : y, std::max(w, L)};
    }
    // The sums as a start at T derives them from the stored records.
    std::array<Sums, 4> Rebuilt(int32_t t) const
    {
        const int32_t running = Half(t), d = Day(t);
        const std::array<int32_t, 4> from = From(t);
        std::array<Sums, 4> s;
        auto take = [&](int32_t a, int32_t e, const Sums &v) {
            for (int g = 0; g < 4; g++) Take(s[g], v, a, e, from[g], g == kYesterday ? d : INT32_MAX);
        };
        std::vector<int32_t> starts = order;  // a share rounds the total it is added to: the order counts
        if (starts.empty())
            for (const auto &[h, v] : halves) starts.push_back(h);
        std::set<int32_t> taken;
        for (int32_t h : starts)
            if (h < running && HalfEnd(h) > L && halves.count(h) && taken.insert(h).second) take(h, HalfEnd(h), halves.at(h));
        for (auto it = booked.lower_bound(running); it != booked.end(); ++it)
            if (it->first + 60 > L) take(it->first, it->first + 60, it->second);
        return s;
    }
    // Last month from the half-day list at NOW: entries inside [P, L), shares of those across
    // a bound (the running one, empty, too), then the running half-day's minutes before L.
    Sums LastMonth(int32_t now) const
    {
        const int32_t running = Half(now), P = Period(L - 1).first;
        Sums out;
        for (int32_t a = Half(P), e; a < L && a <= running; a = e) {
            e = HalfEnd(a);
            Take(out, a < running && halves.count(a) ? halves.at(a) : Sums{}, a, e, P, L);
        }
        for (auto it = booked.lower_bound(running); it != booked.end() && it->first + 60 <= L; ++it) out.Add(it->second);
        return out;
    }
};

inline void Settings(Sandbox &box)
{
    box.WriteObject("1400", {{"wanType", "PPPoE"}});
    box.UpdateObject("2888", {{"day", "27"}, {"hour", "6"}, {"min", "30"}, {"volcontrl", "true"},
                              {"contrl_type", "Both directions"}, {"volume_monthly_limit", std::to_string(kLimit)}});
}

}  // namespace kvard::test::meter

#endif
