// The sandbox itself, seen from a probe program that runs in the box in the
// daemon's place and reports what it finds there.
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

using std::chrono::milliseconds;

std::string Probe() {
    const char *path = getenv("SANDBOX_PROBE");
    if (!path) throw std::runtime_error("SANDBOX_PROBE is not set");
    return path;
}

SandboxOptions ProbeOptions(std::vector<std::string> probeArgs = {}) {
    SandboxOptions options;
    options.command = {Probe()};
    options.command.insert(options.command.end(), probeArgs.begin(), probeArgs.end());
    return options;
}

// The probe's answer to REQUEST, or a marker that fails any comparison.
std::string Ask(Sandbox &box, const std::string &request) {
    auto reply = box.Request(request, milliseconds(5000));
    return reply.value_or("<no reply to '" + request + "'>");
}

// Starts a probe box and waits until it answers on the control port.
void StartReady(Sandbox &box, const std::vector<std::string> &extraEnv = {}) {
    box.Start(extraEnv);
    ASSERT_TRUE(box.WaitReady());
}

// Polls REQUEST until the probe answers EXPECTED (processes end a little
// after the command that ends them has returned).
::testing::AssertionResult EventuallyAnswers(Sandbox &box, const std::string &request, const std::string &expected) {
    std::string last;
    for (auto deadline = std::chrono::steady_clock::now() + milliseconds(3000);;) {
        last = Ask(box, request);
        if (last == expected) return ::testing::AssertionSuccess();
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return ::testing::AssertionFailure() << "'" << request << "' still answers '" << last << "', not '" << expected
                                         << "'";
}

std::string HostNetDevHeader() {
    std::ifstream in("/proc/net/dev");
    std::string first, second;
    std::getline(in, first);
    std::getline(in, second);
    return first + "\n" + second + "\n";
}

TEST(SandboxProc, the_fake_proc_files_are_what_the_program_reads_and_proc_self_is_real) {
    SandboxOptions options = ProbeOptions();
    options.mtdSize = 0x200000;
    options.mtdEraseSize = 0x10000;
    options.mtdWriteSize = 1024;
    Sandbox box(options);
    StartReady(box);

    struct Case {
        std::string request, expected;
    } cases[] = {
        {"read /proc/mtd", "ok\ndev:    size   erasesize  name\nmtd0: 00200000 00010000 \"tm\"\n"},
        {"read /proc/uptime", "ok\n100.00 100.00\n"},
        // The daemon's own way of finding the partition.
        {"sh cat /proc/mtd | grep '\"tm\"' | awk -F ':' '{printf $1}'", "0\nmtd0"},
        {"readlink /proc/self/exe", "ok\n" + Probe()},
        {"sh cat /proc/self/comm", "0\ncat\n"},
        {"read /proc/1/comm", "ok\nbwrap\n"},
        {"sh test -d /proc/self/task && test -r /proc/meminfo && test -r /proc/cpuinfo && echo yes", "0\nyes\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(Ask(box, c.request), c.expected) << c.request;

    // The kernel's header lines, and a WAN line the daemon's scan can read.
    std::string netDev = Ask(box, "read /proc/net/dev");
    EXPECT_EQ(netDev.substr(0, 3 + HostNetDevHeader().size()), "ok\n" + HostNetDevHeader());
    EXPECT_NE(netDev.find("\neth0.1:       0       0"), std::string::npos) << netDev;

    // Replaced files are seen at once: the directory is bound, not the file.
    box.SetNetDev({{"eth0.1", 123456789012ULL, 42}});
    netDev = Ask(box, "read /proc/net/dev");
    unsigned long long rx = 0, tx = 0;
    size_t line = netDev.find("eth0.1:");
    ASSERT_NE(line, std::string::npos) << netDev;
    ASSERT_EQ(sscanf(netDev.c_str() + line + 7, "%llu%*u%*u%*u%*u%*u%*u%*u%llu", &rx, &tx), 2);
    EXPECT_EQ(rx, 123456789012ULL);
    EXPECT_EQ(tx, 42ULL);
    box.SetUptime(4242.5);
    EXPECT_EQ(Ask(box, "read /proc/uptime"), "ok\n4242.50 4242.50\n");
    box.WriteProc("mtd", "dev:    size   erasesize  name\n");
    EXPECT_EQ(Ask(box, "sh cat /proc/mtd | grep '\"tm\"' | awk -F ':' '{printf $1}'"), "0\n");
}

TEST(SandboxProc, an_instance_without_flash_lists_no_partition) {
    SandboxOptions options = ProbeOptions();
    options.mtd = false;
    Sandbox box(options);
    StartReady(box);
    EXPECT_EQ(Ask(box, "read /proc/mtd"), "ok\ndev:    size   erasesize  name\n");
}

TEST(SandboxFiles, files_written_on_either_side_of_the_box_are_seen_on_the_other) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    struct Case {
        std::string inside, outside;
    } cases[] = {
        {"/tmp/tmlimit.data", "tmp/tmlimit.data"},
        {"/data/tmrestarttime.data", "data/tmrestarttime.data"},
        {"/var/dnsmasq_test.pid", "var/dnsmasq_test.pid"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Ask(box, "write " + c.inside + "\nfrom inside\n"), "ok") << c.inside;
        EXPECT_EQ(box.ReadFile(c.outside), "from inside\n") << c.outside;
        box.WriteFile(c.outside, "from outside");
        EXPECT_EQ(Ask(box, "read " + c.inside), "ok\nfrom outside") << c.inside;
    }
    // The seeded router and its neighbour's file, at the paths the daemon uses.
    EXPECT_EQ(Ask(box, "read /var/lib/kvard/mdm/2700"), "ok\noperationMode=RT\n");
    EXPECT_EQ(Ask(box, "read /tmp/WanPorts"), "ok\neth0\n");
    // The host's system trees are there to run programs, not to be changed.
    for (std::string path : {"/usr/kvard-test", "/etc/kvard-test"})
        EXPECT_EQ(Ask(box, "write " + path + "\nx").rfind("error", 0), 0u) << path;
}

TEST(SandboxStore, the_seeded_store_holds_a_router_and_the_harness_edits_it_under_the_lock) {
    SandboxOptions options = ProbeOptions();
    options.zone = "Europe/Berlin";
    Sandbox box(options);
    struct Case {
        std::string object;
        StoreObject fields;
    } cases[] = {
        {"2700", {{"operationMode", "RT"}}},
        {"1400", {{"wanType", "DHCP"}}},
        {"1152.1", {{"ifName", "eth0"}, {"isUpstream", "1"}}},
        {"1152.2", {{"ifName", "eth1"}, {"isUpstream", "0"}}},
        {"1045", {{"status", "Synchronized"}, {"localTimeZone", "Europe/Berlin"}}},
        {"2889", {}},
    };
    for (const auto &c : cases) EXPECT_EQ(box.ReadObject(c.object), c.fields) << c.object;
    auto settings = box.ReadObject("2888");
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->size(), 16u);
    EXPECT_EQ(settings->at("traffic_on"), "true");

    // A value with a line feed and a backslash survives the text form.
    box.UpdateObject("2889", {{"warningTime", "Mon Jan 15 10:00:00 2024\n"}, {"x", "a\\b"}});
    EXPECT_EQ(box.ReadFile("var/lib/kvard/mdm/2889"), "warningTime=Mon Jan 15 10:00:00 2024\\n\nx=a\\\\b\n");
    EXPECT_EQ(box.ReadObject("2889"), (StoreObject{{"warningTime", "Mon Jan 15 10:00:00 2024\n"}, {"x", "a\\b"}}));
    box.UpdateObject("2700", {{"operationMode", "AP"}});
    EXPECT_EQ(box.ReadFile("var/lib/kvard/mdm/2700"), "operationMode=AP\n");
    EXPECT_EQ(box.ReadObject("9999"), std::nullopt);
}

TEST(SandboxStubs, each_stub_logs_its_exact_argument_vector) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    const std::vector<std::vector<std::string>> calls = {
        {"logger", "-p", "local5.warn", "-t", "t Router operation", "[RouterOp][Traffic Meter] limit,"},
        {"ifconfig", "eth0.1", "down"},
        {"ifconfig", "", "two  blanks", " lead", "trail "},
        {"logger", "quote\"inside", "back\\slash", "end\\"},
        {"logger", "line1\nline2", "tab\there", "cr\r", "bell\a", "del\x7f", "esc\x1b[0m"},
        {"ifconfig", "gr\xc3\xbc\xc3\x9f" "e", "\"\"", "\\n"},
        {"logger"},
    };
    for (const auto &argv : calls) {
        std::string request = "spawn";
        for (const auto &arg : argv) request += std::string(1, '\0') + arg;
        EXPECT_EQ(Ask(box, request), "0") << argv[0];
    }
    EXPECT_EQ(box.StubCalls(), calls);
    EXPECT_EQ(box.StubCalls("ifconfig").size(), 3u);

    // Through the shell, as the daemon runs them.
    box.ClearStubLog();
    EXPECT_EQ(Ask(box, "sh logger -p local5.warn -t \"t Router operation\" [RouterOp][Traffic Meter]The counter is "
                       "100 MBytes before the monthly limit is reached,"),
              "0\n");
    EXPECT_EQ(Ask(box, "sh ifconfig eth0.2 down > /dev/null 2>&1"), "0\n");
    const std::vector<std::vector<std::string>> viaShell = {
        {"logger", "-p", "local5.warn", "-t", "t Router operation", "[RouterOp][Traffic",
         "Meter]The", "counter", "is", "100", "MBytes", "before", "the", "monthly", "limit", "is", "reached,"},
        {"ifconfig", "eth0.2", "down"},
    };
    EXPECT_EQ(box.StubCalls(), viaShell);
    // The log is the documented text, one line per call.
    EXPECT_EQ(box.ReadFile("sandbox/stubs.log").value_or("").substr(0, 37), "\"logger\" \"-p\" \"local5.warn\" \"-t\" \"t R");
}

