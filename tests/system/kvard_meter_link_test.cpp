// Link and clock events of the production daemon: the accounting at each
// change of link type, the minimum charge of a short PPP session, the first
// synchronisation of the clock and a change of the zone's name.
//
// A lost link leaves no WAN interface to read, so the link tests run on
// simulated input: clock and counters come from the datagrams, the link type
// still from the data model.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using namespace kvard::test::meter;

int32_t Berlin(const std::string &text) { return LocalTime(kBerlin, "2026-03-10 " + text); }

enum Link { None, Dhcp, Ppp };

void SetLink(Sandbox &box, Link link)
{
    if (link == None) box.WriteObject("1400", {});
    else box.WriteObject("1400", {{"wanType", link == Dhcp ? "DHCP" : "PPPoE"}});
}

const char *WanText(Link link)
{
    return link == None ? "NONE" : link == Dhcp ? "DHCP/STATIC" : "PPPOE/L2TP/PPTP";
}

// Sum of the minute list's counters.
Record MinuteSum(const Lists &lists)
{
    Record sum;
    for (const Record &m : lists.minutes) {
        sum.tx += m.tx;
        sum.rx += m.rx;
        sum.tUsed += m.tUsed;
    }
    return sum;
}

TEST(MeterLink, every_change_of_link_type_is_accounted_and_published)
{
    // The link changes at 10:02:50 with the counters at tx 1300, rx 1600;
    // the minute closes at 10:03:50 with tx 1700, rx 2100. Counting starts
    // at 10:00:00 from tx 1000, rx 1000. Every box has a PPP minimum of
    // 100000 bytes; only a lost PPP link applies it (session rx 600).
    struct Case {
        Link from, to;
        uint64_t initLinkUpRx;
        uint64_t tx, rx;          // all minutes together
        int32_t listSeconds;      // in the list: kept for a PPP link only
        const char *conntime;     // the month keeps every link's seconds
    } cases[] = {
        {None, Dhcp, 0, 400, 500, 0, "00:01"},       // taken afresh at the change
        {None, Ppp, 1600, 400, 500, 60, "00:01"},
        {Dhcp, Ppp, 1600, 700, 1100, 230, "00:03"},  // no accounting at all
        {Ppp, Dhcp, 1000, 700, 1100, 0, "00:03"},    // and no PPP minimum
        {Dhcp, None, 0, 300, 600, 0, "00:02"},       // banked; what follows is not counted
        {Ppp, None, 1000, 300, 100000, 0, "00:02"},  // banked, the session charged 100000
    };
    for (bool byWake : {false, true}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(WanText(c.from)) + " to " + WanText(c.to) + (byWake ? " seen by the wake" : ""));
            Sandbox box(At("2026-03-10 10:00:00"));
            SetLink(box, c.from);
            box.UpdateObject("2888", {{"round_up_volume", "100000"}});
            box.SetNetDev({{c.from == Ppp ? "ppp0.2" : "eth0.1", 1000, 1000}});
            box.Start();
            ASSERT_TRUE(box.WaitReady());
            SimInput(box, Berlin("10:00:20"), 1100, 1200);
            SimWake(box);

            SetLink(box, c.to);
            box.SetTime("2026-03-10 10:02:50");
            SimInput(box, Berlin("10:02:50"), 1300, 1600);
            if (byWake) {
                SimWake(box);  // it also closes the overdue minute
            } else {
                ASSERT_EQ(box.Send(kLinkUpdate), 1);
                EXPECT_EQ(Stat(box, "current_data_time"), "Tue Mar 10 10:02:50 2026\n") << "published at once";
                box.SetTime("2026-03-10 10:02:55");
                ASSERT_EQ(box.Send(kLinkUpdate), 1);
                EXPECT_EQ(Stat(box, "current_data_time"), "Tue Mar 10 10:02:50 2026\n")
                    << "the same link again publishes nothing";
            }
            State s = DumpState(box);
            EXPECT_EQ(s.wan, WanText(c.to));
            EXPECT_EQ(s.initLinkUpRx, c.initLinkUpRx);

            SimInput(box, Berlin("10:03:50"), 1700, 2100);
            SimWake(box);
            Lists lists = DumpLists(box);
            Record sum = MinuteSum(lists);
            EXPECT_EQ(sum.tx, c.tx);
            EXPECT_EQ(sum.rx, c.rx);
            EXPECT_EQ(sum.tUsed, c.listSeconds);
            EXPECT_EQ(Stat(box, "today_conntime"), c.conntime);
        }
    }
}

