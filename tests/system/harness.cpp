#include "tests/system/harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tools/sandbox/stublog.h"

namespace kvard::test {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string &message) { throw std::runtime_error(message); }

std::string ErrnoText(const std::string &what) { return what + ": " + strerror(errno); }

std::optional<std::string> Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Atomic replacement: a hidden temporary beside PATH, then rename.
void Replace(const std::string &path, std::string_view content) {
    size_t slash = path.rfind('/');
    std::string temp = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!out) Fail("cannot write " + temp);
    }
    if (rename(temp.c_str(), path.c_str()) != 0) Fail(ErrnoText("cannot rename " + temp + " to " + path));
}

std::string Tail(const std::string &text, size_t max = 1500) {
    return text.size() <= max ? text : "..." + text.substr(text.size() - max);
}

std::string Milliseconds(milliseconds ms) { return std::to_string(ms.count()) + " ms"; }

// Where state directories go: $KVARD_SANDBOX_TMPDIR, else a memory file
// system (the fake /proc holds a thousand links, slow to make on a journaled
// disk), else $TMPDIR or /tmp.
std::string TemporaryBase() {
    const char *own = getenv("KVARD_SANDBOX_TMPDIR");
    if (own && *own) return own;
    if (access("/dev/shm", W_OK | X_OK) == 0) return "/dev/shm";
    const char *tmp = getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

bool KeepAlways() {
    const char *keep = getenv("KVARD_KEEP_SANDBOX");
    return keep && *keep && std::string(keep) != "0";
}

std::optional<long> FirstNumber(const std::optional<std::string> &text) {
    if (!text) return std::nullopt;
    char *end = nullptr;
    long value = strtol(text->c_str(), &end, 10);
    if (end == text->c_str()) return std::nullopt;
    return value;
}

// Start time of PID in clock ticks (field 22 of its stat file).
std::optional<unsigned long long> StartTime(pid_t pid) {
    auto stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
    if (!stat) return std::nullopt;
    size_t close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(stat->substr(close + 2));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
        if (i == 22) return std::stoull(field);
    }
    return std::nullopt;
}

}  // namespace

void PrintTo(const ProgramStatus &status, std::ostream *out) {
    switch (status.kind) {
    case ProgramStatus::NotStarted: *out << "not started"; break;
    case ProgramStatus::Running: *out << "running"; break;
    case ProgramStatus::Exited: *out << "exited " << status.value; break;
    case ProgramStatus::Killed: *out << "killed by signal " << status.value; break;
    case ProgramStatus::Failed: *out << "failed: " << status.text; break;
    }
}

std::string InstalledPrefix() {
    const char *prefix = getenv("KVARD_PREFIX");
    if (!prefix || !*prefix) Fail("KVARD_PREFIX is not set: system tests run on an installed tree (ctest's stage)");
    return prefix;
}

std::string EscapeStoreValue(std::string_view value) {
    std::string out;
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string UnescapeStoreValue(std::string_view value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size() && (value[i + 1] == 'n' || value[i + 1] == '\\')) {
            out += value[i + 1] == 'n' ? '\n' : '\\';
            ++i;
        } else {
            out += value[i];
        }
    }
    return out;
}

Sandbox::Sandbox(SandboxOptions options) : options_(std::move(options)) {
    runner_ = InstalledPrefix() + "/bin/kvard-sandbox";
    std::string pattern = TemporaryBase() + "/kvard-sandbox-XXXXXX";
    if (!mkdtemp(pattern.data())) Fail(ErrnoText("cannot create a temporary directory from " + pattern));
    dir_ = pattern;
    std::vector<std::string> args = {"init", dir_, "--time", options_.time, "--tz", options_.zone, "--seed",
                                     options_.seedRouter ? "router" : "none"};
    if (!options_.mtd) args.push_back("--no-mtd");
    if (options_.mtdSize) args.insert(args.end(), {"--mtd-size", std::to_string(options_.mtdSize)});
    if (options_.mtdEraseSize) args.insert(args.end(), {"--mtd-erasesize", std::to_string(options_.mtdEraseSize)});
    if (options_.mtdWriteSize) args.insert(args.end(), {"--mtd-writesize", std::to_string(options_.mtdWriteSize)});
    args.insert(args.end(), options_.initArgs.begin(), options_.initArgs.end());
    CommandResult init = Runner(args);
    if (init.status != 0) {
        std::filesystem::remove_all(dir_);
        Fail("kvard-sandbox init failed (" + std::to_string(init.status) + "): " + init.err);
    }
    if (options_.command.empty()) options_.command.push_back(InstalledPrefix() + "/sbin/kvard");
}

