// Days of random traffic through the production daemon, stopped and started
// again at random minutes and around the calendar's edges, checked after
// every wake and every restart against the test's own model of the traffic.
//
// The model books each wake's counter movement on the minute that the
// daemon dates it to (the scheduled minute, also after a late wake) and
// keeps the running period sums as they move from minute to minute, with
// the day, week and monthly roll-overs. A restart gives up the minute in
// progress; afterwards the sums are what the stored records give, which
// differs from the running sums only where a half-day record straddles the
// start of a period and is split by time in single precision.
//
// Simulated input drives the core's clock and counters, but the statistics
// read the system clock. So before each wake the fake clock is moved to the
// simulated moment, and every publication is checked at exactly that moment.
//
// KVARD_INVARIANT_SEED picks the random run (default fixed for CI), and
// KVARD_INVARIANT_DAYS sets its length (default 36: two monthly resets).
#include <gtest/gtest.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using namespace kvard::test::meter;

constexpr const char *kZone = "Europe/Berlin";
constexpr const char *kWan = "ppp0.2";  // the PPPoE interface
constexpr uint64_t kLimitMb = 100000;   // 100 GB on tx + rx, never reached

// ---- Calendar of the zone (the process runs in it, see the test body) ----

int32_t Make(struct tm fields)
{
    fields.tm_isdst = -1;
    return int32_t(mktime(&fields));
}
struct tm Local(int32_t t)
{
    time_t v = t;
    struct tm out;
    localtime_r(&v, &out);
    return out;
}
int32_t At(const char *text)
{
    struct tm fields = {};
    if (!strptime(text, "%Y-%m-%d %H:%M:%S", &fields)) throw std::runtime_error(std::string("bad time ") + text);
    return Make(fields);
}
std::string Text(int32_t t)
{
    struct tm fields = Local(t);
    char out[32];
    strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S", &fields);
    return out;
}
std::string Asc(int32_t t)
{
    struct tm fields = Local(t);
    char out[32];
    asctime_r(&fields, out);
    return out;
}
int32_t DayStart(int32_t t)
{
    struct tm f = Local(t);
    f.tm_hour = f.tm_min = f.tm_sec = 0;
    return Make(f);
}
int32_t NextDay(int32_t t) { return DayStart(DayStart(t) + 36 * 3600); }
int32_t WeekStart(int32_t t)
{
    struct tm f = Local(DayStart(t));
    f.tm_mday -= f.tm_wday;
    return Make(f);
}
int32_t NextWeek(int32_t t)
{
    struct tm f = Local(WeekStart(t));
    f.tm_mday += 7;
    return Make(f);
}
// The local half-day (00:00 or 12:00) that holds t, and the next one.
int32_t HalfDayStart(int32_t t)
{
    struct tm f = Local(t);
    f.tm_hour = f.tm_hour < 12 ? 0 : 12;
    f.tm_min = f.tm_sec = 0;
    return Make(f);
}
int32_t HalfDayEnd(int32_t t) { return HalfDayStart(HalfDayStart(t) + 14 * 3600); }

// The monthly reset: the 27th at 06:30.
constexpr int kResetDay = 27, kResetHour = 6, kResetMinute = 30;
int32_t ResetOfMonth(int year, int month)
{
    struct tm f = {};
    f.tm_year = year - 1900;
    f.tm_mon = month;
    f.tm_mday = kResetDay;
    f.tm_hour = kResetHour;
    f.tm_min = kResetMinute;
    return Make(f);
}
// The period that holds t: [first, second).
std::pair<int32_t, int32_t> PeriodOf(int32_t t)
{
    struct tm f = Local(t);
    int year = f.tm_year + 1900, month = f.tm_mon;
    int32_t reset = ResetOfMonth(year, month);
    if (reset <= t) return {reset, month == 11 ? ResetOfMonth(year + 1, 0) : ResetOfMonth(year, month + 1)};
    return {month == 0 ? ResetOfMonth(year - 1, 11) : ResetOfMonth(year, month - 1), reset};
}

