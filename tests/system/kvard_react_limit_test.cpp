// The limit and the warning mark against the production daemon: the status in
// the data model, the side files, the syslog lines, as the monthly volume or
// connection time crosses them and as the settings change.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;
using Argv = std::vector<std::string>;
using std::chrono::milliseconds;

constexpr uint16_t kSimWake = 5640;
constexpr uint16_t kSimInput = 7254;

// Seconds since the epoch of a UTC clock text.
int32_t Utc(const std::string &text)
{
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) throw std::runtime_error("bad clock text " + text);
    return int32_t(timegm(&tm));
}

// The seeded reset moment (day 1, 00:00) puts the period's start here.
const int32_t kPeriodStart = Utc("2024-01-01 00:00:00");

void WakeAt(Sandbox &box, const std::string &clock)
{
    box.SetTime(clock);
    auto reply = box.Send(kTimeWake, {}, milliseconds(10000));
    if (reply != 1) throw std::runtime_error("TM_MSG_TIME_WAKE at " + clock + " not answered with 1");
}

void Configure(Sandbox &box, const StoreObject &fields, int expectedReply = 1)
{
    box.UpdateObject("2888", fields);
    auto reply = box.Send(kConfigUpdate);
    if (reply != expectedReply) throw std::runtime_error("TM_MSG_CONFIG_UPDATE not answered as expected");
}

std::string Field(const Sandbox &box, const char *object, const char *field)
{
    auto o = box.ReadObject(object);
    if (!o) return "<no object>";
    auto it = o->find(field);
    return it == o->end() ? "<absent>" : it->second;
}

std::string MarkStatus(const Sandbox &box) { return Field(box, "2888", "markStatus"); }

// asctime text of a UTC clock text, line end included.
std::string Asctime(const std::string &clock)
{
    time_t t = Utc(clock);
    struct tm tm;
    gmtime_r(&t, &tm);
    char text[32];
    asctime_r(&tm, text);
    return text;
}

// The limit file as written for FLAGS at CLOCK.
std::string LimitFile(const std::string &flags, const std::string &clock)
{
    int32_t t = Utc(clock);
    return flags + "\n" + std::to_string(t) + "\n" + std::to_string(t - kPeriodStart) + "\n";
}

Argv Logger(std::vector<std::string> words)
{
    Argv argv = {"logger", "-p", "local5.warn", "-t", "t Router operation"};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
}
Argv WarnLine(const std::string &value, const std::string &unit)
{
    return Logger({"[RouterOp][Traffic", "Meter]The", "counter", "is", value, unit, "before", "the", "monthly",
                   "limit", "is", "reached,"});
}
Argv LimitLine(const std::string &value, const std::string &unit)
{
    return Logger({"[RouterOp][Traffic", "Meter]", "The", "monthly", "limit", value, unit, "has", "been",
                   "reached,"});
}

std::optional<std::string> WaitFile(const Sandbox &box, const char *path, bool present)
{
    for (auto until = std::chrono::steady_clock::now() + milliseconds(3000);;) {
        auto content = box.ReadFile(path);
        if (content.has_value() == present || std::chrono::steady_clock::now() > until) return content;
        std::this_thread::sleep_for(milliseconds(5));
    }
}

// The calls of COMMAND once there are COUNT of them (commands started in the
// background log a little after the daemon has gone on).
size_t CallsOf(const Sandbox &box, const char *command, size_t count)
{
    for (auto until = std::chrono::steady_clock::now() + milliseconds(3000);;) {
        size_t n = box.StubCalls(command).size();
        if (n >= count || std::chrono::steady_clock::now() > until) return n;
        std::this_thread::sleep_for(milliseconds(5));
    }
}