TEST(SandboxStubs, dnsmasq_leaves_its_pid_file_before_returning_and_lives_until_killed) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    EXPECT_EQ(Ask(box, "sh dnsmasq -C /etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf -p 38053 "
                       "-x /var/dnsmasq_tmRedirecHttpHttps.pid > /dev/null 2>&1"),
              "0\n");
    auto pidText = box.ReadFile("var/dnsmasq_tmRedirecHttpHttps.pid");
    ASSERT_TRUE(pidText);
    std::string pid = pidText->substr(0, pidText->find('\n'));
    ASSERT_FALSE(pid.empty());
    EXPECT_EQ(Ask(box, "alive " + pid), "1");
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(Ask(box, "alive " + pid), "1") << "the stub must stay in the background";
    EXPECT_EQ(box.StubCalls("dnsmasq"),
              (std::vector<std::vector<std::string>>{{"dnsmasq", "-C",
                                                      "/etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf", "-p",
                                                      "38053", "-x", "/var/dnsmasq_tmRedirecHttpHttps.pid"}}));
    // The pid in the file is the process that the daemon's kill ends.
    EXPECT_EQ(Ask(box, "sh kill -9 `cat /var/dnsmasq_tmRedirecHttpHttps.pid` > /dev/null 2>&1"), "0\n");
    EXPECT_TRUE(EventuallyAnswers(box, "alive " + pid, "0"));
}