// ---- Figures ----

// The proportional share, binary32 step by step: acc + c * part / len.
template <typename T>
T Share(T acc, T c, int64_t part, int64_t len)
{
    volatile float count = float(c), seconds = float(part), length = float(len), sum = float(acc);
    volatile float product = count * seconds;
    volatile float quotient = product / length;
    volatile float total = quotient + sum;
    return T(total);  // every value here is well inside the range
}

struct Sums {
    uint64_t tx = 0, rx = 0;
    int32_t time = 0;
    void Add(const Sums &o)
    {
        tx += o.tx;
        rx += o.rx;
        time += o.time;
    }
    void AddShare(const Sums &o, int64_t part, int64_t len)
    {
        tx = Share<uint64_t>(tx, o.tx, part, len);
        rx = Share<uint64_t>(rx, o.rx, part, len);
        time = Share<int32_t>(time, o.time, part, len);
    }
    bool operator==(const Sums &o) const { return tx == o.tx && rx == o.rx && time == o.time; }
};

std::string Megabytes(uint64_t bytes)
{
    volatile float value = float(bytes);
    volatile float mb = value / 1000000.0f;
    char out[48];
    snprintf(out, sizeof out, "%.2f", double(mb));
    return out;
}
std::string Average(uint64_t bytes, int64_t elapsed)
{
    volatile float days = float(elapsed);
    days = days / 86400.0f;
    if (days < 1.0f) days = 1.0f;
    volatile float value = float(bytes);
    volatile float perDay = value / days;
    volatile float mb = perDay / 1000000.0f;
    char out[48];
    snprintf(out, sizeof out, "%.2f", double(mb));
    return out;
}
std::string Duration(int32_t seconds)
{
    char out[32];
    snprintf(out, sizeof out, "%02d:%02d", seconds / 3600, seconds % 3600 / 60);
    return out;
}
std::string Remainder(uint64_t left)
{
    std::string out;
    char part[40];
    if (left >> 30) {
        snprintf(part, sizeof part, " %" PRIu64 " G %" PRIu64 " M ", left >> 30, (left >> 20) & 1023);
        out = part;
    } else if (left >> 20) {
        snprintf(part, sizeof part, "%" PRIu64 " M ", left >> 20);
        out = part;
    }
    snprintf(part, sizeof part, "%" PRIu64 " K ", (left >> 10) & 1023);
    return out + part;
}

void PutPeriod(StoreObject &out, const std::string &name, const Sums &s, int64_t elapsed, bool averages)
{
    out[name + "_conntime"] = Duration(s.time);
    out[name + "_upload"] = Megabytes(s.tx);
    out[name + "_download"] = Megabytes(s.rx);
    out[name + "_total"] = Megabytes(s.tx + s.rx);
    if (!averages) return;
    out[name + "_uploadavg"] = Average(s.tx, elapsed);
    out[name + "_downloadavg"] = Average(s.rx, elapsed);
    out[name + "_totalavg"] = Average(s.tx + s.rx, elapsed);
}

// ---- The model ----

class Model {
public:
    // A start of the daemon at T with the WAN counters TX and RX: the sums
    // are derived from what is booked, as the stored records give them.
    void Start(int32_t t, uint64_t tx, uint64_t rx)
    {
        std::tie(L_, R_) = PeriodOf(t);
        lastTime_ = t;
        lastTx_ = tx;
        lastRx_ = rx;
        nextMin_ = (t + 60) / 60 * 60;
        nextDay_ = NextDay(t);
        nextWeek_ = NextWeek(t);
        std::vector<Sums> sums = Rebuilt(t);
        month_ = sums[0];
        today_ = sums[1];
        yesterday_ = sums[2];
        week_ = sums[3];
    }

