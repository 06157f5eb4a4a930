// The metering loop of the production daemon, on the fake clock and on simulated
// input: wakes, link and clock events, the half-day close and the roll-overs.
#include "tests/system/meter_util.h"

using namespace kvard::test::meter;

TEST(Meter, wakes_close_minutes_half_days_and_the_sunday_midnight)
{
    auto at = [](const std::string &clock) { return T("2026-03-14 " + clock); };  // a Saturday
    auto minute = [&](const char *clock, uint64_t tx, uint64_t rx) { return Record{at(clock), at(clock) + 60, tx, rx}; };
    Sandbox box(At("2026-03-14 09:59:00"));
    Go(box, {{"eth0.1", 1000, 1000}});
    auto wake = [&](const char *clock, uint64_t rx, uint64_t tx) { WakeAt(box, at(clock), {{"eth0.1", rx, tx}}); };
    wake("10:00:00", 1000, 1000);
    wake("10:00:40", 1000, 1000);
    EXPECT_EQ(Stat(box, "current_data_time"), Asc(at("10:00:00"))) << "by the idle minute, not by the wake within it";
    wake("10:01:00", 251000, 41000);  // a DHCP minute keeps no seconds on flash, the month all of them
    ExpectStats(box, {{"thismonth_conntime", "00:02"}, {"thismonth_download", "0.25"}});
    wake("10:01:59", 261000, 41000);  // the gate: a second early, 59 seconds late, on the second
    wake("10:02:59", 271000, 41000);
    wake("10:03:00", 272000, 41000);
    wake("10:03:30", 500, 41500);  // rx runs backwards: the tx since 10:03 is lost too
    wake("10:04:00", 800, 41700);
    wake("10:04:30", 900, 100);  // tx runs backwards
    wake("10:05:00", 1000, 150);
    wake("09:30:00", 2000, 150);  // the clock set back closes nothing, the volume waits
    wake("10:06:00", 3000, 150);
    EXPECT_EQ(Records(box, false), (std::vector<Record>{minute("10:00:00", 40000, 250000), minute("10:01:00", 0, 20000),
                                                        minute("10:02:00", 0, 1000), minute("10:03:00", 200, 300),
                                                        minute("10:04:00", 50, 100), minute("10:05:00", 0, 2000)}));
    wake("10:12:30", 8000, 150);  // late by five minutes and more: all on the scheduled entry, once
    EXPECT_EQ(Records(box, false).back(), minute("10:06:00", 0, 5000));

    // The half-day's last minute only in its record, with its seconds; 11:59, late too, books on 10:12.
    wake("11:59:00", 9000, 150);
    wake("12:00:00", 12000, 150);
    EXPECT_EQ(Records(box, false).back(), minute("10:12:00", 0, 1000));
    EXPECT_EQ(Records(box, true), (std::vector<Record>{{at("00:00:00"), at("12:00:00"), 40250, 279400 + 3000, 60}}));

    // Without a link, on simulated input: an idle afternoon still writes its record; Sunday midnight clears the week.
    std::string today = Stat(box, "today_download");
    EXPECT_EQ(Stat(box, "thisweek_download"), today);
    box.WriteObject("1400", {});
    for (int32_t t : {at("12:00:30"), at("23:59:00"), T("2026-03-15 00:00:00")}) SimWake(box, t, 150, 12000);
    EXPECT_EQ(Records(box, true).back(), (Record{at("12:00:00"), T("2026-03-15 00:00:00"), 0, 0, 0}));
    ExpectStats(box, {{"today_download", "0.00"}, {"yesterday_download", today}, {"thisweek_download", "0.00"}});
    WakeAt(box, T("2026-03-15 00:05:00"));  // after simulated input a timer wake does nothing
    EXPECT_EQ(Num(Dump(box, kDumpState), kNextMin), T("2026-03-15 00:01:00"));

    // The clock set forward by days: one half-day closes per run until the next lies ahead.
    int32_t want = T("2026-03-15 12:00:00");
    for (int i = 0; i < 6; i++) {
        SimWake(box, T("2026-03-17 15:30:20") + 60 * i, 150, 12000);
        want = std::min(want + 43200, T("2026-03-18 00:00:00"));
        EXPECT_EQ(Num(Dump(box, kDumpState), kNextHDay), want) << "run " << i;
    }
}

