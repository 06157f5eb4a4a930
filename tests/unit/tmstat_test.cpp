// The meter's figures: settings and WAN counters in; calendar, binary32 shares and statistics; side files and text
// out. A temporary store is the data model; fopen and time() are wrapped at link time (see the wraps below).
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <random>
#include <sys/file.h>

#include "core/tmcore.h"
#include "history/tmcalendar.h"
#include "history/tmsidefile.h"
#include "history/tmstat.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmtext.h"
#include "platform/tmwan.h"
#include "tests/unit/cms_tempstore.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"  // designated initializers name only what a case sets

static int32_t fakeClock;  // 0: the real clock

// While a TempStore lives, its directory stands for /proc/net/dev and the side files' directories.
extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    const char *store = getenv("KVARD_MDM_DIR");
    bool ours = strcmp(path, "/proc/net/dev") == 0 || strncmp(path, "/data/", 6) == 0 || strncmp(path, "/tmp/tm", 7) == 0;
    return __real_fopen(store && ours ? (std::string(store) + strrchr(path, '/')).c_str() : path, mode);
}

extern "C" time_t __real_time(time_t *out);
extern "C" time_t __wrap_time(time_t *out)
{
    return fakeClock ? (out ? *out = fakeClock : fakeClock) : __real_time(out);
}

TEST(ReadConfig, converts_every_setting_as_the_router_always_has_or_fails_leaving_the_record)
{
    const struct { const char *store, *expect; } cases[] = {
        {"traffic_on=true\nblock_on=true\nled_on=true\nday=0\nmin=59", "1 0 0@0:59 v0/0 t0/0 1,1 type0"},
        {"hour=11\nampm_sel=true", "0 0 1@23:0 v0/0 t0/0 0,0 type0"},
        {"hour=12\nampm_sel=true", "0 0 1@24:0 v0/0 t0/0 0,0 type0"},
        {"hour=12\nampm_sel=false", "0 0 1@12:0 v0/0 t0/0 0,0 type0"},
        {"volcontrl=true\ncontrl_type=\nvolume_monthly_limit=1000", "0 0 1@0:0 v1000000000/0 t0/0 0,0 type2"},
        {"ampm_sel=true\nvolcontrl=true", "0 0 1@0:0 v0/0 t0/0 0,0 type2"},  // no hour; no contrl_type
        {"volcontrl=true\ncontrl_type=No limit\nvolume_monthly_limit=1000", "0 0 1@0:0 v1000000000/0 t0/0 0,0 type0"},
        {"volcontrl=true\nvolume_monthly_limit=1000\nmark=100", "0 0 1@0:0 v1000000000/900000000 t0/0 0,0 type2"},
        {"volcontrl=true\nvolume_monthly_limit=100\nmark=200",  // a mark beyond the limit wraps
         "0 0 1@0:0 v100000000/18446744073609551616 t0/0 0,0 type2"},
        {"volcontrl=true\nvolume_monthly_limit=5000000", "0 0 1@0:0 v5000000000000/0 t0/0 0,0 type2"},
        {"timecontrl=true\nconntime_monthly_limit=24\nmark=2", "0 0 1@0:0 v0/0 t86400/79200 0,0 type3"},
        {"timecontrl=true\nconntime_monthly_limit=1\nmark=2", "0 0 1@0:0 v0/0 t3600/-3600 0,0 type3"},
        {"timecontrl=true\nconntime_monthly_limit=24\nmark=", "0 0 1@0:0 v0/0 t86400/0 0,0 type3"},
        {"timecontrl=true\nconntime_monthly_limit=600000", "0 0 1@0:0 v0/0 t-2134967296/0 0,0 type3"},
        {"volcontrl=true\ntimecontrl=true\nvolume_monthly_limit=1000\nconntime_monthly_limit=24\nmark=2",
         "0 0 1@0:0 v1000000000/998000000 t86400/79200 0,0 type3"},
        {"traffic_on=TRUE\nblock_on=yes\nled_on=1\nvolume_monthly_limit=1000\nconntime_monthly_limit=5\n"
         "round_up_volume=5000000000", "0 2147483647 1@0:0 v0/0 t0/0 0,0 type0"},  // capitals, no controls, 32-bit atol
    };
    for (const auto &c : cases) {
        TempStore store;
        store.write("2888", std::string(c.store) + "\n");
        TmConfig got = {};
        ASSERT_EQ(bcm_dm_ReadConfig("", &got), 0) << c.store;
        char text[200];  // enable roundOff resetDay@hour:minute vLimit/warn tLimit/warn disconnect,led type
        snprintf(text, sizeof text, "%u %llu %u@%u:%u v%llu/%llu t%d/%d %u,%u type%u", got.enable,
                 (unsigned long long)got.roundOff, got.resetDay, got.resetHour, got.resetMinute,
                 (unsigned long long)got.limitVol, (unsigned long long)got.warnVol, got.limitTime, got.warnTime,
                 got.disconnectLimit, got.ledflashLimit, got.limitType);
        EXPECT_STREQ(text, c.expect) << c.store;
    }

    // A missing object or a held lock fails and leaves the record alone.
    TempStore store;
    TmConfig config;
    memset(&config, 0x5A, sizeof config);
    const TmConfig before = config;
    EXPECT_EQ(bcm_dm_ReadConfig("", &config), 1);
    store.write("2888", "traffic_on=true\n");
    int holder = open(store.path(".lock").c_str(), O_RDWR | O_CREAT, 0644);  // a lock of its own open file
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    setenv("KVARD_MDM_LOCK_MAX_MS", "50", 1);
    EXPECT_EQ(bcm_dm_ReadConfig("", &config), 1);
    close(holder);
    EXPECT_EQ(0, memcmp(&config, &before, sizeof config));
}

