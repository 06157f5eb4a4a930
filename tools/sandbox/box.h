// Running a program in the box: the bubblewrap command line, the supervisor
// that records what became of the program, readiness, signals, and entering
// the box's network namespace.
#ifndef KVARD_SANDBOX_BOX_H
#define KVARD_SANDBOX_BOX_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/sandbox/layout.h"

namespace sandbox {

// The installed tree the runner belongs to.
struct Tree {
    std::string prefix;
    std::string Helper() const { return prefix + "/libexec/kvard/sandbox-helper"; }
    std::string MtdSim() const { return prefix + "/lib/kvard/libmtdsim.so"; }
    std::string DefaultProgram() const { return prefix + "/sbin/kvard"; }
    std::string WebRoot() const { return prefix + "/share/kvard/www"; }
    std::string WebCgi() const { return prefix + "/lib/kvard/cgi-bin/tm.cgi"; }
};

// The tree of the running executable (its directory's parent).
Tree LocateTree();

struct RunOptions {
    std::vector<std::string> command;  // empty: the tree's kvard
    std::vector<std::string> env;      // NAME=VALUE, applied after the box's own
    std::vector<std::pair<std::string, std::string>> binds;    // host path, box path (writable)
    std::vector<std::pair<std::string, std::string>> roBinds;  // host path, box path (read-only)
};

// Runs the program in the foreground until it ends. With ECHO the program's
// output files are copied to this process's stdout and stderr as they grow.
// Returns the exit code for the runner: the program's status, 128 + N when
// signal N killed it, 125 when the box could not be started.
int RunForeground(const Instance &instance, const Tree &tree, const RunOptions &options, bool echo);

// Starts a detached supervisor and returns the program's host pid once it
// runs. Throws when the box cannot be started.
pid_t StartBackground(const Instance &instance, const Tree &tree, const RunOptions &options);

enum class State { NotStarted, Starting, Running, Exited, Killed, Failed, Lost };

struct Status {
    State state = State::NotStarted;
    int value = 0;       // exit status or signal number
    std::string text;    // reason of a failure
    pid_t pid = 0;       // host pid of the program, when known
};

Status ReadStatus(const Instance &instance);
// One line: "running pid 123", "exited 0", "killed 15 (SIGTERM)", ...
std::string DescribeStatus(const Status &status);
bool Ended(const Status &status);

enum class WaitResult { Ready, TimedOut, Ended };
// Waits until UDP PORT is bound in the box's network namespace.
WaitResult WaitReady(const Instance &instance, int port, double timeoutSeconds);

// Sends SIGNAL to the program itself. Throws when it is not running.
void SignalProgram(const Instance &instance, int signal);

// Sends SIGNAL, waits up to TIMEOUT seconds for the box to end, then kills
// the whole box. Returns the final status.
Status StopInstance(const Instance &instance, int signal, double timeoutSeconds);

// Replaces this process with COMMAND in the box's network namespace, with
// the tree's bin/ first in PATH and KVARD_MDM_DIR naming the instance's store.
[[noreturn]] void ExecInNetwork(const Instance &instance, const Tree &tree, const std::vector<std::string> &command);

// The nsenter argument vector that runs COMMAND in the network namespace of
// the box whose pid 1 is BOX_PID; USER_NAMESPACE, unless empty, is a path to
// the user namespace that owns that network namespace, joined first.
// NAMESPACES are nsenter's options for the namespaces to join.
std::vector<std::string> EnterCommandLine(pid_t boxPid, const std::string &userNamespace,
                                          const std::vector<std::string> &command,
                                          const std::vector<std::string> &namespaces = {"--net"});

// The host pid of the box's pid 1; throws when the instance is not running.
pid_t RunningBoxPid(const Instance &instance);

// What a program run in the box finds in its environment besides PATH and
// HOME: the zone, the fake clock, the emulated NAND and their preloads.
// HOST_PROGRAM (may be empty) decides whether the ASan runtime goes first.
std::vector<std::pair<std::string, std::string>> BoxEnvironment(const Instance &instance, const Tree &tree,
                                                                const std::string &hostProgram);

// The user namespace that owns the network namespace of the box whose pid 1
// is BOX_PID, as a descriptor without close-on-exec; -1 when it is this
// process's own (a box started by root). A process that is not root joins it
// (setns CLONE_NEWUSER, for good: there is no way back) before it can join
// the box's network namespace. Throws when the namespaces cannot be read.
int OwnerUserNamespace(pid_t boxPid);

// The bubblewrap argument vector for OPTIONS (exposed for --dry-run).
std::vector<std::string> BoxCommandLine(const Instance &instance, const Tree &tree, const RunOptions &options);

}  // namespace sandbox

#endif