TEST(Meter, every_link_transition_and_the_ppp_minimum)
{
    enum { None, Dhcp, Ppp };
    Sandbox box(At("2026-03-10 10:00:00"));
    auto setLink = [&](int link) {
        box.WriteObject("1400", link == None ? StoreObject{} : StoreObject{{"wanType", link == Dhcp ? "DHCP" : "PPPoE"}});
    };
    setLink(None);
    box.UpdateObject("2888", {{"round_up_volume", "5000"}});
    Go(box);
    // Each minute the counters move by tx 300, rx 600 before the change at 20 s, by 400, 500
    // after it; the minute's tx and rx. 0-1 and 0-2 take the counters afresh, 1-2 and 2-1 account
    // nothing (no minimum), 1-0 and 2-0 bank what came, 2-0 charging the session of 1100 the minimum.
    struct { int to; uint64_t tx, rx; } rows[] = {{Dhcp, 400, 500}, {Ppp, 700, 1100}, {Dhcp, 700, 1100},
                                                  {None, 300, 600}, {Ppp, 400, 500}, {None, 300, 600 + 5000 - 1100}};
    int32_t t = T("2026-03-10 10:00:00");
    uint64_t tx = 1000, rx = 1000, linkUpRx = 0;
    for (bool byWake : {false, true}) {
        for (const auto &r : rows) {
            SCOPED_TRACE(std::to_string(&r - rows) + (byWake ? " seen by the wake" : " by datagram"));
            setLink(r.to);
            SimInput(box, t + 20, tx += 300, rx += 600);
            SetClock(box, t + 20);
            Want(box.Send(byWake ? kSimWake : kLinkUpdate), byWake ? 3000000 : 1, "link update or wake");
            SetClock(box, t + 25);
            if (!byWake) Want(box.Send(kLinkUpdate), 1, "the same link again");
            EXPECT_EQ(Stat(box, "current_data_time"), Asc(t + 20)) << "published at once, not again for the same link";
            if (r.to == Ppp) linkUpRx = rx;
            SimWake(box, t += 60, tx += 400, rx += 500);
            std::string s = Dump(box, kDumpState);
            EXPECT_EQ(Num(s, "Init Link Up Rx:"), int64_t(linkUpRx));
            EXPECT_EQ(Num(s, "Last Minute tx:"), int64_t(r.tx));
            EXPECT_EQ(Num(s, " rx:"), int64_t(r.rx));
        }
    }
    // Short PPP sessions: rx at each link-up and loss within one minute.
    struct { std::vector<uint64_t> rx; uint64_t minute; } sessions[] = {
        {{10000, 10300}, 5000}, {{10000, 15000}, 5000}, {{10000, 16500}, 6500}, {{10000, 10000}, 0},
        {{10000, 400}, 0},                          // counters restarted below the link-up reading
        {{10000, 10300, 10300, 10500}, 500 + 4800},  // the second supplement replaces the first
    };
    for (const auto &c : sessions) {
        for (size_t i = 0; i < c.rx.size(); i++) {
            setLink(i % 2 ? None : Ppp);
            SimInput(box, t + 5 * int32_t(i + 1), 0, c.rx[i]);
            Want(box.Send(kLinkUpdate), 1, "link update");
        }
        SimWake(box, t += 60, 0, c.rx.back());
        EXPECT_EQ(Num(Dump(box, kDumpState), " rx:"), int64_t(c.minute)) << "session ending at rx " << c.rx.back();
    }
}