TEST(Files, wan_counters_from_proc_net_dev_the_saved_pair_simulated_input_and_the_side_files)
{
    TempStore store;
    store.write("1400", "wanType=DHCP\n");
    store.write("1152.2", "ifName=eth0\nisUpstream=1\n");
    memset(&tmCore, 0, sizeof tmCore);
    auto netDev = [&](const std::string &lines) {
        store.write("dev", "Inter-|   Receive                                                |  Transmit\n"
                           " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
                           "drop fifo colls carrier compressed\n" + lines);
    };
    const struct { const char *name, *lines; unsigned long long rx, tx; } cases[] = {
        {"eth0.1", "    lo: 1 1 0 0 0 0 0 0 2 1 0 0 0 0 0 0\neth0.1:50 40 1 2 3 4 5 6 70 50 7 8 9 10 11 12\n", 50, 70},
        {"ppp0", "ppp0.2: 1 1 0 0 0 0 0 0 2 2 0 0 0 0 0 0\n", 0, 0}, {"eth0.1", "", 0, 0},  // the header only
        {"abcdefghijklmnop", "abcdefghijklmnop: 9 9 0 0 0 0 0 0 9 9 0 0 0 0 0 0\n", 0, 0},  // 16 characters: no name
        {"abcdefghijklmno", "abcdefghijklmno: 9 9 0 0 0 0 0 0 8 9 0 0 0 0 0 0\n", 9, 8},
        {"eth0.1", "eth0.1: 123 4\n", 123, 0},  // missing columns stay 0
        {"eth0.1", "eth0.1: 18446744073709551615 1 0 0 0 0 0 0 4294967296 1 0 0 0 0 0 0\n", ~0ull, 1ull << 32},
    };
    for (const auto &c : cases) {
        netDev(c.lines);
        TmNetDevStats stats = {};
        EXPECT_EQ(TmReadNetDevStats(c.name, &stats), 0) << c.lines;
        EXPECT_EQ(std::make_pair(stats.rxBytes, stats.txBytes), std::make_pair(c.rx, c.tx)) << c.lines;
    }
    const struct { const char *line; uint64_t tx, rx; } steps[] = {
        {"eth0.1: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n", 0, 0}, {"eth0.1: 500 0 0 0 0 0 0 0 300 0 0 0 0 0 0 0\n", 300, 500},
        {"eth0.1: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n", 300, 500},  // both zero: the earlier pair
        {"", 300, 500},                                            // interface away: the same
        {"eth0.1: 0 0 0 0 0 0 0 0 7 0 0 0 0 0 0 0\n", 7, 0},      // one zero beside a non-zero counter: as is
    };
    for (const auto &s : steps) {
        netDev(s.line);
        uint64_t tx = 99, rx = 99;
        ASSERT_EQ(GetWanStatistics(&tx, &rx), 1) << s.line;
        EXPECT_EQ(std::make_pair(tx, rx), std::make_pair(s.tx, s.rx)) << s.line;
    }

    // Simulated input needs neither the file nor the data model.
    unlink(store.path("dev").c_str());
    unlink(store.path("1400").c_str());
    tmCore.simActive = 1;
    tmCore.sim = {.simTx = 1234, .simRx = 5678};
    uint64_t tx = 0, rx = 0;
    ASSERT_EQ(GetWanStatistics(&tx, &rx), 1);
    EXPECT_EQ(std::make_tuple(tx, rx), std::make_tuple(1234ull, 5678ull));

    tmCore.exportData.manualResetTime = -2;  // four bytes, little-endian
    EXPECT_EQ(WriteManualResetTimeToFile(), 0);
    EXPECT_EQ(store.read("tmrestarttime.data"), "\xFE\xFF\xFF\xFF");
    tmCore.manualResetTime.time = 12345;  // the write set it too
    EXPECT_EQ(GetManualResetTimeFromFile(), 1);
    EXPECT_EQ(tmCore.manualResetTime.time, -2);
    for (const char *content : {"", "\x01\x02\x03", (const char *)nullptr}) {
        if (content) store.write("tmrestarttime.data", content);
        else unlink(store.path("tmrestarttime.data").c_str());
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(GetManualResetTimeFromFile(), 0);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Read File fail.\n");
        EXPECT_EQ(tmCore.manualResetTime.time, -2) << "the value stays as it was";
    }

    const struct { const char *content; int result; int32_t d, l, w; } reads[] = {
        {"011", 1, 0, 1, 1}, {"0109", 1, 0, 1, 0}, {"01", 1, 7, 7, 7}, {"a0 ", 1, 'a' - '0', 0, ' ' - '0'},
        {nullptr, 0, 0, 0, 0}};
    for (const auto &c : reads) {
        if (c.content) store.write("tmwarn.data", c.content);
        else unlink(store.path("tmwarn.data").c_str());
        int32_t d = 7, l = 7, w = 7;
        EXPECT_EQ(TmReadWarnFile(&d, &l, &w), c.result);
        EXPECT_EQ(std::make_tuple(d, l, w), std::make_tuple(c.d, c.l, c.w)) << (c.content ? c.content : "none");
    }
}

