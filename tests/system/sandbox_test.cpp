// The sandbox seen from a probe program in the daemon's place, and tmctl
// against that probe and the box's store.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

using Calls = std::vector<std::vector<std::string>>;

SandboxOptions Probe(const char *time, const char *zone) {
    return {.time = time, .zone = zone, .command = {getenv("SANDBOX_PROBE")}};
}

std::string Shell(Sandbox &box, const std::string &command) { return box.Request(command).value_or("<no reply>"); }

CommandResult Tmctl(Sandbox &box, std::vector<std::string> args) {
    args.insert(args.begin(), {"exec", box.Dir(), "--", "tmctl"});
    return box.Runner(args);
}

TEST(Sandbox, the_probe_sees_the_fakes_and_what_it_leaves_is_seen_outside) {
    Sandbox box(Probe("2024-03-31 01:59:59", "Europe/Berlin")), other(Probe("2030-06-01 12:00:00", "UTC"));
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 123456789012ULL, 42}});
    box.SetUptime(4242.5);
    struct { std::string command, reply; } rows[] = {
        {"cat /proc/mtd", "dev:    size   erasesize  name\nmtd0: 00800000 00020000 \"tm\"\n"},
        {"sed 's/:/ /' /proc/net/dev | awk '$1 == \"eth0.1\" {print $2, $10}'", "123456789012 42\n"},
        {"cat /proc/uptime", "4242.50 4242.50\n"},
        {"date '+%s %Z'", "1711846799 CET\n"},
        {"now", "1711846799"},
        {"echo in >/tmp/t && echo data >/data/d && echo ok", "ok\n"},
        {"logger -t 't  R' '' 'q\"\\' \"$(printf 'l1\\nl2\\tx')\" && ifconfig eth0.1 down && echo ok", "ok\n"},
    };
    for (const auto &row : rows) EXPECT_EQ(Shell(box, row.command), row.reply) << row.command;
    EXPECT_EQ(box.ReadFile("tmp/t"), "in\n");
    EXPECT_EQ(box.ReadFile("data/d"), "data\n");
    EXPECT_EQ(box.StubCalls(),
              (Calls{{"logger", "-t", "t  R", "", "q\"\\", "l1\nl2\tx"}, {"ifconfig", "eth0.1", "down"}}));
    // The clock moves only when the test rewrites it: across the spring gap here.
    box.SetTime("2024-03-31 03:00:00");
    EXPECT_EQ(Shell(box, "date '+%s %Z'"), "1711846800 CEST\n");
    EXPECT_EQ(Shell(box, "now"), "1711846800");
    // A second instance binds the same port at the same time and answers apart.
    other.Start();
    ASSERT_TRUE(other.WaitReady());
    EXPECT_EQ(Shell(other, "date +%s"), "1906545600\n");
    EXPECT_EQ(Shell(box, "date +%s"), "1711846800\n");
}

TEST(Tmctl, header_bytes_replies_exit_statuses_and_the_store) {
    Sandbox box(Probe("2024-01-15 10:00:00", "UTC")), idle(SandboxOptions{.command = {"/bin/sleep", "60"}});
    box.Start();
    idle.Start();
    ASSERT_TRUE(box.WaitReady());
    CommandResult refused = Tmctl(idle, {"send", "TM_MSG_HEARTBEAT"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "tmctl: nothing listens on 127.0.0.1:22724, the datagram was refused (is kvard running?)\n");
    struct {
        std::vector<std::string> args;
        int status;
        std::string out;        // exactly, or with "..." its start
        std::string bytes = "";  // the probe's hex line of the datagram
    } rows[] = {
        {{"send", "TM_MSG_HEARTBEAT", "--text", "hi"}, 0, "-2\n", "2d a5 01 00 03 00 00 00 68 69 00 \n"},
        {{"send", "0x1154", "--hex", "3e 14 00 00 01"}, 0, "-2\n", "2d a5 54 11 05 00 00 00 3e 14 00 00 01 \n"},
        {{"send", "TM_MSG_SIM_INPUT"}, 0, "-2\n", "2d a5 56 1c 00 00 00 00 \n"},
        {{"send", "1", "--hex", std::string(600, '7')}, 0, "-2\n", "2d a5 01 00 2c 01 00 00 77 77 "},
        {{"raw", "2da5 07"}, 0, "-2\n", "2d a5 07 \n"},
        {{"--help"}, 0, "usage: tmctl..."},
        {{"mdm", "set", "--help"}, 0, "usage: tmctl..."},
        {{"send", "TM_MSG_NOTHING"}, 2, "tmctl: ..."},
        {{"frobnicate"}, 2, "tmctl: ..."},
        {{"mdm", "set", "2888", "volume=5"}, 2,
         "tmctl: object 2888 (MDMOID_ORNA_TRAFFIC_METER) has no field 'volume'\n"},
        {{"mdm", "get", "1152.3"}, 1, "tmctl: ..."},
        {{"mdm", "set", "2889", "warningTime=Mon Mar  4 10:15:00 2024\\n", "limitedTime="}, 0, ""},
        {{"mdm", "set", "MDMOID_ORNA_TRAFFIC_METER", "mark", "day=31"}, 0, ""},
        {{"mdm", "get", "2889"}, 0, "warningTime=Mon Mar  4 10:15:00 2024\\n\nlimitedTime=\n"},
    };
    for (const auto &row : rows) {
        CommandResult result = Tmctl(box, row.args);
        EXPECT_EQ(result.status, row.status) << row.args[0] << " " << result.out;
        size_t dots = row.out.find("...");
        EXPECT_EQ(result.out.substr(0, dots), row.out.substr(0, dots)) << row.args[0];
        EXPECT_FALSE(row.status && std::count(result.out.begin(), result.out.end(), '\n') != 1) << "one line";
        EXPECT_TRUE(box.WaitStdout(row.bytes));
    }
    EXPECT_EQ(box.ReadObject("2889"),
              (StoreObject{{"warningTime", "Mon Mar  4 10:15:00 2024\n"}, {"limitedTime", ""}}));
    StoreObject settings = box.ReadObject("2888").value_or(StoreObject{});
    EXPECT_EQ(settings.count("mark"), 0u);
    EXPECT_EQ(settings["day"], "31");
    EXPECT_EQ(settings["traffic_on"], "true") << "the other fields stay";
}

}  // namespace
}  // namespace kvard::test
