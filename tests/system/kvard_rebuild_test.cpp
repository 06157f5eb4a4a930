// The rebuild of the history at start-up, from flash images laid out by the
// test page by page: where the ring cursors go, what the two lists hold, and
// the figures published from them.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tests/system/flash_image.h"
#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using namespace kvard::test::meter;
using flash::Image;

int32_t Berlin(const std::string &text) { return LocalTime(kBerlin, text); }

// What asctime gives for T in Berlin, line end included.
std::string Asc(int32_t t)
{
    std::string saved = getenv("TZ") ? getenv("TZ") : "";
    bool had = getenv("TZ") != nullptr;
    setenv("TZ", kBerlin, 1);
    tzset();
    time_t when = t;
    struct tm tm;
    localtime_r(&when, &tm);
    char text[32];
    asctime_r(&tm, text);
    if (had) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
    return text;
}

std::string Le32(int32_t v)
{
    std::string b(4, '\0');
    memcpy(&b[0], &v, 4);
    return b;
}

void StartOn(Sandbox &box, const Image &image)
{
    image.WriteTo(box);
    box.Start();
    ASSERT_TRUE(box.WaitReady());
}

void ExpectStats(const Sandbox &box, const StoreObject &expected)
{
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat) << "nothing published";
    for (const auto &[name, value] : expected) {
        auto it = stat->find(name);
        ASSERT_NE(it, stat->end()) << name << " missing";
        EXPECT_EQ(it->second, value) << name;
    }
}

// Both lists are framed around the running half-day RUNNING..END: the
// half-day entries touch and go back 124 local half-days, the minute
// entries are the 720 minutes from RUNNING.
void ExpectFramed(const Lists &lists, int32_t running, int32_t end)
{
    EXPECT_EQ(lists.state.baseMin, running);
    EXPECT_EQ(lists.state.nextHDay, end);
    EXPECT_EQ(lists.halfDays[123].tStart, running);
    EXPECT_EQ(lists.halfDays[123].tEnd, end);
    for (size_t i = 0; i + 1 < lists.halfDays.size(); i++) {
        ASSERT_EQ(lists.halfDays[i].tEnd, lists.halfDays[i + 1].tStart) << "half-day entry " << i;
        int32_t length = lists.halfDays[i].tEnd - lists.halfDays[i].tStart;
        ASSERT_TRUE(length >= 11 * 3600 && length <= 13 * 3600) << "half-day entry " << i << " lasts " << length;
    }
    for (size_t i = 0; i < lists.minutes.size(); i++) {
        ASSERT_EQ(lists.minutes[i].tStart, running + 60 * int32_t(i)) << "minute entry " << i;
        ASSERT_EQ(lists.minutes[i].tEnd, running + 60 * int32_t(i) + 60) << "minute entry " << i;
    }
}

uint64_t Sum(const std::vector<Record> &list, uint64_t Record::*field)
{
    uint64_t sum = 0;
    for (const Record &r : list) sum += r.*field;
    return sum;
}

const StoreObject kAllZero = {
    {"today_download", "0.00"},     {"today_upload", "0.00"},       {"today_conntime", "00:00"},
    {"yesterday_download", "0.00"}, {"yesterday_conntime", "00:00"}, {"thisweek_download", "0.00"},
    {"thisweek_conntime", "00:00"}, {"thismonth_download", "0.00"}, {"thismonth_upload", "0.00"},
    {"thismonth_conntime", "00:00"}, {"lastmonth_download", "0.00"}, {"lastmonth_conntime", "00:00"},
};

