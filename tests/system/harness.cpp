#include "tests/system/harness.h"

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

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tools/sandbox/stublog.h"

namespace kvard::test {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const std::string &message) { throw std::runtime_error(message); }
[[noreturn]] void FailErrno(const std::string &what) { Fail(what + ": " + strerror(errno)); }

std::optional<std::string> Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A hidden temporary beside PATH, then rename: readers never see half a file.
void Replace(const std::string &path, std::string_view content) {
    std::string temp = path.substr(0, path.rfind('/') + 1) + "." + path.substr(path.rfind('/') + 1) + ".tmp";
    std::ofstream(temp, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    if (rename(temp.c_str(), path.c_str()) != 0) FailErrno("cannot replace " + path);
}

std::string UnescapeStoreValue(std::string_view value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        bool escape = value[i] == '\\' && i + 1 < value.size() && (value[i + 1] == 'n' || value[i + 1] == '\\');
        out += escape ? (value[++i] == 'n' ? '\n' : '\\') : value[i];
    }
    return out;
}

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields ParseObject(const std::string &text) {
    Fields fields;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) fields.emplace_back(line.substr(0, eq), UnescapeStoreValue(line.substr(eq + 1)));
    }
    return fields;
}

// The store's lock, held for the life of the object.
struct StoreLock {
    int fd;
    explicit StoreLock(const std::string &store)
        : fd(open((store + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd < 0 || flock(fd, LOCK_EX) != 0) FailErrno("cannot lock " + store + "/.lock");
    }
    ~StoreLock() { close(fd); }
};

}  // namespace

void PrintTo(const ProgramStatus &status, std::ostream *out) {
    static const char *const kinds[] = {"not started", "running", "exited ", "killed by signal ", "failed: "};
    *out << kinds[status.kind] << (status.kind == ProgramStatus::Exited || status.kind == ProgramStatus::Killed
                                       ? std::to_string(status.value) : status.text);
}

std::string InstalledPrefix() {
    const char *prefix = getenv("KVARD_PREFIX");
    if (!prefix || !*prefix) Fail("KVARD_PREFIX is not set: system tests run on an installed tree (ctest's stage)");
    return prefix;
}

std::string EscapeStoreValue(std::string_view value) {
    std::string out;
    for (char c : value) out += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
    return out;
}

Sandbox::Sandbox(SandboxOptions o) : options_(std::move(o)), runner_(InstalledPrefix() + "/bin/kvard-sandbox") {
    // A memory file system by default: the fake /proc holds a thousand links.
    const char *base = getenv("KVARD_SANDBOX_TMPDIR");
    dir_ = std::string(base && *base ? base : "/dev/shm") + "/kvard-sandbox-XXXXXX";
    if (!mkdtemp(dir_.data())) FailErrno("mkdtemp " + dir_);
    std::vector<std::string> args = {"init", dir_, "--time", options_.time, "--tz", options_.zone};
    if (!options_.mtd) args.push_back("--no-mtd");
    CommandResult init = Runner(args);
    if (init.status != 0) Fail("kvard-sandbox init failed: " + init.out);
    if (options_.command.empty()) options_.command = {InstalledPrefix() + "/sbin/kvard"};
}

Sandbox::~Sandbox() {
    if (Status() == kRunning) Runner({"stop", dir_, "TERM", "--timeout", "2"});
    Reap();
    if (socket_ >= 0) close(socket_);
    if (::testing::Test::HasFailure() || getenv("KVARD_KEEP_SANDBOX"))
        fprintf(stderr, "sandbox state kept in %s\n", dir_.c_str());
    else
        std::filesystem::remove_all(dir_);
}

