// What the daemon runs through the shell when the limit takes the WAN down or
// flashes the LED, and when it undoes that: the stub log, the redirecting
// dnsmasq process and the LED daemon's pid file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;
using Argv = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const Argv kRedirect = {"dnsmasq", "-C", "/etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf",
                        "-p",      "38053", "-x", "/var/dnsmasq_tmRedirecHttpHttps.pid"};
const char *kRedirectPid = "var/dnsmasq_tmRedirecHttpHttps.pid";
const char *kLedPid = "tmp/tmledflash.pid";

void WakeAt(Sandbox &box, const std::string &clock)
{
    box.SetTime(clock);
    // A wake that brings the WAN back sleeps for 3 s.
    if (box.Send(kTimeWake, {}, milliseconds(10000)) != 1)
        throw std::runtime_error("TM_MSG_TIME_WAKE at " + clock + " not answered with 1");
}

void Configure(Sandbox &box, const StoreObject &fields)
{
    box.UpdateObject("2888", fields);
    if (box.Send(kConfigUpdate) != 1) throw std::runtime_error("TM_MSG_CONFIG_UPDATE not answered with 1");
}

std::string MarkStatus(const Sandbox &box)
{
    auto o = box.ReadObject("2888");
    return o && o->count("markStatus") ? o->at("markStatus") : "<absent>";
}

// A pid file's pid, once the file holds one.
std::optional<std::string> PidIn(const Sandbox &box, const char *path)
{
    for (auto until = Clock::now() + milliseconds(3000);;) {
        auto text = box.ReadFile(path);
        if (text && !text->empty() && text->back() == '\n') return text->substr(0, text->find('\n'));
        if (Clock::now() > until) return std::nullopt;
        std::this_thread::sleep_for(milliseconds(5));
    }
}

// Whether process PID of the box lives, seen through the box's own procfs.
bool Alive(const Sandbox &box, const std::string &pid)
{
    std::string path = "/proc/" + std::to_string(box.ProgramPid()) + "/root/.proc/" + pid + "/stat";
    FILE *file = fopen(path.c_str(), "r");
    if (!file) return false;
    char state = '?';
    int got = fscanf(file, "%*d %*s %c", &state);
    fclose(file);
    return got == 1 && state != 'Z';
}

::testing::AssertionResult Ends(const Sandbox &box, const std::string &pid)
{
    for (auto until = Clock::now() + milliseconds(3000); Alive(box, pid);) {
        if (Clock::now() > until) return ::testing::AssertionFailure() << "process " << pid << " still runs";
        std::this_thread::sleep_for(milliseconds(5));
    }
    return ::testing::AssertionSuccess();
}

// The calls of COMMAND once there are COUNT of them (commands started in the
// background log a little after the daemon has gone on).
size_t CallsOf(const Sandbox &box, const char *command, size_t count)
{
    for (auto until = Clock::now() + milliseconds(3000);;) {
        size_t n = box.StubCalls(command).size();
        if (n >= count || Clock::now() > until) return n;
        std::this_thread::sleep_for(milliseconds(5));
    }
}

struct Wan {
    const char *type, *interface;
};

// A box over the 1 MB download limit, at its first wake, with the settings
// and the WAN given; the counters of INTERFACE move by 2 MB.
void OverTheLimit(Sandbox &box, const Wan &wan, const StoreObject &settings)
{
    box.UpdateObject("1400", {{"wanType", wan.type}});
    StoreObject all = {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}};
    for (const auto &[k, v] : settings) all[k] = v;
    box.UpdateObject("2888", all);
    box.SetNetDev({{wan.interface, 0, 0}});
    box.Start();
    if (!box.WaitReady()) throw std::runtime_error("the daemon did not come up");
    box.SetNetDev({{wan.interface, 2000000, 0}});
    WakeAt(box, "2024-01-15 10:00:10");
}