    // A wake at W (at or after nextMin) with the counters TX and RX.
    void Wake(int32_t w, uint64_t tx, uint64_t rx)
    {
        if (w < nextMin_) throw std::logic_error("a wake before the minute is due");
        Sums minute{tx - lastTx_, rx - lastRx_, w - lastTime_};
        booked_[nextMin_ - 60] = minute;
        halfDays_[HalfDayStart(nextMin_ - 60)].Add(minute);
        month_.Add(minute);
        today_.Add(minute);
        week_.Add(minute);
        nextMin_ = (w + 60) / 60 * 60;
        lastTime_ = w;
        lastTx_ = tx;
        lastRx_ = rx;
        if (w >= R_) {
            month_ = today_ = yesterday_ = week_ = Sums{};
            std::tie(L_, R_) = PeriodOf(w);
        }
        bool day = w >= nextDay_, week = w >= nextWeek_;
        if (day) {
            yesterday_ = today_;
            today_ = Sums{};
        }
        if (week) week_ = Sums{};
        if (day || week) {
            nextDay_ = NextDay(w);
            nextWeek_ = NextWeek(w);
        }
    }

    // The statistics object at NOW with the counters TX and RX.
    StoreObject Figures(int32_t now, uint64_t tx, uint64_t rx) const
    {
        Sums running{tx > lastTx_ ? tx - lastTx_ : 0, rx > lastRx_ ? rx - lastRx_ : 0,
                     now > lastTime_ ? now - lastTime_ : 0};
        Sums today = today_, week = week_, month = month_;
        today.Add(running);
        week.Add(running);
        month.Add(running);
        int32_t w = WeekStart(now);
        int32_t weekFrom = w > L_ ? w : L_;
        int32_t P = PeriodOf(L_ - 1).first;
        StoreObject out;
        PutPeriod(out, "today", today, 0, false);
        PutPeriod(out, "yesterday", yesterday_, 0, false);
        PutPeriod(out, "thisweek", week, now > weekFrom ? now - weekFrom : 1, true);
        PutPeriod(out, "thismonth", month, now > L_ ? now - L_ : 1, true);
        PutPeriod(out, "lastmonth", LastMonth(now, P), L_ > P ? L_ - P : 1, true);
        uint64_t used = month.tx + month.rx, limit = kLimitMb * 1000000;
        out["start_data_time"] = Asc(L_);
        out["current_data_time"] = Asc(now);
        out["passedDay"] = std::to_string((now - L_) / 86400);
        int32_t span = R_ - L_;
        out["periodDay"] = std::to_string(span / 86400 + (span % 86400 >= 79200 ? 1 : 0));
        out["dataUsed"] = std::to_string(used / 1000000);
        out["dataLimited"] = std::to_string(kLimitMb);
        out["volume_left"] = Remainder(limit > used ? limit - used : 0);
        return out;
    }

