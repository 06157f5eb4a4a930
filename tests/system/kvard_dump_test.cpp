// The diagnostic dumps, line by line. Expected times are worked out here from
// the calendar by plain UTC arithmetic (the box runs in UTC).
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;

// "YYYY-MM-DD hh:mm:ss" in UTC to epoch seconds.
long Utc(const char *text)
{
    struct tm f = {};
    sscanf(text, "%d-%d-%d %d:%d:%d", &f.tm_year, &f.tm_mon, &f.tm_mday, &f.tm_hour, &f.tm_min, &f.tm_sec);
    f.tm_year -= 1900;
    f.tm_mon -= 1;
    return (long)timegm(&f);
}

// The dumps' date form of a UTC moment: "%lu(YYYY/MM/DD hh:mm:ss(0)".
std::string Dated(const char *text)
{
    char buf[64];
    int y, mo, d, h, mi, s;
    sscanf(text, "%d-%d-%d %d:%d:%d", &y, &mo, &d, &h, &mi, &s);
    snprintf(buf, sizeof buf, "%ld(%04d/%02d/%02d %02d:%02d:%02d(0)", Utc(text), y, mo, d, h, mi, s);
    return buf;
}

// Output that appeared after a mark.
std::string After(const std::string &all, const std::string &mark)
{
    size_t at = all.rfind(mark);
    return at == std::string::npos ? std::string() : all.substr(at + mark.size());
}