CommandResult Sandbox::Runner(const std::vector<std::string> &args) const {
    std::string command = runner_;
    for (const auto &arg : args) {  // each in single quotes for the shell
        command += " '";
        for (char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += "'";
    }
    CommandResult result;
    FILE *pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    int status = pipe ? pclose(pipe) : -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

static void Must(const CommandResult &result) {
    if (result.status != 0) Fail("kvard-sandbox failed: " + result.out);
}

void Sandbox::Reap() {  // only once the box has ended: the runner ends with it
    if (runChild_ > 0) waitpid(runChild_, nullptr, 0);
    runChild_ = 0;
}

void Sandbox::Start(const std::vector<std::string> &extraEnv) {
    if (Status().kind == ProgramStatus::Running) Fail("Start: the program of " + dir_ + " still runs");
    Reap();
    RemoveFile("sandbox/run/status");
    RemoveFile("sandbox/run/pid");
    std::vector<std::string> args = {runner_, "run", dir_, "--quiet"};
    for (const auto &env : extraEnv) args.insert(args.end(), {"--env", env});
    args.push_back("--");
    args.insert(args.end(), options_.command.begin(), options_.command.end());
    std::vector<char *> argv;  // made before the fork: the test may have threads
    for (const auto &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    int log = open(Path("runner.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_t parent = getpid();
    if ((runChild_ = fork()) == 0) {
        // The box goes with the test process, however that ends.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(125);
        dup2(null, 0);
        dup2(null, 1);
        dup2(log, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(null);
    close(log);
    for (auto deadline = Clock::now() + milliseconds(20000); !ReadFile("sandbox/run/pid");
         std::this_thread::sleep_for(milliseconds(2))) {
        if (ReadFile("sandbox/run/status")) return;
        if (Clock::now() > deadline) Fail("the program of " + dir_ + " did not start: " + *ReadFile("runner.log"));
    }
}

ProgramStatus Sandbox::Status() const {
    if (auto text = ReadFile("sandbox/run/status")) {
        if (text->rfind("exited ", 0) == 0) return Exited(atoi(text->c_str() + 7));
        if (text->rfind("killed ", 0) == 0) return Killed(atoi(text->c_str() + 7));
        return {ProgramStatus::Failed, 0, *text};
    }
    return runChild_ > 0 && ReadFile("sandbox/run/pid") ? kRunning : ProgramStatus{};
}

pid_t Sandbox::ProgramPid() const {
    return Status() == kRunning ? atoi(ReadFile("sandbox/run/pid").value_or("0").c_str()) : 0;
}

::testing::AssertionResult Sandbox::WaitReady(milliseconds timeout, int port) {
    CommandResult wait = Runner({"wait", dir_, "--timeout", std::to_string(timeout.count() / 1000.0), "--port",
                                 std::to_string(port)});
    if (wait.status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not ready: " << wait.out << "\n[stderr]\n" << Stderr();
}

void Sandbox::Signal(int signal) { Must(Runner({"signal", dir_, std::to_string(signal)})); }

ProgramStatus Sandbox::WaitExit(milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout;; std::this_thread::sleep_for(milliseconds(2))) {
        ProgramStatus status = Status();
        if (status.kind != ProgramStatus::Running) Reap();
        if (status.kind != ProgramStatus::Running || Clock::now() >= deadline) return status;
    }
}

ProgramStatus Sandbox::Stop(milliseconds timeout) {
    Must(Runner({"stop", dir_, "TERM", "--timeout", std::to_string(timeout.count() / 1000.0)}));
    Reap();
    return Status();
}

void Sandbox::SetTime(std::string_view clockText) { Must(Runner({"time", dir_, std::string(clockText)})); }

void Sandbox::SetNetDev(const std::vector<NetDev> &interfaces) {
    std::vector<std::string> args = {"netdev", dir_};
    for (const auto &i : interfaces)
        args.insert(args.end(), {i.name, std::to_string(i.rxBytes), std::to_string(i.txBytes)});
    Must(Runner(args));
}

void Sandbox::SetUptime(double seconds) {
    char text[64];
    snprintf(text, sizeof text, "%.2f %.2f\n", seconds, seconds);
    WriteProc("uptime", text);
}

std::optional<std::string> Sandbox::ReadFile(std::string_view relative) const { return Slurp(Path(relative)); }

void Sandbox::WriteFile(std::string_view relative, std::string_view content) { Replace(Path(relative), content); }

void Sandbox::RemoveFile(std::string_view relative) {
    if (unlink(Path(relative).c_str()) != 0 && errno != ENOENT) FailErrno("cannot remove " + Path(relative));
}

::testing::AssertionResult Sandbox::WaitText(const char *file, std::string_view text, milliseconds timeout) const {
    std::string seen;
    for (auto deadline = Clock::now() + timeout; (seen = ReadFile(file).value_or("")).find(text) == std::string::npos;
         std::this_thread::sleep_for(milliseconds(5)))
        if (Clock::now() >= deadline)
            return ::testing::AssertionFailure() << file << " of " << dir_ << " (" << ::testing::PrintToString(Status())
                   << ") has no \"" << text << "\" after " << timeout.count() << " ms; it holds:\n"
                   << seen.substr(seen.size() > 999 ? seen.size() - 999 : 0) << "\n[stderr]\n" << Stderr().substr(0, 999);
    return ::testing::AssertionSuccess();
}

std::vector<std::vector<std::string>> Sandbox::StubCalls(std::string_view command) const {
    std::vector<std::vector<std::string>> calls;
    std::istringstream log(ReadFile("sandbox/stubs.log").value_or(""));
    for (std::string line; std::getline(log, line);) {
        auto argv = sandbox::ParseStubLine(line);
        if (!argv) Fail("malformed line in the stub log: " + line);
        if (command.empty() || (*argv)[0].substr((*argv)[0].rfind('/') + 1) == command) calls.push_back(*argv);
    }
    return calls;
}

std::optional<StoreObject> Sandbox::ReadObject(std::string_view name) const {
    StoreLock lock(StoreDir());
    auto text = Slurp(StoreDir() + "/" + std::string(name));
    if (!text) return std::nullopt;
    Fields fields = ParseObject(*text);
    return StoreObject(fields.begin(), fields.end());
}

// Sets FIELDS; with KEEP every other line stays where it was.
void Sandbox::Modify(std::string_view name, const StoreObject &fields, bool keep) {
    StoreLock lock(StoreDir());
    std::string path = StoreDir() + "/" + std::string(name), text;
    StoreObject left = fields;
    for (auto &[field, value] : keep ? ParseObject(Slurp(path).value_or("")) : Fields{}) {
        auto given = left.find(field);
        text += field + "=" + EscapeStoreValue(given == left.end() ? value : given->second) + "\n";
        if (given != left.end()) left.erase(given);
    }
    for (const auto &[field, value] : left) text += field + "=" + EscapeStoreValue(value) + "\n";
    Replace(path, text);
}

std::optional<std::string> Sandbox::Request(std::string_view datagram, milliseconds timeout, int port) {
    std::string box = ReadFile("sandbox/run/box.pid").value_or("no box");
    if (socket_ < 0 || socketBox_ != box) {
        // Made inside the box's network namespace, the socket stays there
        // after this thread has gone back to its own.
        if (socket_ >= 0) close(socket_);
        std::string theirs = "/proc/" + std::to_string(atoi(box.c_str())) + "/ns/net";
        int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        int other = open(theirs.c_str(), O_RDONLY | O_CLOEXEC);
        if (own < 0 || other < 0 || setns(other, CLONE_NEWNET) != 0) FailErrno("cannot enter " + theirs);
        socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (setns(own, CLONE_NEWNET) != 0) abort();  // the rest of the test would talk to the wrong network
        close(own);
        close(other);
        if (socket_ < 0) FailErrno("cannot make a socket in " + theirs);
        socketBox_ = box;
    }
    char buffer[65536];
    while (recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) continue;  // late replies to earlier requests
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sendto(socket_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0)
        FailErrno("cannot send in " + dir_);
    for (auto deadline = Clock::now() + timeout;;) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
        pollfd pfd = {socket_, POLLIN, 0};
        if (left < 0 || poll(&pfd, 1, static_cast<int>(left)) == 0) return std::nullopt;
        sockaddr_in from;
        socklen_t length = sizeof from;
        // An ICMP "port unreachable" shows as an error: nobody listens yet.
        ssize_t n = recvfrom(socket_, buffer, sizeof buffer, MSG_DONTWAIT, (sockaddr *)&from, &length);
        if (n >= 0 && from.sin_port == to.sin_port) return std::string(buffer, static_cast<size_t>(n));
    }
}

std::optional<int32_t> Sandbox::Send(uint16_t code, std::string_view body, milliseconds timeout) {
    size_t n = body.size();
    std::string datagram = {'\x2d', '\xa5', char(code & 0xff), char(code >> 8), char(n & 0xff), char(n >> 8), 0, 0};
    auto reply = Request(datagram.append(body), timeout);
    if (reply && reply->size() != 4) ADD_FAILURE() << "reply to code " << code << " has " << reply->size() << " bytes";
    if (!reply || reply->size() != 4) return std::nullopt;
    uint32_t word = 0;
    for (int i = 3; i >= 0; --i) word = word << 8 | static_cast<unsigned char>((*reply)[i]);
    return static_cast<int32_t>(word);
}

}  // namespace kvard::test