TEST(Meter, the_first_synchronisation_takes_the_minutes_off_the_uptime_scale)
{
    auto at = [](const std::string &clock) { return T("2026-03-10 " + clock); };
    for (uint16_t how : {kTimeUpdate, kTimeWake}) {
        SCOPED_TRACE(how == kTimeWake ? "noticed by the wake" : "told by datagram");
        Sandbox box(At("2026-03-10 10:02:10"));
        Image image;  // an earlier run's minute of 2 MB
        image.Put(0, {at("10:00:00"), at("10:01:00"), 0, 2000000, 0});
        image.WriteTo(box);
        box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        box.SetUptime(1000.5);
        Go(box, {{"eth0.1", 50000, 50000}});
        box.SetNetDev({{"eth0.1", 350000, 50000}});
        box.SetUptime(1100);
        Want(box.Send(kTimeWake), 1, "wake");
        EXPECT_EQ(Num(Dump(box, kDumpState), kNextMin), 1020) << "a passed minute of the uptime scale stays open";
        box.SetNetDev({{"eth0.1", 750000, 50000}});
        box.SetTime("2026-03-10 10:05:10");
        box.UpdateObject("1045", {{"status", "Synchronized"}});
        box.SetUptime(1110);
        Want(box.Send(how), 1, "sync");
        EXPECT_EQ(Stat(box, "thismonth_download"), "2.70") << "history restored, 0.7 MB since the start pending";
        WakeAt(box, at("10:06:00"));
        EXPECT_EQ(Records(box, false).back(), (Record{at("10:05:00"), at("10:06:00"), 0, 700000, 0}));
        EXPECT_EQ(Stat(box, "today_conntime"), "00:00") << "connection time restarts at the synchronisation";
    }
}

TEST(Meter, a_new_zone_name_in_mid_half_day_lays_the_history_out_anew)
{
    auto at = [](const std::string &clock) { return T("2026-03-10 " + clock); };
    Sandbox box(At("2026-03-10 11:58:00"));
    Go(box, {{"eth0.1", 1000, 1000}});
    WakeAt(box, at("11:59:00"), {{"eth0.1", 101000, 1000}});
    box.UpdateObject("1045", {{"localTimeZone", "Europe/Paris"}});
    WakeAt(box, at("14:30:20"), {{"eth0.1", 151000, 1000}});  // past the boundary, a minute pending
    EXPECT_EQ(Records(box, true), (std::vector<Record>{{at("00:00:00"), at("12:00:00"), 0, 100000, 0}})) << "folded";
    WakeAt(box, at("14:31:00"));
    EXPECT_EQ(Lists(box)[150], (Record{at("14:30:00"), at("14:31:00"), 0, 50000, 0})) << "from 12:00, volume kept";
    EXPECT_EQ(Stat(box, "today_download"), "0.15");
}

TEST(Meter, the_13_hour_half_day_leaves_two_records_with_one_start)
{
    // 25 October 2026 03:00 CEST becomes 02:00 CET: the 720 minutes end at 11:00.
    auto at = [](const std::string &clock) { return T("2026-10-25 " + clock); };
    Sandbox box(At("2026-10-25 10:58:00"));
    Go(box, {{"eth0.1", 1000, 1000}});
    uint64_t rx = 1000;
    for (auto [clock, delta] : {std::pair{"10:59:00", 100}, {"11:00:00", 200}, {"11:01:00", 400}, {"11:59:00", 800},
                                {"12:00:00", 1600}})
        WakeAt(box, at(clock), {{"eth0.1", rx += delta, 1000}});
    EXPECT_EQ(Records(box, true), (std::vector<Record>{{at("00:00:00"), at("11:00:00"), 0, 300, 60},
                                                       {at("00:00:00"), at("12:00:00"), 0, 2800, 60}}));
    EXPECT_EQ(Lists(box)[kH + 122], (Record{at("00:00:00"), at("12:00:00"), 0, 3100, 120})) << "one entry for both";
}

TEST(Meter, the_monthly_reset_keeps_the_old_periods_tail)
{
    // Reset on the 10th at HOUR; 0.1 MB and 0.2 MB end at the reset, 0.1 MB follows.
    for (const char *hour : {"6", "12", "0"}) {
        SCOPED_TRACE(hour);
        int32_t t = T("2026-03-10 00:00:00") + 3600 * std::stoi(hour) - 120;
        Sandbox box(At(Text(t)));
        box.UpdateObject("2888", {{"day", "10"}, {"hour", hour}});
        Go(box, {{"eth0.1", 1000, 1000}});
        for (uint64_t rx : {100000, 300000, 400000}) WakeAt(box, t += 60, {{"eth0.1", 1000 + rx, 1000 + rx / 10}});
        ExpectStats(box, {{"start_data_time", Asc(t - 60)}, {"thismonth_download", "0.10"}, {"today_download", "0.10"},
                          {"yesterday_download", "0.00"}, {"thisweek_download", "0.10"}, {"lastmonth_download", "0.30"},
                          {"lastmonth_upload", "0.03"}});
    }
}