class Dump : public ::testing::Test {
protected:
    Sandbox box{[] {
        SandboxOptions o;
        o.time = "2026-03-10 09:59:30";
        o.zone = "UTC";
        return o;
    }()};
    void SetUp() override
    {
        box.SetNetDev({{"eth0.1", 5000, 3000}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
    }
    // Sends a heartbeat with a mark, then the dump; returns the dump's output.
    std::string Run(uint16_t code, int32_t reply, const std::string &last)
    {
        std::string mark = "Heart Beat: mark" + std::to_string(code) + "\n";
        EXPECT_EQ(box.Send(kHeartbeat, mark.substr(12, mark.size() - 13) + std::string(1, '\0')), 0);
        EXPECT_TRUE(box.WaitStdout(mark));
        EXPECT_EQ(box.Send(code), reply);
        EXPECT_TRUE(box.WaitStdout(last, std::chrono::milliseconds(10000)));
        return After(box.Stdout(), mark);
    }
};

TEST_F(Dump, the_state_dump_line_by_line)
{
    std::string out = Run(100, 0, "Next Flash Index min:");
    std::string expected = "Minute Flash Size: 2304\n"
                           "Minute Flash Start: 0\n"
                           "Half Day Flash Size: 256\n"
                           "Half Day Flash Start: 2304\n"
                           "Latest Half Day time: 0=Thu Jan  1 00:00:00 1970\n"
                           "Last Tx:3000 Rx:5000 Init Link Up Rx:0\n"
                           "Last Minute tx:0 rx:0\n"
                           "WAN: DHCP/STATIC\n"
                           "Time Sync:1 Time Zone:UTC\n"
                           "Last Reset Time: " + Dated("2026-03-01 00:00:00") +
                           " Next Reset Time: " + Dated("2026-04-01 00:00:00") + "\n" +
                           "Base Minute Time: " + Dated("2026-03-10 00:00:00") +
                           " Next Minute Time: " + Dated("2026-03-10 10:00:00") + "\n" +
                           "Next Half Day Time: " + Dated("2026-03-10 12:00:00") + "\n" +
                           "Next Flash Index min:0 hday:2304\n";
    EXPECT_EQ(out, expected);
}

TEST_F(Dump, the_list_dump_prints_every_entry_of_both_lists)
{
    box.SetNetDev({{"eth0.1", 5000 + 777, 3000 + 111}});
    box.SetTime("2026-03-10 10:00:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);
    std::string out = Run(101, 0, "Index: 123 Start: " + Dated("2026-03-10 00:00:00"));
    // The minute of 09:59 is entry 599 of the list that starts at midnight.
    EXPECT_NE(out.find("Index: 599 Start: " + Dated("2026-03-10 09:59:00") + " End: " +
                       Dated("2026-03-10 10:00:00") + " tx: 111 rx: 777 Time: 0 \n"),
              std::string::npos)
        << out.substr(0, 2000);
    EXPECT_NE(out.find("Index: 0 Start: " + Dated("2026-03-10 00:00:00") + " End: " + Dated("2026-03-10 00:01:00") +
                       " tx: 0 rx: 0 Time: 0 \n"),
              std::string::npos);
    EXPECT_NE(out.find("Minute List:\nIndex: 0 "), std::string::npos);
    EXPECT_NE(out.find("Index: 719 Start: " + Dated("2026-03-10 11:59:00")), std::string::npos);
    EXPECT_NE(out.find("Half Day List:\nIndex: 0 Start: " + Dated("2026-01-07 12:00:00") + " End: " +
                       Dated("2026-01-08 00:00:00") + " tx: 0 rx: 0 Time: 0 \n"),
              std::string::npos);
    EXPECT_NE(out.find("Index: 123 Start: " + Dated("2026-03-10 00:00:00") + " End: " +
                       Dated("2026-03-10 12:00:00") + " tx: 0 rx: 0 Time: 0 \n"),
              std::string::npos);
}

TEST_F(Dump, the_ring_dumps_print_every_page_and_the_raw_dump_every_readable_one)
{
    box.SetNetDev({{"eth0.1", 5000 + 777, 3000 + 111}});
    box.SetTime("2026-03-10 10:00:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);
    std::string minutes = Run(102, 1, "Index: 2303 | of: 4716544 READ FAIL: Length Mismatch\n");
    EXPECT_EQ(minutes.find("Index:   0 | of: 0 tx:111 rx:777 used:0 tStart:2026/03/10 09:59:00 d:0 "
                           "tEnd:2026/03/10 10:00:00 d:0\n"
                           "Index:   1 | of: 2048 READ FAIL: Length Mismatch\n"),
              0u)
        << minutes.substr(0, 300);
    size_t lines = 0;
    for (char c : minutes) lines += c == '\n';
    EXPECT_EQ(lines, 2304u);
    std::string halfDays = Run(103, 1, "Index: 2559 | of: 5240832 READ FAIL: Length Mismatch\n");
    EXPECT_EQ(halfDays.find("Index: 2304 | of: 4718592 READ FAIL: Length Mismatch\n"), 0u);
    lines = 0;
    for (char c : halfDays) lines += c == '\n';
    EXPECT_EQ(lines, 256u);
    std::string raw = Run(104, 1, "Index 4095: ff ff ff ff ff ff ff ff ff ff \n");
    EXPECT_EQ(raw.find("Index 0: 20 00 00 00 "), 0u) << raw.substr(0, 200);
    EXPECT_NE(raw.find("\nIndex 1: ff ff ff ff ff ff ff ff ff ff \n"), std::string::npos);
    lines = 0;
    for (char c : raw) lines += c == '\n';
    EXPECT_EQ(lines, 4096u);
}

TEST_F(Dump, with_debug_printing_a_configuration_update_prints_the_settings)
{
    box.UpdateObject("2888", {{"volume_monthly_limit", "1500"}, {"mark", "100"}, {"round_up_volume", "2000"},
                              {"day", "15"}, {"hour", "7"}, {"min", "30"}, {"block_on", "true"}});
    ASSERT_EQ(box.Send(4436, std::string("\x3e\x14\x00\x00\x00", 5)), 1);
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    EXPECT_TRUE(box.WaitStdout("TM Config:\n"
                               "Enable:1\n"
                               "Round Off Value:2000\n"
                               "Reset Day:15\n"
                               "Reset Hour:7\n"
                               "Reset Minute:30\n"
                               "Limit Type:0(0:none 1:rx: 2:tx+rx 3: time)\n"
                               "Limit Volumn(MBytes):1500\n"
                               "Warn Volumn(MBytes):1400\n"
                               "Limit Time(hours):0\n"
                               "Warn Time(hours):0\n"
                               "Disconnect when over limit:1\n"
                               "LED to flashing green/amber:0\n"));
}

}  // namespace
