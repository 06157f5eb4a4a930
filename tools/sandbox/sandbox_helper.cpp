// The runner's helper inside the box. Called as "sandbox-helper init -- CMD..."
// it is the program's parent and records exactly how the program ended;
// called through a link named logger, ifconfig, dnsmasq or tmledflashd it is
// that command's stub: it logs its argument vector and imitates the little of
// the real command that the daemon relies on.
//
// It is built without sanitizers: it runs with whatever LD_PRELOAD the
// program gets, and an instrumented binary would refuse a list that does not
// start with its own runtime.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/sandbox/paths.h"
#include "tools/sandbox/stublog.h"
#include "tools/sandbox/util.h"

namespace {

using sandbox::kBoxControlDir;

std::string ControlPath(const char *name) { return std::string(kBoxControlDir) + "/" + name; }
std::string RunPath(const char *name) { return ControlPath(sandbox::kRunDir) + "/" + name; }

void WriteOrComplain(const std::string &path, const std::string &content) {
    try {
        sandbox::WriteFileAtomic(path, content);
    } catch (const std::exception &e) {
        fprintf(stderr, "sandbox-helper: %s\n", e.what());
    }
}

void AppendStubLog(const std::vector<std::string> &argv) {
    std::string line = sandbox::FormatStubLine(argv);
    std::string path = ControlPath(sandbox::kStubLogFile);
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    // One write per call: concurrent stubs never interleave within a line.
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fprintf(stderr, "%s (stub): cannot append to %s: %s\n", argv[0].c_str(), path.c_str(), strerror(errno));
    if (fd >= 0) close(fd);
}

void DetachFromOutput() {
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    if (null > 2) close(null);
}

// dnsmasq: goes to the background like the real one, with the pid file named
// by -x written before the caller gets control back, and stays until killed.
int StubDnsmasq(const std::vector<std::string> &argv) {
    std::string pidFile;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-x" && i + 1 < argv.size())
            pidFile = argv[i + 1];
        else if (argv[i].rfind("--pid-file=", 0) == 0)
            pidFile = argv[i].substr(11);
    }
    int ready[2];
    if (pipe(ready) != 0) {
        perror("dnsmasq (stub): pipe");
        return 1;
    }
    pid_t pid = fork();
    if (pid < 0) {
        perror("dnsmasq (stub): fork");
        return 1;
    }
    if (pid > 0) {
        close(ready[1]);
        char result = 1;
        if (read(ready[0], &result, 1) != 1) result = 1;
        return result;
    }
    close(ready[0]);
    setsid();
    char result = 0;
    if (!pidFile.empty()) {
        try {
            sandbox::WriteFileAtomic(pidFile, std::to_string(getpid()) + "\n");
        } catch (const std::exception &e) {
            fprintf(stderr, "dnsmasq (stub): %s\n", e.what());
            result = 1;
        }
    }
    if (write(ready[1], &result, 1) != 1 || result != 0) _exit(1);
    close(ready[1]);
    DetachFromOutput();
    for (;;) pause();
}

// tmledflashd: keeps its pid file and flashes until someone removes it. It
// lets go of the caller's output, so that a caller reading it (popen) is not
// held up until the flashing ends.
int StubLedFlash() {
    try {
        sandbox::WriteFileAtomic(sandbox::kLedFlashPidFile, std::to_string(getpid()) + "\n");
    } catch (const std::exception &e) {
        fprintf(stderr, "tmledflashd (stub): %s\n", e.what());
        return 1;
    }
    DetachFromOutput();
    while (access(sandbox::kLedFlashPidFile, F_OK) == 0) usleep(10000);
    return 0;
}

int RunStub(const std::string &name, const std::vector<std::string> &argv) {
    AppendStubLog(argv);
    if (name == "dnsmasq") return StubDnsmasq(argv);
    if (name == "tmledflashd") return StubLedFlash();
    return 0;  // logger and ifconfig only need to be seen
}

// Parent of the program: starts it, publishes its pid inside the box, waits,
// and writes "exited N", "killed N" or "failed TEXT" to the status file.
int RunInit(char **command) {
    // Signals meant for the program must not end the one who records its end.
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE}) signal(sig, SIG_IGN);
    // The program gets the default action for every signal, none blocked,
    // and a process group of its own; a failed exec is reported by the spawn.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    pid_t child = 0;
    int error = posix_spawnp(&child, command[0], nullptr, &attributes, command, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        // The name stays: the runner and the tests know an unrunnable program by it.
        std::string text = std::string("failed cannot run ") + command[0] + ": " + strerror(error);
        fprintf(stderr, "sandbox-helper: cannot run %s: %s\n", command[0], strerror(error));
        WriteOrComplain(RunPath(sandbox::kRunStatus), text + "\n");
        return 127;
    }
    WriteOrComplain(RunPath(sandbox::kRunNsPid), std::to_string(child) + "\n");
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            WriteOrComplain(RunPath(sandbox::kRunStatus), std::string("failed waitpid: ") + strerror(errno) + "\n");
            return 125;
        }
    }
    std::string text;
    int code;
    if (WIFSIGNALED(status)) {
        text = "killed " + std::to_string(WTERMSIG(status));
        code = 128 + WTERMSIG(status);
    } else {
        text = "exited " + std::to_string(WEXITSTATUS(status));
        code = WEXITSTATUS(status);
    }
    WriteOrComplain(RunPath(sandbox::kRunStatus), text + "\n");
    return code;
}

}  // namespace

int main(int argc, char **argv) {
    std::string name = argv[0];
    name = name.substr(name.rfind('/') + 1);
    for (const char *stub : sandbox::kStubNames)
        if (name == stub) return RunStub(name, std::vector<std::string>(argv, argv + argc));
    if (argc >= 4 && std::string(argv[1]) == "init" && std::string(argv[2]) == "--") return RunInit(argv + 3);
    fprintf(stderr,
            "usage: sandbox-helper init -- COMMAND [ARGS...]\n"
            "   or: call through a link named logger, ifconfig, dnsmasq or tmledflashd\n"
            "This helper belongs to kvard-sandbox and runs inside its box.\n");
    return 2;
}
