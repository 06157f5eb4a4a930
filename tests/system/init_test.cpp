// init/kvard.init run for real in the box: start, status, the supervisor's restarts and its refusals
// to restart, the readiness wait, where the output goes, and stop.
//
// The box's program is a small shell that runs, inside the box, each command line the test writes to a
// fifo, so that the script, its supervisor and kvard live in the box's file system and pid space as
// they would on a router.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

using Clock = std::chrono::steady_clock;

const char *const kDriver =
    "d=/tmp/init-test; while :; do read -r line <$d/cmd || continue; "
    "sh -c \"$line\" >$d/out.new 2>&1; echo $? >$d/rc.new; mv $d/out.new $d/out; mv $d/rc.new $d/rc; done";
const char *const kScript = "/tmp/init-test/kvard.init";

std::string InitDir() { return getenv("KVARD_INIT_DIR"); }

std::string Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

CommandResult Shell(const std::string &command) { return RunShell(command); }  // on the host

size_t Count(const std::string &text, std::string_view what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class Router {
public:
    // SETTINGS: lines of the defaults file beside the ones every test needs.
    explicit Router(const std::string &settings = "") : box_(SandboxOptions{.command = {"/bin/sh", "-c", kDriver}}) {
        std::filesystem::create_directories(box_.Path("tmp/init-test"));
        std::filesystem::create_directories(box_.Path("var/run"));
        std::filesystem::copy_file(InitDir() + "/kvard.init", box_.Path("tmp/init-test/kvard.init"));
        if (mkfifo(box_.Path("tmp/init-test/cmd").c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
        box_.WriteFile("tmp/init-test/default", "KVARD_BIN=" + InstalledPrefix() + "/sbin/kvard\n"
                       "KVARD_STDOUT=/tmp/kvard.out\nKVARD_PIDDIR=/var/run\nKVARD_RESPAWN_DELAY=1\n" + settings);
    }
    Sandbox &Box() { return box_; }

    void Start() { box_.Start({"KVARD_DEFAULTS=/tmp/init-test/default"}); }

    // LINE run by sh in the box; its status and output.
    CommandResult Run(const std::string &line, milliseconds timeout = milliseconds(20000)) {
        box_.RemoveFile("tmp/init-test/rc");
        auto deadline = Clock::now() + timeout;
        int fd;  // no reader yet: the driver is still starting or running the last line's end
        while ((fd = open(box_.Path("tmp/init-test/cmd").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
            if (Clock::now() > deadline) return {-1, "the driver does not read"};
            std::this_thread::sleep_for(milliseconds(5));
        }
        std::string text = line + "\n";
        bool sent = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(fd);
        if (!sent) return {-1, "cannot write to the driver"};
        for (; Clock::now() < deadline; std::this_thread::sleep_for(milliseconds(5)))
            if (auto rc = box_.ReadFile("tmp/init-test/rc"))
                return {atoi(rc->c_str()), box_.ReadFile("tmp/init-test/out").value_or("")};
        return {-1, "no end of: " + line};
    }
    CommandResult Script(const std::string &verb) { return Run(std::string("sh ") + kScript + " " + verb); }
    CommandResult BusyboxScript(const std::string &verb) {
        return Run(std::string("busybox sh ") + kScript + " " + verb);
    }

    std::string Output() const { return box_.ReadFile("tmp/kvard.out").value_or(""); }
    ::testing::AssertionResult WaitOutput(std::string_view text, size_t times = 1,
                                          milliseconds timeout = milliseconds(10000)) const {
        for (auto deadline = Clock::now() + timeout; Count(Output(), text) < times;
             std::this_thread::sleep_for(milliseconds(10)))
            if (Clock::now() >= deadline)
                return ::testing::AssertionFailure() << "output has " << Count(Output(), text) << " times \"" << text
                                                     << "\", not " << times << ":\n" << Output();
        return ::testing::AssertionSuccess();
    }
    std::string KvardPid() const { return Pid("var/run/kvard.pid"); }
    std::string SupervisorPid() const { return Pid("var/run/kvard-supervisor.pid"); }

    // Until a heartbeat is answered: kvard may still be starting, and a datagram sent before the bind is lost.
    ::testing::AssertionResult Answers(milliseconds timeout = milliseconds(10000)) {
        for (auto deadline = Clock::now() + timeout; Clock::now() < deadline;)
            if (box_.Send(kHeartbeat, {}, milliseconds(200)) == 0) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no heartbeat answered; output:\n" << Output();
    }
    bool Alive(const std::string &pid) { return Run("kill -0 " + pid).status == 0; }

private:
    std::string Pid(const char *file) const {
        std::string text = box_.ReadFile(file).value_or("");
        return text.substr(0, text.find('\n'));
    }
    Sandbox box_;
};

TEST(InitScript, start_kill_restart_and_stop) {
    Router r;
    // A PPP link: a DHCP link's connection time is not kept on flash, so its figure would not survive.
    r.Box().WriteObject("1400", {{"wanType", "PPPoE"}});
    r.Box().SetNetDev({{"ppp0.2", 1000, 1000}});
    r.Start();
    CommandResult status = r.Script("status");
    EXPECT_EQ(status.status, 3) << status.out;
    CommandResult start = r.Script("start");
    ASSERT_EQ(start.status, 0) << start.out;
    ASSERT_TRUE(r.Answers());
    status = r.Script("status");
    EXPECT_EQ(status.status, 0) << status.out;
    EXPECT_EQ(r.BusyboxScript("status").status, 0);
    start = r.Script("start");
    EXPECT_EQ(start.status, 0) << "a second start is no error";
    EXPECT_NE(start.out.find("already running"), std::string::npos) << start.out;
    EXPECT_EQ(Count(r.Output(), "started kvard, pid"), 1u) << r.Output();

    // A minute of traffic on flash, then kvard killed outright.
    r.Box().SetNetDev({{"ppp0.2", 5001000, 301000}});
    r.Box().SetTime("2024-01-15 10:01:00");
    ASSERT_EQ(r.Box().Send(kTimeWake), 1);
    auto figures = r.Box().ReadObject("2889");
    ASSERT_TRUE(figures && (*figures)["today_total"] == "5.30" && (*figures)["today_conntime"] == "00:01")
        << "no traffic published";
    std::string first = r.KvardPid(), supervisor = r.SupervisorPid();
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(r.Run("kill -9 " + first).status, 0);
    ASSERT_TRUE(r.WaitOutput("started kvard, pid", 2));
    ASSERT_TRUE(r.Answers());
    EXPECT_NE(r.KvardPid(), first);
    EXPECT_EQ(r.SupervisorPid(), supervisor);
    EXPECT_EQ(r.Box().ReadObject("2889"), figures) << "the figures rebuilt from flash";
    EXPECT_EQ(Count(r.Output(), "operationMode = RT"), 2u) << r.Output();
    EXPECT_NE(r.Output().find("kvard was killed by signal 9 after 0 s; restarting in 1 s"), std::string::npos)
        << r.Output();

    // restart: a new supervisor and a new kvard.
    std::string second = r.KvardPid();
    CommandResult restart = r.Script("restart");
    EXPECT_EQ(restart.status, 0) << restart.out;
    ASSERT_TRUE(r.Answers());
    EXPECT_NE(r.SupervisorPid(), supervisor);
    EXPECT_NE(r.KvardPid(), second);
    EXPECT_FALSE(r.Alive(second));

    // stop, with busybox's shell this time: both processes and both pid files gone.
    std::string third = r.KvardPid();
    supervisor = r.SupervisorPid();
    CommandResult stop = r.BusyboxScript("stop");
    EXPECT_EQ(stop.status, 0) << stop.out;
    EXPECT_FALSE(r.Box().ReadFile("var/run/kvard.pid"));
    EXPECT_FALSE(r.Box().ReadFile("var/run/kvard-supervisor.pid"));
    EXPECT_FALSE(r.Alive(third));
    EXPECT_FALSE(r.Alive(supervisor));
    EXPECT_EQ(r.Box().Send(kHeartbeat, {}, milliseconds(300)), std::nullopt);
    EXPECT_TRUE(r.WaitOutput("stopped kvard, pid " + third + " (status 143)"));
    EXPECT_EQ(r.Script("status").status, 3);
    EXPECT_EQ(r.Script("stop").status, 0) << "stopping what is not running is no error";
}

// Deaths in quick succession wait ever longer; a long run, by the uptime, brings the first delay back.
TEST(InitScript, back_off_doubles_and_a_long_run_resets_it) {
    Router r;
    r.Start();
    ASSERT_EQ(r.Script("start").status, 0);
    struct { double uptime; const char *line; } rows[] = {
        {100, "kvard was killed by signal 9 after 0 s; restarting in 1 s\n"},
        {100, "kvard was killed by signal 9 after 0 s; restarting in 2 s\n"},
        {1000, "kvard was killed by signal 9 after 900 s; restarting in 1 s\n"},
    };
    size_t starts = 1;
    for (const auto &row : rows) {
        ASSERT_TRUE(r.WaitOutput("started kvard, pid", starts));
        r.Box().SetUptime(row.uptime);
        EXPECT_EQ(r.Run("kill -9 " + r.KvardPid()).status, 0);
        EXPECT_TRUE(r.WaitOutput(row.line)) << row.line;
        ++starts;
    }
    EXPECT_TRUE(r.WaitOutput("started kvard, pid", starts));
    EXPECT_TRUE(r.Answers());
    EXPECT_EQ(r.Script("stop").status, 0);
}

// What kvard's exit status makes the supervisor do; kvard exits at once in every row.
TEST(InitScript, status_0_ends_the_loop_status_1_is_restarted_ever_later) {
    struct Row {
        const char *what, *settings = "", *mode = nullptr, *removed = nullptr;
        int starts;           // within the wait below
        const char *line;     // the supervisor's note
    } rows[] = {
        {.what = "not in router mode", .mode = "AP", .starts = 1,
         .line = "kvard exited with status 0 (not in router mode, or its core could not start); not restarting"},
        {.what = "no settings", .removed = "2888", .starts = 1, .line = "not restarting"},
        {.what = "a path kvard refuses", .settings = "KVARD_CONFIG=" "/tmp/" "0123456789012345678901234567890123456789"
                                                     "012345678901234567890123456789012345678901234567890123456789\n",
         .starts = 1, .line = "not restarting"},
        {.what = "messaging fails", .settings = "KVARD_MSG_FAIL=7\n", .starts = 3,
         .line = "kvard exited with status 1 after 0 s; restarting in 4 s"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        Router r(row.settings);
        if (row.mode) r.Box().WriteObject("2700", {{"operationMode", row.mode}});
        if (row.removed) r.Box().RemoveFile("var/lib/kvard/mdm/" + std::string(row.removed));
        r.Start();
        CommandResult start = r.Script("start");
        EXPECT_EQ(start.status, 0) << start.out;
        // Delays 1 s, 2 s, 4 s: the third start comes at about 3 s, the fourth not before 7 s.
        EXPECT_TRUE(r.WaitOutput(row.line));
        EXPECT_TRUE(r.WaitOutput("started kvard, pid", static_cast<size_t>(row.starts)));
        std::this_thread::sleep_for(milliseconds(row.starts == 1 ? 2500 : 1000));
        EXPECT_EQ(Count(r.Output(), "started kvard, pid"), static_cast<size_t>(row.starts)) << r.Output();
        if (row.starts == 1) {
            EXPECT_TRUE(r.WaitOutput("kvard supervisor: ended"));
            EXPECT_EQ(r.Script("status").status, 3) << "the loop has ended";
            EXPECT_FALSE(r.Box().ReadFile("var/run/kvard-supervisor.pid"));
        } else {
            EXPECT_NE(r.Output().find("restarting in 1 s\n"), std::string::npos) << r.Output();
            EXPECT_NE(r.Output().find("restarting in 2 s\n"), std::string::npos) << r.Output();
            EXPECT_EQ(r.Script("status").status, 0) << "waiting to restart counts as running";
            auto begun = Clock::now();
            EXPECT_EQ(r.Script("stop").status, 0);
            EXPECT_LT(Clock::now() - begun, milliseconds(2000)) << "a stop during the back-off waits for none of it";
            EXPECT_EQ(r.Script("status").status, 3);
        }
        EXPECT_FALSE(r.Box().ReadFile("var/run/kvard.pid"));
    }
}

TEST(InitScript, waits_for_the_data_model_at_most_the_timeout) {
    struct Row { const char *what; int timeout; bool ready; const char *line; } rows[] = {
        {"ready later", 30, true, "kvard supervisor: data model ready after "},
        {"never ready", 1, false, "kvard supervisor: data model not ready after 1 s (test -e /tmp/ready); "
                                  "starting kvard anyway"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Router r("KVARD_READY=\"test -e /tmp/ready\"\nKVARD_READY_TIMEOUT=" + std::to_string(row.timeout) + "\n");
        r.Start();
        ASSERT_EQ(r.Script("start").status, 0);
        EXPECT_TRUE(r.WaitOutput("kvard supervisor: waiting for the data model: test -e /tmp/ready"));
        if (row.ready) {
            std::this_thread::sleep_for(milliseconds(1500));
            EXPECT_EQ(Count(r.Output(), "started kvard"), 0u) << r.Output();
            CommandResult status = r.Script("status");
            EXPECT_EQ(status.status, 0);
            EXPECT_NE(status.out.find("starting or waiting"), std::string::npos) << status.out;
            r.Box().WriteFile("tmp/ready", "");
        }
        EXPECT_TRUE(r.WaitOutput(row.line));
        EXPECT_TRUE(r.Answers());
        EXPECT_EQ(r.Script("stop").status, 0);
    }
}

// A kvard that does not end on SIGTERM is killed after KVARD_STOP_TIMEOUT, its supervisor gone first.
TEST(InitScript, stop_kills_what_sigterm_does_not_end) {
    Router r("KVARD_BIN=/tmp/init-test/stubborn\nKVARD_STOP_TIMEOUT=1\n");
    r.Box().WriteFile("tmp/init-test/stubborn", "#!/bin/sh\ntrap '' TERM\necho stubborn\nexec sleep 1000\n");
    chmod(r.Box().Path("tmp/init-test/stubborn").c_str(), 0755);
    r.Start();
    ASSERT_EQ(r.Script("start").status, 0);
    ASSERT_TRUE(r.WaitOutput("stubborn\n"));
    std::string pid = r.KvardPid();
    auto begun = Clock::now();
    EXPECT_EQ(r.Script("stop").status, 0);
    EXPECT_GE(Clock::now() - begun, milliseconds(1000));
    EXPECT_LT(Clock::now() - begun, milliseconds(4000));
    EXPECT_FALSE(r.Alive(pid));
    EXPECT_TRUE(r.WaitOutput("stopped kvard, pid " + pid + " (status 137)"));
    EXPECT_FALSE(r.Box().ReadFile("var/run/kvard-supervisor.pid"));
}

// start's refusals, a pid file left behind, and output through logger.
TEST(InitScript, refusals_stale_pid_files_and_logger) {
    struct Row {
        const char *what, *settings;
        int start;  // start's status
        const char *said;
    } rows[] = {
        {"program missing", "KVARD_BIN=/usr/sbin/no-kvard\n", 5, "/usr/sbin/no-kvard is not installed"},
        {"output not writable", "KVARD_STDOUT=/usr/kvard.out\n", 1, "the supervisor did not start"},
        {"pid directory missing", "KVARD_PIDDIR=/var/none\n", 1, "the supervisor did not start"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        Router r(row.settings);
        r.Start();
        CommandResult start = r.Script("start");
        EXPECT_EQ(start.status, row.start);
        EXPECT_NE(start.out.find(row.said), std::string::npos) << start.out;
        EXPECT_EQ(r.Script("status").status, 3);
        EXPECT_EQ(r.Box().Send(kHeartbeat, {}, milliseconds(300)), std::nullopt);
    }

    Router r("KVARD_STDOUT=logger\nKVARD_LOGGER_TAG=meter\n");
    r.Box().WriteFile("var/run/kvard-supervisor.pid", "30000\n");  // no such process in the box
    r.Box().WriteFile("sandbox/bin/logger", "#!/bin/sh\necho \"$@\" >/tmp/logger.args\nexec cat >>/tmp/logger.out\n");
    chmod(r.Box().Path("sandbox/bin/logger").c_str(), 0755);
    r.Start();
    CommandResult status = r.Script("status");
    EXPECT_EQ(status.status, 1) << status.out;
    ASSERT_EQ(r.Script("start").status, 0);
    ASSERT_TRUE(r.Answers());
    EXPECT_TRUE(r.Box().WaitText("tmp/logger.out", "kvard supervisor: started kvard, pid", milliseconds(5000)));
    EXPECT_TRUE(r.Box().WaitText("tmp/logger.out", "operationMode = RT", milliseconds(5000)));
    EXPECT_EQ(r.Box().ReadFile("tmp/logger.args"), "-t meter\n");
    EXPECT_EQ(r.Script("stop").status, 0);
    EXPECT_TRUE(r.Box().WaitText("tmp/logger.out", "kvard supervisor: ended", milliseconds(5000)));
}

TEST(InitFiles, scripts_parse_in_sh_and_busybox_sh) {
    for (const char *shell : {"sh", "busybox sh"})
        for (const char *file : {"kvard.init", "kvard.procd", "kvard.default"}) {
            CommandResult check = Shell(std::string(shell) + " -n " + InitDir() + "/" + file);
            EXPECT_EQ(check.status, 0) << shell << " -n " << file << ": " << check.out;
        }
    std::filesystem::path broken = std::filesystem::temp_directory_path() / "kvard-init-broken.sh";
    std::ofstream(broken) << Slurp(InitDir() + "/kvard.init") << "\nif true; then\n";
    EXPECT_NE(Shell("busybox sh -n " + broken.string()).status, 0) << "the check sees a broken script";
    std::filesystem::remove(broken);
}

// systemd-analyze verify checks that ExecStart's program exists: it checks a copy that runs the installed kvard.
TEST(InitFiles, systemd_unit_verifies_without_a_word) {
    std::string unit = Slurp(InitDir() + "/kvard.service");
    const std::string exec = "\nExecStart=/usr/sbin/kvard $KVARD_CONFIG\n";
    size_t at = unit.find(exec);
    ASSERT_NE(at, std::string::npos);
    std::filesystem::path dir = std::filesystem::temp_directory_path() / ("kvard-unit-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    struct { const char *what; std::string unit; bool clean; } rows[] = {
        {"the unit", unit.replace(at, exec.size(), "\nExecStart=" + InstalledPrefix() + "/sbin/kvard $KVARD_CONFIG\n"),
         true},
        {"a bad kill mode", std::string(unit).replace(unit.find("KillMode=process"), 16, "KillMode=proces"), false},
    };
    for (const auto &row : rows) {
        std::ofstream((dir / "kvard.service").string()) << row.unit;
        CommandResult verify = Shell("systemd-analyze verify --man=no " + (dir / "kvard.service").string());
        EXPECT_EQ(verify.status == 0 && verify.out.empty(), row.clean) << row.what << ": " << verify.out;
    }
    std::filesystem::remove_all(dir);
}

// The procd script's start_service with procd's calls recorded, for a few settings files.
TEST(InitFiles, procd_instance_follows_the_settings) {
    struct { const char *what, *settings, *calls; } rows[] = {
        {"no settings file", nullptr,
         "open_instance\nset_param command /usr/sbin/kvard\nset_param respawn 60 5 5\nset_param stdout 0\n"
         "set_param stderr 0\nclose_instance\n"},
        {"argument, zone, logger, respawn",
         "KVARD_CONFIG=/tmp/k.conf\nTZ=CET-1CEST\nKVARD_STDOUT=logger\nKVARD_RESPAWN_RETRY=3\n",
         "open_instance\nset_param command /usr/sbin/kvard\nappend_param command /tmp/k.conf\n"
         "set_param env TZ=CET-1CEST\nset_param respawn 60 5 3\nset_param stdout 1\nset_param stderr 1\n"
         "close_instance\n"},
        {"a file for output is dropped", "KVARD_STDOUT=/tmp/kvard.out\n",
         "open_instance\nset_param command /usr/sbin/kvard\nset_param respawn 60 5 5\nset_param stdout 0\n"
         "set_param stderr 0\nclose_instance\n"},
    };
    std::string settings = std::filesystem::temp_directory_path() / ("kvard-procd-" + std::to_string(getpid()));
    for (const auto &row : rows) {
        std::filesystem::remove(settings);
        if (row.settings) std::ofstream(settings) << row.settings;
        for (const char *shell : {"sh", "busybox sh"}) {
            CommandResult run = Shell("env -u TZ KVARD_DEFAULTS=" + settings + " " + shell + " -c '"
                                      "procd_open_instance() { echo open_instance; }; "
                                      "procd_close_instance() { echo close_instance; }; "
                                      "procd_set_param() { echo set_param \"$*\"; }; "
                                      "procd_append_param() { echo append_param \"$*\"; }; "
                                      ". " + InitDir() + "/kvard.procd && start_service'");
            EXPECT_EQ(run.status, 0) << row.what << ", " << shell;
            EXPECT_EQ(run.out, row.calls) << row.what << ", " << shell;
        }
    }
    std::filesystem::remove(settings);
}

// The installed tree: the scripts where the packages and the firmware builds take them from.
TEST(InitFiles, installed_where_init_systems_look) {
    std::string prefix = InstalledPrefix(), etc = getenv("KVARD_INIT_ETC") ? getenv("KVARD_INIT_ETC") : "";
    struct { std::string path, source; bool executable; } rows[] = {
        {prefix + "/lib/systemd/system/kvard.service", "kvard.service", false},
        {prefix + "/share/kvard/openwrt/etc/init.d/kvard", "kvard.procd", true},
        {etc.empty() ? "" : prefix + "/" + etc + "/init.d/kvard", "kvard.init", true},
        {etc.empty() ? "" : prefix + "/" + etc + "/default/kvard", "kvard.default", false},
    };
    for (const auto &row : rows) {
        if (row.path.empty()) continue;  // /etc itself: not in the staged tree
        EXPECT_EQ(Slurp(row.path), Slurp(InitDir() + "/" + row.source)) << row.path;
        EXPECT_EQ(access(row.path.c_str(), X_OK) == 0, row.executable) << row.path;
    }
}

}  // namespace
}  // namespace kvard::test