TEST(Limit, a_period_runs_from_the_warning_mark_to_a_disconnect_and_back_by_a_raised_limit)
{
    Sandbox box;
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());

    auto rx = [](uint64_t bytes) { return [bytes](Sandbox &b) { b.SetNetDev({{"eth0.1", bytes, 0}}); }; };
    auto config = [](StoreObject fields) { return [fields](Sandbox &b) { Configure(b, fields); }; };
    struct Step {
        const char *claim;
        std::string clock;
        std::function<void(Sandbox &)> act;
        std::string status;
        std::optional<std::string> warnFile;
        std::string limitFlags, noticeClock;  // flags "": no limit file
        std::vector<Argv> newLines;
        std::string warningClock, limitedClock;  // "": field not written yet
    } steps[] = {
        {"8 MB received is not above the mark", "2024-01-15 10:00:05", rx(8000000), "0", std::nullopt, "", "", {}, "",
         ""},
        {"one byte above the mark warns", "2024-01-15 10:00:10", rx(8000001), "1", "001", "w", "2024-01-15 10:00:10",
         {WarnLine("2", "MBytes")}, "2024-01-15 10:00:10", ""},
        {"a volume equal to the limit is not over it", "2024-01-15 10:00:15", rx(10000000), "1", "001", "w",
         "2024-01-15 10:00:10", {}, "2024-01-15 10:00:10", ""},
        {"one byte more is over the limit", "2024-01-15 10:00:20", rx(10000001), "3", "011", "lw",
         "2024-01-15 10:00:20", {LimitLine("10", "MBytes")}, "2024-01-15 10:00:10", "2024-01-15 10:00:20"},
        {"the warning turned off repeats the limit line", "2024-01-15 10:00:25", config({{"mark", "0"}}), "3", "010",
         "l", "2024-01-15 10:00:25", {LimitLine("10", "MBytes")}, "2024-01-15 10:00:10", "2024-01-15 10:00:25"},
        {"the warning back on", "2024-01-15 10:00:30", config({{"mark", "2"}}), "3", "011", "lw",
         "2024-01-15 10:00:30", {LimitLine("10", "MBytes")}, "2024-01-15 10:00:10", "2024-01-15 10:00:30"},
        {"the LED alone changing repeats the limit line", "2024-01-15 10:00:33", config({{"led_on", "true"}}), "3",
         "011", "lw", "2024-01-15 10:00:33", {LimitLine("10", "MBytes")}, "2024-01-15 10:00:10",
         "2024-01-15 10:00:33"},
        {"block_on takes the WAN down", "2024-01-15 10:00:35", config({{"block_on", "true"}}), "4", "111", "lwd",
         "2024-01-15 10:00:35", {LimitLine("10", "MBytes")}, "2024-01-15 10:00:10", "2024-01-15 10:00:35"},
        {"a limit raised above the volume clears everything without a line", "2024-01-15 10:00:40",
         config({{"volume_monthly_limit", "20"}}), "0", "000", "", "", {}, "2024-01-15 10:00:10",
         "2024-01-15 10:00:35"},
    };

    EXPECT_EQ(MarkStatus(box), "0");
    EXPECT_FALSE(box.ReadFile("tmp/tmwarn.data")) << "a start with nothing to clear writes no state file";
    std::vector<Argv> lines;
    for (const Step &s : steps) {
        SCOPED_TRACE(s.claim);
        // The clock first: the early wake that a configuration update asks for
        // must see the same moment as the wake forced here.
        box.SetTime(s.clock);
        s.act(box);
        WakeAt(box, s.clock);
        EXPECT_EQ(MarkStatus(box), s.status);
        EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), s.warnFile);
        if (s.limitFlags.empty()) EXPECT_FALSE(box.ReadFile("tmp/tmlimit.data"));
        else EXPECT_EQ(box.ReadFile("tmp/tmlimit.data").value_or("<absent>"), LimitFile(s.limitFlags, s.noticeClock));
        lines.insert(lines.end(), s.newLines.begin(), s.newLines.end());
        EXPECT_EQ(box.StubCalls("logger"), lines);
        EXPECT_EQ(Field(box, "2889", "warningTime"), s.warningClock.empty() ? "<absent>" : Asctime(s.warningClock));
        EXPECT_EQ(Field(box, "2889", "limitedTime"), s.limitedClock.empty() ? "<absent>" : Asctime(s.limitedClock));
    }
    EXPECT_EQ(box.StubCalls("ifconfig"), (std::vector<Argv>{{"ifconfig", "eth0.1", "down"},
                                                            {"ifconfig", "eth0", "down"},
                                                            {"ifconfig", "eth0", "up"}}));
    EXPECT_EQ(box.StubCalls("dnsmasq").size(), 1u);
    EXPECT_EQ(CallsOf(box, "tmledflashd", 1), 1u);
    EXPECT_FALSE(box.ReadFile("tmp/tmledflash.pid")) << "the LED stopped with the limit";
}

TEST(Limit, the_reached_times_are_local_and_the_limit_file_counts_in_seconds_since_the_epoch)
{
    SandboxOptions options;
    options.zone = "Europe/Berlin";
    options.time = "2024-01-15 11:00:00";  // 10:00 UTC
    Sandbox box(options);
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 9000000, 0}});
    WakeAt(box, "2024-01-15 11:00:10");
    box.SetNetDev({{"eth0.1", 11000000, 0}});
    WakeAt(box, "2024-01-15 11:00:20");
    EXPECT_EQ(Field(box, "2889", "warningTime"), "Mon Jan 15 11:00:10 2024\n");
    EXPECT_EQ(Field(box, "2889", "limitedTime"), "Mon Jan 15 11:00:20 2024\n");
    // The period began at local midnight of the 1st, 23:00 UTC the day before.
    int32_t t = Utc("2024-01-15 10:00:20");
    EXPECT_EQ(box.ReadFile("tmp/tmlimit.data"),
              "lw\n" + std::to_string(t) + "\n" + std::to_string(t - Utc("2023-12-31 23:00:00")) + "\n");
}

