// The production daemon's start-up and signals, in the sandbox.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;
using std::chrono::milliseconds;

std::string Kvard()
{
    return InstalledPrefix() + "/sbin/kvard";
}

// A sandbox whose program is kvard with the given arguments.
SandboxOptions WithArgs(std::vector<std::string> args)
{
    SandboxOptions o;
    o.command = {Kvard()};
    o.command.insert(o.command.end(), args.begin(), args.end());
    return o;
}

TEST(Startup, runs_with_no_argument_and_answers_on_the_control_port)
{
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    EXPECT_EQ(box.Send(kHeartbeat), 0);
    EXPECT_TRUE(box.WaitStdout("operationMode = RT"));
    EXPECT_EQ(box.Status(), kRunning);
}

TEST(Startup, a_path_of_99_characters_is_accepted_and_one_of_100_is_refused)
{
    {
        Sandbox box(WithArgs({std::string(99, 'p')}));
        box.Start();
        ASSERT_TRUE(box.WaitReady());
    }
    {
        Sandbox box(WithArgs({std::string(100, 'p')}));
        box.Start();
        EXPECT_EQ(box.WaitExit(), Exited(0));
        EXPECT_TRUE(box.WaitStdout("KVARD: Fail to initialize core module!\n"));
        EXPECT_EQ(box.Stdout().find("Read Config"), std::string::npos) << "refused before anything was read";
    }
}

TEST(Startup, an_empty_path_runs)
{
    Sandbox box(WithArgs({""}));
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    EXPECT_EQ(box.Send(kHeartbeat), 0);
}

TEST(Startup, only_exactly_RT_is_router_mode)
{
    struct Case {
        const char *mode;   // nullptr: no operation-mode object at all
        bool runs;
        const char *printed;
    } cases[] = {
        {"RT", true, "operationMode = RT"},
        {"", true, "operationMode = RT"},
        {nullptr, true, "operationMode = RT"},
        {"RTX", false, "operationMode = RTX"},
        {"AP", false, "operationMode = AP"},
        {"rt", false, "operationMode = rt"},
        {"RT      extender", false, "operationMode = RT     "},  // cut to seven characters
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mode ? c.mode : "(no object)");
        Sandbox box;
        if (c.mode) box.WriteObject("2700", {{"operationMode", c.mode}});
        else box.RemoveFile("var/lib/kvard/mdm/2700");
        box.Start();
        if (c.runs) {
            ASSERT_TRUE(box.WaitReady());
            EXPECT_TRUE(box.WaitStdout(c.printed));
        } else {
            EXPECT_EQ(box.WaitExit(), Exited(0));
            EXPECT_TRUE(box.WaitStdout(c.printed));
            EXPECT_TRUE(box.WaitStderr("main:"));
            EXPECT_NE(box.Stderr().find("Traffic meter is only running at router mode"), std::string::npos);
            EXPECT_EQ(box.ReadFile("sandbox/mtd.img"), std::nullopt) << "no flash was opened";
            // The traffic meter's objects keep what they held.
            EXPECT_EQ(box.ReadObject("2889"), StoreObject{});
        }
    }
}

