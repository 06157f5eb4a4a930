// The command line of the installed kvard-sandbox: help and version without
// side effects, options at their edges, the state directory from -C and the
// environment, relative times, and exec for a user without root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Result {
    int status = -1;
    std::string out, err;
};

std::string Prefix() {
    const char *prefix = getenv("KVARD_PREFIX");
    if (!prefix || !*prefix) throw std::runtime_error("KVARD_PREFIX is not set");
    return prefix;
}

std::string Slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A fresh directory for one test, removed at the end unless the test failed.
class TempDir {
public:
    TempDir() {
        path_ = "/dev/shm/kvard-sandbox-cli-XXXXXX";
        if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        if (!::testing::Test::HasFailure()) std::filesystem::remove_all(path_);
    }
    const std::string &Path() const { return path_; }
    std::string Path(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Runs the runner with ARGS in directory CWD, the environment ENV added (an
// entry "NAME=" removes NAME), PREFIX_COMMAND before it (such as setpriv).
Result Runner(const std::vector<std::string> &args, const std::string &cwd = "/",
              const std::vector<std::string> &env = {}, const std::vector<std::string> &prefixCommand = {}) {
    TempDir capture;
    std::vector<std::string> argv = prefixCommand;
    argv.push_back(Prefix() + "/bin/kvard-sandbox");
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char *> pointers;
    for (auto &arg : argv) pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    std::string outPath = capture.Path("out"), errPath = capture.Path("err");
    pid_t pid = fork();
    if (pid == 0) {
        unsetenv("KVARD_SANDBOX_DIR");
        for (const auto &entry : env) {
            size_t eq = entry.find('=');
            if (eq + 1 == entry.size())
                unsetenv(entry.substr(0, eq).c_str());
            else
                setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
        }
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || chdir(cwd.c_str()) != 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Result result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = Slurp(outPath);
    result.err = Slurp(errPath);
    return result;
}

std::string Describe(const std::vector<std::string> &args, const Result &result) {
    std::string text = "kvard-sandbox";
    for (const auto &arg : args) text += " '" + arg + "'";
    return text + " -> " + std::to_string(result.status) + "\nstdout: " + result.out + "stderr: " + result.err;
}

std::string Clock(const std::string &dir) {
    std::string text = Slurp(dir + "/sandbox/clock");
    return text.substr(0, text.find('\n'));
}

// The clock text of T in ZONE, worked out here with the C library.
std::string LocalText(time_t t, const char *zone) {
    std::string saved = getenv("TZ") ? getenv("TZ") : "";
    setenv("TZ", zone, 1);
    tzset();
    struct tm local;
    localtime_r(&t, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    unsetenv("TZ");
    tzset();
    return text;
}

void Init(const std::string &dir, const std::string &time, const std::string &zone) {
    Result result = Runner({"init", dir, "--time", time, "--tz", zone, "--pids", "64"});
    ASSERT_EQ(result.status, 0) << result.err;
}

const char *const kCommands[] = {"init", "run",  "start", "wait",   "status",  "signal", "stop",
                                 "exec", "time", "proc",  "netdev", "advance", "replay", "web"};

TEST(SandboxCli, help_and_version_of_every_command_touch_nothing) {
    TempDir work;
    const std::string dir = work.Path("box");
    for (const char *command : kCommands) {
        std::vector<std::vector<std::string>> helpLines = {
            {command, dir, "--help"}, {command, "--help", dir}, {command, "-h"}, {"help", command}, {command, "--help"}};
        for (const auto &args : helpLines) {
            Result result = Runner(args, work.Path());
            EXPECT_EQ(result.status, 0) << Describe(args, result);
            EXPECT_EQ(result.out.rfind(std::string("usage: kvard-sandbox ") + command, 0), 0u) << Describe(args, result);
            EXPECT_EQ(result.err, "") << Describe(args, result);
        }
        for (const auto &args : std::vector<std::vector<std::string>>{{command, dir, "--version"}, {command, "-V"}}) {
            Result result = Runner(args, work.Path(), {"KVARD_SANDBOX_DIR=" + work.Path("env")});
            EXPECT_EQ(result.status, 0) << Describe(args, result);
            EXPECT_EQ(result.out.rfind("kvard-sandbox ", 0), 0u) << Describe(args, result);
            EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << Describe(args, result);
        }
    }
    for (const std::vector<std::string> &args : {std::vector<std::string>{"--help"}, {"help"}, {"-h"}}) {
        Result result = Runner(args, work.Path());
        EXPECT_EQ(result.status, 0) << Describe(args, result);
        for (const char *command : kCommands)
            EXPECT_NE(result.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
    }
    EXPECT_EQ(Runner({"--version"}).out, Runner({"status", "-V"}).out);
    // No directory named after the state directory, nor "--help" in the working directory.
    EXPECT_TRUE(std::filesystem::is_empty(work.Path())) << work.Path();
    EXPECT_FALSE(std::filesystem::exists(work.Path("env")));
    Result none = Runner({});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.out, "");
    EXPECT_NE(none.err.find("usage: kvard-sandbox"), std::string::npos);
}

TEST(SandboxCli, bad_command_lines_name_the_fault_exit_2_and_change_nothing) {
    TempDir work;
    const std::string dir = work.Path("box"), fresh = work.Path("fresh");
    Init(dir, "2024-01-15 10:00:00", "UTC");
    struct Row {
        std::vector<std::string> args;
        std::string message;
    } rows[] = {
        {{"init", fresh, "--bogus"}, "init: unknown option '--bogus'"},
        {{"init", fresh, "-x"}, "init: unknown option '-x'"},
        {{"init", fresh, "--time"}, "init: option '--time' needs a value"},
        {{"init", fresh, "--no-mtd=1"}, "init: option '--no-mtd' takes no value"},
        {{"init", fresh, "--time", "+1y"}, "bad time '+1y'"},
        {{"init", fresh, "--time", "2023-02-29 00:00:00"}, "bad time '2023-02-29 00:00:00'"},
        {{"init", fresh, "--tz", "Mars/Olympus"}, "unknown time zone 'Mars/Olympus'"},
        {{"init", fresh, "--pids", "0"}, "bad value '0' of --pids"},
        {{"init", fresh, "other"}, "unexpected operand 'other'"},
        {{"init", fresh, "--", "other"}, "unexpected operand 'other'"},
        {{"init"}, "no state directory: give DIR, -C DIR or set KVARD_SANDBOX_DIR"},
        {{"init", "-C"}, "option '-C' needs a value"},
        {{"init", "--dir="}, "empty value of --dir"},
        {{"wait", dir, "--timeout"}, "wait: option '--timeout' needs a value"},
        {{"wait", dir, "--timeout=-1"}, "bad value '-1' of --timeout"},
        {{"wait", dir, "--port=65536"}, "bad value '65536' of --port"},
        {{"stop", dir, "--timeout=abc"}, "bad value 'abc' of --timeout"},
        {{"stop", dir, "NOSUCH"}, "unknown signal 'NOSUCH'"},
        {{"stop", dir, "TERM", "KILL"}, "unexpected operand 'KILL'"},
        {{"run", dir, "--quiet=1"}, "run: option '--quiet' takes no value"},
        {{"run", dir, "--wait"}, "run: unknown option '--wait'"},
        {{"run", dir, "--env", "=x"}, "bad value '=x' of --env"},
        {{"run", dir, "--bind", "/tmp:relative"}, "bad value '/tmp:relative' of --bind"},
        {{"run", dir, "--"}, "no command after --"},
        {{"start", dir, "--quiet"}, "start: unknown option '--quiet'"},
        {{"exec", dir, "tmctl"}, "exec: expected -- COMMAND ARGS..."},
        {{"exec", dir, "--"}, "no command after --"},
        {{"exec", dir, "--", "true"}, "instance is not running"},
        {{"status", dir, "extra"}, "unexpected operand 'extra'"},
        {{"status", work.Path("nothing")}, "not a sandbox state directory"},
        {{"signal", dir}, "signal: missing SIGNAL"},
        {{"signal", dir, "TERM"}, "is not running"},
        {{"time", dir}, "time: missing TIME"},
        {{"time", dir, "2024-02-30 10:00:00"}, "bad time '2024-02-30 10:00:00'"},
        {{"time", dir, "+15min"}, "bad time '+15min'"},
        {{"time", dir, "-3654d"}, "bad time '-3654d'"},
        {{"time", dir, "-100y"}, "bad time '-100y'"},
        {{"time", dir, "--", "-100000d"}, "bad time '-100000d'"},
        {{"time", dir, "tomorrow"}, "bad time 'tomorrow'"},
        {{"time", dir, "+1h", "+2h"}, "unexpected operand '+2h'"},
        {{"netdev", dir, "eth0", "1"}, "netdev: missing NAME RX TX"},
        {{"netdev", dir, "eth0", "1", "x"}, "bad value 'x' of TX of eth0"},
        {{"proc", dir}, "proc: missing FILE"},
        {{"web", dir}, "instance is not running"},
        {{"web", dir, "--port", "0"}, "bad value '0' of --port"},
        {{"web", dir, "--port", "70000"}, "bad value '70000' of --port"},
        {{"web", dir, "extra"}, "unexpected operand 'extra'"},
        {{"bogus", dir}, "unknown command 'bogus'"},
        {{"help", "bogus"}, "unknown command 'bogus'"},
        {{"--bogus", "status", dir}, "unknown option '--bogus'"},
    };
    for (const auto &row : rows) {
        Result result = Runner(row.args, work.Path());
        EXPECT_EQ(result.status, 2) << Describe(row.args, result);
        EXPECT_EQ(result.out, "") << Describe(row.args, result);
        EXPECT_NE(result.err.find("kvard-sandbox: "), std::string::npos) << Describe(row.args, result);
        EXPECT_NE(result.err.find(row.message), std::string::npos) << Describe(row.args, result);
    }
    EXPECT_FALSE(std::filesystem::exists(fresh));
    EXPECT_EQ(Clock(dir), "2024-01-15 10:00:00");
}

TEST(SandboxCli, options_in_both_forms_anywhere_and_relative_times) {
    TempDir work;
    const std::string dir = work.Path("box");
    // --name=value, operands after options, and a relative start from the host's now.
    time_t before = time(nullptr);
    Result init = Runner({"init", "--time=+15m", "--tz=Europe/Berlin", "--pids=8", dir});
    time_t after = time(nullptr);
    ASSERT_EQ(init.status, 0) << init.err;
    std::string clock = Clock(dir);
    EXPECT_GE(clock, LocalText(before + 900, "Europe/Berlin"));
    EXPECT_LE(clock, LocalText(after + 900, "Europe/Berlin"));
    EXPECT_EQ(Slurp(dir + "/sandbox/settings").find("tz=Europe/Berlin\n") != std::string::npos, true);

    struct Row {
        std::vector<std::string> args;
        std::string clock;
    } rows[] = {
        {{"time", dir, "2024-03-31 01:30:00"}, "2024-03-31 01:30:00"},
        {{"time", dir, "+1h"}, "2024-03-31 03:30:00"},          // over the spring-forward gap: one real hour
        {{"time", dir, "-1h"}, "2024-03-31 01:30:00"},          // a negative duration is an operand
        {{"time", dir, "+90s"}, "2024-03-31 01:31:30"},
        {{"time", dir, "--", "-90s"}, "2024-03-31 01:30:00"},
        {{"time", "-C", dir, "+1h30m"}, "2024-03-31 04:00:00"},
        {{"time", "--dir=" + dir, "-2h30m"}, "2024-03-31 00:30:00"},
        {{"time", dir, "+1w"}, "2024-04-07 01:30:00"},          // real seconds: summer time shows an hour more
        {{"time", dir, "2024-10-27 01:30:00"}, "2024-10-27 01:30:00"},
        {{"time", dir, "+2h"}, "2024-10-27 02:30:00"},          // autumn: the wall clock shows 02:30 twice
        {{"time", dir, "+1h"}, "2024-10-27 03:30:00"},
        {{"time", dir, "@1711846799"}, "2024-03-31 01:59:59"},
        {{"time", dir, "2024-03-31 02:30:00"}, "2024-03-31 02:30:00"},  // a clock text stays as written
        {{"-C", dir, "time", "@0"}, "1970-01-01 01:00:00"},
    };
    for (const auto &row : rows) {
        Result result = Runner(row.args, work.Path());
        EXPECT_EQ(result.status, 0) << Describe(row.args, result);
        EXPECT_EQ(Clock(dir), row.clock) << Describe(row.args, result);
    }
    // Before 1970 is refused and the clock stays; now is the host's.
    Result negative = Runner({"time", dir, "-1s"});
    EXPECT_EQ(negative.status, 2);
    EXPECT_NE(negative.err.find("bad time '-1s' (before 1970)"), std::string::npos) << negative.err;
    EXPECT_EQ(Clock(dir), "1970-01-01 01:00:00");
    before = time(nullptr);
    Result now = Runner({"time", dir, "now"});
    after = time(nullptr);
    EXPECT_EQ(now.status, 0) << now.err;
    EXPECT_GE(Clock(dir), LocalText(before, "Europe/Berlin"));
    EXPECT_LE(Clock(dir), LocalText(after, "Europe/Berlin"));

    // Seconds with a fraction and long timeouts in both forms; nothing runs, so stop and wait say so.
    struct { std::vector<std::string> args; int status; std::string out; } waits[] = {
        {{"stop", dir, "--timeout=500"}, 0, "not started\n"},
        {{"stop", "--timeout", "0.5", dir, "KILL"}, 0, "not started\n"},
        {{"stop", dir, "9"}, 0, "not started\n"},
        {{"status", dir}, 3, "not started\n"},
        {{"wait", dir, "--timeout=500", "--port", "53"}, 3, ""},
    };
    for (const auto &row : waits) {
        Result result = Runner(row.args);
        EXPECT_EQ(result.status, row.status) << Describe(row.args, result);
        EXPECT_EQ(result.out, row.out) << Describe(row.args, result);
    }
}

TEST(SandboxCli, the_state_directory_from_the_environment_and_from_dash_C) {
    TempDir work;
    const std::string dir = work.Path("box"), other = work.Path("other");
    const std::vector<std::string> env = {"KVARD_SANDBOX_DIR=" + dir};
    Result init = Runner({"init", "--time", "2024-01-15 10:00:00", "--pids", "8"}, "/", env);
    ASSERT_EQ(init.status, 0) << init.err;
    ASSERT_TRUE(std::filesystem::exists(dir + "/sandbox/settings"));
    Init(other, "2030-01-01 00:00:00", "UTC");
    struct Row {
        std::vector<std::string> args;
        std::vector<std::string> env;
        int status;
        std::string out;
    } rows[] = {
        {{"status"}, env, 3, "not started\n"},
        {{"time", "+90s"}, env, 0, ""},
        {{"stop", "TERM"}, env, 0, "not started\n"},          // TERM is no directory: the signal
        {{"stop", other}, env, 0, "not started\n"},           // an existing directory: DIR
        {{"netdev", "eth0.1", "5", "7"}, env, 0, ""},
        {{"time", other, "+1h"}, env, 0, ""},                 // the operand wins over the environment
        {{"-C", other, "time", "+1h"}, env, 0, ""},           // and so does -C
        {{"time", "--dir", other, "+1h"}, {}, 0, ""},
    };
    for (const auto &row : rows) {
        Result result = Runner(row.args, work.Path(), row.env);
        EXPECT_EQ(result.status, row.status) << Describe(row.args, result);
        EXPECT_EQ(result.out, row.out) << Describe(row.args, result);
    }
    EXPECT_EQ(Clock(dir), "2024-01-15 10:01:30");
    EXPECT_EQ(Clock(other), "2030-01-01 03:00:00");
    EXPECT_NE(Slurp(dir + "/proc/net/dev").find("eth0.1:       5 "), std::string::npos);
    // -C and a DIR operand together leave one operand too many.
    Result both = Runner({"status", "-C", other, dir}, "/", env);
    EXPECT_EQ(both.status, 2);
    EXPECT_NE(both.err.find("unexpected operand"), std::string::npos) << both.err;
}

// The program's end as run's exit status and as status tells it, whether the
// helper could start it or not.
TEST(SandboxCli, run_exit_statuses_and_programs_that_cannot_start) {
    TempDir work;
    const std::string dir = work.Path("box");
    Init(dir, "2024-01-15 10:00:00", "UTC");
    std::ofstream(work.Path("plain")) << "#!/bin/sh\n";
    std::ofstream(work.Path("garbage")) << "\x7f" "ELF garbage";
    ASSERT_EQ(chmod(work.Path("garbage").c_str(), 0755), 0);
    struct Row {
        std::vector<std::string> command;
        int status;
        std::string described;
    } rows[] = {
        {{"sh", "-c", "exit 7"}, 7, "exited 7\n"},
        {{"sh", "-c", "kill -USR1 $$"}, 128 + 10, "killed 10 (SIGUSR1)\n"},
        {{"true"}, 0, "exited 0\n"},
        {{"nonexistent-command"}, 125, "failed: cannot run nonexistent-command: No such file or directory\n"},
        {{work.Path("plain")}, 125, "failed: cannot run " + work.Path("plain") + ": Permission denied\n"},
        {{work.Path("garbage")}, 125, "failed: cannot run " + work.Path("garbage") + ": Exec format error\n"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> args = {"run", dir, "--quiet", "--"};
        args.insert(args.end(), row.command.begin(), row.command.end());
        Result run = Runner(args);
        EXPECT_EQ(run.status, row.status) << Describe(args, run);
        Result status = Runner({"status", "-C", dir});
        EXPECT_EQ(status.status, 3);
        EXPECT_EQ(status.out, row.described) << Describe(args, run);
    }
    Result start = Runner({"start", dir, "--", "nonexistent-command"});
    EXPECT_EQ(start.status, 2);
    EXPECT_NE(start.err.find("cannot run nonexistent-command"), std::string::npos) << start.err;
}

// A user without root starts a box in a directory of its own and enters its
// network: the runner has to join the box's user namespace first.
TEST(SandboxCli, exec_for_the_user_without_root_who_started_the_box) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as uid 65534";
    TempDir work;
    ASSERT_EQ(chown(work.Path().c_str(), 65534, 65534), 0);
    ASSERT_EQ(chmod(work.Path().c_str(), 0755), 0);
    const std::string dir = work.Path("box");
    const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    auto as = [&](const std::vector<std::string> &args) { return Runner(args, "/", {}, nobody); };
    ASSERT_EQ(as({"init", dir, "--pids", "64"}).status, 0);
    Result start = as({"start", dir, "--wait", "--timeout", "20"});
    ASSERT_EQ(start.status, 0) << Describe({"start"}, start) << Slurp(dir + "/stderr");
    struct stat st;
    ASSERT_EQ(stat((dir + "/sandbox/run/pid").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u);
    // The daemon's control port (0x58C4) in the namespace's UDP table, the store, and a reply over it.
    Result table = as({"exec", dir, "--", "sh", "-c", "cat /proc/self/net/udp; echo \"$KVARD_MDM_DIR\""});
    EXPECT_EQ(table.status, 0) << table.err;
    EXPECT_NE(table.out.find(":58C4 "), std::string::npos) << table.out;
    EXPECT_NE(table.out.find(dir + "/var/lib/kvard/mdm\n"), std::string::npos) << table.out;
    Result heartbeat = as({"exec", dir, "--", "tmctl", "send", "TM_MSG_HEARTBEAT", "--text", "from nobody"});
    EXPECT_EQ(heartbeat.status, 0) << heartbeat.out << heartbeat.err;
    Result status = as({"status", dir});
    EXPECT_EQ(status.status, 0) << status.out;
    // Another user without root may not enter it.
    Result stranger = Runner({"exec", dir, "--", "true"}, "/", {},
                             {"/usr/bin/setpriv", "--reuid=65533", "--regid=65533", "--clear-groups"});
    EXPECT_EQ(stranger.status, 2) << stranger.err;
    EXPECT_NE(stranger.err.find("was started by uid 65534: only that user and root can enter it"), std::string::npos)
        << stranger.err;
    Result missing = as({"exec", dir, "--", "/nonexistent/command"});
    EXPECT_EQ(missing.status, 127) << missing.err;
    Result stop = as({"stop", dir});
    EXPECT_EQ(stop.status, 0) << stop.out << stop.err;
    EXPECT_NE(Slurp(dir + "/stdout").find("from nobody"), std::string::npos) << Slurp(dir + "/stdout");
}

}  // namespace