void Zone(const char *zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// "YYYY-MM-DD hh:mm+HH:MM" to epoch seconds.
int32_t At(const char *text)
{
    struct tm fields = {};
    EXPECT_NE(strptime(text, "%Y-%m-%d %H:%M%z", &fields), nullptr) << text;
    const long offset = fields.tm_gmtoff;  // timegm clears it
    return (int32_t)(timegm(&fields) - offset);
}

// Every column of the interface's line read as sscanf with the kernel's format
// would read it, whatever stands in the line: signs, overflow, a column that
// is no number, a line cut by the 1022-character read.
TEST(Files, proc_net_dev_columns_read_as_scanf_reads_them)
{
    TempStore store;
    const std::string header = "Inter-|   Receive\n face |bytes\n";
    std::string longTail(1100, '7');
    const char *columns[] = {
        " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16",
        "\t+5 -6 +7 -8 9 10 11 12 -13 +14 15 16 17 18 19 20",
        " 18446744073709551616 99999999999999999999999 4294967296 -1 1 1 1 1 8 8 4294967295 0 0 0 0 0",
        " 999999999 1000000000 999999999 1000000000 9999999999 00000000012 1 1 123456789012 0 1 1 1 1 1 1",
        " 5 6 x 7 8 9 9 9 9 9 9 9 9 9 9 9",      // the third column stops the line: tx stays 0
        " 5 6 7 8 9 10 11 12 + 13 1 1 1 1 1 1",   // a sign without digits
        " 5 6 7 8 9 10 11 12 0x1f 13 1 1 1 1 1 1",
        " 5\v6\f7\r8 9 10 11 12 13 14 15 16 17 18 19 20",
        "",
        " 1 2 3 4 5 6 7 8",
    };
    for (const char *c : columns) {
        for (const std::string &tail : {std::string(c), std::string(c) + " " + longTail}) {
            store.write("dev", header + "eth0.1:" + tail + "\n");
            TmNetDevStats got, want;
            memset(&got, 0x55, sizeof got);
            memset(&want, 0x55, sizeof want);
            ASSERT_EQ(TmReadNetDevStats("eth0.1", &got), 0);
            std::string line = ("eth0.1:" + tail).substr(0, 1022);
            sscanf(line.c_str() + 7, "%llu%llu%u%u%u%u%u%u%llu%llu%u%u%u%u%u%u", &want.rxBytes, &want.rxPackets,
                   &want.rxErrs, &want.rxDrop, &want.rxFifo, &want.rxFrame, &want.rxCompressed, &want.rxMulticast,
                   &want.txBytes, &want.txPackets, &want.txErrs, &want.txDrop, &want.txFifo, &want.txColls,
                   &want.txCarrier, &want.txCompressed);
            EXPECT_EQ(memcmp(&got, &want, sizeof got), 0) << "columns \"" << c << "\"";
        }
    }
}

TEST(Calendar, half_days_days_weeks_and_the_monthly_period)
{
    const struct { int32_t (*fn)(int32_t); const char *zone, *in, *out; } cases[] = {
        {TmNextHalfDay, "UTC", "2026-12-31 12:00+00:00", "2027-01-01 00:00+00:00"},
        {TmNextHalfDay, "Europe/Berlin", "2026-03-29 00:00+01:00", "2026-03-29 12:00+02:00"},  // 11 hours
        {TmNextHalfDay, "Europe/Berlin", "2026-10-25 00:00+02:00", "2026-10-25 12:00+01:00"},  // 13 hours
        {TmNextHalfDay, "America/New_York", "2026-03-08 00:00-05:00", "2026-03-08 12:00-04:00"},
        {TmNextHalfDay, "Australia/Lord_Howe", "2026-10-04 00:00+10:30", "2026-10-04 12:00+11:00"},
        {TmPrevHalfDay, "Europe/Berlin", "2026-10-25 12:00+01:00", "2026-10-25 00:00+02:00"},  // 60 s back
        {TmDayStart, "Europe/Berlin", "2026-03-29 23:00+02:00", "2026-03-29 00:00+01:00"},
        {TmDayStart, "Europe/Berlin", "2026-10-25 23:00+01:00", "2026-10-25 00:00+02:00"},
        {TmPrevDayStart, "Europe/Berlin", "2026-03-30 00:00+02:00", "2026-03-29 00:00+01:00"},
        {TmWeekStart, "UTC", "2026-06-10 00:00+00:00", "2026-06-07 00:00+00:00"},  // Wednesday
        {TmWeekStart, "UTC", "2026-06-07 00:00+00:00", "2026-06-07 00:00+00:00"},  // Sunday is its own
        {TmWeekStart, "Australia/Sydney", "2026-04-08 00:00+10:00", "2026-04-05 00:00+11:00"},
    };
    for (const auto &c : cases) {
        Zone(c.zone);
        EXPECT_EQ(c.fn(At(c.in)), At(c.out)) << c.in << " in " << c.zone;
    }

    memset(&tmCore, 0, sizeof tmCore);
    EXPECT_EQ(TmCalcResetTimes(1, 0, 0), 0) << "nothing moves while the clock is unsynchronised";
    EXPECT_EQ(std::make_pair(tmCore.exportData.lastResetTime, tmCore.exportData.nextResetTime), std::make_pair(0, 0));

    tmCore.exportData.timeSync = tmCore.simActive = 1;  // TmNow gives simNow
    const struct { const char *zone; uint32_t day, hour, minute; const char *now, *last, *next; } periods[] = {
        {"UTC", 0, 0, 0, "2026-06-10 12:00+00:00", "2026-06-01 00:00+00:00", "2026-07-01 00:00+00:00"},
        {"UTC", 10, 12, 0, "2026-06-10 12:00+00:00", "2026-06-10 12:00+00:00", "2026-07-10 12:00+00:00"},
        {"UTC", 31, 0, 0, "2026-02-10 00:00+00:00", "2026-01-31 00:00+00:00", "2026-02-28 00:00+00:00"},
        {"UTC", 31, 0, 0, "2028-02-10 00:00+00:00", "2028-01-31 00:00+00:00", "2028-02-29 00:00+00:00"},
        {"UTC", 29, 0, 0, "2028-03-01 00:00+00:00", "2028-02-29 00:00+00:00", "2028-03-31 00:00+00:00"},
        {"UTC", 20, 0, 0, "2026-12-25 00:00+00:00", "2026-12-20 00:00+00:00", "2027-01-20 00:00+00:00"},
        // Hour 24 is carried into the next day; the other month counts from there with hour 0.
        {"UTC", 31, 24, 0, "2026-01-15 00:00+00:00", "2026-01-31 00:00+00:00", "2026-02-01 00:00+00:00"},
        {"UTC", 15, 24, 0, "2026-06-20 00:00+00:00", "2026-06-16 00:00+00:00", "2026-07-15 00:00+00:00"},
        // A reset inside the skipped hour is moved on by the shift, and that time serves both months.
        {"Europe/Berlin", 28, 2, 30, "2027-03-10 00:00+01:00", "2027-02-28 03:30+01:00", "2027-03-28 03:30+02:00"},
        {"Australia/Lord_Howe", 4, 2, 10, "2026-10-01 00:00+10:30", "2026-09-04 02:40+10:30", "2026-10-04 02:40+11:00"},
    };
    for (const auto &c : periods) {
        Zone(c.zone);
        tmCore.sim.simNow = (uint32_t)At(c.now);
        ASSERT_EQ(TmCalcResetTimes(c.day, c.hour, c.minute), 1);
        EXPECT_EQ(std::make_pair(tmCore.exportData.lastResetTime, tmCore.exportData.nextResetTime),
                  std::make_pair(At(c.last), At(c.next))) << c.zone << " day " << c.day << " at " << c.now;
    }
}

// Integer to binary32 by integer rounding (nearest, ties to even), apart from the float unit.
double RefFloat(uint64_t v)
{
    int shift = v >> 24 ? 40 - __builtin_clzll(v) : 0;
    uint64_t m = v >> shift, rem = v - (m << shift), half = shift ? 1ull << (shift - 1) : 1;
    return (double)(m + (shift && (rem > half || (rem == half && (m & 1))))) * (double)(1ull << shift);
}
double RefSigned(int64_t v) { return v < 0 ? -RefFloat(0 - (uint64_t)v) : RefFloat((uint64_t)v); }
// Each step exact in double (the quotient to 53 bits, which makes the second rounding harmless), then to binary32.
double RefShare(double acc, double c, int64_t part, int64_t len)
{
    double quotient = (float)((float)(c * RefSigned(part)) / RefSigned(len));
    return (float)(quotient + acc);
}

TEST(Share, worked_numbers_an_independent_binary32_model_and_apportioning_step_by_step)
{
    const struct { uint64_t acc, c; int64_t part, len; uint64_t expect; } cases[] = {
        {16777217, 500000, 1, 1, 17277216},       // the accumulator is rounded to 24 bits
        {3000000123ull, 0, 1, 1, 3000000000ull},  // ... even by a share of 0
        {0, 1000, 40, 60, 666}, {0, 1000, 20, 60, 333}, {0, 23, 7, 23, 7}};  // multiplied first: 23 * (7 / 23) gives 6
    for (const auto &k : cases) EXPECT_EQ(TmShareU64(k.acc, k.c, k.part, k.len), k.expect) << k.acc << " " << k.c;

    std::mt19937_64 rng(20261123);
    auto bits = [&](int most) -> uint64_t {  // every magnitude is visited
        int b = (int)(rng() % (uint64_t)(most + 1));
        return b == 0 ? 0 : rng() >> (64 - b);
    };
    for (int n = 0; n < 50000; n++) {
        int64_t len = 1 + (int64_t)bits(31), part = (int64_t)(rng() % (uint64_t)(len + 1));
        uint64_t c = bits(64), acc = bits(64);
        double s = RefShare(RefFloat(acc), RefFloat(c), part, len);
        ASSERT_EQ(TmShareU64(acc, c, part, len), s < 1 ? 0 : s >= 0x1p64 ? UINT64_MAX : (uint64_t)s) << n;
        int32_t tc = (int32_t)bits(31) * (rng() % 4 ? 1 : -1), tacc = (int32_t)bits(31) * (rng() % 4 ? 1 : -1);
        s = RefShare(RefSigned(tacc), RefSigned(tc), part, len);
        ASSERT_EQ(TmShareI32(tacc, tc, part, len), s >= 0x1p31 ? INT32_MAX : s < -0x1p31 ? INT32_MIN : (int32_t)s) << n;
    }

    // Buckets [60,120) ... [300,360); the record carries 1000 / 7 / 60, and each bucket takes the share of its seconds.
    const struct { int32_t S, E; int result; int seconds[5]; } steps[] = {
        {200, 200, 0, {}}, {250, 200, 0, {}}, {360, 400, 1, {}}, {0, 60, -1, {}},  // empty, after, before
        {30, 90, 0, {30}}, {0, 120, 0, {60}}, {30, 150, 0, {60, 30}}, {0, 400, 0, {60, 280}},  // begins before
        {330, 390, 0, {0, 0, 0, 0, 30}}, {300, 420, 0, {0, 0, 0, 0, 60}}, {60, 400, 0, {0, 0, 0, 240, 60}},
        {250, 390, 0, {0, 0, 0, 50, 60}},                                  // ends after
        {120, 180, 0, {0, 60}}, {150, 180, 0, {0, 30}}, {300, 360, 0, {0, 0, 0, 0, 60}},  // in one bucket
        {100, 160, 0, {20, 40}}, {100, 180, 0, {20, 60}},                  // two buckets: 333 and 666
        {100, 250, 0, {0, 80, 60, 10}}, {60, 300, 0, {0, 120, 60, 60}},    // the third takes all the rest
    };
    for (const auto &k : steps) {
        TmRecord b[5] = {{60, 120}, {120, 180}, {180, 240}, {240, 300}, {300, 360}}, r = {k.S, k.E, 1000, 7, 60, 0};
        EXPECT_EQ(TmApportionRecord(b, 5, &r), k.result) << k.S << ".." << k.E;
        for (int i = 0; i < 5; i++) {
            int64_t len = k.E - k.S, s = k.seconds[i];
            EXPECT_EQ(std::make_tuple(b[i].tx, b[i].rx, b[i].tUsed),
                      std::make_tuple(uint64_t(s ? 1000 * s / len : 0), uint64_t(s ? 7 * s / len : 0), int32_t(s ? 60 * s / len : 0)))
                << k.S << ".." << k.E << " bucket " << i;
        }
    }
    // A record within one bucket adds in exact integers, above 2^24 too.
    TmRecord b[3] = {{60, 120}, {120, 180, 16777217, 3000000123ull, 16777217, 0}, {180, 240}}, r = {130, 170, 2, 0, 2, 0};
    EXPECT_EQ(TmApportionRecord(b, 3, &r), 0);
    EXPECT_EQ(std::make_tuple(b[1].tx, b[1].rx, b[1].tUsed), std::make_tuple(16777219ull, 3000000123ull, 16777219));
}

// The statistics at a moment of the test's clock, which the figures take from time() (never simulated time).
TmStatistic Collect(const TmExportData &data, const char *now)
{
    tmCore.exportData = data;
    fakeClock = At(now);
    TmStatistic s = {};
    EXPECT_EQ(TmCollectStatistic(&s), 1);
    fakeClock = 0;
    return s;
}

TEST(Collect, the_last_period_elapsed_seconds_running_minute_and_limit)
{
    Zone("Europe/Berlin");
    memset(&tmCore, 0, sizeof tmCore);
    const int32_t L = At("2023-03-15 08:30+01:00");  // a Wednesday, reset day 15
    const struct { uint32_t resetDay; const char *L, *P; } periods[] = {
        {15, "2023-03-15 08:30+01:00", "2023-02-15 08:30+01:00"}, {10, "2023-03-10 08:30+01:00", "2023-02-10 08:30+01:00"},
        {31, "2023-02-28 00:00+01:00", "2023-01-31 00:00+01:00"}, {0, "2023-03-01 00:00+01:00", "2023-02-01 00:00+01:00"},
        {31, "2023-03-31 00:00+02:00", "2023-02-28 00:00+01:00"},  // a 17-day probe would stay in March
    };
    for (const auto &k : periods) {
        const TmExportData data = {.timeSync = 1, .lastResetTime = At(k.L), .resetDay = k.resetDay};
        EXPECT_EQ(Collect(data, "2024-06-01 00:00+02:00").lastmonth.elapsed, (int64_t)At(k.L) - At(k.P)) << k.L;
    }

    const struct { const char *now; int64_t week, month; } elapsed[] = {
        {"2023-03-15 08:30+01:00", 1, 1}, {"2023-03-15 07:30+01:00", 1, 1},  // never 0
        {"2023-03-27 10:00+02:00", 118800, 1038600},  // the week from Sunday 00:00, 26 March had 23 hours
    };
    for (const auto &k : elapsed) {
        TmStatistic s = Collect({.timeSync = 1, .lastResetTime = L, .resetDay = 15}, k.now);
        EXPECT_EQ(std::make_pair(s.thisweek.elapsed, s.thismonth.elapsed), std::make_pair(k.week, k.month)) << k.now;
        EXPECT_TRUE(s.today.elapsed >= 1 && s.yesterday.elapsed >= 1) << k.now;
    }

    // The running minute (500 up, 900 down, 60 s) counts for today, the week and the month only.
    tmCore.simActive = 1;
    tmCore.sim = {.simTx = 10500, .simRx = 20900};
    const char *now = "2023-03-20 10:00+01:00";
    TmStatistic s = Collect({.enable = 1, .link = 1, .timeSync = 1, .lastTx = 10000, .lastRx = 20000, .otherTx = 4,
                             .monthlyTx = 100, .todayTx = 1, .yesterdayTx = 1000, .weekTx = 10,
                             .lastTime = At("2023-03-20 09:59+01:00"), .monthlyTime = 300, .lastResetTime = L}, now);
    EXPECT_EQ(std::make_tuple(s.today.upload, s.thisweek.upload, s.thismonth.upload, s.yesterday.upload),
              std::make_tuple(505u, 514u, 604u, 1000u));
    EXPECT_EQ(std::make_tuple(s.thismonth.download, s.thismonth.conntime, s.today.conntime, s.yesterday.conntime),
              std::make_tuple(900u, 360, 60, 0));

    const struct { uint32_t type; int32_t limitTime, time; uint64_t tx, rx, limited, used, left; } limits[] = {
        {0, 3600, 600, 500, 300, 0, 0, 0}, {2, 0, 0, 500, 300, 1000, 800, 200}, {3, 3600, 600, 0, 0, 3600, 600, 3000},
        {1, 0, 0, 5000, 300, 1000, 300, 700}, {1, 0, 0, 0, 1001, 1000, 1001, 0},  // upload doesn't count; clamped at 0
    };
    for (const auto &k : limits) {
        s = Collect({.timeSync = 1, .limitType = k.type, .limitVol = 1000, .limitTime = k.limitTime, .monthlyTx = k.tx,
                     .monthlyRx = k.rx, .monthlyTime = k.time, .lastResetTime = L}, now);
        EXPECT_EQ(std::make_tuple(s.timeLimit, s.dataLimited, s.dataUsed, s.volume_left),
                  std::make_tuple(k.type == 3 ? 1u : 0u, k.limited, k.used, k.left)) << "type " << k.type << " " << k.rx;
    }
}

TEST(Text, the_published_forms)
{
    char b[TM_TEXT_SIZE];
    EXPECT_STREQ(TmTextMegabytes(b, 123456785000ull), "123456.78");  // the count is rounded to 24 bits first
    EXPECT_STREQ(TmTextDuration(b, 360300), "100:05");
    EXPECT_STREQ(TmTextRemainder(b, 5000000000ull, 0), " 4 G 672 M 380 K ");
    EXPECT_STREQ(TmTextRemainder(b, 1000000000ull, 0), "953 M 690 K ");
    EXPECT_STREQ(TmTextRemainder(b, 1000000ull, 0), "976 K ");
    EXPECT_STREQ(TmTextRemainder(b, 3 * 3600 + 5 * 60 + 59, 1), "3:5");
}

// The hundredths, durations, asctime texts, remainders and counts are written
// without printf; the library is the reference, over counts of every size,
// exact halves (ties go to even), times on both sides of a summer-time change
// and of 1970, and negative durations.
TEST(Text, hundredths_and_durations_as_printf_writes_them)
{
    std::mt19937_64 rng(4242);
    char got[TM_TEXT_SIZE], want[TM_TEXT_SIZE];
    std::vector<uint64_t> counts = {0, 1, 4999, 5000, 5001, 15000, 25000, 35000, 125000, 375000, 625000, 1000000, 16777217000000ull,
                                    ~0ull, 1ull << 63};
    for (int i = 0; i < 200000; i++) counts.push_back(rng() >> (rng() % 64));
    for (uint64_t bytes : counts) {
        float mb = (float)bytes;
        mb = mb / 1000000.0f;
        snprintf(want, sizeof want, "%.2f", (double)mb);
        ASSERT_STREQ(TmTextMegabytes(got, bytes), want) << bytes;
        int64_t elapsed = (int64_t)(rng() % 40000000) - 1000;
        float days = (float)elapsed;
        days = days / 86400.0f;
        if (days < 1.0f) days = 1.0f;
        float avg = (float)bytes;
        avg = avg / days;
        avg = avg / 1000000.0f;
        snprintf(want, sizeof want, "%.2f", (double)avg);
        ASSERT_STREQ(TmTextAverage(got, bytes, elapsed), want) << bytes << " over " << elapsed;
    }
    // asctime of the local time in a zone with summer time, and the remainders, against the library.
    const char *oldZone = getenv("TZ");
    const std::string restore = oldZone != nullptr ? oldZone : "";
    Zone("CET-1CEST,M3.5.0,M10.5.0/3");
    std::vector<int32_t> times = {0, -1, INT32_MAX, INT32_MIN, 1711846799, 1711846800, 1729990800, 951782400};
    for (int i = 0; i < 20000; i++) times.push_back((int32_t)rng());
    for (int32_t t : times) {
        time_t tt = t;
        struct tm local;
        char text[26] = {};
        memset(want, 0, sizeof want);
        if (localtime_r(&tt, &local) && asctime_r(&local, text)) memcpy(want, text, sizeof text);
        TmTextAsctime(got, t);
        ASSERT_EQ(memcmp(got, want, sizeof got), 0) << t << ": " << got << " / " << want;
    }
    if (oldZone != nullptr) Zone(restore.c_str());
    else {
        unsetenv("TZ");
        tzset();
    }
    for (uint64_t left : counts) {
        for (uint32_t timeLimit : {0u, 1u}) {
            if (timeLimit) {
                snprintf(want, sizeof want, "%llu:%llu", (unsigned long long)(left / 3600),
                         (unsigned long long)(left % 3600 / 60));
            } else {
                char part[TM_TEXT_SIZE];
                want[0] = '\0';
                if (left >> 30) {
                    snprintf(want, sizeof want, " %llu G ", (unsigned long long)(left >> 30));
                    snprintf(part, sizeof part, "%llu M ", (unsigned long long)((left >> 20) & 1023));
                    strncat(want, part, sizeof want - strlen(want) - 1);
                } else if (left >> 20) {
                    snprintf(want, sizeof want, "%llu M ", (unsigned long long)(left >> 20));
                }
                snprintf(part, sizeof part, "%llu K ", (unsigned long long)((left >> 10) & 1023));
                strncat(want, part, sizeof want - strlen(want) - 1);
            }
            ASSERT_STREQ(TmTextRemainder(got, left, timeLimit), want) << left << " " << timeLimit;
        }
        snprintf(want, sizeof want, "%llu", (unsigned long long)left);
        ASSERT_STREQ(TmTextUnsigned(got, left), want);
    }
    for (int32_t seconds : {0, 59, 60, 3599, 3600, 360300, -1, -3600, -86399, INT32_MAX, INT32_MIN}) {
        snprintf(want, sizeof want, "%2.2lu:%2.2lu", (unsigned long)(uint32_t)(seconds / 3600),
                 (unsigned long)(uint32_t)(seconds % 3600 / 60));
        EXPECT_STREQ(TmTextDuration(got, seconds), want) << seconds;
    }
}
