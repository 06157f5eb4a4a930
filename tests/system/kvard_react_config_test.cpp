// New settings while the daemon runs: the reply, the publication, the early
// wake that measures the new limits, the period recounted from the lists when
// the reset moment moves, and the refusals.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint16_t kSetDebug = 4436;

int32_t Utc(const std::string &text)
{
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) throw std::runtime_error("bad clock text " + text);
    return int32_t(timegm(&tm));
}

void WakeAt(Sandbox &box, const std::string &clock)
{
    box.SetTime(clock);
    if (box.Send(kTimeWake) != 1) throw std::runtime_error("TM_MSG_TIME_WAKE at " + clock + " not answered with 1");
}

void Rx(Sandbox &box, uint64_t bytes) { box.SetNetDev({{"eth0.1", bytes, 0}}); }

std::string Field(const Sandbox &box, const char *object, const char *field)
{
    auto o = box.ReadObject(object);
    if (!o) return "<no object>";
    auto it = o->find(field);
    return it == o->end() ? "<absent>" : it->second;
}

void DebugOn(Sandbox &box)
{
    uint32_t word = 5182;
    std::string body(5, '\0');
    memcpy(&body[0], &word, 4);
    if (box.Send(kSetDebug, body) != 1) throw std::runtime_error("TM_MSG_SET_DEBUG not answered with 1");
}

// The output from FROM on once it holds TEXT at or after AT (the output so far
// otherwise).
std::string OutputWith(const Sandbox &box, size_t from, const std::string &text, size_t at = 0)
{
    for (auto until = Clock::now() + milliseconds(5000);;) {
        std::string out = box.Stdout();
        out = out.size() > from ? out.substr(from) : "";
        if (out.find(text, at) != std::string::npos || Clock::now() > until) return out;
        std::this_thread::sleep_for(milliseconds(5));
    }
}

std::string Le32(int32_t value)
{
    std::string bytes(4, '\0');
    memcpy(&bytes[0], &value, 4);  // the host is little-endian, as the router
    return bytes;
}

const char *kEarlyWait = "KVARD select wait for sec=0 usec=10000\n";
const char *kFullWait = "KVARD select wait for sec=3 usec=0\n";

