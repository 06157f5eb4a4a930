#include "tools/sandbox/box.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <signal.h>
#include <linux/nsfs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "tools/sandbox/paths.h"
#include "tools/sandbox/util.h"

namespace sandbox {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point Deadline(double seconds) {
    return Clock::now() + std::chrono::microseconds(static_cast<long long>(seconds * 1e6));
}

void SleepMs(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

std::string BoxControlPath(std::string_view name) { return std::string(kBoxControlDir) + "/" + std::string(name); }

// Argument vector for exec, pointing into ARGS.
std::vector<char *> ExecVector(const std::vector<std::string> &args) {
    std::vector<char *> argv;
    for (const auto &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    return argv;
}

// Output of ARGV on stdout, stderr discarded; nullopt when it did not run or failed.
std::optional<std::string> Capture(const std::vector<std::string> &argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char *> args = ExecVector(argv);
    pid_t pid = 0;
    int error = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (error != 0) {
        close(fds[0]);
        return std::nullopt;
    }
    std::string out;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return out;
}

// The AddressSanitizer runtime PROGRAM was linked with, or "" when none.
std::string AsanRuntimeOf(const std::string &program) {
    auto out = Capture({"ldd", program});
    if (!out) return "";
    size_t pos = out->find("libasan.so");
    if (pos == std::string::npos) return "";
    size_t arrow = out->find("=> ", pos);
    size_t eol = out->find('\n', pos);
    if (arrow == std::string::npos || arrow > eol) return "";
    size_t start = arrow + 3;
    size_t end = out->find(" (", start);
    if (end == std::string::npos || end > eol) end = eol;
    return out->substr(start, end - start);
}

std::string FindFaketime() {
    if (const char *path = getenv("KVARD_SANDBOX_FAKETIME")) return path;
    std::vector<std::string> candidates;
#ifdef KVARD_MULTIARCH
    candidates.push_back(std::string("/usr/lib/") + KVARD_MULTIARCH + "/faketime/libfaketime.so.1");
#endif
    candidates.push_back("/usr/lib64/faketime/libfaketime.so.1");
    candidates.push_back("/usr/lib/faketime/libfaketime.so.1");
    for (const auto &candidate : candidates)
        if (PathExists(candidate)) return candidate;
    glob_t found;
    if (glob("/usr/lib/*/faketime/libfaketime.so.1", 0, nullptr, &found) == 0) {
        std::string first = found.gl_pathv[0];
        globfree(&found);
        return first;
    }
    throw Error("libfaketime.so.1 not found (Debian package libfaketime)");
}

std::string FindBwrap() {
    const char *path = getenv("PATH");
    if (auto found = FindExecutable("bwrap", path ? path : "/usr/bin:/bin")) return *found;
    if (PathExists("/usr/bin/bwrap")) return "/usr/bin/bwrap";
    throw Error("bwrap not found (Debian package bubblewrap)");
}

bool UnderDir(const std::string &path, const std::string &dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

// Environment as an ordered list, so the box sees the variables in the order set.
class Environment {
public:
    void Set(const std::string &name, const std::string &value) {
        for (auto &entry : entries_)
            if (entry.first == name) {
                entry.second = value;
                return;
            }
        entries_.emplace_back(name, value);
    }
    const std::string *Get(const std::string &name) const {
        for (const auto &entry : entries_)
            if (entry.first == name) return &entry.second;
        return nullptr;
    }
    const std::vector<std::pair<std::string, std::string>> &Entries() const { return entries_; }

private:
    std::vector<std::pair<std::string, std::string>> entries_;
};

bool LockHeld(const Instance &instance) {
    int fd = open(instance.RunFile(".lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool held = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    return held;
}

// The pids of a process's namespaces as its status file lists them, the
// host's first and the innermost last; empty when the process is gone.
std::vector<long> NamespacePids(pid_t pid) {
    std::optional<std::string> text;
    try {
        text = ReadFile("/proc/" + std::to_string(pid) + "/status");
    } catch (const Error &) {
        return {};
    }
    std::vector<long> pids;
    if (!text) return pids;
    size_t line = text->find("\nNSpid:");
    if (line == std::string::npos) return pids;
    std::string fields = text->substr(line + 7, text->find('\n', line + 1) - line - 7);
    char *cursor = fields.data();
    for (;;) {
        char *end = nullptr;
        long value = strtol(cursor, &end, 10);
        if (end == cursor) break;
        pids.push_back(value);
        cursor = end;
    }
    return pids;
}

// Host pid of the process in the box whose pid inside is NS_PID; 0 when there
// is none. The box's processes all descend from bwrap's child, whose host pid
// bwrap reported, so only that tree is searched.
pid_t FindHostPid(pid_t boxPid, pid_t nsPid) {
    std::vector<pid_t> pending = {boxPid};
    for (size_t seen = 0; !pending.empty() && seen < 4096; ++seen) {
        pid_t pid = pending.back();
        pending.pop_back();
        std::vector<long> pids = NamespacePids(pid);
        if (pids.size() >= 2 && pids.back() == nsPid) return pid;
        std::optional<std::string> children;
        try {
            children = ReadFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
        } catch (const Error &) {
            continue;  // gone meanwhile
        }
        const char *cursor = children ? children->c_str() : "";
        for (char *end = nullptr;; cursor = end) {
            long child = strtol(cursor, &end, 10);
            if (end == cursor) break;
            pending.push_back(static_cast<pid_t>(child));
        }
    }
    return 0;
}

bool PortBound(pid_t pid, int port) {
    for (const char *file : {"/net/udp", "/net/udp6"}) {
        std::optional<std::string> text;
        try {
            text = ReadFile("/proc/" + std::to_string(pid) + file);
        } catch (const Error &) {
            continue;
        }
        if (!text) continue;
        size_t pos = text->find('\n');  // skip the header line
        while (pos != std::string::npos && pos + 1 < text->size()) {
            size_t eol = text->find('\n', pos + 1);
            std::string line = text->substr(pos + 1, eol == std::string::npos ? std::string::npos : eol - pos - 1);
            pos = eol;
            // "  sl  local_address rem_address ...": local is the second field, "ADDR:PORT" in hex.
            char local[128];
            if (sscanf(line.c_str(), "%*s %127s", local) != 1) continue;
            const char *colon = strrchr(local, ':');
            if (colon && strtol(colon + 1, nullptr, 16) == port) return true;
        }
    }
    return false;
}

std::optional<PidRecord> ReadPidRecord(const Instance &instance, const char *name) {
    std::optional<std::string> text = ReadFileIfReadable(instance.RunFile(name));
    if (!text) return std::nullopt;
    return ParsePidRecord(*text);
}

int ExitCodeOf(const Status &status) {
    if (status.state == State::Exited) return status.value;
    if (status.state == State::Killed) return 128 + status.value;
    return 125;
}

volatile sig_atomic_t gStopRequests = 0;
void OnStopSignal(int) { gStopRequests = gStopRequests + 1; }

// Copies what was appended to a file since the last call to an output descriptor.
class Follower {
public:
    Follower(std::string path, int out) : path_(std::move(path)), out_(out) {}
    void Copy() {
        int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        char buffer[8192];
        for (;;) {
            ssize_t n = pread(fd, buffer, sizeof buffer, offset_);
            if (n <= 0) break;
            offset_ += n;
            for (ssize_t done = 0; done < n;) {
                ssize_t w = write(out_, buffer + done, static_cast<size_t>(n - done));
                if (w <= 0) break;
                done += w;
            }
        }
        close(fd);
    }

private:
    std::string path_;
    int out_;
    off_t offset_ = 0;
};

// Tells the waiting `start` how the start went, once: the first message counts.
class ReadyNotice {
public:
    explicit ReadyNotice(int fd) : fd_(fd) {}
    void Send(const std::string &message) {
        if (fd_ < 0) return;
        std::string line = message + "\n";
        if (write(fd_, line.data(), line.size()) < 0) {
            // The starter went away; nobody is left to tell.
        }
        close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// The box's supervisor: starts bwrap, learns the program's host pid, waits
// for the end and makes sure the end is recorded. Runs in the foreground of
// `run` and detached for `start`.
int Supervise(const Instance &instance, const Tree &tree, const RunOptions &options, bool echo,
              ReadyNotice &ready) {
    const std::string lockPath = instance.RunFile(".lock");
    MakeDirs(instance.Control() + "/" + kRunDir);
    int lockFd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd < 0) throw Error(ErrnoText("cannot open", lockPath));
    if (flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        close(lockFd);
        throw Error("instance is already running: " + instance.dir);
    }
    for (const char *name : {kRunStatus, kRunPid, kRunNsPid, kRunBox, kRunSupervisor})
        RemoveFile(instance.RunFile(name));
    LinkStubs(instance, tree.Helper());
    WriteFileAtomic(instance.ControlFile(kLsanSuppressionsFile),
                    "# Leaks in the host's own programs, which run with the ASan runtime preloaded.\n"
                    "leak:^/usr/bin/\nleak:^/usr/sbin/\nleak:^/bin/\nleak:^/sbin/\n");
    std::vector<std::string> argv = BoxCommandLine(instance, tree, options);

    int out = open(instance.Stdout().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) throw Error(ErrnoText("cannot create", instance.Stdout()));
    int err = open(instance.Stderr().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (err < 0) throw Error(ErrnoText("cannot create", instance.Stderr()));
    int json[2];
    if (pipe2(json, O_CLOEXEC) != 0) throw Error(ErrnoText("cannot create", "a pipe"));
    WriteFileAtomic(instance.RunFile(kRunSupervisor), FormatPidRecord(getpid()));

    // bwrap's own init outlives bwrap for a moment when the box ends; as the
    // subreaper we collect it, instead of leaving it to a pid 1 that may not.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    // bwrap in its own process group, so that a terminal's ^C reaches only
    // the runner; its status pipe as fd 3, where --json-status-fd names it.
    int jsonFd = fcntl(json[1], F_DUPFD_CLOEXEC, 10);
    if (jsonFd < 0) throw Error(ErrnoText("cannot duplicate", "the status pipe"));
    close(json[1]);
    json[1] = jsonFd;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    posix_spawn_file_actions_adddup2(&actions, json[1], 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    std::vector<char *> bwrapArgs = ExecVector(argv);
    pid_t bwrap = 0;
    int spawnError = posix_spawn(&bwrap, bwrapArgs[0], &actions, &attributes, bwrapArgs.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawnError != 0) {
        errno = spawnError;
        throw Error(ErrnoText("cannot run", argv[0]));
    }
    close(json[1]);
    close(out);
    close(err);

    int wstatus = 0;
    bool bwrapDone = false;
    auto pollBwrap = [&]() {
        int status = 0;
        for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == bwrap) {
                wstatus = status;
                bwrapDone = true;
            }
        }
        return bwrapDone;
    };

    // bwrap reports the host pid of the box's first process on the status pipe.
    pid_t boxPid = 0;
    std::string jsonText;
    for (auto deadline = Deadline(20); boxPid == 0 && Clock::now() < deadline;) {
        struct pollfd pfd = {json[0], POLLIN, 0};
        if (poll(&pfd, 1, 20) > 0) {
            char buffer[512];
            ssize_t n = read(json[0], buffer, sizeof buffer);
            if (n > 0) jsonText.append(buffer, static_cast<size_t>(n));
            size_t key = jsonText.find("\"child-pid\":");
            if (key != std::string::npos && jsonText.find('\n', key) != std::string::npos)
                boxPid = static_cast<pid_t>(strtol(jsonText.c_str() + key + 12, nullptr, 10));
            if (n == 0) break;
        }
        if (pollBwrap()) break;
    }
    if (boxPid > 0) WriteFileAtomic(instance.RunFile(kRunBox), FormatPidRecord(boxPid));

    // The helper writes the program's pid inside the box right after its fork.
    pid_t programPid = 0;
    if (boxPid > 0) {
        for (auto deadline = Deadline(20); Clock::now() < deadline && !pollBwrap();) {
            auto nsPid = ReadFile(instance.RunFile(kRunNsPid));
            if (nsPid) {
                for (int attempt = 0; attempt < 100 && programPid == 0; ++attempt) {
                    programPid = FindHostPid(boxPid, static_cast<pid_t>(atol(nsPid->c_str())));
                    if (programPid == 0) {
                        if (PathExists(instance.RunFile(kRunStatus))) break;
                        SleepMs(2);
                    }
                }
                break;
            }
            if (PathExists(instance.RunFile(kRunStatus))) break;
            SleepMs(2);
        }
    }
    if (programPid > 0) {
        WriteFileAtomic(instance.RunFile(kRunPid), FormatPidRecord(programPid));
        ready.Send("ok " + std::to_string(programPid));
    } else if (!pollBwrap() && !PathExists(instance.RunFile(kRunStatus))) {
        // Stuck before the program even forked (a preload that hangs at start).
        WriteFileAtomic(instance.RunFile(kRunStatus), "failed the program did not start within 20 s\n");
        if (boxPid > 0) kill(boxPid, SIGKILL);
        kill(bwrap, SIGKILL);
    }

    Follower followOut(instance.Stdout(), 1), followErr(instance.Stderr(), 2);
    int handledStops = 0;
    while (!pollBwrap()) {
        if (echo) {
            followOut.Copy();
            followErr.Copy();
        }
        if (gStopRequests > handledStops) {
            ++handledStops;
            // First request: the program's own end by SIGTERM; then the whole box.
            if (handledStops == 1 && programPid > 0)
                kill(programPid, SIGTERM);
            else if (boxPid > 0)
                kill(boxPid, SIGKILL);
        }
        SleepMs(10);
    }
    if (echo) {
        followOut.Copy();
        followErr.Copy();
    }
    // bwrap's last status line: the exit code of the helper, when it ran.
    for (struct pollfd pfd = {json[0], POLLIN, 0}; poll(&pfd, 1, 0) > 0;) {
        char buffer[512];
        ssize_t n = read(json[0], buffer, sizeof buffer);
        if (n <= 0) break;
        jsonText.append(buffer, static_cast<size_t>(n));
    }
    close(json[0]);
    std::optional<int> helperExit;
    if (size_t key = jsonText.find("\"exit-code\":"); key != std::string::npos)
        helperExit = static_cast<int>(strtol(jsonText.c_str() + key + 12, nullptr, 10));
    // What is left of the box dies by bwrap's --die-with-parent; reap it.
    for (auto deadline = Deadline(2); Clock::now() < deadline;) {
        pid_t pid = waitpid(-1, nullptr, WNOHANG);
        if (pid < 0) break;  // no children left
        if (pid == 0) SleepMs(1);
    }

    if (!PathExists(instance.RunFile(kRunStatus))) {
        // The helper records every end of the program; only a kill of the
        // whole box leaves nothing, and that kill is SIGKILL.
        std::string text;
        if (programPid > 0) {
            text = "killed 9";
        } else if (helperExit) {
            text = "failed the box's helper ended with exit code " + std::to_string(*helperExit) + " (see " +
                   instance.Stderr() + ")";
        } else {
            std::string how = WIFEXITED(wstatus) ? "exit status " + std::to_string(WEXITSTATUS(wstatus))
                                                 : SignalName(WTERMSIG(wstatus));
            text = "failed the box did not start (bwrap " + how + "; see " + instance.Stderr() + ")";
        }
        WriteFileAtomic(instance.RunFile(kRunStatus), text + "\n");
    }
    Status status = ReadStatus(instance);
    if (status.state == State::Failed)
        ready.Send("error " + status.text);
    else
        ready.Send("ok " + std::to_string(programPid));
    if (echo) fprintf(stderr, "kvard-sandbox: %s\n", DescribeStatus(status).c_str());
    close(lockFd);
    return ExitCodeOf(status);
}

}  // namespace

Tree LocateTree() {
    char buffer[4096];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) throw Error(ErrnoText("cannot read", "/proc/self/exe"));
    std::string exe(buffer, static_cast<size_t>(n));
    std::string bin = exe.substr(0, exe.rfind('/'));
    return Tree{bin.substr(0, bin.rfind('/'))};
}

std::vector<std::pair<std::string, std::string>> BoxEnvironment(const Instance &instance, const Tree &tree,
                                                                const std::string &hostProgram) {
    std::map<std::string, std::string> settings = ReadInstanceSettings(instance);
    Environment env;
    env.Set("TZ", settings["tz"]);
    env.Set("FAKETIME_TIMESTAMP_FILE", BoxControlPath(kClockFile));
    env.Set("FAKETIME_NO_CACHE", "1");
    env.Set("FAKETIME_DONT_FAKE_MONOTONIC", "1");
    // File times stay real. libfaketime's stat wrapper takes a semaphore that
    // is gone once its destructor ran, and the leak checker stats files after.
    env.Set("NO_FAKE_STAT", "1");
    // An instrumented program or an instrumented NAND library (a sanitizer
    // build of the tree) needs the ASan runtime first in the list.
    bool mtdsim = settings["mtd"] == "1" && PathExists(tree.MtdSim());
    std::string asan = hostProgram.empty() ? "" : AsanRuntimeOf(hostProgram);
    if (asan.empty() && mtdsim) asan = AsanRuntimeOf(tree.MtdSim());
    std::vector<std::string> preload;
    if (!asan.empty()) {
        // Its allocator reads the monotonic clock under a lock; libfaketime's
        // first clock call loads symbols, which allocates: with periodic
        // release off the two do not deadlock at start-up.
        preload.push_back(asan);
        env.Set("ASAN_OPTIONS", "allocator_release_to_os_interval_ms=-1");
        // Every child gets the runtime too; what the host's own programs
        // (sh, date, awk) leave unfreed at exit is not the program's leak.
        env.Set("LSAN_OPTIONS", "suppressions=" + BoxControlPath(kLsanSuppressionsFile));
    }
    preload.push_back(FindFaketime());
    if (mtdsim) {
        preload.push_back(tree.MtdSim());
        env.Set("MTDSIM_DEVICE", "/dev/mtd0");
        env.Set("MTDSIM_IMAGE", BoxControlPath(kMtdImageFile));
        env.Set("MTDSIM_SIZE", settings["mtd_size"]);
        env.Set("MTDSIM_ERASESIZE", settings["mtd_erasesize"]);
        env.Set("MTDSIM_WRITESIZE", settings["mtd_writesize"]);
    }
    std::string preloadText;
    for (const auto &lib : preload) preloadText += (preloadText.empty() ? "" : ":") + lib;
    env.Set("LD_PRELOAD", preloadText);
    return env.Entries();
}

std::vector<std::string> BoxCommandLine(const Instance &instance, const Tree &tree, const RunOptions &options) {
    std::vector<std::string> command = options.command;
    if (command.empty()) command.push_back(tree.DefaultProgram());

    // Where the program is on the host: for the ASan check and, outside the
    // trees the box shows anyway, for a bind of the file itself.
    const std::string boxPath = std::string(kBoxControlDir) + "/" + kStubBinDir + ":" + tree.prefix + "/sbin:" +
                                tree.prefix + "/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::string hostProgram;
    std::vector<std::string> extraBind;
    if (command[0].find('/') != std::string::npos) {
        command[0] = AbsolutePath(command[0]);
        hostProgram = command[0];
        if (!PathExists(hostProgram)) throw Error("no such program: " + hostProgram);
        bool visible = UnderDir(hostProgram, "/usr") || UnderDir(hostProgram, "/etc") ||
                       UnderDir(hostProgram, tree.prefix);
        for (const char *top : {"/bin", "/sbin", "/lib", "/lib64", "/lib32", "/libx32"})
            visible = visible || UnderDir(hostProgram, top);
        if (!visible) extraBind = {"--ro-bind", hostProgram, hostProgram};
    } else {
        std::string hostSearch = boxPath;
        hostSearch.replace(0, std::string(kBoxControlDir).size(), instance.Control());
        hostProgram = FindExecutable(command[0], hostSearch).value_or("");
    }

    std::vector<std::string> args = {FindBwrap()};
    auto add = [&](std::initializer_list<std::string> items) { args.insert(args.end(), items); };
    add({"--ro-bind", "/usr", "/usr"});
    for (const char *top : {"/bin", "/sbin", "/lib", "/lib64", "/lib32", "/libx32"}) {
        struct stat st;
        if (lstat(top, &st) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            char target[4096];
            ssize_t n = readlink(top, target, sizeof target - 1);
            if (n <= 0) continue;
            add({"--symlink", std::string(target, static_cast<size_t>(n)), top});
        } else if (S_ISDIR(st.st_mode)) {
            add({"--ro-bind", top, top});
        }
    }
    add({"--ro-bind", "/etc", "/etc", "--dev", "/dev"});
    add({"--bind", instance.dir + "/tmp", "/tmp", "--bind", instance.dir + "/var", "/var", "--bind",
         instance.dir + "/data", "/data"});
    add({"--proc", kBoxRealProc, "--ro-bind", instance.Proc(), "/proc"});
    add({"--bind", instance.Control(), kBoxControlDir});
    add({"--ro-bind", tree.prefix, tree.prefix});
    args.insert(args.end(), extraBind.begin(), extraBind.end());
    for (const auto &[host, box] : options.binds) add({"--bind", AbsolutePath(host), box});
    for (const auto &[host, box] : options.roBinds) add({"--ro-bind", AbsolutePath(host), box});
    add({"--unshare-net", "--unshare-pid", "--die-with-parent", "--new-session", "--clearenv", "--chdir", "/"});

    Environment env;
    env.Set("PATH", boxPath);
    env.Set("HOME", "/tmp");
    for (const auto &[name, value] : BoxEnvironment(instance, tree, hostProgram)) env.Set(name, value);
    for (const auto &entry : options.env) {
        size_t eq = entry.find('=');
        if (eq == std::string::npos || eq == 0) throw Error("bad --env '" + entry + "': expected NAME=VALUE");
        std::string name = entry.substr(0, eq), value = entry.substr(eq + 1);
        // Additions to the box's own lists, which must keep their order.
        if ((name == "LD_PRELOAD" || name == "ASAN_OPTIONS" || name == "LSAN_OPTIONS") && env.Get(name) &&
            !env.Get(name)->empty())
            value = *env.Get(name) + ":" + value;
        env.Set(name, value);
    }
    for (const auto &[name, value] : env.Entries()) add({"--setenv", name, value});

    add({"--json-status-fd", "3", "--", tree.Helper(), "init", "--"});
    args.insert(args.end(), command.begin(), command.end());
    return args;
}

int RunForeground(const Instance &instance, const Tree &tree, const RunOptions &options, bool echo) {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
    ReadyNotice nobody(-1);
    return Supervise(instance, tree, options, echo, nobody);
}

pid_t StartBackground(const Instance &instance, const Tree &tree, const RunOptions &options) {
    if (LockHeld(instance)) throw Error("instance is already running: " + instance.dir);
    BoxCommandLine(instance, tree, options);  // option errors show here, not in a detached process
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw Error(ErrnoText("cannot create", "a pipe"));
    pid_t pid = fork();
    if (pid < 0) throw Error(ErrnoText("cannot fork", "the supervisor"));
    if (pid == 0) {
        close(fds[0]);
        setsid();
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        int code = 125;
        ReadyNotice ready(fds[1]);
        try {
            code = Supervise(instance, tree, options, false, ready);
        } catch (const std::exception &e) {
            ready.Send(std::string("error ") + e.what());
        }
        ready.Send("error the supervisor ended early");
        _exit(code);
    }
    close(fds[1]);
    std::string reply;
    char buffer[1024];
    while (reply.find('\n') == std::string::npos) {
        ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        reply.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    // The supervisor is reaped here only if it already ended; otherwise init does it.
    waitpid(pid, nullptr, WNOHANG);
    if (!reply.empty() && reply.back() == '\n') reply.pop_back();
    if (reply.rfind("ok ", 0) == 0) return static_cast<pid_t>(atol(reply.c_str() + 3));
    if (reply.rfind("error ", 0) == 0) throw Error(reply.substr(6));
    throw Error("the supervisor of " + instance.dir + " ended without a word");
}

Status ReadStatus(const Instance &instance) {
    Status status;
    if (auto record = ReadPidRecord(instance, kRunPid)) status.pid = record->pid;
    std::optional<std::string> text;
    try {
        text = ReadFile(instance.RunFile(kRunStatus));
    } catch (const Error &) {
    }
    if (text) {
        while (!text->empty() && text->back() == '\n') text->pop_back();
        if (text->rfind("exited ", 0) == 0) {
            status.state = State::Exited;
            status.value = atoi(text->c_str() + 7);
        } else if (text->rfind("killed ", 0) == 0) {
            status.state = State::Killed;
            status.value = atoi(text->c_str() + 7);
        } else {
            status.state = State::Failed;
            status.text = text->rfind("failed ", 0) == 0 ? text->substr(7) : *text;
        }
    } else if (LockHeld(instance)) {
        status.state = status.pid ? State::Running : State::Starting;
    } else if (PathExists(instance.RunFile(kRunSupervisor))) {
        status.state = State::Lost;
        status.text = "the supervisor ended without recording the program's end";
    }
    return status;
}

std::string DescribeStatus(const Status &status) {
    switch (status.state) {
    case State::NotStarted: return "not started";
    case State::Starting: return "starting";
    case State::Running: return "running pid " + std::to_string(status.pid);
    case State::Exited: return "exited " + std::to_string(status.value);
    case State::Killed: return "killed " + std::to_string(status.value) + " (" + SignalName(status.value) + ")";
    case State::Failed: return "failed: " + status.text;
    case State::Lost: return "lost: " + status.text;
    }
    return "unknown";
}

bool Ended(const Status &status) {
    return status.state == State::Exited || status.state == State::Killed || status.state == State::Failed ||
           status.state == State::Lost;
}

WaitResult WaitReady(const Instance &instance, int port, double timeoutSeconds) {
    for (auto deadline = Deadline(timeoutSeconds);;) {
        Status status = ReadStatus(instance);
        if (Ended(status) || status.state == State::NotStarted) return WaitResult::Ended;
        if (status.state == State::Running && PortBound(status.pid, port)) return WaitResult::Ready;
        if (Clock::now() >= deadline) return WaitResult::TimedOut;
        SleepMs(5);
    }
}

void SignalProgram(const Instance &instance, int signal) {
    Status status = ReadStatus(instance);
    auto record = ReadPidRecord(instance, kRunPid);
    if (status.state != State::Running || !record || !PidRecordAlive(*record))
        throw Error("the program of " + instance.dir + " is not running (" + DescribeStatus(status) + ")");
    if (kill(record->pid, signal) != 0)
        throw Error(ErrnoText("cannot send " + SignalName(signal) + " to pid", std::to_string(record->pid)));
}

Status StopInstance(const Instance &instance, int signal, double timeoutSeconds) {
    if (!LockHeld(instance)) return ReadStatus(instance);
    auto program = ReadPidRecord(instance, kRunPid);
    auto box = ReadPidRecord(instance, kRunBox);
    if (program && PidRecordAlive(*program) && !PathExists(instance.RunFile(kRunStatus)))
        kill(program->pid, signal);
    else if (box && PidRecordAlive(*box))
        kill(box->pid, SIGKILL);
    auto deadline = Deadline(timeoutSeconds);
    while (LockHeld(instance) && Clock::now() < deadline) SleepMs(5);
    if (LockHeld(instance) && box && PidRecordAlive(*box)) {
        kill(box->pid, SIGKILL);
        for (auto kill = Deadline(5); LockHeld(instance) && Clock::now() < kill;) SleepMs(5);
    }
    return ReadStatus(instance);
}

std::vector<std::string> EnterCommandLine(pid_t boxPid, const std::string &userNamespace,
                                          const std::vector<std::string> &command,
                                          const std::vector<std::string> &namespaces) {
    const char *path = getenv("PATH");
    auto nsenter = FindExecutable("nsenter", path ? path : "/usr/bin:/bin");
    if (!nsenter && PathExists("/usr/bin/nsenter")) nsenter = "/usr/bin/nsenter";
    if (!nsenter) throw Error("nsenter not found (Debian package util-linux)");
    std::vector<std::string> args = {*nsenter, "--target", std::to_string(boxPid)};
    if (!userNamespace.empty()) args.insert(args.end(), {"--user=" + userNamespace, "--preserve-credentials"});
    args.insert(args.end(), namespaces.begin(), namespaces.end());
    args.push_back("--");
    args.insert(args.end(), command.begin(), command.end());
    return args;
}

// The user namespace that owns the box's network namespace, as an open
// descriptor that an exec keeps; -1 when it is our own. A box started without
// root has such a namespace, and bwrap nests a second one inside it for the
// box's processes: joining the network needs the outer one, which no process
// of the box is in, so it is found from the network namespace itself.
int OwnerUserNamespace(pid_t boxPid) {
    std::string netPath = "/proc/" + std::to_string(boxPid) + "/ns/net";
    int net = open(netPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (net < 0) throw Error(ErrnoText("cannot open", netPath));
    int owner = ioctl(net, NS_GET_USERNS);
    int saved = errno;
    close(net);
    errno = saved;
    if (owner < 0) throw Error(ErrnoText("cannot find the owner of", netPath));
    struct stat ours, theirs;
    if (stat("/proc/self/ns/user", &ours) != 0 || fstat(owner, &theirs) != 0) {
        close(owner);
        throw Error(ErrnoText("cannot read", "/proc/self/ns/user"));
    }
    if (ours.st_ino == theirs.st_ino && ours.st_dev == theirs.st_dev) {
        close(owner);
        return -1;
    }
    fcntl(owner, F_SETFD, 0);
    return owner;
}

pid_t RunningBoxPid(const Instance &instance) {
    auto box = ReadPidRecord(instance, kRunBox);
    if (!LockHeld(instance) || !box || !PidRecordAlive(*box)) throw Error("instance is not running: " + instance.dir);
    return box->pid;
}

void ExecInNetwork(const Instance &instance, const Tree &tree, const std::vector<std::string> &command) {
    if (command.empty()) throw Error("exec: no command given");
    const pid_t boxPid = RunningBoxPid(instance);
    // Only root and the user who started the box may enter it; say so
    // rather than let nsenter fail on a namespace it may not join.
    struct stat boxProc;
    std::string boxProcPath = "/proc/" + std::to_string(boxPid);
    if (stat(boxProcPath.c_str(), &boxProc) == 0 && geteuid() != 0 && boxProc.st_uid != geteuid())
        throw Error("the box of " + instance.dir + " was started by uid " + std::to_string(boxProc.st_uid) +
                    ": only that user and root can enter it");
    int owner = OwnerUserNamespace(boxPid);
    std::vector<std::string> args =
        EnterCommandLine(boxPid, owner < 0 ? "" : "/proc/self/fd/" + std::to_string(owner), command);
    // nsenter looks the command up in this PATH.
    const char *path = getenv("PATH");
    std::string newPath = tree.prefix + "/bin:" + tree.prefix + "/sbin:" + (path ? path : "/usr/bin:/bin");
    setenv("PATH", newPath.c_str(), 1);
    setenv("KVARD_MDM_DIR", instance.Store().c_str(), 1);
    std::vector<char *> argv = ExecVector(args);
    execv(argv[0], argv.data());
    fprintf(stderr, "kvard-sandbox: cannot run %s: %s\n", argv[0], strerror(errno));
    _exit(127);
}

}  // namespace sandbox
