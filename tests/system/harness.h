// A Sandbox is one instance of $KVARD_PREFIX/bin/kvard-sandbox: a seeded router in UTC in a fresh state
// directory (/dev/shm or $KVARD_SANDBOX_TMPDIR, kept when the test failed or with KVARD_KEEP_SANDBOX).
// What cannot be done throws; waits return an AssertionResult that shows what was seen instead.
#ifndef KVARD_TESTS_SYSTEM_HARNESS_H
#define KVARD_TESTS_SYSTEM_HARNESS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kvard::test {

using std::chrono::milliseconds;

// Control datagram codes of the daemon, and its port.
inline constexpr uint16_t kHeartbeat = 1, kConfigUpdate = 2, kLinkUpdate = 3, kTimeUpdate = 4, kResetCounter = 5,
                          kWriteStatistic = 6, kTimeWake = 7, kControlPort = 22724;

struct SandboxOptions {
    std::string time = "2024-01-15 10:00:00";  // fake clock at start, in ZONE
    std::string zone = "UTC";
    bool mtd = true;                           // flash partition "tm"
    std::vector<std::string> command = {};     // empty: $KVARD_PREFIX/sbin/kvard
};

using StoreObject = std::map<std::string, std::string>;  // a store object: field -> value, unescaped

struct NetDev { std::string name; uint64_t rxBytes = 0, txBytes = 0; };  // an interface line of /proc/net/dev
struct CommandResult { int status = -1; std::string out; };  // exit status or 128 + signal; stdout and stderr
// COMMAND run by /bin/sh on the host, stdin empty, stdout and stderr together.
CommandResult RunShell(const std::string &command);

class Sandbox {
public:
    explicit Sandbox(SandboxOptions options = {});
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    const std::string &Dir() const { return dir_; }
    std::string Path(std::string_view relative) const { return dir_ + "/" + std::string(relative); }

    void Start(const std::vector<std::string> &extraEnv = {});  // NAME=VALUE for this run
    ::testing::AssertionResult WaitReady(milliseconds timeout = milliseconds(10000));  // the control port is bound
    // A datagram with the daemon's header; the reply word, or nullopt when none came.
    std::optional<int32_t> Send(uint16_t code, std::string_view body = {}, milliseconds timeout = milliseconds(5000));
    // Any datagram to the control port in the box; the reply, or nullopt.
    std::optional<std::string> Request(std::string_view datagram, milliseconds timeout = milliseconds(5000));

    void Signal(int signal);  // to the program itself
    std::string Status() const;  // "not started", "running", or the runner's "exited N", "killed N", "failed WHY"
    std::string WaitExit(milliseconds timeout = milliseconds(10000));  // "running" when it did not end
    std::string Stop();        // TERM, then KILL of the box after 5 s
    pid_t ProgramPid() const;  // on the host; 0 when not running

    void SetTime(std::string_view clockText);  // "YYYY-MM-DD hh:mm:ss"
    void SetNetDev(const std::vector<NetDev> &interfaces);  // lo plus INTERFACES
    void SetUptime(double seconds);

    // Files of the state directory (tmp/..., data/..., sandbox/...).
    std::optional<std::string> ReadFile(std::string_view relative) const;
    void WriteFile(std::string_view relative, std::string_view content);  // atomically
    void RemoveFile(std::string_view relative);

    std::string Stdout() const { return ReadFile("stdout").value_or(""); }
    std::string Stderr() const { return ReadFile("stderr").value_or(""); }
    // Until the file (stdout, stderr, ...) holds TEXT.
    ::testing::AssertionResult WaitText(const char *file, std::string_view text, milliseconds timeout) const;
    auto WaitStdout(std::string_view s, milliseconds t = milliseconds(5000)) const { return WaitText("stdout", s, t); }
    auto WaitStderr(std::string_view s, milliseconds t = milliseconds(5000)) const { return WaitText("stderr", s, t); }

    // Stub calls as argument vectors, all or those of one command.
    std::vector<std::vector<std::string>> StubCalls(std::string_view command = {}) const;
    void ClearStubLog() { WriteFile("sandbox/stubs.log", ""); }

    // Store objects ("2888", "1152.1") under the store's lock.
    std::optional<StoreObject> ReadObject(std::string_view name) const;
    void WriteObject(std::string_view name, const StoreObject &fields) { Modify(name, fields, false); }
    void UpdateObject(std::string_view name, const StoreObject &fields) { Modify(name, fields, true); }  // others stay

    CommandResult Runner(const std::vector<std::string> &args) const;  // `kvard-sandbox ARGS...`

private:
    void Modify(std::string_view name, const StoreObject &fields, bool keep);
    void Reap();

    SandboxOptions options_;
    std::string dir_, runner_;
    pid_t runChild_ = 0;  // `kvard-sandbox run`, our child
};

std::string InstalledPrefix();  // $KVARD_PREFIX, or throws

}  // namespace kvard::test

#endif