TEST(Rebuild, empty_rings_put_the_cursors_at_the_ring_starts_and_publish_zero_figures)
{
    // No image at all (libmtdsim makes an erased one) and an erased image
    // written beforehand are the same history.
    for (bool written : {false, true}) {
        SCOPED_TRACE(written ? "erased image written" : "no image");
        Sandbox box(At("2026-03-10 10:00:00"));
        if (written) Image().WriteTo(box);
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.state.nextMinFlash, kMinRingStart);
        EXPECT_EQ(lists.state.nextHDayFlash, kHDayRingStart);
        EXPECT_EQ(lists.state.latestHDay, 0);
        EXPECT_EQ(lists.state.lastReset, Berlin("2026-03-01 00:00:00"));
        EXPECT_EQ(lists.state.nextReset, Berlin("2026-04-01 00:00:00"));
        EXPECT_EQ(lists.state.nextMin, Berlin("2026-03-10 10:01:00"));
        ExpectFramed(lists, Berlin("2026-03-10 00:00:00"), Berlin("2026-03-10 12:00:00"));
        EXPECT_EQ(lists.halfDays[0].tStart, Berlin("2026-01-07 12:00:00")) << "62 days back";
        for (const auto *list : {&lists.minutes, &lists.halfDays}) {
            EXPECT_EQ(Sum(*list, &Record::tx), 0u);
            EXPECT_EQ(Sum(*list, &Record::rx), 0u);
        }
        ExpectStats(box, kAllZero);
        ExpectStats(box, {{"start_data_time", "Sun Mar  1 00:00:00 2026\n"},
                          {"current_data_time", "Tue Mar 10 10:00:00 2026\n"}});
        EXPECT_NE(box.Stdout().find("Read File fail."), std::string::npos) << "no stored manual reset yet";
        EXPECT_FALSE(box.ReadFile("data/tmrestarttime.data")) << "nothing to discard, nothing written";
        EXPECT_TRUE(MinuteRing(box).empty() && HalfDayRing(box).empty()) << "the rebuild wrote something";
    }
}

TEST(Rebuild, each_cursor_goes_behind_the_newest_record_of_its_ring)
{
    // Old records (long before the lists) decide the cursors and nothing else.
    const int32_t old = Berlin("2025-06-01 00:00:00");
    struct Placed {
        bool halfDay;
        uint32_t index;  // in its ring
        int32_t tEnd;
        bool corrupt = false;
    };
    struct Case {
        const char *claim;
        std::vector<Placed> pages;
        uint32_t minCursor, hDayCursor;
        int32_t latest;
    } cases[] = {
        {"newest minute in the ring's last page: back to the start",
         {{false, 5, old + 60}, {false, 2303, old + 120}}, 0, 2304, 0},
        {"newest half-day in the ring's last page: back to the start",
         {{true, 5, old}, {true, 255, old + 43200}}, 0, 2304, old + 43200},
        {"newest in the middle", {{false, 17, old + 600}, {false, 18, old}, {true, 0, old + 43200}, {true, 1, old}},
         18, 2305, old + 43200},
        {"equal times: the highest minute page, the lowest half-day page",
         {{false, 3, old}, {false, 9, old}, {true, 3, old}, {true, 9, old}}, 10, 2308, old},
        {"a minute record ending at time 0 is taken, a half-day record never",
         {{false, 5, 0}, {true, 5, 0}}, 6, 2304, 0},
        {"a page that fails its CRC holds no record",
         {{false, 4, old}, {false, 8, old + 60, true}, {true, 4, old}, {true, 8, old + 43200, true}}, 5, 2309,
         old},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-03-10 10:00:00"));
        Image image;
        for (const Placed &p : c.pages) {
            Record r = Rec(p.tEnd - (p.halfDay ? 43200 : 60), p.tEnd, 1, 1000, 0);
            uint32_t page = (p.halfDay ? kHDayRingStart : kMinRingStart) + p.index;
            if (p.corrupt) image.PutCorrupt(page, r);
            else image.Put(page, r);
        }
        StartOn(box, image);
        State s = DumpState(box);
        EXPECT_EQ(s.nextMinFlash, c.minCursor);
        EXPECT_EQ(s.nextHDayFlash, c.hDayCursor);
        EXPECT_EQ(s.latestHDay, c.latest);
        ExpectStats(box, kAllZero);
    }
}

