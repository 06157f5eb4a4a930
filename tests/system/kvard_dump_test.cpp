// The diagnostic dumps, line by line, of a meter in UTC after one minute of traffic.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;

// The dumps' form of a UTC clock text: seconds, then "(YYYY/MM/DD hh:mm:ss(0)".
std::string Dated(const std::string &text)
{
    struct tm tm = {};
    strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm);
    char out[64];
    strftime(out, sizeof out, "(%Y/%m/%d %H:%M:%S(0)", &tm);
    return std::to_string(timegm(&tm)) + out;
}
std::string Entry(int index, const std::string &start, const std::string &end, const char *figures = "0 rx: 0")
{
    return "Index: " + std::to_string(index) + " Start: " + Dated(start) + " End: " + Dated(end) + " tx: " + figures +
           " Time: 0 \n";
}
// The output of dump CODE, once LAST is there (stdout is unbuffered).
std::string Dump(Sandbox &box, uint16_t code, int32_t reply, const std::string &last)
{
    size_t from = box.Stdout().size();
    EXPECT_EQ(box.Send(code), reply);
    EXPECT_TRUE(box.WaitStdout(last, milliseconds(10000)));
    return box.Stdout().substr(from);
}
size_t Lines(const std::string &text) { return std::count(text.begin(), text.end(), '\n'); }

TEST(Dump, every_dump_line_by_line)
{
    Sandbox box({.time = "2026-03-10 09:59:30"});
    meter::Go(box, {{"eth0.1", 5000, 3000}});
    EXPECT_EQ(Dump(box, 100, 0, "Next Flash Index min:"),
              "Minute Flash Size: 2304\nMinute Flash Start: 0\nHalf Day Flash Size: 256\nHalf Day Flash Start: 2304\n"
              "Latest Half Day time: 0=Thu Jan  1 00:00:00 1970\nLast Tx:3000 Rx:5000 Init Link Up Rx:0\n"
              "Last Minute tx:0 rx:0\nWAN: DHCP/STATIC\nTime Sync:1 Time Zone:UTC\nLast Reset Time: " +
                  Dated("2026-03-01 00:00:00") + " Next Reset Time: " + Dated("2026-04-01 00:00:00") +
                  "\nBase Minute Time: " + Dated("2026-03-10 00:00:00") + " Next Minute Time: " +
                  Dated("2026-03-10 10:00:00") + "\nNext Half Day Time: " + Dated("2026-03-10 12:00:00") +
                  "\nNext Flash Index min:0 hday:2304\n");

    box.SetNetDev({{"eth0.1", 5000 + 777, 3000 + 111}});
    box.SetTime("2026-03-10 10:00:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);
    // The state again, then both lists: the minutes from midnight, the half-days back from today's morning.
    std::string lists = Dump(box, 101, 0, "Index: 123 Start: " + Dated("2026-03-10 00:00:00"));
    for (const std::string &entry :
         {"Next Flash Index min:1 hday:2304\nTmp Minute List:\nTmp Half Day List:\nMinute List:\n" +
              Entry(0, "2026-03-10 00:00:00", "2026-03-10 00:01:00"),
          Entry(599, "2026-03-10 09:59:00", "2026-03-10 10:00:00", "111 rx: 777"),
          Entry(719, "2026-03-10 11:59:00", "2026-03-10 12:00:00"),
          "Half Day List:\n" + Entry(0, "2026-01-07 12:00:00", "2026-01-08 00:00:00"),
          Entry(123, "2026-03-10 00:00:00", "2026-03-10 12:00:00")})
        EXPECT_NE(lists.find(entry), std::string::npos) << entry;
    EXPECT_EQ(Lines(lists), 13u + 4 + 720 + 124);

    // The rings page by page: the minute just written, then empty pages.
    std::string minutes = Dump(box, 102, 1, "Index: 2303 | of: 4716544 READ FAIL: Length Mismatch\n");
    EXPECT_EQ(minutes.find("Index:   0 | of: 0 tx:111 rx:777 used:0 tStart:2026/03/10 09:59:00 d:0 "
                           "tEnd:2026/03/10 10:00:00 d:0\nIndex:   1 | of: 2048 READ FAIL: Length Mismatch\n"), 0u);
    EXPECT_EQ(Lines(minutes), 2304u);
    std::string halfDays = Dump(box, 103, 1, "Index: 2559 | of: 5240832 READ FAIL: Length Mismatch\n");
    EXPECT_EQ(halfDays.find("Index: 2304 | of: 4718592 READ FAIL: Length Mismatch\n"), 0u);
    EXPECT_EQ(Lines(halfDays), 256u);
    std::string raw = Dump(box, 104, 1, "Index 4095: ff ff ff ff ff ff ff ff ff ff \n");
    EXPECT_EQ(raw.find("Index 0: 20 00 00 00 "), 0u);
    EXPECT_NE(raw.find("\nIndex 1: ff ff ff ff ff ff ff ff ff ff \n"), std::string::npos);
    EXPECT_EQ(Lines(raw), 4096u);

    // The settings, printed by an update while debug output is on.
    box.UpdateObject("2888", {{"volume_monthly_limit", "1500"}, {"mark", "100"}, {"round_up_volume", "2000"},
                              {"day", "15"}, {"hour", "7"}, {"min", "30"}, {"block_on", "true"}});
    ASSERT_EQ(box.Send(4436, std::string("\x3e\x14\x00\x00\x00", 5)), 1);
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    EXPECT_TRUE(box.WaitStdout("TM Config:\nEnable:1\nRound Off Value:2000\nReset Day:15\nReset Hour:7\n"
                               "Reset Minute:30\nLimit Type:0(0:none 1:rx: 2:tx+rx 3: time)\n"
                               "Limit Volumn(MBytes):1500\nWarn Volumn(MBytes):1400\nLimit Time(hours):0\n"
                               "Warn Time(hours):0\nDisconnect when over limit:1\nLED to flashing green/amber:0\n"));
}

}  // namespace