    // Month, today, yesterday and week as a start at T derives them from the
    // stored records: the half-day records of what has ended, the minute
    // records of the running half-day.
    std::vector<Sums> Rebuilt(int32_t t) const
    {
        const int32_t running = HalfDayStart(t), d = DayStart(t);
        const std::array<int32_t, 4> from = From(t);
        std::vector<Sums> sums(4);
        auto lower = [](Sums &s, int32_t start, int32_t end, const Sums &v, int32_t bound) {
            if (start >= bound) s.Add(v);
            else if (bound < end) s.AddShare(v, int64_t(end) - bound, int64_t(end) - start);
        };
        auto take = [&](int32_t start, int32_t end, const Sums &v) {
            lower(sums[0], start, end, v, from[0]);
            lower(sums[1], start, end, v, from[1]);
            lower(sums[3], start, end, v, from[3]);
            if (from[2] >= end || d <= start) return;
            if (start >= from[2] && end <= d) sums[2].Add(v);
            else sums[2].AddShare(v, int64_t(end < d ? end : d) - (start > from[2] ? start : from[2]), end - start);
        };
        // The half-day records, oldest first (the order they were written in),
        // those of past periods left out; then the minutes of the running one.
        for (auto it = halfDays_.begin(); it != halfDays_.end() && it->first < running; ++it) {
            const int32_t start = it->first, end = HalfDayEnd(start);
            const Sums &v = it->second;
            if (start < L_ && end <= L_) continue;
            take(start, end, v);
        }
        for (auto it = booked_.lower_bound(running); it != booked_.end(); ++it)
            if (it->first + 60 > L_) take(it->first, it->first + 60, it->second);
        return sums;
    }
    std::vector<Sums> Running() const { return {month_, today_, yesterday_, week_}; }
    int32_t NextMinute() const { return nextMin_; }
    int32_t LastTime() const { return lastTime_; }
    // Which of month, today, yesterday and week a start at T derives from a
    // half-day record that straddles the period's start: that record is split
    // by time, not by when its traffic flowed.
    std::vector<bool> SplitByTime(int32_t t) const
    {
        bool closed = HalfDayStart(L_) != L_ && HalfDayEnd(L_) <= HalfDayStart(t);
        std::array<int32_t, 4> from = From(t);
        std::vector<bool> split(4);
        for (size_t i = 0; i < 4; i++) split[i] = closed && from[i] == L_;
        return split;
    }

private:
    // Lower bounds of month, today, yesterday (up to midnight) and week at T.
    std::array<int32_t, 4> From(int32_t t) const
    {
        const int32_t d = DayStart(t), y = DayStart(d - 43200), w = WeekStart(t);
        return {L_, d > L_ ? d : L_, (y < L_ && L_ < d) ? L_ : y, w > L_ ? w : L_};
    }

    // Last month from the half-day list at NOW: entries in time order, whole
    // inside [P, L), by their share across either bound (the running entry,
    // all zero, included), then the minutes of the running half-day before L.
    Sums LastMonth(int32_t now, int32_t P) const
    {
        const int32_t running = HalfDayStart(now);
        Sums last;
        for (int32_t start = HalfDayStart(P); start < L_ && start <= running; start = HalfDayEnd(start)) {
            int32_t end = HalfDayEnd(start);
            Sums v = start < running && halfDays_.count(start) ? halfDays_.at(start) : Sums{};
            if (end <= P || start >= L_) continue;
            if (start >= P && end <= L_) {
                last.Add(v);
                continue;
            }
            int64_t part = start < P && end > L_ ? int64_t(L_) - P : start < P ? int64_t(end) - P : int64_t(L_) - start;
            last.AddShare(v, part, int64_t(end) - start);
        }
        for (auto it = booked_.lower_bound(running); it != booked_.end() && it->first + 60 <= L_; ++it)
            last.Add(it->second);
        return last;
    }

    std::map<int32_t, Sums> booked_;    // minute start -> what the daemon booked on it
    std::map<int32_t, Sums> halfDays_;  // half-day start -> the sum of its booked minutes
    Sums month_, today_, yesterday_, week_;
    int32_t L_ = 0, R_ = 0, nextMin_ = 0, nextDay_ = 0, nextWeek_ = 0, lastTime_ = 0;
    uint64_t lastTx_ = 0, lastRx_ = 0;
};

// ---- The run ----

struct Restart {
    const char *at;      // the first wake at or after this moment is followed by a stop
    int offset;          // seconds after that wake
    int downtime;        // seconds until the start
    const char *reason;
};