TEST(Rebuild, a_ring_that_wrapped_goes_on_at_its_start_and_erases_the_oldest_block)
{
    const int32_t t = Berlin("2026-03-10 09:00:00");
    Sandbox box(At("2026-03-10 10:00:00"));
    box.SetNetDev({{"eth0.1", 0, 0}});
    Image image;
    image.PutMinute(5, Rec(t, t + 60, 0, 1000, 0));
    image.PutMinute(2303, Rec(t + 60, t + 120, 0, 2000, 0));
    StartOn(box, image);
    ExpectStats(box, {{"today_download", "0.00"}});
    EXPECT_EQ(DumpLists(box).minutes[541].rx, 2000u) << "09:01 is minute 541 of the morning";
    box.SetNetDev({{"eth0.1", 5000, 0}});
    WakeAt(box, "2026-03-10 10:01:00");
    auto ring = MinuteRing(box);
    ASSERT_EQ(ring.size(), 2u) << "page 5 went with block 0";
    EXPECT_EQ(ring[0].page, 0u);
    EXPECT_EQ(ring[0].record, Rec(Berlin("2026-03-10 10:00:00"), Berlin("2026-03-10 10:01:00"), 0, 5000, 0));
    EXPECT_EQ(ring[1].page, 2303u);
    EXPECT_EQ(DumpState(box).nextMinFlash, 1u);
}

TEST(Rebuild, after_the_clock_was_set_back_the_cursor_follows_the_newest_time_and_writes_walk_past_full_pages)
{
    // Pages 0-4 were written at 09:46-09:50, then the clock went back and
    // pages 5-9 were written at 09:00-09:04. All ten minutes count.
    const int32_t late = Berlin("2026-03-10 09:46:00"), early = Berlin("2026-03-10 09:00:00");
    Sandbox box(At("2026-03-10 10:00:00"));
    box.SetNetDev({{"eth0.1", 0, 0}});
    Image image;
    for (uint32_t i = 0; i < 5; i++) {
        image.PutMinute(i, Rec(late + 60 * int32_t(i), late + 60 * int32_t(i) + 60, 10, 100000, 0));
        image.PutMinute(5 + i, Rec(early + 60 * int32_t(i), early + 60 * int32_t(i) + 60, 10, 100000, 0));
    }
    StartOn(box, image);
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.state.nextMinFlash, 5u) << "behind 09:50, the newest";
    EXPECT_EQ(Sum(lists.minutes, &Record::rx), 1000000u);
    EXPECT_EQ(lists.minutes[540].rx, 100000u);
    EXPECT_EQ(lists.minutes[586].rx, 100000u);
    ExpectStats(box, {{"today_download", "1.00"}, {"thismonth_download", "1.00"}, {"thisweek_download", "1.00"}});

    box.SetNetDev({{"eth0.1", 2000000, 7}});
    WakeAt(box, "2026-03-10 10:01:00");
    std::string out = box.Stdout();
    for (uint32_t page = 5; page < 10; page++) {
        std::string line = "TmWriteFlash fail at " + std::to_string(page * kPageSize) + "(" + std::to_string(page) +
                           "). The page is not empty.";
        EXPECT_NE(out.find(line), std::string::npos) << line;
    }
    auto ring = MinuteRing(box);
    ASSERT_EQ(ring.size(), 11u);
    EXPECT_EQ(ring[10].page, 10u);
    EXPECT_EQ(ring[10].record, Rec(Berlin("2026-03-10 10:00:00"), Berlin("2026-03-10 10:01:00"), 7, 2000000, 0));
    EXPECT_EQ(DumpState(box).nextMinFlash, 11u);
    ExpectStats(box, {{"today_download", "3.00"}});
}

// A history around a period that began on 1 June 2026 at 06:00: the morning's
// half-day record straddles the period's start, a minute of the afternoon
// lies wholly inside it.
struct StraddleHistory {
    const int32_t L = Berlin("2026-06-01 06:00:00");
    const int32_t next = Berlin("2026-07-01 06:00:00");
    const Record morning = Rec(Berlin("2026-06-01 00:00:00"), Berlin("2026-06-01 12:00:00"), 9999999,
                               1000000000001ull, 43199);
    const Record minute = Rec(Berlin("2026-06-01 13:00:00"), Berlin("2026-06-01 13:01:00"), 1000, 2000000, 0);