TEST(Startup, the_mode_is_router_mode_when_the_lock_cannot_be_had)
{
    Sandbox box;
    // This test holds the store's lock for the daemon's whole run; its waits
    // are cut to 200 ms so that the 30 s timeouts pass quickly.
    int lock = open((box.StoreDir() + "/.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    box.Start({"KVARD_MDM_LOCK_MAX_MS=200"});
    // The mode read fails on the lock and counts as "RT", so start-up goes on to
    // the settings, which fail on the lock too: the core's failure, status 0.
    EXPECT_EQ(box.WaitExit(), Exited(0));
    close(lock);
    std::string out = box.Stdout();
    EXPECT_NE(out.find("operationMode = RT"), std::string::npos) << out;
    EXPECT_NE(out.find("Read Config  fail\nKVARD: Fail to initialize core module!\n"), std::string::npos) << out;
    EXPECT_NE(box.Stderr().find("could not get lock, ret="), std::string::npos) << box.Stderr();
    EXPECT_EQ(box.Stderr().find("only running at router mode"), std::string::npos);
}

TEST(Startup, each_platform_failure_ends_with_its_line_and_status)
{
    struct Case {
        const char *claim;
        const char *env;
        const char *logLine;
    } cases[] = {
        {"messaging fails", "KVARD_MSG_FAIL=7", "cmsMsg_init failed, ret = 7"},
        {"the data model can't be set up", "KVARD_MDM_DIR=/usr/kvard-no-such-store", "cmsMdm_init failed, ret = "},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        box.Start({c.env});
        EXPECT_EQ(box.WaitExit(), Exited(1));
        EXPECT_TRUE(box.WaitStderr(c.logLine));
        EXPECT_NE(box.Stderr().find("main:"), std::string::npos) << box.Stderr();
        EXPECT_EQ(box.Stdout().find("operationMode"), std::string::npos) << "ended before the mode check";
    }
}

TEST(Startup, without_a_tm_partition_the_core_fails_and_the_status_is_0)
{
    SandboxOptions o;
    o.mtd = false;
    Sandbox box(o);
    box.Start();
    EXPECT_EQ(box.WaitExit(), Exited(0));
    EXPECT_TRUE(box.WaitStdout("Init MTD fail\nInitialize Flash fail!\nKVARD: Fail to initialize core module!\n"));
}

TEST(Startup, an_unreadable_settings_object_fails_the_core)
{
    Sandbox box;
    box.RemoveFile("var/lib/kvard/mdm/2888");
    box.Start();
    EXPECT_EQ(box.WaitExit(), Exited(0));
    EXPECT_TRUE(box.WaitStdout("Could not get MDMOID_ORNA_TRAFFIC_METER, ret="));
    EXPECT_TRUE(box.WaitStdout("Read Config  fail\nKVARD: Fail to initialize core module!\n"));
}

TEST(Startup, a_socket_that_cannot_be_created_ends_with_status_1_after_the_core_started)
{
    const char *shim = getenv("KVARD_FAIL_SOCKET_LIB");
    ASSERT_NE(shim, nullptr);
    std::ifstream in(shim, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(bytes.empty());
    Sandbox box;
    box.WriteFile("tmp/fail_socket.so", bytes);
    box.Start({"LD_PRELOAD=/tmp/fail_socket.so"});
    EXPECT_EQ(box.WaitExit(), Exited(1));
    EXPECT_TRUE(box.WaitStderr("KVARD: Fail to create socket!\n: Permission denied\n"));
    EXPECT_NE(box.Stdout().find("traffic_on =true"), std::string::npos) << "the core had started";
}

TEST(Startup, a_second_instance_does_all_of_its_start_and_fails_at_bind)
{
    SandboxOptions o;
    // The first daemon runs in the background; once it has bound the port the
    // second starts in its place, as the box's program.
    o.command = {"/bin/sh", "-c",
                 Kvard() + " >/tmp/first.out 2>&1 & "
                           "while ! grep -q ':58C4' /.proc/net/udp; do sleep 0.05; done; exec " +
                     Kvard()};
    Sandbox box(o);
    box.Start();
    EXPECT_EQ(box.WaitExit(), Exited(1));
    std::string out = box.Stdout(), err = box.Stderr();
    EXPECT_NE(out.find("operationMode = RT"), std::string::npos) << out;
    EXPECT_NE(out.find("traffic_on =true"), std::string::npos) << "the settings were read: " << out;
    EXPECT_NE(err.find("KVARD: Fail to bind socket!\n: Address already in use"), std::string::npos) << err;
}

TEST(Signals, hangup_interrupt_and_quit_are_logged_and_the_loop_goes_on)
{
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    struct Case {
        int signal;
        const char *line;
    } cases[] = {{SIGHUP, "Get a signal --- SIGHUP \n"},
                 {SIGINT, "Get a signal --- SIGINT \n"},
                 {SIGQUIT, "Get a signal --- SIGQUIT \n"}};
    for (const Case &c : cases) {
        box.Signal(c.signal);
        EXPECT_TRUE(box.WaitStderr(c.line)) << c.line;
        EXPECT_EQ(box.Send(kHeartbeat), 0) << "still answering after " << c.line;
    }
    EXPECT_NE(box.Stderr().find("SigRoutine:"), std::string::npos) << box.Stderr();
    EXPECT_EQ(box.Status(), kRunning);
}

TEST(Signals, sigusr1_twice_turns_debug_printing_on_and_off)
{
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.Signal(SIGUSR1);
    EXPECT_TRUE(box.WaitStderr("Get a signal --- SIGUSR \n"));
    // The pass after the signal prints the debug lines of the loop.
    ASSERT_EQ(box.Send(kHeartbeat, std::string("one\0", 4)), 0);
    EXPECT_TRUE(box.WaitStdout("Heart Beat: one\nKVARD select wait for sec=3 usec=0\n"));
    box.Signal(SIGUSR2);
    ASSERT_EQ(box.Send(kHeartbeat, std::string("two\0", 4)), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: two\n"));
    ASSERT_EQ(box.Send(kHeartbeat, std::string("three\0", 6)), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: three\n"));
    std::string out = box.Stdout();
    std::string tail = out.substr(out.find("Heart Beat: two\n"));
    EXPECT_EQ(tail.find("KVARD select"), std::string::npos) << "debug printing is off again: " << tail;
}

TEST(Signals, sigterm_ends_the_daemon_with_nothing_written)
{
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    auto statistics = box.ReadObject("2889");
    auto settings = box.ReadObject("2888");
    auto image = box.ReadFile("sandbox/mtd.img");
    box.Signal(SIGTERM);
    EXPECT_EQ(box.WaitExit(), Killed(SIGTERM));
    EXPECT_EQ(box.ReadObject("2889"), statistics);
    EXPECT_EQ(box.ReadObject("2888"), settings);
    EXPECT_EQ(box.ReadFile("sandbox/mtd.img"), image);
}

}  // namespace
