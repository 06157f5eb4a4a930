// Half-day close and period roll-overs of the production daemon: half-day
// records on flash, the 13-hour half-day of the autumn change, the monthly
// reset with the tail of the old period, and the day and week roll-over.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using namespace kvard::test::meter;

int32_t Berlin(const std::string &text) { return LocalTime(kBerlin, text); }

void ExpectStats(const Sandbox &box, const StoreObject &expected)
{
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat);
    for (const auto &[name, value] : expected) EXPECT_EQ((*stat)[name], value) << name;
}

TEST(MeterRollover, a_half_day_without_traffic_still_writes_one_record)
{
    // Without a link the record is all zero; on a DHCP link the closing
    // minute, which is never stored as a minute, keeps its 60 seconds.
    struct Case {
        const char *link;
        int32_t seconds;
    } cases[] = {{"none", 0}, {"DHCP", 60}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.link);
        bool none = std::string(c.link) == "none";
        Sandbox box(At("2026-03-10 11:59:00"));
        if (none) box.WriteObject("1400", {});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        for (const char *clock : {"2026-03-10 12:00:00", "2026-03-10 23:59:00", "2026-03-11 00:00:00"}) {
            if (none) {
                SimInput(box, Berlin(clock), 0, 0);
                SimWake(box);
            } else {
                WakeAt(box, clock);
            }
        }
        EXPECT_TRUE(MinuteRing(box).empty());
        EXPECT_EQ(Records(HalfDayRing(box)),
                  (std::vector<Record>{
                      Rec(Berlin("2026-03-10 00:00:00"), Berlin("2026-03-10 12:00:00"), 0, 0, c.seconds),
                      Rec(Berlin("2026-03-10 12:00:00"), Berlin("2026-03-11 00:00:00"), 0, 0, c.seconds),
                  }));
    }
}