    // Reset on the 1st at 06:00; a volume limit of 2,000,000 MB on tx + rx.
    void Configure(Sandbox &box) const
    {
        box.UpdateObject("2888", {{"day", "1"},
                                  {"hour", "6"},
                                  {"contrl_type", "Both directions"},
                                  {"volume_monthly_limit", "2000000"}});
    }
    Image MakeImage() const
    {
        Image image;
        image.PutHalfDay(0, morning);
        image.PutMinute(0, minute);
        return image;
    }
};

TEST(Rebuild, a_half_day_record_across_the_period_start_gives_each_period_its_share_by_time_in_single_precision)
{
    // The morning goes 6 of its 12 hours to each period. In binary32:
    // rx 1,000,000,000,001 converts to 999,999,995,904, times 21,600, divided
    // by 43,200 gives 499,999,997,952; tx 9,999,999 gives 4,999,999; 43,199
    // seconds give 21,599 (05:59), where exact halves would give 06:00 and a
    // volume_left 2 KiB smaller (817 K).
    StraddleHistory h;
    Sandbox box(At("2026-06-01 14:00:00"));
    h.Configure(box);
    StartOn(box, h.MakeImage());
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.halfDays[122], h.morning) << "the list entry takes the record whole";
    EXPECT_EQ(lists.minutes[60], h.minute);
    ExpectStats(box, {
                         {"start_data_time", Asc(h.L)},
                         {"thismonth_download", "500002.00"},
                         {"thismonth_upload", "5.00"},
                         {"thismonth_conntime", "05:59"},
                         {"today_download", "500002.00"},
                         {"today_conntime", "05:59"},
                         {"thisweek_download", "500002.00"},
                         {"thisweek_conntime", "05:59"},
                         {"yesterday_download", "0.00"},
                         {"lastmonth_download", "500000.00"},
                         {"lastmonth_upload", "5.00"},
                         {"lastmonth_conntime", "05:59"},
                         {"dataUsed", "500006"},
                         {"dataLimited", "2000000"},
                         {"volume_left", " 1396 G 1000 M 819 K "},
                     });
}

TEST(Rebuild, a_stored_manual_reset_counts_only_strictly_inside_the_period)
{
    // In force, it keeps the share of the straddling morning out of the
    // month, today and the week; last month keeps its share regardless.
    StraddleHistory h;
    struct Case {
        const char *claim;
        bool stored;
        int32_t value;
        bool applied;
    } cases[] = {
        {"none stored", false, 0, false},
        {"at the period's start: discarded", true, h.L, false},
        {"at the period's end: discarded", true, h.next, false},
        {"a second after the start: applied", true, h.L + 1, true},
        {"a second before the end: applied", true, h.next - 1, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-06-01 14:00:00"));
        h.Configure(box);
        if (c.stored) box.WriteFile("data/tmrestarttime.data", Le32(c.value));
        StartOn(box, h.MakeImage());
        State s = DumpState(box);
        EXPECT_EQ(s.lastReset, h.L);
        EXPECT_EQ(s.nextReset, h.next);
        auto file = box.ReadFile("data/tmrestarttime.data");
        if (!c.stored) EXPECT_FALSE(file);
        else EXPECT_EQ(file, Le32(c.applied ? c.value : 0)) << "a discarded time is overwritten with 0";
        std::string month = c.applied ? "2.00" : "500002.00";
        ExpectStats(box, {
                             {"start_data_time", Asc(c.applied ? c.value : h.L)},
                             {"passedDay", "0"},
                             {"thismonth_download", month},
                             {"thismonth_conntime", c.applied ? "00:00" : "05:59"},
                             {"today_download", month},
                             {"thisweek_download", month},
                             {"lastmonth_download", "500000.00"},
                             {"volume_left", c.applied ? " 1862 G 658 M 741 K " : " 1396 G 1000 M 819 K "},
                         });
    }
}

TEST(Rebuild, a_manual_reset_that_a_clock_jump_left_in_a_past_period_goes_from_memory_and_file)
{
    // The clock jumps from 10 March to 5 April without a wake in between, so
    // no monthly reset clears the manual one; the rebuild of a zone change
    // finds it before the new period and must not keep it in force.
    Sandbox box(At("2026-03-10 10:00:00"));
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    ASSERT_EQ(box.Send(kResetCounter), 1);
    const int32_t manual = Berlin("2026-03-10 10:00:00");
    ASSERT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(manual));
    ExpectStats(box, {{"start_data_time", Asc(manual)}});

    box.SetTime("2026-04-05 10:00:00");
    box.UpdateObject("1045", {{"localTimeZone", "CET-1CEST,M3.5.0,M10.5.0/3"}});
    ASSERT_EQ(box.Send(kTimeUpdate), 1);
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(0));
    EXPECT_EQ(DumpState(box).lastReset, Berlin("2026-04-01 00:00:00"));
    ExpectStats(box, {{"start_data_time", "Wed Apr  1 00:00:00 2026\n"}, {"passedDay", "4"}});
}

