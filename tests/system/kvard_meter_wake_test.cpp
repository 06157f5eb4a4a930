// The timer wake of the production daemon: when a minute closes, what it
// books where, and what reaches the minute ring, driven by the fake clock and
// the WAN counters of the sandbox.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using namespace kvard::test::meter;

int32_t Berlin(const std::string &text) { return LocalTime(kBerlin, "2026-03-10 " + text); }

// A box on 10 March 2026 (CET), started at START with the WAN counters at
// RX and TX on INTERFACE.
void StartAt(Sandbox &box, uint64_t rx, uint64_t tx, const char *interface = "eth0.1")
{
    box.SetNetDev({{interface, rx, tx}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
}

TEST(MeterWake, idle_minutes_are_published_every_minute_and_never_written_to_flash)
{
    Sandbox box(At("2026-03-10 09:59:00"));
    StartAt(box, 7000, 3000);
    for (const char *minute : {"10:00:00", "10:01:00", "10:02:00"}) {
        WakeAt(box, std::string("2026-03-10 ") + minute);
        EXPECT_EQ(Stat(box, "current_data_time"), std::string("Tue Mar 10 ") + minute + " 2026\n");
    }
    // A wake that passes no minute boundary publishes nothing.
    WakeAt(box, "2026-03-10 10:02:40");
    EXPECT_EQ(Stat(box, "current_data_time"), "Tue Mar 10 10:02:00 2026\n");
    EXPECT_TRUE(MinuteRing(box).empty());
    EXPECT_TRUE(HalfDayRing(box).empty());
    EXPECT_EQ(DumpState(box).nextMin, Berlin("10:03:00"));
}

TEST(MeterWake, a_minute_keeps_its_connection_time_on_flash_only_for_the_ppp_family)
{
    struct Case {
        const char *wanType, *interface;
        int32_t storedSeconds;
    } cases[] = {
        {"DHCP", "eth0.1", 0},
        {"Static", "eth0.1", 0},
        {"PPPoE", "ppp0.2", 60},
        {"PPTP", "ppp0", 60},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wanType);
        Sandbox box(At("2026-03-10 09:59:00"));
        box.WriteObject("1400", {{"wanType", c.wanType}});
        StartAt(box, 1000, 500, c.interface);
        box.SetNetDev({{c.interface, 1000 + 250000, 500 + 40000}});
        WakeAt(box, "2026-03-10 10:00:00");
        box.SetNetDev({{c.interface, 1000 + 250000 + 70000, 500 + 40000 + 9000}});
        WakeAt(box, "2026-03-10 10:01:00");
        EXPECT_EQ(Records(MinuteRing(box)),
                  (std::vector<Record>{Rec(Berlin("09:59:00"), Berlin("10:00:00"), 40000, 250000, c.storedSeconds),
                                       Rec(Berlin("10:00:00"), Berlin("10:01:00"), 9000, 70000, c.storedSeconds)}));
        // The month counts the seconds of every link type.
        EXPECT_EQ(Stat(box, "thismonth_conntime"), "00:02");
        EXPECT_EQ(Stat(box, "thismonth_download"), "0.32");
    }
}

TEST(MeterWake, the_last_minute_of_a_half_day_is_only_in_the_half_day_record)
{
    Sandbox box(At("2026-03-10 11:58:00"));
    StartAt(box, 5000, 5000);
    box.SetNetDev({{"eth0.1", 5000 + 1000, 5000 + 10}});
    WakeAt(box, "2026-03-10 11:59:00");
    box.SetNetDev({{"eth0.1", 5000 + 3000, 5000 + 30}});
    WakeAt(box, "2026-03-10 12:00:00");
    EXPECT_EQ(Records(MinuteRing(box)),
              (std::vector<Record>{Rec(Berlin("11:58:00"), Berlin("11:59:00"), 10, 1000, 0)}));
    // The closing minute is not stored as a minute, so it keeps its seconds
    // even on a DHCP link.
    EXPECT_EQ(Records(HalfDayRing(box)),
              (std::vector<Record>{Rec(Berlin("00:00:00"), Berlin("12:00:00"), 30, 3000, 60)}));
    State s = DumpState(box);
    EXPECT_EQ(s.baseMin, Berlin("12:00:00"));
    EXPECT_EQ(s.nextMin, Berlin("12:01:00"));
    EXPECT_EQ(s.nextHDay, LocalTime(kBerlin, "2026-03-11 00:00:00"));
}

TEST(MeterWake, a_wake_five_minutes_late_books_them_all_on_the_scheduled_minute)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    box.WriteObject("1400", {{"wanType", "PPPoE"}});
    StartAt(box, 100, 100, "ppp0.2");
    box.SetNetDev({{"ppp0.2", 100 + 5000, 100 + 700}});
    WakeAt(box, "2026-03-10 10:05:30");
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.minutes[600], Rec(Berlin("10:00:00"), Berlin("10:01:00"), 700, 5000, 330));
    for (int i = 601; i <= 605; i++)
        EXPECT_EQ(lists.minutes[i], Rec(Berlin("10:00:00") + 60 * (i - 600), Berlin("10:01:00") + 60 * (i - 600), 0, 0, 0))
            << "entry " << i;
    EXPECT_EQ(lists.state.nextMin, Berlin("10:06:00"));
    EXPECT_EQ(Records(MinuteRing(box)), (std::vector<Record>{lists.minutes[600]}));
    EXPECT_EQ(Stat(box, "thismonth_conntime"), "00:05");
}