TEST(Action, the_wan_goes_down_on_the_port_with_the_suffix_of_its_connection_and_a_redirect_starts)
{
    struct Case {
        Wan wan;
        const char *downed;
    } cases[] = {
        {{"DHCP", "eth0.1"}, "eth0.1"}, {{"Static", "eth0.1"}, "eth0.1"}, {{"PPPoE", "ppp0.2"}, "eth0.2"},
        {{"PPTP", "ppp0"}, "eth0.1"},   {{"L2TP", "ppp0"}, "eth0.1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wan.type);
        Sandbox box;
        OverTheLimit(box, c.wan, {{"block_on", "true"}});
        EXPECT_EQ(MarkStatus(box), "4");
        EXPECT_EQ(box.StubCalls("ifconfig"), (std::vector<Argv>{{"ifconfig", c.downed, "down"}}));
        EXPECT_EQ(box.StubCalls("dnsmasq"), std::vector<Argv>{kRedirect});
        auto pid = PidIn(box, kRedirectPid);
        ASSERT_TRUE(pid);
        EXPECT_TRUE(Alive(box, *pid)) << "the redirect runs on";
        EXPECT_TRUE(box.StubCalls("tmledflashd").empty());
        // A further wake over the limit changes nothing.
        WakeAt(box, "2024-01-15 10:00:20");
        EXPECT_EQ(box.StubCalls().size(), 3u) << "ifconfig, dnsmasq, logger, once each";
    }
}

TEST(Action, clearing_block_on_over_the_limit_kills_the_redirect_and_cycles_the_bare_port)
{
    Sandbox box;
    OverTheLimit(box, {"PPPoE", "ppp0.2"}, {{"block_on", "true"}});
    auto pid = PidIn(box, kRedirectPid);
    ASSERT_TRUE(pid);
    box.SetTime("2024-01-15 10:00:20");
    auto before = Clock::now();
    Configure(box, {{"block_on", "false"}});
    WakeAt(box, "2024-01-15 10:00:20");
    EXPECT_GE(Clock::now() - before, milliseconds(2900)) << "the restore waits 3 s for the port";
    EXPECT_TRUE(Ends(box, *pid));
    EXPECT_EQ(box.StubCalls("ifconfig"), (std::vector<Argv>{{"ifconfig", "eth0.2", "down"},
                                                            {"ifconfig", "eth0", "down"},
                                                            {"ifconfig", "eth0", "up"}}));
    EXPECT_EQ(box.StubCalls("dnsmasq").size(), 1u);
    EXPECT_EQ(MarkStatus(box), "3") << "the limit still holds";
    EXPECT_EQ(box.ReadFile("tmp/tmwarn.data"), "010");
    EXPECT_EQ(box.ReadFile("tmp/tmlimit.data").value_or("").substr(0, 2), "l\n");
    EXPECT_EQ(box.StubCalls("logger").size(), 2u) << "the limit line comes again";
}

TEST(Action, without_a_port_name_no_ifconfig_runs_and_the_redirect_still_starts_and_stops)
{
    struct Case {
        const char *claim;
        std::optional<std::string> wanPorts;
        bool restore;
    } cases[] = {
        {"an empty /tmp/WanPorts", "", false},
        {"no /tmp/WanPorts", std::nullopt, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        if (c.wanPorts) box.WriteFile("tmp/WanPorts", *c.wanPorts);
        else box.RemoveFile("tmp/WanPorts");
        OverTheLimit(box, {"DHCP", "eth0.1"}, {{"block_on", "true"}});
        EXPECT_EQ(MarkStatus(box), "4");
        EXPECT_TRUE(box.StubCalls("ifconfig").empty());
        EXPECT_EQ(box.StubCalls("dnsmasq"), std::vector<Argv>{kRedirect});
        if (!c.restore) continue;
        auto pid = PidIn(box, kRedirectPid);
        ASSERT_TRUE(pid);
        box.SetTime("2024-01-15 10:00:20");
        Configure(box, {{"volume_monthly_limit", "5"}});
        WakeAt(box, "2024-01-15 10:00:20");
        EXPECT_TRUE(Ends(box, *pid));
        EXPECT_TRUE(box.StubCalls("ifconfig").empty());
        EXPECT_EQ(MarkStatus(box), "0");
    }
}

TEST(Action, the_port_name_is_the_first_line_cut_to_six_characters)
{
    struct Case {
        const char *wanPorts, *downed;
    } cases[] = {
        {"eth0\n", "eth0.1"},
        {"eth012\n", "eth012.1"},
        {"eth0123\n", "eth012.1"},
        {"eth0123456789\n", "eth012.1"},
        {"vlan9\nignored\n", "vlan9.1"},
        {"eth0", "eth.1"},  // the last character read goes, line end or not
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wanPorts);
        Sandbox box;
        box.WriteFile("tmp/WanPorts", c.wanPorts);
        OverTheLimit(box, {"DHCP", "eth0.1"}, {{"block_on", "true"}});
        EXPECT_EQ(box.StubCalls("ifconfig"), (std::vector<Argv>{{"ifconfig", c.downed, "down"}}));
    }
}

TEST(Action, with_both_reactions_the_wan_goes_down_before_the_led_starts)
{
    Sandbox box;
    OverTheLimit(box, {"DHCP", "eth0.1"}, {{"block_on", "true"}, {"led_on", "true"}});
    EXPECT_EQ(MarkStatus(box), "4");
    ASSERT_EQ(CallsOf(box, "tmledflashd", 1), 1u);
    std::vector<std::string> order;
    for (const Argv &call : box.StubCalls())
        if (call[0] != "logger") order.push_back(call[0]);  // the syslog line may pass the LED daemon's
    EXPECT_EQ(order, (std::vector<std::string>{"ifconfig", "dnsmasq", "tmledflashd"}));
}

TEST(Action, the_led_alone_flashes_and_stops_when_its_pid_file_is_removed)
{
    Sandbox box;
    OverTheLimit(box, {"DHCP", "eth0.1"}, {{"led_on", "true"}});
    EXPECT_EQ(MarkStatus(box), "3") << "the WAN stays up";
    EXPECT_TRUE(box.StubCalls("ifconfig").empty());
    EXPECT_TRUE(box.StubCalls("dnsmasq").empty());
    EXPECT_EQ(CallsOf(box, "tmledflashd", 1), 1u);
    EXPECT_EQ(box.StubCalls("tmledflashd"), std::vector<Argv>{{"tmledflashd"}});
    auto pid = PidIn(box, kLedPid);
    ASSERT_TRUE(pid);
    EXPECT_TRUE(Alive(box, *pid));

    box.SetTime("2024-01-15 10:00:20");
    Configure(box, {{"volume_monthly_limit", "5"}});
    WakeAt(box, "2024-01-15 10:00:20");
    EXPECT_EQ(MarkStatus(box), "0");
    EXPECT_FALSE(box.ReadFile(kLedPid));
    EXPECT_TRUE(Ends(box, *pid));

    // Over again; then the LED daemon goes away by itself before the stop: the
    // stop has no file to remove and still counts, so the next limit starts
    // the LED anew.
    box.SetTime("2024-01-15 10:00:30");
    Configure(box, {{"volume_monthly_limit", "1"}});
    WakeAt(box, "2024-01-15 10:00:30");
    EXPECT_EQ(CallsOf(box, "tmledflashd", 2), 2u);
    pid = PidIn(box, kLedPid);
    ASSERT_TRUE(pid);
    box.RemoveFile(kLedPid);
    EXPECT_TRUE(Ends(box, *pid));
    box.SetTime("2024-01-15 10:00:40");
    Configure(box, {{"volume_monthly_limit", "5"}});
    WakeAt(box, "2024-01-15 10:00:40");
    EXPECT_EQ(MarkStatus(box), "0");
    box.SetTime("2024-01-15 10:00:50");
    Configure(box, {{"volume_monthly_limit", "1"}});
    WakeAt(box, "2024-01-15 10:00:50");
    EXPECT_EQ(MarkStatus(box), "3");
    EXPECT_EQ(CallsOf(box, "tmledflashd", 3), 3u);
    EXPECT_TRUE(PidIn(box, kLedPid));
}

}  // namespace