TEST(SandboxStubs, tmledflashd_keeps_its_pid_file_and_ends_when_it_is_removed) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    EXPECT_EQ(Ask(box, "sh tmledflashd &"), "0\n");
    std::optional<std::string> pidText;
    for (int i = 0; i < 600 && !pidText; ++i) {
        pidText = box.ReadFile("tmp/tmledflash.pid");
        if (!pidText) std::this_thread::sleep_for(milliseconds(5));
    }
    ASSERT_TRUE(pidText) << "no /tmp/tmledflash.pid";
    std::string pid = pidText->substr(0, pidText->find('\n'));
    EXPECT_EQ(Ask(box, "alive " + pid), "1");
    box.RemoveFile("tmp/tmledflash.pid");
    EXPECT_TRUE(EventuallyAnswers(box, "alive " + pid, "0"));
    EXPECT_EQ(box.StubCalls("tmledflashd"), (std::vector<std::vector<std::string>>{{"tmledflashd"}}));
}

TEST(SandboxClock, the_clock_stands_at_the_written_local_time_and_moves_only_when_rewritten) {
    struct Case {
        std::string zone, first;
        long long firstEpoch;
        std::string firstText, second;
        long long secondEpoch;
        std::string secondText;
    } cases[] = {
        {"UTC", "2024-01-15 10:00:00", 1705312800, "2024-01-15 10:00:00 UTC", "2024-01-15 10:00:03", 1705312803,
         "2024-01-15 10:00:03 UTC"},
        // The spring-forward gap: one second apart in the epoch.
        {"Europe/Berlin", "2024-03-31 01:59:59", 1711846799, "2024-03-31 01:59:59 CET", "2024-03-31 03:00:00",
         1711846800, "2024-03-31 03:00:00 CEST"},
        {"Australia/Sydney", "2024-10-06 01:59:59", 1728143999, "2024-10-06 01:59:59 AEST", "2024-10-06 03:00:00",
         1728144000, "2024-10-06 03:00:00 AEDT"},
        {"Asia/Kolkata", "2024-06-01 00:00:00", 1717180200, "2024-06-01 00:00:00 IST", "2024-06-01 00:30:00",
         1717182000, "2024-06-01 00:30:00 IST"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.zone);
        SandboxOptions options = ProbeOptions();
        options.zone = c.zone;
        options.time = c.first;
        Sandbox box(options);
        StartReady(box);
        EXPECT_EQ(Ask(box, "time"), std::to_string(c.firstEpoch) + " " + c.firstText);
        // Frozen to the nanosecond, so a short pause shows that it stands.
        std::string clock = Ask(box, "clock");
        EXPECT_EQ(clock, std::to_string(c.firstEpoch) + ".000000000");
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_EQ(Ask(box, "clock"), clock);
        box.SetTime(c.second);
        EXPECT_EQ(Ask(box, "time"), std::to_string(c.secondEpoch) + " " + c.secondText);
        // Every child reads the same file, not a clock that restarts with it.
        EXPECT_EQ(Ask(box, "sh date +%s"), "0\n" + std::to_string(c.secondEpoch) + "\n");
    }
}