TEST(MeterWake, counters_that_run_backwards_restart_both_deltas_from_the_reading)
{
    struct Case {
        const char *claim;
        uint64_t midRx, midTx;  // read between two minute boundaries
        uint64_t endRx, endTx;  // read at the boundary
        uint64_t minuteRx, minuteTx;
    } cases[] = {
        {"nothing falls: all of it counts", 13000, 16000, 13500, 16300, 3500, 6300},
        {"tx falls: rx pending so far is lost too", 13000, 4000, 13500, 4700, 500, 700},
        {"only rx falls: tx pending so far is lost too", 2000, 16000, 2400, 16300, 400, 300},
        {"both fall", 2000, 4000, 2400, 4700, 400, 700},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-03-10 10:00:00"));
        StartAt(box, 10000, 10000);
        box.SetNetDev({{"eth0.1", c.midRx, c.midTx}});
        WakeAt(box, "2026-03-10 10:00:30");
        State mid = DumpState(box);
        bool fell = c.midRx < 10000 || c.midTx < 10000;
        EXPECT_EQ(mid.lastRx, fell ? c.midRx : 10000);
        EXPECT_EQ(mid.lastTx, fell ? c.midTx : 10000);
        EXPECT_EQ(Stat(box, "current_data_time"), "Tue Mar 10 10:00:00 2026\n") << "no minute, no publication";
        box.SetNetDev({{"eth0.1", c.endRx, c.endTx}});
        WakeAt(box, "2026-03-10 10:01:00");
        EXPECT_EQ(Records(MinuteRing(box)),
                  (std::vector<Record>{Rec(Berlin("10:00:00"), Berlin("10:01:00"), c.minuteTx, c.minuteRx, 0)}));
    }
}

TEST(MeterWake, the_minute_gate_opens_at_next_min_and_closes_one_minute_up_to_59_seconds_later)
{
    struct Case {
        const char *wake;
        size_t records;
        const char *nextMin;
    } cases[] = {
        {"10:00:59", 0, "10:01:00"},
        {"10:01:00", 1, "10:02:00"},
        {"10:01:59", 1, "10:02:00"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wake);
        Sandbox box(At("2026-03-10 10:00:00"));
        StartAt(box, 1000, 1000);
        box.SetNetDev({{"eth0.1", 4000, 2000}});
        WakeAt(box, std::string("2026-03-10 ") + c.wake);
        auto minutes = Records(MinuteRing(box));
        ASSERT_EQ(minutes.size(), c.records);
        if (c.records) {
            EXPECT_EQ(minutes[0], Rec(Berlin("10:00:00"), Berlin("10:01:00"), 1000, 3000, 0));
        }
        EXPECT_EQ(DumpState(box).nextMin, Berlin(c.nextMin));
    }
}