// Stops at the edges of the calendar, beside the random ones.
const Restart kRestarts[] = {
    {"2026-03-23 23:59:00", 30, 0, "in the last minute of a day"},
    {"2026-03-24 12:00:00", 0, 0, "at a half-day boundary to the second"},
    {"2026-03-24 23:20:00", 0, 110 * 60, "down across midnight: the evening is folded"},
    {"2026-03-26 06:00:00", 20, 13 * 3600, "down across two boundaries"},
    {"2026-03-27 06:30:00", 0, 0, "at the monthly reset to the second"},
    {"2026-03-27 06:45:00", 10, 0, "after the monthly reset, in the same half-day"},
    {"2026-03-27 15:00:00", 0, 0, "after the half-day across the reset was closed"},
    {"2026-03-28 08:00:00", 45, 60, "the day after the reset"},
    {"2026-03-29 10:00:00", 0, 3 * 3600, "the 11-hour morning of the spring change, down across its end"},
    {"2026-03-29 12:00:00", 30, 0, "in the first minute of a half-day"},
    {"2026-03-29 23:50:00", 0, 30 * 60, "down across Sunday midnight"},
    {"2026-03-31 20:00:00", 5, 20 * 3600, "down for most of a day"},
    {"2026-04-27 05:00:00", 0, 3 * 3600, "down across the monthly reset: the start-up does it"},
    {"2026-04-27 13:00:00", 0, 0, "after the half-day across that reset was folded"},
};

class Simulation {
public:
    Simulation(uint64_t seed, int days) : rng_(seed), end_(At("2026-03-23 20:00:00") + days * 86400) {}

    void Go()
    {
        int32_t t = At("2026-03-23 20:00:00");
        SandboxOptions options;
        options.time = Text(t);
        options.zone = kZone;
        box_ = std::make_unique<Sandbox>(options);
        box_->WriteObject("1400", {{"wanType", "PPPoE"}});
        box_->UpdateObject("2888", {{"day", std::to_string(kResetDay)},
                                    {"hour", std::to_string(kResetHour)},
                                    {"min", std::to_string(kResetMinute)},
                                    {"volcontrl", "true"},
                                    {"contrl_type", "Both directions"},
                                    {"volume_monthly_limit", std::to_string(kLimitMb)}});
        tx_ = 1000 + Below(1000000);
        rx_ = 5000 + Below(1000000);
        StartAt(t);
        size_t nextForced = 0;
        while (t < end_ && !::testing::Test::HasFailure()) {
            int32_t w = NextWake();
            Traffic(w - t);
            t = w;
            Wake(w);
            CheckFigures(w, "after the wake at " + Text(w));
            bool forced = nextForced < std::size(kRestarts) && w >= At(kRestarts[nextForced].at);
            if (forced) {
                const Restart &r = kRestarts[nextForced++];
                t = RestartAt(w + r.offset, r.downtime, r.reason);
            } else if (Below(500) == 0) {
                int downtime = Below(4) == 0 ? int(Below(8 * 3600)) : 0;
                t = RestartAt(w + int32_t(Below(60)), downtime, "at random");
            }
        }
        printf("%d wakes, %d restarts (%d with a split record), %" PRIu64 " bytes received in all\n", wakes_,
               restarts_, splits_, rx_);
    }

private:
    uint64_t Below(uint64_t n) { return rng_() % n; }

    // Traffic of SECONDS: mostly busy minutes, some idle ones.
    void Traffic(int32_t seconds)
    {
        for (int32_t minute = 0; minute < (seconds + 59) / 60; minute++) {
            if (Below(5) == 0) continue;
            rx_ += Below(3000000);
            tx_ += Below(300000);
        }
    }

    // The next wake: on time or late by a random gap, but never across a
    // half-day boundary, and the boundary itself is woken on time, so that
    // the minute list of the next half-day starts at it.
    int32_t NextWake()
    {
        int32_t due = model_.NextMinute();
        int32_t boundary = HalfDayEnd(due - 1);
        if (due == boundary) return due;
        uint64_t roll = Below(100);
        int32_t late = roll < 90 ? 0 : roll < 98 ? int32_t(1 + Below(10)) : int32_t(10 + Below(170));
        int32_t w = due + 60 * late;
        return w < boundary - 60 ? w : boundary - 60 > due ? boundary - 60 : due;
    }

    void SetClock(int32_t t) { box_->WriteFile("sandbox/clock", Text(t) + "\n"); }

