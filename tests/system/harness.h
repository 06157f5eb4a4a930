// System-test harness: a Sandbox is one instance of the installed runner
// $KVARD_PREFIX/bin/kvard-sandbox with a fresh state directory (in /dev/shm or
// $KVARD_SANDBOX_TMPDIR, kept when the test failed or with KVARD_KEEP_SANDBOX),
// a seeded router in UTC that runs $KVARD_PREFIX/sbin/kvard unless told else.
// What cannot be done throws, which fails the test; waits return an
// AssertionResult that shows what was seen instead.
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

struct ProgramStatus {  // how the program stands or ended
    enum Kind { NotStarted, Running, Exited, Killed, Failed } kind = NotStarted;
    int value = 0;     // exit status or signal
    std::string text;  // the runner's own words for a failure
    bool operator==(const ProgramStatus &o) const {
        return kind == o.kind && (kind < Exited || kind > Killed || value == o.value);
    }
};
void PrintTo(const ProgramStatus &status, std::ostream *out);
inline ProgramStatus Exited(int code) { return {ProgramStatus::Exited, code, ""}; }
inline ProgramStatus Killed(int signal) { return {ProgramStatus::Killed, signal, ""}; }
inline const ProgramStatus kRunning{ProgramStatus::Running, 0, ""};

using StoreObject = std::map<std::string, std::string>;  // a store object: field -> value, unescaped

struct NetDev {  // one interface line of /proc/net/dev
    std::string name;
    uint64_t rxBytes = 0, txBytes = 0;
};
struct CommandResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;  // stdout and stderr
};

class Sandbox {
public:
    explicit Sandbox(SandboxOptions options = {});
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    const std::string &Dir() const { return dir_; }
    std::string Path(std::string_view relative) const { return dir_ + "/" + std::string(relative); }
    std::string StoreDir() const { return dir_ + "/var/lib/kvard/mdm"; }

    void Start(const std::vector<std::string> &extraEnv = {});  // NAME=VALUE for this run
    // Until UDP port PORT is bound inside the box.
    ::testing::AssertionResult WaitReady(milliseconds timeout = milliseconds(10000), int port = kControlPort);

    // A datagram with the daemon's header; the reply word, or nullopt when none came.
    std::optional<int32_t> Send(uint16_t code, std::string_view body = {}, milliseconds timeout = milliseconds(5000));
    // Any datagram to 127.0.0.1:PORT in the box; the reply, or nullopt.
    std::optional<std::string> Request(std::string_view datagram, milliseconds timeout = milliseconds(5000),
                                       int port = kControlPort);

    void Signal(int signal);  // to the program itself
    ProgramStatus Status() const;
    ProgramStatus WaitExit(milliseconds timeout = milliseconds(10000));  // Running when it did not end
    ProgramStatus Stop(milliseconds timeout = milliseconds(5000));      // TERM, then KILL of the box
    pid_t ProgramPid() const;                                           // on the host; 0 when not running

    void SetTime(std::string_view clockText);  // "YYYY-MM-DD hh:mm:ss"
    void WriteProc(std::string_view file, std::string_view content) { WriteFile("proc/" + std::string(file), content); }
    void SetNetDev(const std::vector<NetDev> &interfaces);                 // lo plus INTERFACES
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
    int socket_ = -1;
    std::string socketBox_;  // box.pid record of the namespace socket_ lives in
};

// Store text escaping: "\n" for a line feed, "\\" for a backslash.
std::string EscapeStoreValue(std::string_view value);
std::string InstalledPrefix();  // $KVARD_PREFIX, or throws

}  // namespace kvard::test

#endif