TEST(MeterWake, a_clock_set_back_closes_no_minute_until_it_is_past_next_min_again)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    StartAt(box, 1000, 1000);
    box.SetNetDev({{"eth0.1", 2000, 1100}});
    WakeAt(box, "2026-03-10 10:01:00");
    for (auto [clock, rx] : {std::pair{"09:01:30", 2300}, {"09:45:00", 2600}, {"10:01:59", 2700}}) {
        box.SetNetDev({{"eth0.1", uint64_t(rx), 1100}});
        WakeAt(box, std::string("2026-03-10 ") + clock);
        EXPECT_EQ(MinuteRing(box).size(), 1u) << clock;
        EXPECT_EQ(DumpState(box).nextMin, Berlin("10:02:00")) << clock;
    }
    box.SetNetDev({{"eth0.1", 3000, 1100}});
    WakeAt(box, "2026-03-10 10:02:00");
    EXPECT_EQ(Records(MinuteRing(box)),
              (std::vector<Record>{Rec(Berlin("10:00:00"), Berlin("10:01:00"), 100, 1000, 0),
                                   Rec(Berlin("10:01:00"), Berlin("10:02:00"), 0, 1000, 0)}));
}

TEST(MeterWake, a_clock_set_forward_over_days_closes_one_half_day_per_minute_run)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    StartAt(box, 1000, 1000);
    box.SetNetDev({{"eth0.1", 9000, 1000}});
    WakeAt(box, "2026-03-12 15:30:20");
    // The late minute goes into the half-day record, with its two days of seconds.
    int32_t late = LocalTime(kBerlin, "2026-03-12 15:30:20") - Berlin("10:00:00");
    EXPECT_TRUE(MinuteRing(box).empty());
    EXPECT_EQ(Records(HalfDayRing(box)),
              (std::vector<Record>{Rec(Berlin("00:00:00"), Berlin("12:00:00"), 0, 8000, late)}));
    EXPECT_EQ(DumpState(box).nextHDay, LocalTime(kBerlin, "2026-03-11 00:00:00"));
    const char *expected[] = {"2026-03-11 12:00:00", "2026-03-12 00:00:00", "2026-03-12 12:00:00",
                              "2026-03-13 00:00:00", "2026-03-13 00:00:00"};
    int minute = 31;
    for (const char *nextHDay : expected) {
        WakeAt(box, "2026-03-12 15:" + std::to_string(minute++) + ":00");
        EXPECT_EQ(DumpState(box).nextHDay, LocalTime(kBerlin, nextHDay)) << "wake at 15:" << minute - 1;
    }
    // The close of an index out of range had nothing and wrote nothing; each
    // later one closes on a valid index and writes its half-day, which holds
    // only the closing minute's seconds.
    auto day = [](const char *text) { return LocalTime(kBerlin, text); };
    EXPECT_EQ(Records(HalfDayRing(box)),
              (std::vector<Record>{
                  Rec(Berlin("00:00:00"), Berlin("12:00:00"), 0, 8000, late),
                  Rec(day("2026-03-11 00:00:00"), day("2026-03-11 12:00:00"), 0, 0, 60),
                  Rec(day("2026-03-11 12:00:00"), day("2026-03-12 00:00:00"), 0, 0, 60),
                  Rec(day("2026-03-12 00:00:00"), day("2026-03-12 12:00:00"), 0, 0, 60),
              }));
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.halfDays[118], Rec(Berlin("00:00:00"), Berlin("12:00:00"), 0, 8000, late));
    EXPECT_EQ(lists.halfDays[119], Rec(Berlin("12:00:00"), day("2026-03-11 00:00:00"), 0, 0, 0));
    EXPECT_EQ(lists.halfDays[123].tStart, day("2026-03-12 12:00:00"));
    EXPECT_EQ(lists.halfDays[123].tEnd, day("2026-03-13 00:00:00"));
}