TEST(Rebuild, a_half_day_record_older_than_the_list_counts_nowhere_but_for_the_newest_time_and_the_cursor)
{
    // The list reaches back to 7 January 12:00; a record of that half-day is
    // in entry 0, one of the half-day before is in no entry and no total.
    const Record older = Rec(Berlin("2026-01-07 00:00:00"), Berlin("2026-01-07 12:00:00"), 50, 5000000, 0);
    const Record oldest = Rec(Berlin("2026-01-07 12:00:00"), Berlin("2026-01-08 00:00:00"), 30, 3000000, 0);
    struct Case {
        const char *claim;
        bool withEntry0;
        uint32_t hDayCursor;
        int32_t latest;
    } cases[] = {
        {"alone", false, 2304 + 10, older.tEnd},
        {"beside a record of entry 0", true, 2304 + 4, oldest.tEnd},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-03-10 10:00:00"));
        Image image;
        image.PutHalfDay(9, older);
        if (c.withEntry0) image.PutHalfDay(3, oldest);
        StartOn(box, image);
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.state.latestHDay, c.latest);
        EXPECT_EQ(lists.state.nextHDayFlash, c.hDayCursor);
        EXPECT_EQ(lists.halfDays[0], c.withEntry0 ? oldest : Rec(oldest.tStart, oldest.tEnd, 0, 0, 0));
        EXPECT_EQ(Sum(lists.halfDays, &Record::rx), c.withEntry0 ? oldest.rx : 0u);
        ExpectStats(box, kAllZero);
        EXPECT_EQ(HalfDayRing(box).size(), c.withEntry0 ? 2u : 1u) << "nothing was folded";
    }
}

TEST(Rebuild, a_minute_record_after_the_end_of_the_minute_list_is_dropped_and_stays_on_flash)
{
    const Record last = Rec(Berlin("2026-03-10 11:59:00"), Berlin("2026-03-10 12:00:00"), 0, 1000000, 0);
    const Record after = Rec(Berlin("2026-03-10 12:00:00"), Berlin("2026-03-10 12:01:00"), 0, 2000000, 0);
    const Record later = Rec(Berlin("2026-03-10 13:00:00"), Berlin("2026-03-10 13:01:00"), 0, 4000000, 0);
    Sandbox box(At("2026-03-10 10:00:00"));
    Image image;
    image.PutMinute(0, last);
    image.PutMinute(1, after);
    image.PutMinute(2, later);
    StartOn(box, image);
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.minutes[719], last);
    EXPECT_EQ(Sum(lists.minutes, &Record::rx), last.rx);
    EXPECT_EQ(Sum(lists.halfDays, &Record::rx), 0u);
    EXPECT_EQ(lists.state.nextMinFlash, 3u) << "the dropped record is still the newest";
    ExpectStats(box, {{"today_download", "1.00"}, {"thismonth_download", "1.00"}});
    EXPECT_EQ(Records(MinuteRing(box)), (std::vector<Record>{last, after, later}));
    EXPECT_TRUE(HalfDayRing(box).empty());
}