TEST(MeterRollover, the_13_hour_half_day_of_the_autumn_change_leaves_two_records_with_one_start)
{
    // 25 October 2026: 03:00 CEST becomes 02:00 CET, so the morning runs 13
    // hours and the 720 minutes of the list end at 11:00 CET.
    Sandbox box(At("2026-10-25 10:58:00"));
    box.SetNetDev({{"eth0.1", 1000, 1000}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    uint64_t rx = 1000;
    for (auto [clock, delta] : {std::pair{"10:59:00", 100}, {"11:00:00", 200}, {"11:01:00", 400},
                                {"11:59:00", 800}, {"12:00:00", 1600}}) {
        rx += delta;
        box.SetNetDev({{"eth0.1", rx, 1000}});
        WakeAt(box, std::string("2026-10-25 ") + clock);
        if (std::string(clock) == "11:00:00") {
            State s = DumpState(box);
            EXPECT_EQ(s.baseMin, Berlin("2026-10-25 11:00:00")) << "the list starts again when full";
            EXPECT_EQ(s.nextHDay, Berlin("2026-10-25 12:00:00")) << "the half-day goes on";
        }
    }
    const int32_t start = Berlin("2026-10-25 00:00:00");
    ASSERT_EQ(Berlin("2026-10-25 12:00:00") - start, 13 * 3600);
    auto at = [](const char *clock) { return Berlin(std::string("2026-10-25 ") + clock); };
    EXPECT_EQ(Records(HalfDayRing(box)), (std::vector<Record>{
                                             Rec(start, at("11:00:00"), 0, 100 + 200, 60),
                                             Rec(start, at("12:00:00"), 0, 400 + 800 + 1600, 60),
                                         }));
    EXPECT_EQ(Records(MinuteRing(box)), (std::vector<Record>{
                                            Rec(at("10:58:00"), at("10:59:00"), 0, 100, 0),
                                            Rec(at("11:00:00"), at("11:01:00"), 0, 400, 0),
                                            Rec(at("11:01:00"), at("11:02:00"), 0, 800, 0),
                                        }));
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.halfDays[122], Rec(start, at("12:00:00"), 0, 3100, 120)) << "one entry holds both";
    EXPECT_EQ(lists.halfDays[123].tStart, at("12:00:00"));
    EXPECT_EQ(lists.state.baseMin, at("12:00:00"));
}

TEST(MeterRollover, the_monthly_reset_starts_the_period_empty_and_keeps_the_old_periods_tail)
{
    // Reset day 10 at HOUR. A minute of 0.1 MB and one of 0.2 MB end at the
    // reset, one of 0.1 MB follows it.
    struct Case {
        const char *claim;
        const char *hour;
        const char *before;  // the two minutes before the reset: START, then +1 and +2 minutes
        const char *resetText;
    } cases[] = {
        {"in the middle of a half-day", "6", "2026-03-10 05:58:00", "Tue Mar 10 06:00:00 2026\n"},
        {"at a half-day boundary", "12", "2026-03-10 11:58:00", "Tue Mar 10 12:00:00 2026\n"},
        {"at midnight: yesterday shows nothing", "0", "2026-03-09 23:58:00", "Tue Mar 10 00:00:00 2026\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At(c.before));
        box.UpdateObject("2888", {{"day", "10"}, {"hour", c.hour}});
        box.SetNetDev({{"eth0.1", 1000, 1000}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        int32_t t = Berlin(c.before);
        // Each minute sends a tenth of what it receives.
        auto wake = [&](int minutes, uint64_t rx) {
            box.SetNetDev({{"eth0.1", rx, 1000 + (rx - 1000) / 10}});
            WakeAt(box, LocalText(kBerlin, t + 60 * minutes));
        };
        wake(1, 1000 + 100000);
        ExpectStats(box, {{"thismonth_download", "0.10"}, {"today_download", "0.10"}});
        wake(2, 1000 + 300000);
        ExpectStats(box, {{"start_data_time", c.resetText},
                          {"thismonth_download", "0.00"},
                          {"today_download", "0.00"},
                          {"yesterday_download", "0.00"},
                          {"thisweek_download", "0.00"},
                          {"lastmonth_download", "0.30"},
                          {"lastmonth_upload", "0.03"}});
        wake(3, 1000 + 400000);
        ExpectStats(box, {{"thismonth_download", "0.10"},
                          {"today_download", "0.10"},
                          {"yesterday_download", "0.00"},
                          {"lastmonth_download", "0.30"},
                          {"lastmonth_upload", "0.03"},
                          {"thismonth_upload", "0.01"}});
        if (std::string(c.hour) == "6") {
            // At 12:00 the half-day record takes in the tail, and the old
            // period gets its share by time: 6 of 12 hours of 0.4 MB.
            WakeAt(box, "2026-03-10 11:59:00");
            WakeAt(box, "2026-03-10 12:00:00");
            EXPECT_EQ(Records(HalfDayRing(box)),
                      (std::vector<Record>{Rec(Berlin("2026-03-10 00:00:00"), Berlin("2026-03-10 12:00:00"), 40000,
                                               400000, 60)}));
            ExpectStats(box, {{"lastmonth_download", "0.20"},
                              {"lastmonth_upload", "0.02"},
                              {"thismonth_download", "0.10"}});
        }
    }
}

TEST(MeterRollover, midnight_moves_today_to_yesterday_and_sunday_midnight_clears_the_week_too)
{
    struct Case {
        const char *claim;
        const char *day;  // the day before the midnight
        const char *weekAfter;
    } cases[] = {
        {"Thursday to Friday", "2026-03-12", "0.30"},
        {"Saturday to Sunday", "2026-03-14", "0.00"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At((std::string(c.day) + " 23:58:00").c_str()));
        box.SetNetDev({{"eth0.1", 1000, 1000}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        box.SetNetDev({{"eth0.1", 1000 + 100000, 1000}});
        WakeAt(box, std::string(c.day) + " 23:59:00");
        ExpectStats(box, {{"today_download", "0.10"}, {"thisweek_download", "0.10"}});
        int32_t midnight = Berlin(std::string(c.day) + " 00:00:00") + 86400;
        box.SetNetDev({{"eth0.1", 1000 + 300000, 1000}});
        WakeAt(box, LocalText(kBerlin, midnight));
        ExpectStats(box, {{"today_download", "0.00"},
                          {"yesterday_download", "0.30"},
                          {"thisweek_download", c.weekAfter},
                          {"thismonth_download", "0.30"}});
        State s = DumpState(box);
        EXPECT_EQ(s.nextHDay, midnight + 43200);
    }
}

}  // namespace
