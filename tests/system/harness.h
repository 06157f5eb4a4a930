// System-test harness: one Sandbox object is one instance of the installed
// kvard-sandbox runner ($KVARD_PREFIX/bin/kvard-sandbox) with a fresh state
// directory, and the means to drive and observe the program inside it.
//
//   kvard::test::Sandbox box;                      // init: seeded router, UTC
//   box.Start();                                   // $KVARD_PREFIX/sbin/kvard
//   ASSERT_TRUE(box.WaitReady());
//   EXPECT_EQ(box.Send(kvard::test::kHeartbeat, "hi"), 0);
//   EXPECT_TRUE(box.WaitStdout("Heart Beat: hi"));
//   box.Signal(SIGTERM);
//   EXPECT_EQ(box.WaitExit(), kvard::test::Killed(SIGTERM));
//
// The state directory (under $KVARD_SANDBOX_TMPDIR, else /dev/shm, else
// $TMPDIR or /tmp) is removed when the test passed and kept, its path
// printed, when it failed, or always with KVARD_KEEP_SANDBOX=1. Operations
// that cannot be carried out (the runner fails, a file cannot be written)
// throw std::runtime_error, which fails the test; waits return an
// AssertionResult that explains what was seen instead.
#ifndef KVARD_TESTS_SYSTEM_HARNESS_H
#define KVARD_TESTS_SYSTEM_HARNESS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace kvard::test {

using std::chrono::milliseconds;

// Control datagram codes of the daemon.
inline constexpr uint16_t kHeartbeat = 1;
inline constexpr uint16_t kConfigUpdate = 2;
inline constexpr uint16_t kLinkUpdate = 3;
inline constexpr uint16_t kTimeUpdate = 4;
inline constexpr uint16_t kResetCounter = 5;
inline constexpr uint16_t kWriteStatistic = 6;
inline constexpr uint16_t kTimeWake = 7;
inline constexpr uint16_t kControlPort = 22724;

struct SandboxOptions {
    std::string time = "2024-01-15 10:00:00";  // fake clock at start, in ZONE
    std::string zone = "UTC";
    bool seedRouter = true;                    // else an empty store
    bool mtd = true;                           // flash partition "tm"
    uint64_t mtdSize = 0, mtdEraseSize = 0, mtdWriteSize = 0;  // 0: the runner's default
    std::vector<std::string> initArgs;         // further `init` options
    std::vector<std::string> env;              // NAME=VALUE for every start
    std::vector<std::string> command;          // empty: $KVARD_PREFIX/sbin/kvard; any host path works
};

// How the program stands or ended.
struct ProgramStatus {
    enum Kind { NotStarted, Running, Exited, Killed, Failed } kind = NotStarted;
    int value = 0;        // exit status or signal
    std::string text;     // a failure's reason

    // Equal kinds, and for Exited and Killed equal values.
    bool operator==(const ProgramStatus &other) const {
        return kind == other.kind && ((kind != Exited && kind != Killed) || value == other.value);
    }
};
void PrintTo(const ProgramStatus &status, std::ostream *out);

// For expectations: EXPECT_EQ(box.WaitExit(), Exited(0)).
inline ProgramStatus Exited(int code) { return {ProgramStatus::Exited, code, ""}; }
inline ProgramStatus Killed(int signal) { return {ProgramStatus::Killed, signal, ""}; }
inline const ProgramStatus kRunning{ProgramStatus::Running, 0, ""};

// One object of the data-model store: field name -> value (unescaped).
using StoreObject = std::map<std::string, std::string>;

// One interface line for /proc/net/dev.
struct NetDev {
    std::string name;
    uint64_t rxBytes = 0;
    uint64_t txBytes = 0;
};

// Result of a host command run through the runner.
struct CommandResult {
    int status = -1;      // exit status, or 128 + signal
    std::string out, err;
};

class Sandbox {
public:
    explicit Sandbox(SandboxOptions options = {});
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Paths on the host.
    const std::string &Dir() const { return dir_; }
    std::string Path(std::string_view relative) const;   // DIR/relative
    std::string StoreDir() const { return dir_ + "/var/lib/kvard/mdm"; }