TEST(MeterWake, a_wake_without_counters_does_nothing_and_the_next_good_one_books_it_late)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    StartAt(box, 1000, 1000);
    box.WriteObject("1400", {});  // no WAN connection, so no interface to read
    box.SetNetDev({{"eth0.1", 5000, 1000}});
    WakeAt(box, "2026-03-10 10:01:00");
    State s = DumpState(box);
    EXPECT_EQ(s.nextMin, Berlin("10:01:00"));
    EXPECT_EQ(s.wan, "DHCP/STATIC") << "the link is not looked at either";
    EXPECT_EQ(Stat(box, "current_data_time"), "Tue Mar 10 10:00:00 2026\n");
    // Nor can a link update: it answers 0 and leaves the link as it was.
    EXPECT_EQ(box.Send(kLinkUpdate), 0);
    EXPECT_TRUE(box.WaitStdout("Fail to get tx/rx counters\n"));
    EXPECT_EQ(DumpState(box).wan, "DHCP/STATIC");
    box.WriteObject("1400", {{"wanType", "DHCP"}});
    box.SetNetDev({{"eth0.1", 8000, 1000}});
    WakeAt(box, "2026-03-10 10:03:30");
    EXPECT_EQ(Records(MinuteRing(box)),
              (std::vector<Record>{Rec(Berlin("10:00:00"), Berlin("10:01:00"), 0, 7000, 0)}));
    EXPECT_EQ(DumpState(box).nextMin, Berlin("10:04:00"));
}

TEST(MeterWake, with_the_meter_off_minutes_roll_forward_and_nothing_is_recorded)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    box.UpdateObject("2888", {{"traffic_on", "false"}});
    StartAt(box, 1000, 1000);
    for (auto [clock, rx] : {std::pair{"10:01:00", 5000}, {"10:02:00", 9000}}) {
        box.SetNetDev({{"eth0.1", uint64_t(rx), 1000}});
        WakeAt(box, std::string("2026-03-10 ") + clock);
        State s = DumpState(box);
        EXPECT_EQ(s.lastRx, uint64_t(rx)) << "the base follows the counter";
        EXPECT_EQ(s.nextMin, Berlin(clock) + 60);
    }
    EXPECT_TRUE(MinuteRing(box).empty());
    EXPECT_EQ(Stat(box, "thismonth_download"), "0.00");
    // Switched on, it counts from the last roll-forward's base.
    box.UpdateObject("2888", {{"traffic_on", "true"}});
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    box.SetNetDev({{"eth0.1", 9000 + 300000, 1000}});
    WakeAt(box, "2026-03-10 10:03:00");
    EXPECT_EQ(Records(MinuteRing(box)),
              (std::vector<Record>{Rec(Berlin("10:02:00"), Berlin("10:03:00"), 0, 300000, 0)}));
    EXPECT_EQ(Stat(box, "thismonth_download"), "0.30");
}

TEST(MeterWake, after_simulated_input_only_the_simulation_wake_runs)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    StartAt(box, 1000, 1000);
    SimInput(box, Berlin("10:01:00"), 1000, 51000);
    std::string debugOn(4, '\0');
    uint32_t word = 5182;
    memcpy(&debugOn[0], &word, 4);
    ASSERT_EQ(box.Send(4436, debugOn + '\0'), 1);
    box.SetNetDev({{"eth0.1", 90000, 90000}});
    size_t from = box.Stdout().size();
    WakeAt(box, "2026-03-10 10:05:00");
    EXPECT_EQ(box.Stdout().find("exportData.timeSync:", from), std::string::npos) << "not even a trace line";
    State s = DumpState(box);
    EXPECT_EQ(s.nextMin, Berlin("10:01:00")) << "the wake of kind 1 did nothing";
    EXPECT_EQ(s.lastRx, 1000u);
    EXPECT_TRUE(MinuteRing(box).empty());
    from = box.Stdout().size();
    SimWake(box);
    EXPECT_NE(box.Stdout().find("exportData.timeSync:1 <--\n", from), std::string::npos);
    EXPECT_EQ(Records(MinuteRing(box)),
              (std::vector<Record>{Rec(Berlin("10:00:00"), Berlin("10:01:00"), 0, 50000, 0)}));
    EXPECT_EQ(DumpState(box).nextMin, Berlin("10:02:00"));
}

}  // namespace