Sandbox::~Sandbox() {
    try {
        if (Status().kind == ProgramStatus::Running) Stop(milliseconds(2000));
    } catch (const std::exception &e) {
        fprintf(stderr, "sandbox %s: stop failed: %s\n", dir_.c_str(), e.what());
    }
    Reap();
    if (socket_ >= 0) close(socket_);
    bool failed = ::testing::Test::HasFailure();
    if (failed || KeepAlways()) {
        fprintf(stderr, "sandbox state kept in %s\n", dir_.c_str());
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

std::string Sandbox::Path(std::string_view relative) const { return dir_ + "/" + std::string(relative); }

std::string Sandbox::RunFile(std::string_view name) const { return dir_ + "/sandbox/run/" + std::string(name); }

CommandResult Sandbox::Runner(const std::vector<std::string> &args, std::string_view input) const {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        Fail(ErrnoText("cannot create pipes for kvard-sandbox"));
    pid_t pid = fork();
    if (pid < 0) Fail(ErrnoText("cannot fork kvard-sandbox"));
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        std::vector<char *> argv = {const_cast<char *>(runner_.c_str())};
        for (const auto &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        dprintf(2, "cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    size_t written = 0;
    if (input.empty()) {
        close(in[1]);
        in[1] = -1;
    }
    CommandResult result;
    struct pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
    int open = 2;
    while (open > 0 || fds[2].fd >= 0) {
        if (poll(fds, 3, -1) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
            char buffer[4096];
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
        if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            ssize_t n = write(fds[2].fd, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n <= 0 || written == input.size()) {
                close(fds[2].fd);
                fds[2].fd = -1;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

CommandResult Sandbox::Exec(const std::vector<std::string> &command) const {
    std::vector<std::string> args = {"exec", dir_, "--"};
    args.insert(args.end(), command.begin(), command.end());
    return Runner(args);
}

void Sandbox::Reap() {
    if (runChild_ <= 0) return;
    // The runner ends right after the box; give it a moment, then insist.
    for (int i = 0; i < 500; ++i) {
        if (waitpid(runChild_, nullptr, WNOHANG) == runChild_) {
            runChild_ = 0;
            return;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    kill(runChild_, SIGKILL);
    waitpid(runChild_, nullptr, 0);
    runChild_ = 0;
}

void Sandbox::Start(const std::vector<std::string> &extraEnv) {
    if (Status().kind == ProgramStatus::Running) Fail("Start: the program of " + dir_ + " still runs");
    Reap();
    std::filesystem::remove(RunFile("status"));
    std::filesystem::remove(RunFile("pid"));
    std::vector<std::string> args = {"run", dir_, "--quiet"};
    for (const auto &env : options_.env) args.insert(args.end(), {"--env", env});
    for (const auto &env : extraEnv) args.insert(args.end(), {"--env", env});
    args.push_back("--");
    args.insert(args.end(), options_.command.begin(), options_.command.end());

    std::string log = Path("runner.log");
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) Fail(ErrnoText("cannot fork kvard-sandbox run"));
    if (pid == 0) {
        // The box goes with this test process, however it ends.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(125);
        int null = open("/dev/null", O_RDWR);
        int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(null, 0);
        dup2(null, 1);
        dup2(logFd >= 0 ? logFd : null, 2);
        std::vector<char *> argv = {const_cast<char *>(runner_.c_str())};
        for (const auto &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        dprintf(2, "cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    runChild_ = pid;
    for (auto deadline = Clock::now() + milliseconds(20000); Clock::now() < deadline;) {
        if (std::filesystem::exists(RunFile("pid")) || std::filesystem::exists(RunFile("status"))) return;
        int status = 0;
        if (waitpid(runChild_, &status, WNOHANG) == runChild_) {
            runChild_ = 0;
            if (std::filesystem::exists(RunFile("status"))) return;
            Fail("kvard-sandbox run ended before the program started: " + Slurp(log).value_or(""));
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
    Fail("the program of " + dir_ + " did not start within 20 s: " + Slurp(log).value_or(""));
}

ProgramStatus Sandbox::Status() const {
    if (auto text = Slurp(RunFile("status"))) {
        while (!text->empty() && text->back() == '\n') text->pop_back();
        if (text->rfind("exited ", 0) == 0) return Exited(atoi(text->c_str() + 7));
        if (text->rfind("killed ", 0) == 0) return Killed(atoi(text->c_str() + 7));
        return {ProgramStatus::Failed, 0, *text};
    }
    if (runChild_ > 0 && std::filesystem::exists(RunFile("pid"))) {
        // Our runner may have ended without the program's end recorded.
        if (kill(runChild_, 0) == 0) {
            auto stat = Slurp("/proc/" + std::to_string(runChild_) + "/stat");
            size_t close = stat ? stat->rfind(')') : std::string::npos;
            if (close != std::string::npos && close + 2 < stat->size() && (*stat)[close + 2] != 'Z')
                return kRunning;
        }
        return {ProgramStatus::Failed, 0, "the runner ended: " + Slurp(Path("runner.log")).value_or("")};
    }
    return {};
}

pid_t Sandbox::ProgramPid() const {
    if (Status().kind != ProgramStatus::Running) return 0;
    auto record = Slurp(RunFile("pid"));
    auto pid = FirstNumber(record);
    if (!pid) return 0;
    // "PID STARTTIME": a pid that was reused by now is not the program.
    long ignored = 0;
    unsigned long long start = 0;
    if (sscanf(record->c_str(), "%ld %llu", &ignored, &start) != 2 || StartTime(static_cast<pid_t>(*pid)) != start)
        return 0;
    return static_cast<pid_t>(*pid);
}

::testing::AssertionResult Sandbox::WaitReady(milliseconds timeout, int port) {
    double seconds = static_cast<double>(timeout.count()) / 1000.0;
    CommandResult wait =
        Runner({"wait", dir_, "--timeout", std::to_string(seconds), "--port", std::to_string(port)});
    if (wait.status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not ready: " << wait.err << Diagnostics();
}

void Sandbox::Signal(int signal) {
    pid_t pid = ProgramPid();
    if (pid <= 0) Fail("Signal: the program of " + dir_ + " is not running" + Diagnostics());
    if (kill(pid, signal) != 0) Fail(ErrnoText("cannot send signal " + std::to_string(signal)));
}

ProgramStatus Sandbox::WaitExit(milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout;;) {
        ProgramStatus status = Status();
        if (status.kind != ProgramStatus::Running || Clock::now() >= deadline) {
            if (status.kind != ProgramStatus::Running) Reap();
            return status;
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
}

ProgramStatus Sandbox::Stop(milliseconds timeout) {
    double seconds = static_cast<double>(timeout.count()) / 1000.0;
    CommandResult stop = Runner({"stop", dir_, "TERM", "--timeout", std::to_string(seconds)});
    if (stop.status != 0) Fail("kvard-sandbox stop failed: " + stop.err + stop.out);
    Reap();
    return Status();
}

void Sandbox::SetTime(std::string_view clockText) {
    CommandResult result = Runner({"time", dir_, std::string(clockText)});
    if (result.status != 0) Fail("kvard-sandbox time failed: " + result.err);
}

void Sandbox::WriteProc(std::string_view relative, std::string_view content) {
    CommandResult result = Runner({"proc", dir_, std::string(relative)}, content);
    if (result.status != 0) Fail("kvard-sandbox proc failed: " + result.err);
}

void Sandbox::SetNetDev(const std::vector<NetDev> &interfaces) {
    std::vector<std::string> args = {"netdev", dir_};
    for (const auto &interface : interfaces)
        args.insert(args.end(),
                    {interface.name, std::to_string(interface.rxBytes), std::to_string(interface.txBytes)});
    CommandResult result = Runner(args);
    if (result.status != 0) Fail("kvard-sandbox netdev failed: " + result.err);
}

void Sandbox::SetUptime(double seconds) {
    char text[64];
    snprintf(text, sizeof text, "%.2f %.2f\n", seconds, seconds);
    WriteProc("uptime", text);
}

std::optional<std::string> Sandbox::ReadFile(std::string_view relative) const { return Slurp(Path(relative)); }

void Sandbox::WriteFile(std::string_view relative, std::string_view content) { Replace(Path(relative), content); }

void Sandbox::RemoveFile(std::string_view relative) {
    if (unlink(Path(relative).c_str()) != 0 && errno != ENOENT) Fail(ErrnoText("cannot remove " + Path(relative)));
}

std::string Sandbox::Stdout() const { return Slurp(Path("stdout")).value_or(""); }
std::string Sandbox::Stderr() const { return Slurp(Path("stderr")).value_or(""); }

static ::testing::AssertionResult WaitForText(const std::function<std::string()> &read, std::string_view text,
                                              milliseconds timeout, const char *what, const std::string &extra) {
    std::string seen;
    for (auto deadline = Clock::now() + timeout;;) {
        seen = read();
        if (seen.find(text) != std::string::npos) return ::testing::AssertionSuccess();
        if (Clock::now() >= deadline) break;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return ::testing::AssertionFailure() << what << " has no \"" << text << "\" after " << Milliseconds(timeout)
                                         << "; it holds:\n"
                                         << Tail(seen) << extra;
}

::testing::AssertionResult Sandbox::WaitStdout(std::string_view text, milliseconds timeout) const {
    return WaitForText([this] { return Stdout(); }, text, timeout, "stdout", Diagnostics());
}

::testing::AssertionResult Sandbox::WaitStderr(std::string_view text, milliseconds timeout) const {
    return WaitForText([this] { return Stderr(); }, text, timeout, "stderr", Diagnostics());
}

std::string Sandbox::Diagnostics() const {
    std::ostringstream text;
    text << "\n[sandbox " << dir_ << ": ";
    PrintTo(Status(), &text);
    text << "]\n[stderr]\n" << Tail(Stderr(), 1000) << "\n";
    return text.str();
}

std::vector<std::vector<std::string>> Sandbox::StubCalls(std::string_view command) const {
    std::vector<std::vector<std::string>> calls;
    std::istringstream log(Slurp(Path("sandbox/stubs.log")).value_or(""));
    std::string line;
    while (std::getline(log, line)) {
        auto argv = sandbox::ParseStubLine(line);
        if (!argv) Fail("malformed line in " + Path("sandbox/stubs.log") + ": " + line);
        std::string name = (*argv)[0].substr((*argv)[0].rfind('/') + 1);
        if (command.empty() || name == command) calls.push_back(std::move(*argv));
    }
    return calls;
}

void Sandbox::ClearStubLog() { Replace(Path("sandbox/stubs.log"), ""); }

void Sandbox::LockStore(int &fd) const {
    std::string path = StoreDir() + "/.lock";
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) Fail(ErrnoText("cannot open " + path));
    for (auto deadline = Clock::now() + milliseconds(5000); flock(fd, LOCK_EX | LOCK_NB) != 0;) {
        if (errno != EWOULDBLOCK || Clock::now() >= deadline) {
            close(fd);
            Fail(ErrnoText("cannot lock " + path));
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
}

namespace {

// Closes (and so unlocks) the store's lock descriptor on every way out.
struct LockGuard {
    int fd = -1;
    ~LockGuard() {
        if (fd >= 0) close(fd);
    }
};

std::vector<std::pair<std::string, std::string>> ParseObject(const std::string &text) {
    std::vector<std::pair<std::string, std::string>> fields;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        fields.emplace_back(line.substr(0, eq), UnescapeStoreValue(line.substr(eq + 1)));
    }
    return fields;
}

std::string FormatObject(const std::vector<std::pair<std::string, std::string>> &fields) {
    std::string text;
    for (const auto &[name, value] : fields) text += name + "=" + EscapeStoreValue(value) + "\n";
    return text;
}

}  // namespace

std::optional<StoreObject> Sandbox::ReadObject(std::string_view name) const {
    LockGuard lock;
    LockStore(lock.fd);
    auto text = Slurp(StoreDir() + "/" + std::string(name));
    if (!text) return std::nullopt;
    StoreObject object;
    for (auto &[field, value] : ParseObject(*text)) object[field] = value;
    return object;
}

void Sandbox::WriteObject(std::string_view name, const StoreObject &fields) {
    LockGuard lock;
    LockStore(lock.fd);
    Replace(StoreDir() + "/" + std::string(name), FormatObject({fields.begin(), fields.end()}));
}

void Sandbox::UpdateObject(std::string_view name, const StoreObject &fields) {
    LockGuard lock;
    LockStore(lock.fd);
    std::string path = StoreDir() + "/" + std::string(name);
    auto existing = ParseObject(Slurp(path).value_or(""));
    for (const auto &[field, value] : fields) {
        bool found = false;
        for (auto &entry : existing)
            if (entry.first == field) {
                entry.second = value;
                found = true;
            }
        if (!found) existing.emplace_back(field, value);
    }
    Replace(path, FormatObject(existing));
}

int Sandbox::NetSocket() {
    auto box = FirstNumber(Slurp(RunFile("box.pid")));
    if (!box) Fail("no box of " + dir_ + " is running" + Diagnostics());
    pid_t boxPid = static_cast<pid_t>(*box);
    if (socket_ >= 0 && socketBox_ == boxPid) return socket_;
    if (socket_ >= 0) close(socket_);
    socket_ = -1;

    // The socket is created inside the box's network namespace and stays
    // there after this thread has gone back to its own.
    int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    std::string target = "/proc/" + std::to_string(boxPid) + "/ns/net";
    int theirs = open(target.c_str(), O_RDONLY | O_CLOEXEC);
    if (own < 0 || theirs < 0) {
        if (own >= 0) close(own);
        Fail(ErrnoText("cannot open " + target));
    }
    if (setns(theirs, CLONE_NEWNET) != 0) {
        close(own);
        close(theirs);
        Fail(ErrnoText("cannot enter " + target + " (root needed)"));
    }
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int socketErrno = errno;
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool bound = sock >= 0 && bind(sock, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0;
    if (setns(own, CLONE_NEWNET) != 0) {
        // Staying in the box's namespace would quietly break everything after.
        perror("cannot return to the test's network namespace");
        abort();
    }
    close(own);
    close(theirs);
    if (!bound) {
        if (sock >= 0) close(sock);
        errno = socketErrno;
        Fail(ErrnoText("cannot create a socket in " + target));
    }
    socket_ = sock;
    socketBox_ = boxPid;
    return socket_;
}

std::optional<std::string> Sandbox::Request(std::string_view datagram, milliseconds timeout, int port) {
    int sock = NetSocket();
    char buffer[65536];
    while (recv(sock, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) {
        // A late reply to an earlier request that timed out.
    }
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sendto(sock, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0)
        Fail(ErrnoText("cannot send to 127.0.0.1:" + std::to_string(port) + " in " + dir_));
    for (auto deadline = Clock::now() + timeout;;) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        if (left.count() < 0) return std::nullopt;
        struct pollfd pfd = {sock, POLLIN, 0};
        int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        struct sockaddr_in from;
        socklen_t length = sizeof from;
        ssize_t n = recvfrom(sock, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &length);
        // An ICMP "port unreachable" shows as ECONNREFUSED: nobody listens yet.
        if (n < 0) continue;
        if (from.sin_port == to.sin_port) return std::string(buffer, static_cast<size_t>(n));
    }
}

std::optional<int32_t> Sandbox::Send(uint16_t code, std::string_view body, milliseconds timeout) {
    std::string datagram = {'\x2d', '\xa5', static_cast<char>(code & 0xff), static_cast<char>(code >> 8),
                            static_cast<char>(body.size() & 0xff), static_cast<char>((body.size() >> 8) & 0xff),
                            '\0', '\0'};
    datagram.append(body);
    auto reply = Request(datagram, timeout);
    if (!reply) return std::nullopt;
    if (reply->size() != 4) {
        ADD_FAILURE() << "reply to code " << code << " has " << reply->size() << " bytes, not 4";
        return std::nullopt;
    }
    const auto *bytes = reinterpret_cast<const unsigned char *>(reply->data());
    return static_cast<int32_t>(static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
                                static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24);
}

}  // namespace kvard::test