TEST(Limit, a_start_wipes_the_limit_state_that_a_former_run_left)
{
    struct Case {
        const char *claim;
        std::optional<std::string> warnBefore, warnAfter;
    } cases[] = {
        {"no state file", std::nullopt, std::nullopt},
        {"a clear state file is left as it is", "000", "000"},
        {"a disconnect state is cleared", "111", "000"},
        {"a short state file counts as clear and stays", "11", "11"},
        {"bytes other than digits count as set", "abc", "000"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        if (c.warnBefore) box.WriteFile("tmp/tmwarn.data", *c.warnBefore);
        box.WriteFile("tmp/tmlimit.data", "lwd\n1\n1\n");
        box.UpdateObject("2888", {{"markStatus", "4"}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), c.warnAfter);
        EXPECT_FALSE(box.ReadFile("tmp/tmlimit.data"));
        EXPECT_EQ(MarkStatus(box), "0");
        EXPECT_TRUE(box.StubCalls().empty());
    }
}

TEST(Limit, the_monthly_reset_ends_the_limit_at_the_following_wake)
{
    SandboxOptions options;
    options.time = "2024-01-31 23:59:00";
    Sandbox box(options);
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"led_on", "true"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 2000000, 0}});
    WakeAt(box, "2024-01-31 23:59:30");
    ASSERT_EQ(MarkStatus(box), "3");
    // The wake at the reset moment decides before the month closes.
    WakeAt(box, "2024-02-01 00:00:00");
    EXPECT_EQ(MarkStatus(box), "3");
    WakeAt(box, "2024-02-01 00:00:10");
    EXPECT_EQ(MarkStatus(box), "0");
    EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "000");
    EXPECT_FALSE(box.ReadFile("tmp/tmlimit.data"));
    EXPECT_FALSE(box.ReadFile("tmp/tmledflash.pid"));
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), std::string(4, '\0'));
    EXPECT_EQ(box.StubCalls("logger").size(), 1u);
}