TEST(Config, an_update_publishes_at_once_and_the_new_limit_is_measured_by_the_wake_10_ms_later)
{
    struct Case {
        const char *claim;
        const char *limit;  // before the update
        StoreObject change;
        bool reacts;
        const char *status;
    } cases[] = {
        {"a save with nothing changed", "10", {}, false, "0"},
        {"a save with nothing changed over the limit", "4", {}, false, "3"},
        {"a limit lowered below what was used", "10", {{"volume_monthly_limit", "4"}}, true, "3"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", c.limit}});
        Rx(box, 0);
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        Rx(box, 5000000);
        WakeAt(box, "2024-01-15 10:01:00");  // 5 MB in the month
        ASSERT_EQ(Field(box, "2889", "thismonth_download"), "5.00");
        box.SetTime("2024-01-15 10:01:10");
        DebugOn(box);
        box.UpdateObject("2889", {{"thismonth_download", "stale"}});
        if (!c.change.empty()) box.UpdateObject("2888", c.change);

        size_t from = box.Stdout().size();
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        EXPECT_EQ(Field(box, "2889", "thismonth_download"), "5.00") << "published before the reply, totals kept";
        // Nothing more is sent: the loop is to wake by itself after 10 ms.
        std::string out = OutputWith(box, from, std::string(kEarlyWait) + "KVARD select retval=0\n");
        size_t early = out.find(kEarlyWait);
        ASSERT_NE(early, std::string::npos) << out;
        out = OutputWith(box, from, kFullWait, early);
        size_t full = out.find(kFullWait, early);
        ASSERT_NE(full, std::string::npos) << out;
        std::string update = out.substr(0, early), wake = out.substr(early, full - early);
        EXPECT_NE(update.find("TM Config:"), std::string::npos) << update;
        EXPECT_EQ(update.find("Update Limit Warning"), std::string::npos) << "no reaction before the reply";
        EXPECT_NE(wake.find("KVARD select retval=0\nTmHandleTimeWake "), std::string::npos) << wake;
        EXPECT_EQ(wake.find("KVARD: Update Limit Warning (l:1 w:0 d:0") != std::string::npos, c.reacts) << wake;
        EXPECT_EQ(Field(box, "2888", "markStatus"), c.status);
        EXPECT_EQ(box.StubCalls("logger").size(), std::string(c.status) == "0" ? 0u : 1u);
        EXPECT_EQ(Field(box, "2889", "thismonth_download"), "5.00");
    }
}

TEST(Config, only_a_moved_reset_moment_ends_a_manual_reset)
{
    struct Case {
        const char *claim;
        StoreObject change;
        const char *periodStart;  // nullptr: the manual reset stays in force
    } cases[] = {
        {"a new limit", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "5"}}, nullptr},
        {"the LED and the block", {{"led_on", "true"}, {"block_on", "true"}}, nullptr},
        {"the meter switched off", {{"traffic_on", "false"}}, nullptr},
        {"only the minute", {{"min", "1"}}, "Mon Jan  1 00:01:00 2024\n"},
        {"the hour", {{"hour", "3"}}, "Mon Jan  1 03:01:00 2024\n"},
        {"the afternoon switch", {{"ampm_sel", "true"}}, "Mon Jan  1 15:01:00 2024\n"},
        {"the day", {{"day", "2"}}, "Tue Jan  2 15:01:00 2024\n"},
    };
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    int second = 0;
    std::string resetClock;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        if (resetClock.empty()) {
            resetClock = "2024-01-15 10:00:" + std::to_string(10 + second++);
            box.SetTime(resetClock);
            ASSERT_EQ(box.Send(kResetCounter), 1);
            ASSERT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc(resetClock)));
        }
        box.UpdateObject("2888", c.change);
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        if (c.periodStart) {
            EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), std::string(4, '\0'));
            EXPECT_EQ(Field(box, "2889", "start_data_time"), c.periodStart);
            resetClock.clear();
        } else {
            EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc(resetClock)));
            // The manual reset shows as the start of counting.
            struct tm tm;
            time_t t = Utc(resetClock);
            gmtime_r(&t, &tm);
            char text[32];
            EXPECT_EQ(Field(box, "2889", "start_data_time"), asctime_r(&tm, text));
        }
    }
}