TEST(MeterLink, a_short_ppp_session_is_charged_the_minimum_in_the_next_minute)
{
    // The minimum is 1000 bytes; the PPP link comes up with rx at 10000.
    struct Step {
        Link link;
        uint64_t rx;
    };
    struct Case {
        const char *claim;
        std::vector<Step> steps;  // after the first link-up
        uint64_t minuteRx;
    } cases[] = {
        {"a session below it counts the minimum", {{None, 10300}}, 1000},
        {"a session of exactly the minimum gets nothing more", {{None, 11000}}, 1000},
        {"a longer session counts what it received", {{None, 12500}}, 2500},
        {"a session that received nothing gets nothing", {{None, 10000}}, 0},
        {"counters restarted below the link-up reading: no minimum and no banked rx", {{None, 400}}, 0},
        {"a second short session in the minute replaces the first one's supplement",
         {{None, 10300}, {Ppp, 10300}, {None, 10500}},
         500 + 800},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-03-10 10:00:00"));
        SetLink(box, None);
        box.UpdateObject("2888", {{"round_up_volume", "1000"}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        int32_t t = Berlin("10:00:05");
        SetLink(box, Ppp);
        SimInput(box, t, 0, 10000);
        ASSERT_EQ(box.Send(kLinkUpdate), 1);
        for (const Step &step : c.steps) {
            t += 5;
            SetLink(box, step.link);
            SimInput(box, t, 0, step.rx);
            ASSERT_EQ(box.Send(kLinkUpdate), 1);
        }
        SimInput(box, Berlin("10:01:00"), 0, c.steps.back().rx);
        SimWake(box);
        Lists lists = DumpLists(box);
        EXPECT_EQ(lists.minutes[600].rx, c.minuteRx);
        EXPECT_EQ(lists.state.lastMinRx, c.minuteRx);
    }
}

TEST(MeterLink, the_first_synchronisation_lays_out_the_lists_and_the_first_minute_takes_all_pending)
{
    for (bool byWake : {false, true}) {
        SCOPED_TRACE(byWake ? "noticed by the wake" : "told by datagram");
        Sandbox box(At("2026-03-10 10:00:00"));
        // History of an earlier run: 2 MB in the minute 10:00 to 10:01.
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        box.SetNetDev({{"eth0.1", 2000000, 0}});
        WakeAt(box, "2026-03-10 10:01:00");
        box.Stop();

        // A restart with the clock not yet set: minutes on the uptime scale.
        box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        box.SetUptime(1000.5);
        box.SetTime("2026-03-10 10:02:10");
        box.SetNetDev({{"eth0.1", 50000, 50000}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        State s = DumpState(box);
        EXPECT_EQ(s.timeSync, 0);
        EXPECT_EQ(s.baseMin, 960);
        EXPECT_EQ(s.nextMin, 1020);
        EXPECT_EQ(s.nextHDay, 960 + 43200);
        EXPECT_EQ(s.nextReset, 0);

        // Minutes pass on the uptime scale, and none of them is closed.
        box.SetNetDev({{"eth0.1", 350000, 50000}});
        box.SetUptime(1100);
        ASSERT_EQ(box.Send(kTimeWake), 1);
        EXPECT_EQ(DumpState(box).nextMin, 1020);
        EXPECT_EQ(Stat(box, "thismonth_download"), "0.00");
        box.SetNetDev({{"eth0.1", 750000, 50000}});

        box.SetTime("2026-03-10 10:05:10");
        box.UpdateObject("1045", {{"status", "Synchronized"}});
        if (byWake) {
            box.SetUptime(1110);
            ASSERT_EQ(box.Send(kTimeWake), 1);
        } else {
            ASSERT_EQ(box.Send(kTimeUpdate), 1);
        }
        s = DumpState(box);
        EXPECT_EQ(s.timeSync, 1);
        EXPECT_EQ(s.zone, kBerlin);
        EXPECT_EQ(s.baseMin, Berlin("00:00:00"));
        EXPECT_EQ(s.nextMin, Berlin("10:06:00"));
        EXPECT_EQ(s.nextHDay, Berlin("12:00:00"));
        EXPECT_EQ(s.lastReset, LocalTime(kBerlin, "2026-03-01 00:00:00"));
        EXPECT_EQ(s.nextReset, LocalTime(kBerlin, "2026-04-01 00:00:00"));
        EXPECT_EQ(s.nextMinFlash, 1u) << "behind the record of the earlier run";
        // The earlier run's 2 MB are restored, the 0.7 MB since the start pending.
        EXPECT_EQ(Stat(box, "thismonth_download"), "2.70");

        WakeAt(box, "2026-03-10 10:06:00");
        EXPECT_EQ(Records(MinuteRing(box)),
                  (std::vector<Record>{Rec(Berlin("10:00:00"), Berlin("10:01:00"), 0, 2000000, 0),
                                       Rec(Berlin("10:05:00"), Berlin("10:06:00"), 0, 700000, 0)}));
        EXPECT_EQ(Stat(box, "thismonth_download"), "2.70");
        EXPECT_EQ(Stat(box, "today_conntime"), "00:00") << "connection time restarted at the synchronisation";
    }
}

TEST(MeterLink, a_new_zone_name_in_mid_half_day_lays_the_lists_out_anew)
{
    Sandbox box(At("2026-03-10 11:58:00"));
    box.SetNetDev({{"eth0.1", 1000, 1000}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 101000, 1000}});
    WakeAt(box, "2026-03-10 11:59:00");

    // Past the half-day boundary with a minute pending, the zone gets a new name.
    box.SetNetDev({{"eth0.1", 151000, 1000}});
    box.UpdateObject("1045", {{"localTimeZone", "Europe/Paris"}});
    WakeAt(box, "2026-03-10 14:30:20");
    State s = DumpState(box);
    EXPECT_EQ(s.zone, "Europe/Paris");
    EXPECT_EQ(s.baseMin, Berlin("12:00:00"));
    EXPECT_EQ(s.nextHDay, LocalTime(kBerlin, "2026-03-11 00:00:00"));
    EXPECT_EQ(s.nextMin, Berlin("14:31:00"));
    // The morning's minute record is folded into a half-day record, without
    // the minute still pending.
    EXPECT_EQ(Records(HalfDayRing(box)),
              (std::vector<Record>{Rec(Berlin("00:00:00"), Berlin("12:00:00"), 0, 100000, 0)}));

    // The pending volume survives the rebuild and lands in the next minute.
    WakeAt(box, "2026-03-10 14:31:00");
    Lists lists = DumpLists(box);
    EXPECT_EQ(lists.minutes[150], Rec(Berlin("14:30:00"), Berlin("14:31:00"), 0, 50000, 0));
    EXPECT_EQ(Stat(box, "today_download"), "0.15");
}

}  // namespace