TEST(Limit, what_counts_against_a_volume_limit_depends_on_the_limit_type)
{
    struct Case {
        const char *claim;
        const char *type, *limit, *mark;
        uint64_t tx, rx;
        const char *status;
        std::vector<Argv> lines;
    } cases[] = {
        {"download only ignores what was sent", "Download only", "10", "0", 50000000, 10000000, "0", {}},
        {"download only, one byte over", "Download only", "10", "0", 0, 10000001, "3", {LimitLine("10", "MBytes")}},
        {"both directions: the sum equal to the limit", "Both directions", "10", "0", 4000000, 6000000, "0", {}},
        {"both directions: one byte sent more", "Both directions", "10", "0", 4000001, 6000000, "3",
         {LimitLine("10", "MBytes")}},
        {"both directions: upload alone", "Both directions", "10", "0", 10000001, 0, "3", {LimitLine("10", "MBytes")}},
        {"an empty type counts both directions", "", "10", "0", 10000001, 0, "3", {LimitLine("10", "MBytes")}},
        {"a mark of 0 never warns", "Download only", "10", "0", 0, 9999999, "0", {}},
        {"both directions: warning from the sum", "Both directions", "10", "3", 3000000, 4000001, "1",
         {WarnLine("3", "MBytes")}},
        {"mark and limit passed at once: only the limit line", "Download only", "10", "3", 0, 10000001, "3",
         {LimitLine("10", "MBytes")}},
        {"a limit of 0: nothing received is not over it", "Download only", "0", "0", 0, 0, "0", {}},
        {"a limit of 0: one byte is over it", "Download only", "0", "0", 0, 1, "3", {LimitLine("0", "MBytes")}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        box.UpdateObject("2888", {{"contrl_type", c.type}, {"volume_monthly_limit", c.limit}, {"mark", c.mark}});
        box.SetNetDev({{"eth0.1", 1000, 1000}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        box.SetNetDev({{"eth0.1", 1000 + c.rx, 1000 + c.tx}});
        WakeAt(box, "2024-01-15 10:00:30");
        EXPECT_EQ(MarkStatus(box), c.status);
        EXPECT_EQ(box.StubCalls("logger"), c.lines);
    }
}

// TmSimInput: simNow, 4 reserved bytes, simTx, simRx, simMsg.
std::string SimBody(int32_t now, uint64_t tx, uint64_t rx)
{
    std::string b(28, '\0');
    int32_t quiet = 1;
    memcpy(&b[0], &now, 4);
    memcpy(&b[8], &tx, 8);
    memcpy(&b[16], &rx, 8);
    memcpy(&b[24], &quiet, 4);
    return b;
}

TEST(Limit, the_supplement_of_a_short_ppp_session_counts_at_once_for_download_only_and_after_its_minute_for_both)
{
    // A PPPoE session that received 1000 bytes of a 5 MB minimum ends: the
    // supplement of 4999000 bytes waits for the next minute record.
    struct Case {
        const char *type;
        const char *afterLoss, *afterMinute;
    } cases[] = {
        {"Download only", "3", "3"},
        {"Both directions", "0", "3"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.type);
        Sandbox box;
        box.UpdateObject("1400", {{"wanType", "PPPoE"}});
        box.UpdateObject("2888",
                         {{"contrl_type", c.type}, {"volume_monthly_limit", "4"}, {"round_up_volume", "5000000"}});
        box.SetNetDev({{"ppp0.2", 1000, 0}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        auto simulate = [&](const char *clock) {
            ASSERT_EQ(box.Send(kSimInput, SimBody(Utc(clock), 0, 2000)), 1);
            ASSERT_EQ(box.Send(kSimWake), 3000000);
        };
        simulate("2024-01-15 10:00:10");
        EXPECT_EQ(MarkStatus(box), "0") << "1000 bytes in the session so far";
        box.UpdateObject("1400", {{"wanType", "none"}});
        simulate("2024-01-15 10:00:20");
        EXPECT_EQ(MarkStatus(box), c.afterLoss);
        simulate("2024-01-15 10:01:00");  // the minute closes with the supplement in it
        EXPECT_EQ(MarkStatus(box), c.afterLoss) << "the limit is decided before the minute closes";
        simulate("2024-01-15 10:01:10");
        EXPECT_EQ(MarkStatus(box), c.afterMinute);
        EXPECT_EQ(box.StubCalls("logger"), std::vector<Argv>{LimitLine("4", "MBytes")});
        // The notice carries the system's clock, which stood still, not the simulated one.
        EXPECT_EQ(box.ReadFile("tmp/tmlimit.data"), LimitFile("l", "2024-01-15 10:00:00"));
        EXPECT_EQ(Field(box, "2889", "limitedTime"), Asctime("2024-01-15 10:00:00"));
    }
}

TEST(Limit, a_connection_time_limit_counts_only_while_the_wan_is_ppp)
{
    // Limit 2 hours, mark 1 hour. The clock started at 08:00:00.
    struct Case {
        const char *wanType, *interface;
        std::vector<const char *> statuses;  // after each wake below
        std::vector<Argv> lines;
    } cases[] = {
        {"PPPoE",
         "ppp0.2",
         {"0", "1", "1", "3", "3", "0", "3", "0"},
         {WarnLine("1", "hours"), LimitLine("2", "hours"), LimitLine("2", "hours")}},
        {"DHCP", "eth0.1", {"0", "0", "0", "0", "0", "0", "0", "0"}, {}},
    };
    const char *wakes[] = {
        "2024-01-15 09:00:00",  // one hour: not above the mark
        "2024-01-15 09:00:01",  // a second above it
        "2024-01-15 10:00:00",  // two hours: equal to the limit
        "2024-01-15 10:00:01",  // above it
        "2024-01-15 10:01:00",  // a minute closes: lastTime is now this second
        "2024-01-15 10:01:00",  // the same second again: no time can be measured, all clear
        "2024-01-15 10:01:01",  // limit again, with a new line
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wanType);
        SandboxOptions options;
        options.time = "2024-01-15 08:00:00";
        Sandbox box(options);
        box.UpdateObject("1400", {{"wanType", c.wanType}});
        box.UpdateObject("2888", {{"volcontrl", "false"},
                                  {"timecontrl", "true"},
                                  {"conntime_monthly_limit", "2"},
                                  {"mark", "1"}});
        box.SetNetDev({{"ppp0.2", 10, 10}, {"eth0.1", 10, 10}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        size_t i = 0;
        for (const char *clock : wakes) {
            SCOPED_TRACE(clock);
            WakeAt(box, clock);
            EXPECT_EQ(MarkStatus(box), c.statuses[i++]);
        }
        // The WAN turning into a DHCP link ends a time limit at once.
        box.UpdateObject("1400", {{"wanType", "DHCP"}});
        WakeAt(box, "2024-01-15 10:01:02");
        EXPECT_EQ(MarkStatus(box), c.statuses[i]);
        EXPECT_EQ(box.StubCalls("logger"), c.lines);
        if (std::string(c.wanType) == "PPPoE") {
            EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "000");
        }
    }
}

TEST(Limit, switching_off_the_limit_type_or_the_meter_ends_the_limit_and_the_led)
{
    Sandbox box;
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"led_on", "true"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 2000000, 0}});
    WakeAt(box, "2024-01-15 10:00:05");
    ASSERT_EQ(MarkStatus(box), "3");
    ASSERT_TRUE(WaitFile(box, "tmp/tmledflash.pid", true));

    struct Case {
        const char *claim;
        StoreObject off, on;
    } cases[] = {
        {"limit type none", {{"contrl_type", "No limit"}}, {{"contrl_type", "Download only"}}},
        {"no volume control", {{"volcontrl", "false"}}, {{"volcontrl", "true"}}},
        {"meter off", {{"traffic_on", "false"}}, {{"traffic_on", "true"}}},
    };
    int second = 10;
    size_t starts = 1;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        std::string clock = "2024-01-15 10:00:" + std::to_string(second);
        box.SetTime(clock);
        Configure(box, c.off);
        WakeAt(box, clock);
        EXPECT_EQ(MarkStatus(box), "0");
        EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "000");
        EXPECT_FALSE(box.ReadFile("tmp/tmlimit.data"));
        EXPECT_FALSE(box.ReadFile("tmp/tmledflash.pid")) << "the LED stops by the removal of its pid file";
        clock = "2024-01-15 10:00:" + std::to_string(second + 5);
        box.SetTime(clock);
        Configure(box, c.on);
        WakeAt(box, clock);
        EXPECT_EQ(MarkStatus(box), "3");
        ++starts;
        EXPECT_EQ(CallsOf(box, "tmledflashd", starts), starts);
        EXPECT_TRUE(WaitFile(box, "tmp/tmledflash.pid", true));
        second += 10;
    }
    EXPECT_EQ(box.StubCalls("logger"), std::vector<Argv>(4, LimitLine("1", "MBytes")));
}