TEST(Config, a_moved_reset_moment_recounts_the_periods_from_the_lists)
{
    // Sunday 14 January: 1 MB in the last minute of the morning; Monday 15th:
    // 1 MB at 04:00 and 2 MB at 08:00, the running half-day.
    SandboxOptions options;
    options.time = "2024-01-14 11:59:00";
    Sandbox box(options);
    Rx(box, 0);
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    Rx(box, 1000000);
    for (const char *clock : {"2024-01-14 12:00:00", "2024-01-14 23:59:00", "2024-01-15 00:00:00",
                              "2024-01-15 04:00:00"})
        WakeAt(box, clock);
    Rx(box, 2000000);
    WakeAt(box, "2024-01-15 04:01:00");
    WakeAt(box, "2024-01-15 08:00:00");
    Rx(box, 4000000);
    WakeAt(box, "2024-01-15 08:01:00");
    box.SetTime("2024-01-15 08:01:30");

    struct Case {
        const char *claim;
        StoreObject moment;
        const char *start, *thismonth, *lastmonth, *today, *yesterday, *thisweek;
    } cases[] = {
        {"into Sunday's morning: half of its half-day by time",
         {{"day", "14"}, {"hour", "6"}},
         "Sun Jan 14 06:00:00 2024\n",
         "3.50",
         "0.50",
         "3.00",
         "0.50",
         "3.50"},
        {"into the running half-day: its first minutes become the tail of the period before",
         {{"day", "15"}, {"hour", "6"}},
         "Mon Jan 15 06:00:00 2024\n",
         "2.00",
         "2.00",
         "2.00",
         "0.00",
         "2.00"},
        {"onto the end of Sunday's morning: that half-day is all the period's before",
         {{"day", "14"}, {"hour", "12"}},
         "Sun Jan 14 12:00:00 2024\n",
         "3.00",
         "1.00",
         "3.00",
         "0.00",
         "3.00"},
        {"back to the first of the month", {{"day", "1"}, {"hour", "0"}}, "Mon Jan  1 00:00:00 2024\n", "4.00", "0.00",
         "3.00", "1.00", "4.00"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        box.UpdateObject("2888", c.moment);
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        EXPECT_EQ(Field(box, "2889", "start_data_time"), c.start);
        EXPECT_EQ(Field(box, "2889", "thismonth_download"), c.thismonth);
        EXPECT_EQ(Field(box, "2889", "lastmonth_download"), c.lastmonth);
        EXPECT_EQ(Field(box, "2889", "today_download"), c.today);
        EXPECT_EQ(Field(box, "2889", "yesterday_download"), c.yesterday);
        EXPECT_EQ(Field(box, "2889", "thisweek_download"), c.thisweek);
    }
}

TEST(Config, a_refused_update_leaves_the_settings_in_force)
{
    struct Case {
        const char *claim;
        bool emptyPath;
        const char *line;
    } cases[] = {
        {"started with an empty configuration path", true, nullptr},
        {"the settings object cannot be read", false, "Read Config  fail\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        SandboxOptions options;
        if (c.emptyPath) options.command = {InstalledPrefix() + "/sbin/kvard", ""};
        Sandbox box(options);
        Rx(box, 0);
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        Rx(box, 2000000);
        auto settings = box.ReadObject("2888");
        ASSERT_TRUE(settings);
        (*settings)["contrl_type"] = "Download only";
        (*settings)["volume_monthly_limit"] = "1";
        if (c.emptyPath) box.WriteObject("2888", *settings);
        else box.RemoveFile("var/lib/kvard/mdm/2888");
        EXPECT_EQ(box.Send(kConfigUpdate), 0);
        if (c.line) {
            EXPECT_TRUE(box.WaitStdout(c.line));
            EXPECT_TRUE(box.WaitStdout("Could not get MDMOID_ORNA_TRAFFIC_METER, ret="));
        }
        box.WriteObject("2888", *settings);
        WakeAt(box, "2024-01-15 10:00:10");
        EXPECT_EQ(Field(box, "2888", "markStatus"), "0") << "the 1 MB limit is not in force";
        EXPECT_TRUE(box.StubCalls("logger").empty());
        // Once the object can be read, the update goes through.
        EXPECT_EQ(box.Send(kConfigUpdate), c.emptyPath ? 0 : 1);
        WakeAt(box, "2024-01-15 10:00:20");
        EXPECT_EQ(Field(box, "2888", "markStatus"), c.emptyPath ? "0" : "3");
    }
}

TEST(Config, before_the_clock_is_synchronised_a_moved_reset_moment_is_refused_yet_in_force)
{
    struct Case {
        const char *claim;
        StoreObject change;
        int reply;
        const char *published, *nextWait, *periodStart;
    } cases[] = {
        {"a new limit alone",
         {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}},
         1,
         "0.00",
         kEarlyWait,
         "Mon Jan  1 00:00:00 2024\n"},
        {"a new limit with a new reset day",
         {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"day", "2"}},
         0,
         "stale",
         kFullWait,
         "Tue Jan  2 00:00:00 2024\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        Rx(box, 0);
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        DebugOn(box);
        box.UpdateObject("2889", {{"thismonth_download", "stale"}});
        box.UpdateObject("2888", c.change);
        size_t from = box.Stdout().size();
        EXPECT_EQ(box.Send(kConfigUpdate), c.reply);
        EXPECT_EQ(Field(box, "2889", "thismonth_download"), c.published);
        // The settings line that every read of the object prints, then the
        // loop's next wait.
        size_t settings = OutputWith(box, from, "traffic_on =").find("traffic_on =");
        ASSERT_NE(settings, std::string::npos);
        std::string out = OutputWith(box, from, "KVARD select wait for", settings);
        size_t wait = out.find("KVARD select wait for", settings);
        ASSERT_NE(wait, std::string::npos) << out;
        EXPECT_EQ(out.substr(wait, out.find('\n', wait) + 1 - wait), c.nextWait);

        // The settings hold once the clock is synchronised: the period and the limit.
        box.UpdateObject("1045", {{"status", "Synchronized"}});
        Rx(box, 2000000);
        WakeAt(box, "2024-01-15 10:00:10");
        EXPECT_EQ(Field(box, "2889", "start_data_time"), c.periodStart);
        EXPECT_EQ(Field(box, "2888", "markStatus"), "3");
    }
}

}  // namespace