    // Starts the program (SandboxOptions::command); EXTRA_ENV is added for
    // this start only. Returns once the program runs. Throws when the box
    // cannot start or the previous run is still going.
    void Start(const std::vector<std::string> &extraEnv = {});
    // Until UDP port PORT is bound inside the box.
    ::testing::AssertionResult WaitReady(milliseconds timeout = milliseconds(10000), int port = kControlPort);

    // A datagram with the daemon's 8-byte header; the reply word, or nullopt
    // when no 4-byte reply came within TIMEOUT (a short timeout checks that
    // none comes).
    std::optional<int32_t> Send(uint16_t code, std::string_view body = {}, milliseconds timeout = milliseconds(5000));
    // Raw datagram to PORT inside the box; the reply, or nullopt on timeout.
    // Use a short timeout to check that nothing answers.
    std::optional<std::string> Request(std::string_view datagram, milliseconds timeout = milliseconds(5000),
                                       int port = kControlPort);

    void Signal(int signal);                  // to the program itself
    ProgramStatus Status() const;
    // Until the program ended; Running when it did not within TIMEOUT.
    ProgramStatus WaitExit(milliseconds timeout = milliseconds(10000));
    // SIGTERM, then SIGKILL of the whole box after TIMEOUT; the final status.
    ProgramStatus Stop(milliseconds timeout = milliseconds(5000));

    void SetTime(std::string_view clockText);  // "YYYY-MM-DD hh:mm:ss"
    void WriteProc(std::string_view relative, std::string_view content);  // e.g. "net/dev"
    void SetNetDev(const std::vector<NetDev> &interfaces);  // lo plus INTERFACES
    void SetUptime(double seconds);

    // Files of the state directory (tmp/..., data/..., var/...); nullopt when missing.
    std::optional<std::string> ReadFile(std::string_view relative) const;
    void WriteFile(std::string_view relative, std::string_view content);  // atomically
    void RemoveFile(std::string_view relative);

    // The program's output so far, and waits for a text in it.
    std::string Stdout() const;
    std::string Stderr() const;
    ::testing::AssertionResult WaitStdout(std::string_view text, milliseconds timeout = milliseconds(5000)) const;
    ::testing::AssertionResult WaitStderr(std::string_view text, milliseconds timeout = milliseconds(5000)) const;

    // The stub log as argument vectors, all or those of one command (by the
    // last path component of argv[0]).
    std::vector<std::vector<std::string>> StubCalls(std::string_view command = {}) const;
    void ClearStubLog();

    // Store objects ("2888", "1152.1"), read and written under the store's lock.
    std::optional<StoreObject> ReadObject(std::string_view name) const;
    void WriteObject(std::string_view name, const StoreObject &fields);
    // Sets FIELDS in the object and keeps every other line as it was.
    void UpdateObject(std::string_view name, const StoreObject &fields);

    // Runs `kvard-sandbox ARGS...` (the state directory is not added) with
    // INPUT on its stdin.
    CommandResult Runner(const std::vector<std::string> &args, std::string_view input = {}) const;
    // Runs a host command in the box's network namespace (`kvard-sandbox exec`).
    CommandResult Exec(const std::vector<std::string> &command) const;

    // Host pid of the program (0 when not running).
    pid_t ProgramPid() const;

private:
    void Reap();
    int NetSocket();
    std::string Diagnostics() const;
    std::string RunFile(std::string_view name) const;
    void LockStore(int &fd) const;

    SandboxOptions options_;
    std::string dir_;
    std::string runner_;
    pid_t runChild_ = 0;   // `kvard-sandbox run`, our child
    int socket_ = -1;
    pid_t socketBox_ = 0;  // box whose namespace socket_ lives in
};

// Store text escaping: "\n" for a line feed, "\\" for a backslash.
std::string EscapeStoreValue(std::string_view value);
std::string UnescapeStoreValue(std::string_view value);

// $KVARD_PREFIX, or a failure when it is not set.
std::string InstalledPrefix();

}  // namespace kvard::test

#endif