TEST(SandboxInstances, two_instances_bind_the_same_port_and_each_answers_its_own_test) {
    SandboxOptions a = ProbeOptions(), b = ProbeOptions();
    a.env = {"BOXNAME=a"};
    b.env = {"BOXNAME=b"};
    b.time = "2030-06-01 12:00:00";
    Sandbox boxA(a), boxB(b);
    StartReady(boxA);
    StartReady(boxB);
    EXPECT_EQ(Ask(boxA, "env BOXNAME"), "set a");
    EXPECT_EQ(Ask(boxB, "env BOXNAME"), "set b");
    EXPECT_EQ(Ask(boxA, "time").substr(0, 10), "1705312800");
    EXPECT_EQ(Ask(boxB, "time").substr(11, 19), "2030-06-01 12:00:00");
    // A host command entered into each box's network reaches that box's probe.
    for (auto *box : {&boxA, &boxB}) {
        CommandResult client = box->Exec({Probe(), "--client", "env BOXNAME"});
        EXPECT_EQ(client.status, 0) << client.err;
        EXPECT_EQ(client.out, box == &boxA ? "set a" : "set b");
        CommandResult store = box->Exec({"sh", "-c", "echo $KVARD_MDM_DIR"});
        EXPECT_EQ(store.out, box->StoreDir() + "\n");
    }
}

TEST(SandboxHarness, datagrams_carry_the_daemons_header_and_a_missing_reply_is_reported) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    struct Case {
        uint16_t code;
        std::string body;
        int32_t reply;  // the probe answers code << 16 | length
    } cases[] = {
        {kTimeWake, "", 7 << 16},
        {kHeartbeat, std::string("hi\0", 3), 1 << 16 | 3},
        {4436, std::string("\x3e\x14\0\0\x01", 5), 4436 << 16 | 5},
        {0x8001, "", static_cast<int32_t>(0x80010000u)},  // the word is signed
        {7254, std::string(28, '\xff'), 7254 << 16 | 28},
    };
    for (const auto &c : cases) EXPECT_EQ(box.Send(c.code, c.body), c.reply) << c.code;
    // Nothing listens on port 1: no reply, and quickly.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(box.Request("ping", milliseconds(300), 1), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(2000));
    // A late reply to a request that timed out is not taken for the next one.
    EXPECT_EQ(box.Request("sh sleep 0.05; echo late", milliseconds(5)), std::nullopt);
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(Ask(box, "time").substr(0, 10), "1705312800");
}