    void Wake(int32_t w)
    {
        // The input first: from then on the daemon's own timer does nothing,
        // so moving the fake clock cannot wake it on the real counters.
        SimInput(*box_, w, tx_, rx_);
        SetClock(w);
        SimWake(*box_);
        model_.Wake(w, tx_, rx_);
        wakes_++;
    }

    void StartAt(int32_t t)
    {
        box_->SetNetDev({{kWan, rx_, tx_}});
        SetClock(t);
        box_->Start();
        ASSERT_TRUE(box_->WaitReady());
        model_.Start(t, tx_, rx_);
    }

    // Stops at T, after showing the minute in progress, and starts again
    // DOWNTIME later; the traffic meanwhile is never seen. Returns the start.
    int32_t RestartAt(int32_t t, int downtime, const std::string &reason)
    {
        std::string what = "restart at " + Text(t) + " (" + reason + ")";
        SCOPED_TRACE(what);
        if (t > model_.LastTime()) {
            Traffic(t - model_.LastTime());
            SimInput(*box_, t, tx_, rx_);
            SetClock(t);
            EXPECT_EQ(box_->Send(kWriteStatistic), 1);
            CheckFigures(t, "the minute in progress before the " + what);
        }
        std::vector<Sums> before = model_.Running();
        box_->Stop();
        int32_t start = t + downtime;
        Traffic(downtime);
        StartAt(start);
        CheckFigures(start, "after the " + what);
        restarts_++;
        if (downtime == 0) {
            // Nothing but the minute in progress is lost: the sums derived
            // from flash are the running ones, except where a half-day
            // record across the period's start is split by time.
            std::vector<Sums> after = model_.Running();
            std::vector<bool> split = model_.SplitByTime(start);
            const char *names[] = {"month", "today", "yesterday", "week"};
            for (size_t i = 0; i < 4; i++)
                if (!split[i]) {
                    EXPECT_TRUE(before[i] == after[i]) << names[i] << " changed across the " << what;
                }
            splits_ += split[0];
        }
        return start;
    }

    void CheckFigures(int32_t now, const std::string &when)
    {
        auto stat = box_->ReadObject("2889");
        ASSERT_TRUE(stat) << "nothing published " << when;
        std::string wrong;
        for (const auto &[name, value] : model_.Figures(now, tx_, rx_)) {
            auto it = stat->find(name);
            std::string got = it == stat->end() ? "(missing)" : it->second;
            if (got != value)
                wrong += "\n  " + name + ": published \"" + EscapeStoreValue(got) + "\", model \"" +
                         EscapeStoreValue(value) + "\"";
        }
        ASSERT_TRUE(wrong.empty()) << when << ":" << wrong;
    }

    std::mt19937_64 rng_;
    int32_t end_;
    std::unique_ptr<Sandbox> box_;
    Model model_;
    uint64_t tx_ = 0, rx_ = 0;
    int wakes_ = 0, restarts_ = 0, splits_ = 0;
};

uint64_t EnvNumber(const char *name, uint64_t fallback)
{
    const char *text = getenv(name);
    return text && *text ? strtoull(text, nullptr, 0) : fallback;
}

TEST(Invariant, random_traffic_over_days_with_restarts_agrees_with_the_model_after_every_wake_and_restart)
{
    const uint64_t seed = EnvNumber("KVARD_INVARIANT_SEED", 20260323);
    const int days = int(EnvNumber("KVARD_INVARIANT_DAYS", 36));
    SCOPED_TRACE("KVARD_INVARIANT_SEED=" + std::to_string(seed));
    printf("seed %" PRIu64 ", %d days\n", seed, days);
    // The model's calendar is the box's.
    std::string saved = getenv("TZ") ? getenv("TZ") : "";
    bool had = getenv("TZ") != nullptr;
    setenv("TZ", kZone, 1);
    tzset();
    Simulation(seed, days).Go();
    if (had) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
}

}  // namespace