TEST(Rebuild, the_running_half_day_starts_at_the_boundary_at_or_before_the_clock)
{
    // A minute of the morning is in the minute list while the morning runs,
    // and is folded into a half-day record once the afternoon has begun.
    const Record minute = Rec(Berlin("2026-03-11 11:58:00"), Berlin("2026-03-11 11:59:00"), 0, 1000000, 0);
    const Record morningRecord = Rec(Berlin("2026-03-11 00:00:00"), Berlin("2026-03-11 12:00:00"), 0, 1000000, 0);
    struct Case {
        const char *clock;
        const char *running, *end, *nextMin;
        bool folded;
    } cases[] = {
        {"2026-03-11 11:59:59", "2026-03-11 00:00:00", "2026-03-11 12:00:00", "2026-03-11 12:00:00", false},
        {"2026-03-11 12:00:00", "2026-03-11 12:00:00", "2026-03-12 00:00:00", "2026-03-11 12:01:00", true},
        {"2026-03-11 12:00:30", "2026-03-11 12:00:00", "2026-03-12 00:00:00", "2026-03-11 12:01:00", true},
        {"2026-03-11 12:01:00", "2026-03-11 12:00:00", "2026-03-12 00:00:00", "2026-03-11 12:02:00", true},
        {"2026-03-12 00:00:00", "2026-03-12 00:00:00", "2026-03-12 12:00:00", "2026-03-12 00:01:00", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.clock);
        Sandbox box(At(c.clock));
        Image image;
        image.PutMinute(0, minute);
        StartOn(box, image);
        Lists lists = DumpLists(box);
        ExpectFramed(lists, Berlin(c.running), Berlin(c.end));
        EXPECT_EQ(lists.state.nextMin, Berlin(c.nextMin));
        if (c.folded) {
            EXPECT_EQ(Records(HalfDayRing(box)), std::vector<Record>{morningRecord});
            EXPECT_EQ(lists.state.nextHDayFlash, kHDayRingStart + 1);
        } else {
            EXPECT_EQ(lists.minutes[718], minute);
            EXPECT_TRUE(HalfDayRing(box).empty());
        }
        EXPECT_EQ(lists.state.latestHDay, 0) << "the fold does not move the newest time";
        EXPECT_EQ(Sum(lists.minutes, &Record::rx) + Sum(lists.halfDays, &Record::rx), minute.rx) << "once";
        ExpectStats(box, {{"thismonth_download", "1.00"},
                          {std::string(c.clock).substr(0, 10) == "2026-03-12" ? "yesterday_download" : "today_download",
                           "1.00"}});
    }
}

TEST(Rebuild, the_13_hour_morning_of_the_autumn_change_has_a_12_hour_minute_list_and_one_entry_for_both_records)
{
    // 25 October 2026: 03:00 CEST becomes 02:00 CET. The minute list is
    // 720 minutes from 00:00 whatever the half-day's length, so it ends at
    // 11:00 CET; when it filled, a first record of the morning was written
    // with that end, and the second at 12:00 carries the last hour.
    const int32_t midnight = Berlin("2026-10-25 00:00:00"), noon = Berlin("2026-10-25 12:00:00");
    const int32_t listEnd = Berlin("2026-10-25 11:00:00");
    ASSERT_EQ(noon - midnight, 13 * 3600);
    const Record first = Rec(midnight, listEnd, 0, 1000000, 0);
    const Record second = Rec(midnight, noon, 0, 2000000, 0);
    const Record minute = Rec(Berlin("2026-10-25 10:00:00"), Berlin("2026-10-25 10:01:00"), 0, 500000, 0);
    {
        SCOPED_TRACE("in the morning");
        Sandbox box(At("2026-10-25 10:30:00"));
        Image image;
        image.PutMinute(0, minute);
        StartOn(box, image);
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.state.nextHDay, noon);
        EXPECT_EQ(lists.halfDays[123].tStart, midnight);
        EXPECT_EQ(lists.minutes[719].tEnd, listEnd);
        EXPECT_EQ(lists.minutes[660], minute);
        ExpectStats(box, {{"today_download", "0.50"}});
    }
    {
        SCOPED_TRACE("in the afternoon");
        Sandbox box(At("2026-10-25 14:00:00"));
        Image image;
        image.PutHalfDay(0, first);
        image.PutHalfDay(1, second);
        image.PutMinute(0, minute);
        StartOn(box, image);
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.halfDays[122], Rec(midnight, noon, 0, 3000000, 0));
        ExpectFramed(lists, noon, Berlin("2026-10-26 00:00:00"));
        EXPECT_EQ(lists.state.latestHDay, noon);
        EXPECT_EQ(lists.state.nextHDayFlash, kHDayRingStart + 2);
        EXPECT_EQ(HalfDayRing(box).size(), 2u) << "nothing to fold";
        ExpectStats(box, {{"today_download", "3.00"}, {"thisweek_download", "3.00"}});
    }
}