TEST(SandboxLifecycle, readiness_and_the_end_of_the_program_are_reported_as_they_happen) {
    struct Case {
        const char *name;
        std::vector<std::string> probeArgs;
        std::string timeout;  // of `kvard-sandbox wait`, in seconds
        int waitExit;         // its exit code
        ProgramStatus after;
    } cases[] = {
        {"binds late", {"--bind-delay-ms", "200"}, "10", 0, kRunning},
        {"never binds", {"--no-bind"}, "0.3", 1, kRunning},
        {"exits at once", {"--exit", "3"}, "10", 3, Exited(3)},
        {"exits 0 at once", {"--exit", "0"}, "10", 3, Exited(0)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Sandbox box(ProbeOptions(c.probeArgs));
        box.Start();
        CommandResult wait = box.Runner({"wait", box.Dir(), "--timeout", c.timeout});
        EXPECT_EQ(wait.status, c.waitExit) << wait.err;
        if (c.after.kind != ProgramStatus::Running) {
            EXPECT_EQ(box.WaitExit(), c.after);
        }
        EXPECT_EQ(box.Status(), c.after);
        EXPECT_TRUE(box.WaitStdout("probe: started pid "));
        EXPECT_EQ(box.Stderr(), "probe: stderr works\n");
    }
}

TEST(SandboxLifecycle, caught_signals_reach_the_program_and_an_uncaught_one_ends_it_by_its_default_action) {
    Sandbox box(ProbeOptions());
    StartReady(box);
    for (int sig : {SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        box.Signal(sig);
        EXPECT_TRUE(box.WaitStdout("signal " + std::to_string(sig) + "\n")) << sig;
        EXPECT_EQ(box.Status(), kRunning) << sig;
    }
    EXPECT_EQ(Ask(box, "ping"), "pong");
    box.Signal(SIGTERM);
    EXPECT_EQ(box.WaitExit(), Killed(SIGTERM));
    CommandResult status = box.Runner({"status", box.Dir()});
    EXPECT_EQ(status.out, "killed 15 (SIGTERM)\n");
    EXPECT_EQ(status.status, 3);

    // A second run in the same directory starts afresh.
    StartReady(box);
    EXPECT_EQ(box.Runner({"status", box.Dir()}).status, 0);
    std::string out = box.Stdout();
    EXPECT_EQ(out.rfind("probe: started pid ", 0), 0u) << out;
    EXPECT_EQ(out.find("signal"), std::string::npos) << "the output of the first run is gone: " << out;
}

TEST(SandboxLifecycle, every_way_of_ending_is_recorded_exactly) {
    struct Case {
        const char *name;
        std::string request;  // to the probe; empty: SIGKILL from outside
        ProgramStatus expected;
    } cases[] = {
        {"exit 7", "exit 7", Exited(7)},
        {"exit 0", "exit 0", Exited(0)},
        {"abort", "raise 6", Killed(SIGABRT)},
        {"SIGKILL", "", Killed(SIGKILL)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Sandbox box(ProbeOptions());
        StartReady(box);
        if (c.request.empty()) {
            box.Signal(SIGKILL);
        } else {
            EXPECT_EQ(Ask(box, c.request), "ok");
        }
        EXPECT_EQ(box.WaitExit(), c.expected);
    }
}

TEST(SandboxLifecycle, stop_kills_the_whole_box_when_the_program_ignores_sigterm) {
    SandboxOptions options;
    options.command = {"/bin/sh", "-c", "trap '' TERM; echo ignoring; while :; do sleep 0.05; done"};
    Sandbox box(options);
    box.Start();
    ASSERT_TRUE(box.WaitStdout("ignoring"));
    EXPECT_EQ(box.Stop(milliseconds(300)), Killed(SIGKILL));
}

TEST(SandboxLifecycle, a_program_that_cannot_be_run_is_a_failed_start) {
    SandboxOptions options;
    options.command = {"no-such-program-anywhere"};
    Sandbox box(options);
    box.Start();
    ProgramStatus status = box.WaitExit();
    EXPECT_EQ(status.kind, ProgramStatus::Failed);
    EXPECT_NE(status.text.find("cannot run no-such-program-anywhere"), std::string::npos) << status.text;
}

TEST(SandboxEnvironment, the_program_gets_the_box_environment_and_only_what_it_was_given) {
    setenv("KVARD_HOST_ONLY", "1", 1);
    SandboxOptions options = ProbeOptions();
    options.zone = "America/Sao_Paulo";
    options.env = {"MTDSIM_FAIL_AFTER=3", "KVARD_MDM_LOCK_MAX_MS=250", "WITH_BLANKS=a b=c"};
    Sandbox box(options);
    StartReady(box, {"KVARD_MSG_FAIL=1", "LD_PRELOAD=/usr/lib/extra.so"});
    unsetenv("KVARD_HOST_ONLY");
    struct Case {
        std::string name, expected;
    } cases[] = {
        {"MTDSIM_FAIL_AFTER", "set 3"},
        {"KVARD_MDM_LOCK_MAX_MS", "set 250"},
        {"WITH_BLANKS", "set a b=c"},
        {"KVARD_MSG_FAIL", "set 1"},
        {"KVARD_HOST_ONLY", "unset"},
        {"TZ", "set America/Sao_Paulo"},
        {"HOME", "set /tmp"},
        {"FAKETIME_TIMESTAMP_FILE", "set /.sandbox/clock"},
        {"FAKETIME_NO_CACHE", "set 1"},
        {"FAKETIME_DONT_FAKE_MONOTONIC", "set 1"},
    };
    for (const auto &c : cases) EXPECT_EQ(Ask(box, "env " + c.name), c.expected) << c.name;
    EXPECT_EQ(Ask(box, "env PATH").rfind("set /.sandbox/bin:", 0), 0u);

    std::string preload = Ask(box, "env LD_PRELOAD");
    ASSERT_EQ(preload.rfind("set ", 0), 0u) << preload;
    std::vector<std::string> libs;
    std::istringstream list(preload.substr(4));
    for (std::string lib; std::getline(list, lib, ':');) libs.push_back(lib);
    ASSERT_GE(libs.size(), 2u);
    size_t next = 0;
#ifdef KVARD_TEST_SANITIZED
    // The probe is instrumented: the runtime must be first, and it runs.
    EXPECT_NE(libs[next++].find("libasan.so"), std::string::npos) << preload;
#endif
    EXPECT_NE(libs[next++].find("/faketime/libfaketime.so.1"), std::string::npos) << preload;
    bool mtdsim = std::ifstream(InstalledPrefix() + "/lib/kvard/libmtdsim.so").good();
    if (mtdsim) {
        EXPECT_EQ(libs[next++], InstalledPrefix() + "/lib/kvard/libmtdsim.so");
        EXPECT_EQ(Ask(box, "env MTDSIM_IMAGE"), "set /.sandbox/mtd.img");
        EXPECT_EQ(Ask(box, "env MTDSIM_ERASESIZE"), "set 131072");
    }
    ASSERT_EQ(libs.size(), next + 1) << preload;
    EXPECT_EQ(libs[next], "/usr/lib/extra.so") << "a preload of --env comes after the box's own";
}

TEST(SandboxCommandLine, bad_requests_are_refused_with_a_message_that_names_the_problem) {
    Sandbox box(ProbeOptions());
    const std::string fresh = box.Path("fresh");
    struct Case {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"init", fresh, "--time", "2024-13-01 00:00:00"}, "bad time '2024-13-01 00:00:00'"},
        {{"init", fresh, "--time", "2024-01-01T00:00:00"}, "expected \"YYYY-MM-DD hh:mm:ss\""},
        {{"init", fresh, "--tz", "Mars/Olympus"}, "unknown time zone 'Mars/Olympus'"},
        {{"init", fresh, "--seed", "bridge"}, "unknown seed 'bridge'"},
        {{"init", fresh, "--mtd-size", "1000000"}, "size 1000000 is not a multiple of the erase size 131072"},
        {{"init", fresh, "--mtd-erasesize", "3000"}, "erase size 3000 is not a multiple of the write size 2048"},
        {{"init", fresh, "--mtd-size", "0"}, "bad value '0' of --mtd-size"},
        {{"init", box.Dir()}, "state directory is not empty"},
        {{"run", fresh}, "not a sandbox state directory"},
        {{"run", box.Dir(), "--env", "NOVALUE"}, "bad --env 'NOVALUE'"},
        {{"start", box.Dir(), "--", "/no/such/program"}, "no such program: /no/such/program"},
        {{"time", box.Dir(), "yesterday"}, "bad time 'yesterday'"},
        {{"proc", box.Dir(), "self/status"}, "/proc/self is the box's real procfs"},
        {{"proc", box.Dir(), "../escape"}, "bad /proc file name '../escape'"},
        {{"signal", box.Dir(), "TERM"}, "is not running (not started)"},
        {{"signal", box.Dir(), "SIGNOPE"}, "unknown signal 'SIGNOPE'"},
        {{"exec", box.Dir(), "--", "true"}, "instance is not running"},
        {{"frobnicate", box.Dir()}, "unknown command 'frobnicate'"},
    };
    for (const auto &c : cases) {
        CommandResult result = box.Runner(c.args);
        EXPECT_EQ(result.status, 2) << c.args[0] << " " << c.message;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
    }
    // A good time is accepted and lands in the clock file as written.
    EXPECT_EQ(box.Runner({"time", box.Dir(), "2024-02-29 23:59:60"}).status, 0);
    EXPECT_EQ(box.ReadFile("sandbox/clock"), "2024-02-29 23:59:60\n");
}

}  // namespace
}  // namespace kvard::test
