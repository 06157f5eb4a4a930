// The daemon's start-up, every way it fails, and its signals.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

struct Row {
    const char *what;
    std::vector<std::string> args = {};  // after kvard; {"second"}: a second instance
    bool mtd = true, lock = false;
    const char *mode = nullptr, *removed = nullptr, *env = "NONE=";
    int exit = -1;  // -1: it runs and answers
    const char *out = "operationMode = RT", *err = "";
};

TEST(Startup, each_row_runs_or_ends_with_its_lines_and_status) {
    const std::string kvard = InstalledPrefix() + "/sbin/kvard", core = "KVARD: Fail to initialize core module!\n";
    const Row rows[] = {
        {.what = "no argument"},
        {.what = "99-character path", .args = {std::string(99, 'p')}},
        {.what = "100-character path", .args = {std::string(100, 'p')}, .exit = 0, .out = core.c_str()},
        {.what = "empty path", .args = {""}},
        {.what = "empty mode", .mode = ""},
        {.what = "no mode object", .removed = "2700"},
        {.what = "RTX", .mode = "RTX", .exit = 0, .out = "operationMode = RTX",
         .err = "Traffic meter is only running at router mode"},
        {.what = "rt", .mode = "rt", .exit = 0, .out = "operationMode = rt", .err = "only running at router mode"},
        {.what = "cut to seven", .mode = "RT      x", .exit = 0, .out = "operationMode = RT     ",
         .err = "only running at router mode"},
        {.what = "no tm partition", .mtd = false, .exit = 0,
         .out = "Init MTD fail\nInitialize Flash fail!\nKVARD: Fail to initialize core module!\n"},
        {.what = "no settings", .removed = "2888", .exit = 0, .out = "Could not get MDMOID_ORNA_TRAFFIC_METER, ret="},
        {.what = "locked store counts as RT", .lock = true, .env = "KVARD_MDM_LOCK_MAX_MS=200", .exit = 0,
         .out = "operationMode = RTRead Config  fail\nKVARD: Fail to initialize core module!\n",
         .err = "could not get lock, ret="},
        {.what = "messaging", .env = "KVARD_MSG_FAIL=7", .exit = 1, .out = "", .err = "cmsMsg_init failed, ret = 7"},
        {.what = "store", .env = "KVARD_MDM_DIR=/usr/none", .exit = 1, .out = "", .err = "cmsMdm_init failed, ret = "},
        {.what = "socket", .env = "LD_PRELOAD=/tmp/fail_socket.so", .exit = 1, .out = "traffic_on =true",
         .err = "KVARD: Fail to create socket!\n: Permission denied\n"},
        {.what = "second instance", .args = {"second"}, .exit = 1, .out = "traffic_on =true",
         .err = "KVARD: Fail to bind socket!\n: Address already in use\n"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        SandboxOptions options{.mtd = row.mtd, .command = {kvard}};
        options.command.insert(options.command.end(), row.args.begin(), row.args.end());
        // The second daemon starts once the first, in the background, has bound the port.
        if (row.args == std::vector<std::string>{"second"})
            options.command = {"/bin/sh", "-c", kvard + " >/dev/null 2>&1 & while ! grep -q ':58C4' /.proc/net/udp; "
                                                        "do sleep 0.05; done; exec " + kvard};
        // flock holds the store's lock while the daemon runs, without handing it down.
        if (row.lock) options.command.insert(options.command.begin(), {"flock", "-o", "/var/lib/kvard/mdm/.lock"});
        Sandbox box(options);
        std::filesystem::copy_file(getenv("KVARD_FAIL_SOCKET_LIB"), box.Path("tmp/fail_socket.so"));
        if (row.mode) box.WriteObject("2700", {{"operationMode", row.mode}});
        if (row.removed) box.RemoveFile("var/lib/kvard/mdm/" + std::string(row.removed));
        box.Start({row.env});
        if (row.exit < 0) {
            ASSERT_TRUE(box.WaitReady());
            EXPECT_EQ(box.Send(kHeartbeat), 0);
        } else {
            EXPECT_EQ(box.WaitExit(), "exited " + std::to_string(row.exit));
        }
        EXPECT_TRUE(box.WaitStdout(row.out));
        EXPECT_TRUE(box.WaitStderr(row.err));
        EXPECT_TRUE(*row.out || box.Stdout().find("operationMode") == std::string::npos) << "ended before the mode";
    }
}

TEST(Signals, hup_int_quit_are_logged_usr1_usr2_switch_debug_term_writes_nothing) {
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    struct { int signal; const char *err, *heartbeat, *out; } rows[] = {
        {SIGHUP, "Get a signal --- SIGHUP \n", "h", "Heart Beat: h\n"},
        {SIGINT, "Get a signal --- SIGINT \n", "i", "Heart Beat: i\n"},
        {SIGQUIT, "Get a signal --- SIGQUIT \n", "q", "Heart Beat: q\n"},
        // The pass after the signal prints the loop's debug lines.
        {SIGUSR1, "Get a signal --- SIGUSR \n", "on", "Heart Beat: on\nKVARD select wait for sec=3 usec=0\n"},
        {SIGUSR2, "", "off", "Heart Beat: off\n"},
        {0, "", "still", "Heart Beat: still\n"},
    };
    for (const auto &row : rows) {
        if (row.signal) box.Signal(row.signal);
        EXPECT_TRUE(box.WaitStderr(row.err));
        EXPECT_EQ(box.Send(kHeartbeat, std::string(row.heartbeat) + '\0'), 0) << row.heartbeat;
        EXPECT_TRUE(box.WaitStdout(row.out));
    }
    std::string out = box.Stdout();
    EXPECT_EQ(out.find("KVARD select", out.find("Heart Beat: off\n")), std::string::npos) << "debug is off again";
    auto statistics = box.ReadObject("2889"), settings = box.ReadObject("2888");
    auto image = box.ReadFile("sandbox/mtd.img");
    box.Signal(SIGTERM);
    EXPECT_EQ(box.WaitExit(), "killed " + std::to_string(SIGTERM));
    EXPECT_EQ(box.ReadObject("2889"), statistics);
    EXPECT_EQ(box.ReadObject("2888"), settings);
    EXPECT_EQ(box.ReadFile("sandbox/mtd.img"), image);
}

}  // namespace
}  // namespace kvard::test