TEST(Rebuild, the_first_minute_after_a_boundary_is_metered_into_the_new_minute_list)
{
    Sandbox box(At("2026-03-11 12:00:30"));
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 3000000, 0}});
    WakeAt(box, "2026-03-11 12:01:00");
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.minutes[0].rx, 3000000u);
    EXPECT_EQ(Records(MinuteRing(box)),
              std::vector<Record>{Rec(Berlin("2026-03-11 12:00:00"), Berlin("2026-03-11 12:01:00"), 0, 3000000, 0)});
    ExpectStats(box, {{"today_download", "3.00"}});
}

TEST(Rebuild, minutes_of_half_days_that_ended_while_the_daemon_was_down_are_folded_and_counted_once)
{
    // The last half-day record ends on 10 March at 12:00. The minute ring
    // still has a minute of that morning (already in the record), two of the
    // afternoon, one of the next morning and one of the running afternoon.
    // The period began on 11 March at 12:00, so last month holds the folded
    // half-days: counted twice, it would show 2.40. Yesterday lies wholly in
    // the past period, whose records count for no running total.
    const Record h0 = Rec(Berlin("2026-03-10 00:00:00"), Berlin("2026-03-10 12:00:00"), 0, 1000000, 0);
    const Record folded1 = Rec(Berlin("2026-03-10 12:00:00"), Berlin("2026-03-11 00:00:00"), 0, 300000, 0);
    const Record folded2 = Rec(Berlin("2026-03-11 00:00:00"), Berlin("2026-03-11 12:00:00"), 0, 400000, 0);
    auto minute = [](const char *clock, uint64_t rx) {
        int32_t t = Berlin(std::string("2026-03-") + clock);
        return Rec(t, t + 60, 0, rx, 0);
    };
    Sandbox box(At("2026-03-11 14:00:00"));
    box.UpdateObject("2888", {{"day", "11"}, {"hour", "12"}});
    Image image;
    image.PutHalfDay(0, h0);
    image.PutMinute(0, minute("10 09:00:00", 7000000));
    image.PutMinute(1, minute("10 13:00:00", 100000));
    image.PutMinute(2, minute("10 18:00:00", 200000));
    image.PutMinute(3, minute("11 02:00:00", 400000));
    image.PutMinute(4, minute("11 13:00:00", 800000));
    StartOn(box, image);
    const StoreObject figures = {{"thismonth_download", "0.80"}, {"today_download", "0.80"},
                                 {"thisweek_download", "0.80"},  {"yesterday_download", "0.00"},
                                 {"lastmonth_download", "1.70"}};
    for (int run = 1; run <= 2; run++) {
        SCOPED_TRACE(run == 1 ? "first start" : "second start: nothing more to fold");
        EXPECT_EQ(Records(HalfDayRing(box)), (std::vector<Record>{h0, folded1, folded2}));
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.state.latestHDay, run == 1 ? h0.tEnd : folded2.tEnd) << "the fold does not move it";
        EXPECT_EQ(lists.state.nextHDayFlash, kHDayRingStart + 3);
        EXPECT_EQ(lists.state.nextMinFlash, 5u);
        EXPECT_EQ(lists.halfDays[120], h0);
        EXPECT_EQ(lists.halfDays[121], folded1);
        EXPECT_EQ(lists.halfDays[122], folded2);
        EXPECT_EQ(lists.minutes[60].rx, 800000u);
        ExpectStats(box, figures);
        if (run == 1) {
            box.Stop();
            box.Start();
            ASSERT_TRUE(box.WaitReady());
        }
    }
}

}  // namespace
