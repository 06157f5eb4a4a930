// The proportional share, the apportioning of a record over buckets, and the
// period statistics. The clock is replaced at link time (time is wrapped), the
// WAN counters are the simulated ones, and a WAN read that isn't simulated
// fails on an empty temporary data model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "core/tmcore.h"
#include "history/tmstat.h"
#include "tests/unit/cms_tempstore.h"

namespace {
bool fakeClockOn;
int32_t fakeClock;
}  // namespace

extern "C" time_t __real_time(time_t *out);
extern "C" time_t __wrap_time(time_t *out)
{
    if (!fakeClockOn) return __real_time(out);
    if (out) *out = fakeClock;
    return fakeClock;
}

namespace {

void Zone(const char *zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// "YYYY-MM-DD hh:mm:ss+HH:MM" to epoch seconds by UTC arithmetic alone.
int32_t At(const char *text)
{
    struct tm f = {};
    int oh = 0, om = 0;
    char s = '+';
    EXPECT_EQ(sscanf(text, "%d-%d-%d %d:%d:%d%c%d:%d", &f.tm_year, &f.tm_mon, &f.tm_mday, &f.tm_hour, &f.tm_min,
                     &f.tm_sec, &s, &oh, &om),
              9)
        << text;
    f.tm_year -= 1900;
    f.tm_mon -= 1;
    return (int32_t)(timegm(&f) - (s == '-' ? -1 : 1) * (oh * 3600 + om * 60));
}

// ---- An oracle for binary32 that shares no code with the float unit's
// conversions: integers are rounded to 24 bits by integer arithmetic, and each
// operation is done exactly (or, for the quotient, in double, whose 53 bits
// make the second rounding harmless) and rounded to float once.

float RefFloat(uint64_t v, bool negative = false)
{
    double magnitude;
    if (v < (1ull << 24)) {
        magnitude = (double)v;
    } else {
        int shift = 63 - __builtin_clzll(v) - 23;
        uint64_t m = v >> shift, rem = v & ((1ull << shift) - 1), half = 1ull << (shift - 1);
        if (rem > half || (rem == half && (m & 1))) m++;
        magnitude = ldexp((double)m, shift);
    }
    return (float)(negative ? -magnitude : magnitude);
}

float RefSigned(int64_t v)
{
    return v < 0 ? RefFloat(0 - (uint64_t)v, true) : RefFloat((uint64_t)v);
}

// Magnitude of a float cut toward zero, from its exponent and 24-bit significand.
uint64_t RefCut(float f)
{
    int e = 0;
    uint64_t m = (uint64_t)ldexp((double)frexpf(fabsf(f), &e), 24);
    return e >= 24 ? m << (e - 24) : (e > -40 ? m >> (24 - e) : 0);
}

uint64_t RefShareU64(uint64_t acc, uint64_t c, int64_t part, int64_t len)
{
    float product = (float)((double)RefFloat(c) * (double)RefSigned(part));
    float quotient = (float)((double)product / (double)RefSigned(len));
    float sum = (float)((double)quotient + (double)RefFloat(acc));
    if (!(sum >= 1.0f)) return 0;
    return sum >= 0x1p64f ? UINT64_MAX : RefCut(sum);
}

int32_t RefShareI32(int32_t acc, int32_t c, int64_t part, int64_t len)
{
    float product = (float)((double)RefSigned(c) * (double)RefSigned(part));
    float quotient = (float)((double)product / (double)RefSigned(len));
    float sum = (float)((double)quotient + (double)RefSigned(acc));
    if (sum >= 0x1p31f) return INT32_MAX;
    if (sum < -0x1p31f) return INT32_MIN;
    int64_t cut = (int64_t)RefCut(sum);
    return (int32_t)(sum < 0 ? -cut : cut);
}

TEST(Share, worked_numbers_are_binary32_step_by_step)
{
    struct Case {
        uint64_t acc, c;
        int64_t part, len;
        uint64_t expect;
    } cases[] = {
        {16777217, 500000, 1, 1, 17277216},     // the accumulator is rounded to 24 bits
        {3000000123ull, 0, 1, 1, 3000000000ull},  // ... even by a share of 0
        {0, 1000, 40, 60, 666},                  // shares are cut, so they add up to less
        {0, 1000, 20, 60, 333},
        {0, 23, 7, 23, 7},                       // multiply first: 23 * (7 / 23) would give 6
        {0, 16777217, 1, 1, 16777216},           // the count itself is rounded
        {5, 0, 0, 60, 5},
        {UINT64_MAX, 0, 1, 1, UINT64_MAX},       // 2^64 saturates
        {0, 1, 1, 0, UINT64_MAX},                // an infinite share saturates
        {0, 0, 0, 0, 0},                         // NaN cuts to 0
    };
    for (const Case &k : cases)
        EXPECT_EQ(TmShareU64(k.acc, k.c, k.part, k.len), k.expect) << k.acc << " + " << k.c << " * " << k.part << " / "
                                                                    << k.len;
    struct Time {
        int32_t acc, c;
        int64_t part, len;
        int32_t expect;
    } times[] = {
        {0, 60, 20, 60, 20},
        {0, -5, 1, 2, -2},  // toward zero
        {INT32_MAX, 0, 1, 1, INT32_MAX},
        {INT32_MIN, -1000, 1, 1, INT32_MIN},
        {16777217, 0, 1, 1, 16777216},
    };
    for (const Time &k : times)
        EXPECT_EQ(TmShareI32(k.acc, k.c, k.part, k.len), k.expect) << k.acc << " + " << k.c << " * " << k.part << " / "
                                                                    << k.len;
}

TEST(Share, agrees_with_an_independent_binary32_model_on_random_inputs)
{
    uint64_t seed = std::random_device{}();
    if (const char *s = getenv("TMSTAT_SEED")) seed = strtoull(s, nullptr, 10);
    SCOPED_TRACE("seed " + std::to_string(seed) + " (TMSTAT_SEED reproduces it)");
    std::mt19937_64 rng(seed);
    // Values of a random bit length, so that every magnitude is visited.
    auto bits = [&](int most) -> uint64_t {
        int b = (int)(rng() % (uint64_t)(most + 1));
        return b == 0 ? 0 : rng() >> (64 - b);
    };
    for (int n = 0; n < 200000; n++) {
        int64_t len = 1 + (int64_t)bits(31);
        int64_t part = (int64_t)(rng() % (uint64_t)(len + 1));
        uint64_t c = bits(64), acc = bits(64);
        ASSERT_EQ(TmShareU64(acc, c, part, len), RefShareU64(acc, c, part, len))
            << acc << " + " << c << " * " << part << " / " << len;
        int32_t tc = (int32_t)bits(31) * (rng() % 8 == 0 ? -1 : 1);
        int32_t tacc = (int32_t)bits(31) * (rng() % 8 == 0 ? -1 : 1);
        ASSERT_EQ(TmShareI32(tacc, tc, part, len), RefShareI32(tacc, tc, part, len))
            << tacc << " + " << tc << " * " << part << " / " << len;
    }
}

// ---- TmApportionRecord

// Buckets of 60 s from t0 on.
void Buckets(TmRecord *b, uint32_t count, int32_t t0)
{
    memset(b, 0, sizeof(TmRecord) * count);
    for (uint32_t k = 0; k < count; k++) {
        b[k].tStart = t0 + 60 * (int32_t)k;
        b[k].tEnd = b[k].tStart + 60;
    }
}

TEST(Apportion, the_ten_steps_in_order)
{
    // Five buckets: F = [60,120) ... G = [300,360). The record carries 1200 /
    // 7 / 60; each bucket that takes something takes the share of its seconds.
    struct Take {
        int bucket;
        int seconds;
    };
    struct Case {
        const char *what;
        int32_t S, E;
        int result;
        Take takes[3];
    } cases[] = {
        {"1: empty", 200, 200, 0, {}},
        {"1: reversed", 250, 200, 0, {}},
        {"2: begins at G.tEnd", 360, 400, 1, {}},
        {"2: after the array", 500, 600, 1, {}},
        {"3: ends at F.tStart", 0, 60, -1, {}},
        {"3: before the array", -100, 30, -1, {}},
        {"4: begins before, ends in F", 30, 90, 0, {{0, 30}}},
        {"4: begins before, ends at F.tEnd", 0, 120, 0, {{0, 60}}},
        {"5: begins before, reaches past F", 30, 150, 0, {{0, 60}, {1, 30}}},
        {"5: bucket 1 takes all the rest", 0, 300, 0, {{0, 60}, {1, 180}}},
        {"5: before and after the array", 0, 400, 0, {{0, 60}, {1, 280}}},
        {"6: begins in G, ends after", 330, 390, 0, {{4, 30}}},
        {"6: begins at G.tStart", 300, 420, 0, {{4, 60}}},
        {"7: ends after, began earlier", 250, 390, 0, {{4, 60}, {3, 50}}},
        {"7: bucket count-2 takes all the rest", 60, 400, 0, {{4, 60}, {3, 240}}},
        {"8: inside a bucket", 130, 170, 0, {{1, 40}}},
        {"8: fills a bucket", 120, 180, 0, {{1, 60}}},
        {"8: begins at tStart", 120, 150, 0, {{1, 30}}},
        {"8: ends at tEnd", 150, 180, 0, {{1, 30}}},
        {"8: fills F", 60, 120, 0, {{0, 60}}},
        {"8: fills G", 300, 360, 0, {{4, 60}}},
        {"9: two buckets", 100, 160, 0, {{1, 40}, {0, 20}}},
        {"9: ends at B.tEnd", 100, 180, 0, {{1, 60}, {0, 20}}},
        {"10: three buckets", 100, 250, 0, {{3, 10}, {2, 60}, {1, 80}}},
        {"10: the third takes all the rest", 60, 300, 0, {{3, 60}, {2, 60}, {1, 120}}},
    };
    const uint64_t tx = 1200, rx = 7;
    const int32_t tUsed = 60;
    for (const Case &k : cases) {
        TmRecord b[5];
        Buckets(b, 5, 60);
        TmRecord r = {k.S, k.E, tx, rx, tUsed, 0};
        EXPECT_EQ(TmApportionRecord(b, 5, &r), k.result) << k.what;
        int64_t len = (int64_t)k.E - k.S;
        for (int i = 0; i < 5; i++) {
            int seconds = 0;
            for (const Take &t : k.takes)
                if (t.seconds != 0 && t.bucket == i) seconds = t.seconds;
            // Small counters: the binary32 share is the integer floor.
            EXPECT_EQ(b[i].tx, seconds ? tx * (uint64_t)seconds / (uint64_t)len : 0) << k.what << ", bucket " << i;
            EXPECT_EQ(b[i].rx, seconds ? rx * (uint64_t)seconds / (uint64_t)len : 0) << k.what << ", bucket " << i;
            EXPECT_EQ(b[i].tUsed, seconds ? (int32_t)(tUsed * seconds / len) : 0) << k.what << ", bucket " << i;
            EXPECT_EQ(b[i].tStart, 60 + 60 * i);
            EXPECT_EQ(b[i].tEnd, 120 + 60 * i);
        }
    }
}

TEST(Apportion, the_worked_record_over_two_minute_buckets)
{
    TmRecord b[2];
    Buckets(b, 2, 60);
    TmRecord r = {100, 160, 1000, 7, 60, 0};
    EXPECT_EQ(TmApportionRecord(b, 2, &r), 0);
    EXPECT_EQ(b[0].tx, 333u);
    EXPECT_EQ(b[0].rx, 2u);
    EXPECT_EQ(b[0].tUsed, 20);
    EXPECT_EQ(b[1].tx, 666u);
    EXPECT_EQ(b[1].rx, 4u);
    EXPECT_EQ(b[1].tUsed, 40);
}

TEST(Apportion, a_record_within_one_bucket_adds_in_exact_integers)
{
    struct Case {
        int32_t S, E;
    } cases[] = {{120, 180}, {120, 150}, {150, 180}, {130, 170}};
    for (const Case &k : cases) {
        TmRecord b[3];
        Buckets(b, 3, 60);
        b[1].tx = 16777217;  // odd and above 2^24: binary32 would make it even
        b[1].rx = 3000000123ull;
        b[1].tUsed = 16777217;
        TmRecord r = {k.S, k.E, 2, 0, 2, 0};
        EXPECT_EQ(TmApportionRecord(b, 3, &r), 0);
        EXPECT_EQ(b[1].tx, 16777219u) << k.S << ".." << k.E;
        EXPECT_EQ(b[1].rx, 3000000123ull) << k.S << ".." << k.E;
        EXPECT_EQ(b[1].tUsed, 16777219) << k.S << ".." << k.E;
    }
}

TEST(Apportion, never_more_than_three_buckets_change_and_nothing_is_invented)
{
    std::mt19937 rng(12345);
    for (int n = 0; n < 20000; n++) {
        TmRecord b[20];
        Buckets(b, 20, 0);  // 0 .. 1200
        int32_t S = (int32_t)(rng() % 1600) - 200, E = (int32_t)(rng() % 1600) - 200;
        TmRecord r = {S, E, rng() % 1024, rng() % 1024, (int32_t)(rng() % 1024), 0};
        int expect = S >= E ? 0 : (E <= 0 ? -1 : (S >= 1200 ? 1 : 0));
        ASSERT_EQ(TmApportionRecord(b, 20, &r), expect) << S << ".." << E;
        int changed = 0;
        uint64_t tx = 0;
        for (const TmRecord &x : b) {
            changed += x.tx != 0 || x.rx != 0 || x.tUsed != 0;
            tx += x.tx;
        }
        ASSERT_LE(changed, 3) << S << ".." << E;
        ASSERT_LE(tx, r.tx) << S << ".." << E;
        // Inside the array every second lands somewhere: only the cuts are lost.
        if (S < E && S >= 0 && E <= 1200) {
            ASSERT_GE(tx + 3, r.tx) << S << ".." << E;
        }
    }
}

// ---- TmCollectStatistic

class Collect : public ::testing::Test {
protected:
    TempStore store;  // an empty data model: a WAN read that isn't simulated fails
    TmExportData &ed = tmCore.exportData;

    void SetUp() override
    {
        memset(&tmCore, 0, sizeof tmCore);
        Zone("Europe/Berlin");
        fakeClockOn = true;
    }
    void TearDown() override { fakeClockOn = false; }

    void Synced(const char *L, uint32_t resetDay, int32_t now)
    {
        ed.timeSync = 1;
        ed.lastResetTime = At(L);
        ed.resetDay = resetDay;
        fakeClock = now;
    }
    TmStatistic Run()
    {
        TmStatistic s;
        memset(&s, 0, sizeof s);
        EXPECT_EQ(TmCollectStatistic(&s), 1);
        return s;
    }
};

TEST_F(Collect, a_null_result_record_is_refused)
{
    EXPECT_EQ(TmCollectStatistic(nullptr), 0);
}

TEST_F(Collect, the_last_period_starts_from_L_by_a_probe_into_the_month_before)
{
    struct Case {
        uint32_t resetDay;
        const char *L, *P;
    } cases[] = {
        {15, "2023-03-15 08:30:00+01:00", "2023-02-15 08:30:00+01:00"},  // probe 11 Feb
        {10, "2023-03-10 08:30:00+01:00", "2023-02-10 08:30:00+01:00"},  // probe 21 Feb
        {31, "2023-02-28 00:00:00+01:00", "2023-01-31 00:00:00+01:00"},  // probe 27 Jan
        {31, "2023-03-31 00:00:00+02:00", "2023-02-28 00:00:00+01:00"},  // probe 27 Feb; 17 days would stay in March
        {1, "2023-03-01 00:00:00+01:00", "2023-02-01 00:00:00+01:00"},   // 32 days would reach January
        {0, "2023-03-01 00:00:00+01:00", "2023-02-01 00:00:00+01:00"},   // 0 counts as 1
        {14, "2023-01-14 06:00:00+01:00", "2022-12-14 06:00:00+01:00"},
        {30, "2024-03-30 00:00:00+01:00", "2024-02-29 00:00:00+01:00"},
        {15, "2023-04-15 08:30:00+02:00", "2023-03-15 08:30:00+01:00"},  // across the shift: 31 days less an hour
        {15, "2023-03-16 00:00:00+01:00", "2023-02-15 00:00:00+01:00"},  // hour and minute are L's own
    };
    for (const Case &k : cases) {
        Synced(k.L, k.resetDay, At(k.L) + 86400);
        ed.nextResetTime = At(k.L) + 1000;
        ed.manualResetTime = At(k.L) + 500;
        TmStatistic s = Run();
        EXPECT_EQ(s.start_data_time, At(k.L));
        EXPECT_EQ(s.next_data_time, At(k.L) + 1000);
        EXPECT_EQ(s.manualTime, At(k.L) + 500);
        EXPECT_EQ(s.current_data_time, At(k.L) + 86400);
        EXPECT_EQ(s.lastmonth.elapsed, (int64_t)At(k.L) - At(k.P)) << "reset day " << k.resetDay << ", L " << k.L;
    }
}

TEST_F(Collect, elapsed_counts_from_the_period_start_and_is_never_zero)
{
    struct Case {
        const char *now;
        int32_t offset;
        int64_t week, month;
    } cases[] = {
        // L is Wednesday 15 March 2023, 08:30.
        {"2023-03-15 08:30:00+01:00", 0, 1, 1},         // the first second
        {"2023-03-15 08:30:00+01:00", 1, 1, 1},
        {"2023-03-15 08:30:00+01:00", -3600, 1, 1},     // the clock before the period start
        {"2023-03-20 10:00:00+01:00", 0, 122400, 437400},  // Monday: the week from Sunday 00:00
        {"2023-03-19 10:00:00+01:00", 0, 36000, 351000},   // Sunday: week and today alike
        {"2023-03-27 10:00:00+02:00", 0, 118800, 1038600},  // Sunday 26 March had 23 hours
    };
    for (const Case &k : cases) {
        Synced("2023-03-15 08:30:00+01:00", 15, At(k.now) + k.offset);
        TmStatistic s = Run();
        EXPECT_EQ(s.thisweek.elapsed, k.week) << k.now << " " << k.offset;
        EXPECT_EQ(s.thismonth.elapsed, k.month) << k.now << " " << k.offset;
        if (k.week > 1 && k.week < 86400) {
            EXPECT_EQ(s.today.elapsed, k.week) << k.now;
        }
        for (const TmPeriodFigures *p : {&s.today, &s.yesterday, &s.thisweek, &s.thismonth, &s.lastmonth})
            EXPECT_GE(p->elapsed, 1) << k.now << " " << k.offset;
    }
}

TEST_F(Collect, the_running_minute_counts_for_today_week_and_month_only)
{
    struct Case {
        const char *what;
        uint32_t enable, link, simulated;
        uint64_t wanTx, wanRx;
        int32_t lastTimeOffset;
        uint64_t addTx, addRx;
        int32_t addTime;
    } cases[] = {
        {"volume and time", 1, 1, 1, 10500, 20900, -25, 500, 900, 25},
        {"no link: volume, no time", 1, 0, 1, 10500, 20900, -25, 500, 900, 0},
        {"meter off: nothing", 0, 1, 1, 10500, 20900, -25, 0, 0, 0},
        {"WAN unreadable: time only", 1, 1, 0, 10500, 20900, -25, 0, 0, 25},
        {"counters at or below the base", 1, 2, 1, 9999, 20000, -25, 0, 0, 25},
        {"lastTime now", 1, 1, 1, 10000, 20000, 0, 0, 0, 0},
        {"lastTime ahead", 1, 1, 1, 10000, 20000, 30, 0, 0, 0},
    };
    for (const Case &k : cases) {
        memset(&tmCore, 0, sizeof tmCore);
        int32_t now = At("2023-03-20 10:00:30+01:00");
        Synced("2023-03-15 08:30:00+01:00", 15, now);
        ed.enable = k.enable;
        ed.link = k.link;
        tmCore.simActive = k.simulated;
        tmCore.sim.simTx = k.wanTx;
        tmCore.sim.simRx = k.wanRx;
        ed.lastTx = 10000;
        ed.lastRx = 20000;
        ed.lastTime = now + k.lastTimeOffset;
        ed.todayTx = 1, ed.todayRx = 2, ed.todayTime = 3;
        ed.weekTx = 10, ed.weekRx = 20, ed.weekTime = 30;
        ed.monthlyTx = 100, ed.monthlyRx = 200, ed.monthlyTime = 300;
        ed.yesterdayTx = 1000, ed.yesterdayRx = 2000, ed.yesterdayTime = 3000;
        ed.otherTx = 4, ed.otherRx = 5, ed.otherTime = 6, ed.roundOffRx = 7;
        ed.lastMonthTailTx = 11, ed.lastMonthTailRx = 12, ed.lastMonthTailTime = 13;
        TmStatistic s = Run();
        EXPECT_EQ(s.today.upload, 1 + 4 + k.addTx) << k.what;
        EXPECT_EQ(s.today.download, 2 + 5 + 7 + k.addRx) << k.what;
        EXPECT_EQ(s.today.conntime, 3 + 6 + k.addTime) << k.what;
        EXPECT_EQ(s.thisweek.upload, 10 + 4 + k.addTx) << k.what;
        EXPECT_EQ(s.thisweek.download, 20 + 5 + 7 + k.addRx) << k.what;
        EXPECT_EQ(s.thisweek.conntime, 30 + 6 + k.addTime) << k.what;
        EXPECT_EQ(s.thismonth.upload, 100 + 4 + k.addTx) << k.what;
        EXPECT_EQ(s.thismonth.download, 200 + 5 + 7 + k.addRx) << k.what;
        EXPECT_EQ(s.thismonth.conntime, 300 + 6 + k.addTime) << k.what;
        EXPECT_EQ(s.yesterday.upload, 1000u) << k.what;
        EXPECT_EQ(s.yesterday.download, 2000u) << k.what;
        EXPECT_EQ(s.yesterday.conntime, 3000) << k.what;
        EXPECT_EQ(s.lastmonth.upload, 11u) << k.what;
        EXPECT_EQ(s.lastmonth.download, 12u) << k.what;
        EXPECT_EQ(s.lastmonth.conntime, 13) << k.what;
    }
}

TEST_F(Collect, the_limit_by_its_type)
{
    const uint64_t M = UINT64_MAX;
    struct Case {
        uint32_t type;
        uint64_t limitVol;
        int32_t limitTime;
        uint64_t tx, rx;
        int32_t time;
        uint32_t timeLimit;
        uint64_t limited, used, left;
    } cases[] = {
        {0, 1000, 3600, 500, 300, 600, 0, 0, 0, 0},
        {1, 1000, 0, 500, 300, 0, 0, 1000, 300, 700},
        {1, 1000, 0, 5000, 300, 0, 0, 1000, 300, 700},  // upload doesn't count
        {1, 1000, 0, 0, 1000, 0, 0, 1000, 1000, 0},
        {1, 1000, 0, 0, 1001, 0, 0, 1000, 1001, 0},     // clamped at 0
        {2, 1000, 0, 500, 300, 0, 0, 1000, 800, 200},
        {2, 1000, 0, 700, 400, 0, 0, 1000, 1100, 0},
        {3, 0, 3600, 500, 300, 600, 1, 3600, 600, 3000},
        {3, 0, -5, 0, 0, 10, 1, M - 4, 10, 0},          // signed: -5 is below 10
        {3, 0, 50, 0, 0, -100, 1, 50, M - 99, 150},     // signed: -100 is below 50
        {3, 0, 100, 0, 0, 100, 1, 100, 100, 0},
        {4, 1000, 3600, 500, 300, 600, 0, 0, 0, 0},
    };
    for (const Case &k : cases) {
        memset(&tmCore, 0, sizeof tmCore);
        Synced("2023-03-15 08:30:00+01:00", 15, At("2023-03-20 10:00:00+01:00"));
        ed.limitType = k.type;
        ed.limitVol = k.limitVol;
        ed.limitTime = k.limitTime;
        ed.monthlyTx = k.tx;
        ed.monthlyRx = k.rx;
        ed.monthlyTime = k.time;
        TmStatistic s = Run();
        EXPECT_EQ(s.timeLimit, k.timeLimit) << "type " << k.type;
        EXPECT_EQ(s.dataLimited, k.limited) << "type " << k.type;
        EXPECT_EQ(s.dataUsed, k.used) << "type " << k.type << " " << k.tx << "/" << k.rx << "/" << k.time;
        EXPECT_EQ(s.volume_left, k.left) << "type " << k.type << " " << k.tx << "/" << k.rx << "/" << k.time;
    }
}

TEST_F(Collect, without_a_synchronised_clock_the_calendar_month_and_zeros)
{
    struct Case {
        const char *zone, *now, *start;
    } cases[] = {
        {"Europe/Berlin", "2023-03-20 12:34:56+01:00", "2023-03-01 00:00:00+01:00"},
        {"Europe/Berlin", "2023-04-01 00:00:00+02:00", "2023-04-01 00:00:00+02:00"},
        {"Europe/Berlin", "2023-10-31 10:00:00+01:00", "2023-10-01 00:00:00+02:00"},
        {"America/New_York", "2023-03-31 23:59:59-04:00", "2023-03-01 00:00:00-05:00"},
    };
    for (const Case &k : cases) {
        Zone(k.zone);
        fakeClock = At(k.now);
        // Everything that would count once the clock is set.
        ed.enable = 1, ed.link = 1, ed.limitType = 2, ed.limitVol = 1000, ed.lastTime = fakeClock - 100;
        ed.monthlyTx = ed.todayRx = ed.yesterdayTx = ed.weekRx = ed.lastMonthTailTx = 77;
        ed.lastResetTime = fakeClock - 1000, ed.nextResetTime = fakeClock + 1000, ed.manualResetTime = 5;
        tmCore.simActive = 1, tmCore.sim.simTx = 999;
        TmStatistic s;
        memset(&s, 0xA5, sizeof s);  // shows which fields are written
        EXPECT_EQ(TmCollectStatistic(&s), 1);
        EXPECT_EQ(s.current_data_time, fakeClock) << k.now;
        EXPECT_EQ(s.start_data_time, At(k.start)) << k.now;
        EXPECT_EQ(s.timeLimit, 0u);
        EXPECT_EQ(s.volume_left, 0u);
        EXPECT_EQ(s.dataUsed, 0u);
        EXPECT_EQ((uint32_t)s.next_data_time, 0xA5A5A5A5u);  // left as the caller had them
        EXPECT_EQ((uint32_t)s.manualTime, 0xA5A5A5A5u);
        EXPECT_EQ(s.dataLimited, 0xA5A5A5A5A5A5A5A5ull);
        for (const TmPeriodFigures *p : {&s.today, &s.yesterday, &s.thisweek, &s.thismonth, &s.lastmonth}) {
            EXPECT_EQ(p->conntime, 0);
            EXPECT_EQ(p->upload, 0u);
            EXPECT_EQ(p->download, 0u);
            EXPECT_EQ(p->elapsed, 1);
        }
    }
}

TEST_F(Collect, last_month_splits_the_entries_across_P_and_L_and_adds_the_rest_exactly)
{
    Zone("UTC");
    // Reset day 15 at 08:30: P 15 Feb 08:30, L 15 Mar 08:30, inside half-days.
    Synced("2023-03-15 08:30:00+00:00", 15, At("2023-03-20 10:00:00+00:00"));
    int32_t last = At("2023-03-20 00:00:00+00:00");  // the running half-day
    for (int k = 0; k < TM_HDAY_LIST_SIZE; k++) {
        ed.hDayList[k].tStart = last - 43200 * (123 - k);
        ed.hDayList[k].tEnd = ed.hDayList[k].tStart + 43200;
    }
    auto entry = [&](const char *start) -> TmRecord & { return ed.hDayList[123 - (last - At(start)) / 43200]; };
    auto fill = [](TmRecord &r, uint64_t tx, uint64_t rx, int32_t t) { r.tx = tx, r.rx = rx, r.tUsed = t; };
    fill(entry("2023-02-14 12:00:00+00:00"), 999, 999, 999);       // before P
    fill(entry("2023-02-15 00:00:00+00:00"), 43200, 0, 1000);      // across P: 12600 s of 43200
    fill(entry("2023-02-15 12:00:00+00:00"), 16764616, 100, 60);   // whole
    fill(entry("2023-03-14 12:00:00+00:00"), 1, 0, 0);             // whole: the sum is odd, 2^24 + 1
    fill(entry("2023-03-15 00:00:00+00:00"), 0, 43200, 1000);      // across L: 30600 s of 43200
    fill(entry("2023-03-15 12:00:00+00:00"), 5555, 5555, 5555);    // after L
    fill(ed.hDayList[123], 7777, 7777, 7777);
    ed.lastMonthTailTx = 3, ed.lastMonthTailTime = 7;
    TmStatistic s = Run();
    // The zero share across L still rounds the sum to 24 bits; the tail is exact.
    EXPECT_EQ(s.lastmonth.upload, 16777216u + 3);
    EXPECT_EQ(s.lastmonth.download, 100u + 30600);
    EXPECT_EQ(s.lastmonth.conntime, 1059 + 7);  // 291.67 -> 291, + 60, + 708.33 -> 1059, + 7
    EXPECT_EQ(s.lastmonth.elapsed, 28 * 86400);

    // One entry reaching over the whole period takes the share of L - P.
    memset(ed.hDayList, 0, sizeof ed.hDayList);
    int32_t P = At("2023-02-15 08:30:00+00:00"), L = ed.lastResetTime;
    ed.hDayList[122] = {P - 1000, L + 2000, 1000, 0, 0, 0};
    ed.hDayList[123] = {L + 2000, L + 45200, 0, 0, 0, 0};
    ed.lastMonthTailTx = 0, ed.lastMonthTailTime = 0;
    EXPECT_EQ(Run().lastmonth.upload, 998u);  // 1000 * 2419200 / 2422200 = 998.76
}

}  // namespace