TEST(Limit, there_is_no_limit_before_the_clock_is_synchronised)
{
    Sandbox box;
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 2000000, 0}});
    WakeAt(box, "2024-01-15 10:00:10");
    EXPECT_EQ(MarkStatus(box), "0");
    EXPECT_FALSE(box.ReadFile("tmp/tmwarn.data"));
    EXPECT_TRUE(box.StubCalls("logger").empty());
    // The wake that sees the clock synchronised decides the limit at once,
    // with what was pending all along.
    box.UpdateObject("1045", {{"status", "Synchronized"}});
    WakeAt(box, "2024-01-15 10:00:20");
    EXPECT_EQ(MarkStatus(box), "3");
    EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "010");
    EXPECT_EQ(box.StubCalls("logger"), std::vector<Argv>{LimitLine("1", "MBytes")});
}

TEST(Limit, a_restarted_daemon_clears_the_state_and_its_first_wake_acts_again)
{
    Sandbox box;
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"led_on", "true"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 2000000, 0}});
    WakeAt(box, "2024-01-15 10:01:00");  // the minute goes to flash with the volume
    ASSERT_EQ(MarkStatus(box), "3");
    ASSERT_EQ(box.ReadFile("tmp/tmwarn.data"), "010");
    box.Stop();

    box.ClearStubLog();
    box.SetTime("2024-01-15 10:01:30");
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    EXPECT_EQ(MarkStatus(box), "0");
    EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "000");
    EXPECT_FALSE(box.ReadFile("tmp/tmlimit.data"));
    EXPECT_TRUE(box.StubCalls("logger").empty());

    WakeAt(box, "2024-01-15 10:01:40");
    EXPECT_EQ(MarkStatus(box), "3") << "the month restored from flash is still over the limit";
    EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "010");
    EXPECT_EQ(box.ReadFile("tmp/tmlimit.data"), LimitFile("l", "2024-01-15 10:01:40"));
    EXPECT_EQ(Field(box, "2889", "limitedTime"), Asctime("2024-01-15 10:01:40"));
    EXPECT_EQ(box.StubCalls("logger"), std::vector<Argv>{LimitLine("1", "MBytes")});
    EXPECT_EQ(CallsOf(box, "tmledflashd", 1), 1u) << "the LED is started anew";
}

}  // namespace
