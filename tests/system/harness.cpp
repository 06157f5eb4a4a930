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

#include <algorithm>
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
void Must(const CommandResult &result) {
    if (result.status != 0) Fail("kvard-sandbox failed: " + result.out);
}

const char *const kStore = "var/lib/kvard/mdm/";

// Store text escaping: "\n" for a line feed, "\\" for a backslash.
std::string EscapeStoreValue(std::string_view value) {
    std::string out;
    for (char c : value) out += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
    return out;
}

std::string UnescapeStoreValue(std::string_view value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        bool escape = value[i] == '\\' && i + 1 < value.size() && (value[i + 1] == 'n' || value[i + 1] == '\\');
        out += escape ? (value[++i] == 'n' ? '\n' : '\\') : value[i];
    }
    return out;
}

StoreObject ParseObject(const std::string &text) {  // of two lines of a field, the first counts
    StoreObject fields;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) fields.emplace(line.substr(0, eq), UnescapeStoreValue(line.substr(eq + 1)));
    }
    return fields;
}

struct StoreLock {  // the store's lock, held for the life of the object
    int fd;
    explicit StoreLock(const std::string &path) : fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd < 0 || flock(fd, LOCK_EX) != 0) FailErrno("cannot lock " + path);
    }
    ~StoreLock() { close(fd); }
};

}  // namespace

std::string InstalledPrefix() {
    const char *prefix = getenv("KVARD_PREFIX");
    if (!prefix || !*prefix) Fail("KVARD_PREFIX is not set: system tests run on an installed tree (ctest's stage)");
    return prefix;
}

Sandbox::Sandbox(SandboxOptions o) : options_(std::move(o)), runner_(InstalledPrefix() + "/bin/kvard-sandbox") {
    // A memory file system by default: the fake /proc holds a thousand links.
    const char *base = getenv("KVARD_SANDBOX_TMPDIR");
    dir_ = std::string(base && *base ? base : "/dev/shm") + "/kvard-sandbox-XXXXXX";
    if (!mkdtemp(dir_.data())) FailErrno("mkdtemp " + dir_);
    std::vector<std::string> args = {"init", dir_, "--time", options_.time, "--tz", options_.zone};
    if (!options_.mtd) args.push_back("--no-mtd");
    Must(Runner(args));
    if (options_.command.empty()) options_.command = {InstalledPrefix() + "/sbin/kvard"};
}

Sandbox::~Sandbox() {
    if (Status() == "running") Runner({"stop", dir_, "TERM", "--timeout", "2"});
    Reap();
    if (::testing::Test::HasFailure() || getenv("KVARD_KEEP_SANDBOX"))
        fprintf(stderr, "sandbox state kept in %s\n", dir_.c_str());
    else
        std::filesystem::remove_all(dir_);
}

CommandResult RunShell(const std::string &command) {
    CommandResult result;
    FILE *pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    int status = pipe ? pclose(pipe) : -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

CommandResult Sandbox::Runner(const std::vector<std::string> &args) const {
    std::string command = runner_;
    for (const auto &arg : args) {  // each in single quotes for the shell
        command += " '";
        for (char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += "'";
    }
    return RunShell(command);
}

void Sandbox::Reap() {  // only once the box has ended: the runner ends with it
    if (runChild_ > 0) waitpid(runChild_, nullptr, 0);
    runChild_ = 0;
}

void Sandbox::Start(const std::vector<std::string> &extraEnv) {
    if (Status() == "running") Fail("Start: the program of " + dir_ + " still runs");
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

std::string Sandbox::Status() const {
    if (auto text = ReadFile("sandbox/run/status")) return text->substr(0, text->find('\n'));
    return runChild_ > 0 && ReadFile("sandbox/run/pid") ? "running" : "not started";
}

pid_t Sandbox::ProgramPid() const {
    return Status() == "running" ? atoi(ReadFile("sandbox/run/pid").value_or("0").c_str()) : 0;
}

::testing::AssertionResult Sandbox::WaitReady(milliseconds timeout) {
    CommandResult wait = Runner({"wait", dir_, "--timeout", std::to_string(timeout.count() / 1000.0)});
    if (wait.status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not ready: " << wait.out << "\n[stderr]\n" << Stderr();
}

void Sandbox::Signal(int signal) { Must(Runner({"signal", dir_, std::to_string(signal)})); }

std::string Sandbox::WaitExit(milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout;; std::this_thread::sleep_for(milliseconds(2))) {
        std::string status = Status();
        if (status != "running") Reap();
        if (status != "running" || Clock::now() >= deadline) return status;
    }
}

std::string Sandbox::Stop() {
    Must(Runner({"stop", dir_}));
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
    WriteFile("proc/uptime", text);
}

std::optional<std::string> Sandbox::ReadFile(std::string_view relative) const {
    std::ifstream in(Path(relative), std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A hidden temporary beside the file, then rename: readers never see half a file.
void Sandbox::WriteFile(std::string_view relative, std::string_view content) {
    std::string path = Path(relative);
    std::string temp = path.substr(0, path.rfind('/') + 1) + "." + path.substr(path.rfind('/') + 1) + ".tmp";
    std::ofstream(temp, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    if (rename(temp.c_str(), path.c_str()) != 0) FailErrno("cannot replace " + path);
}

void Sandbox::RemoveFile(std::string_view relative) {
    if (unlink(Path(relative).c_str()) != 0 && errno != ENOENT) FailErrno("cannot remove " + Path(relative));
}

::testing::AssertionResult Sandbox::WaitText(const char *file, std::string_view text, milliseconds timeout) const {
    std::string seen;
    for (auto deadline = Clock::now() + timeout; (seen = ReadFile(file).value_or("")).find(text) == std::string::npos;
         std::this_thread::sleep_for(milliseconds(5)))
        if (Clock::now() >= deadline)
            return ::testing::AssertionFailure() << file << " of " << dir_ << " (" << Status()
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
    StoreLock lock(Path(kStore + std::string(".lock")));
    auto text = ReadFile(kStore + std::string(name));
    if (!text) return std::nullopt;
    return ParseObject(*text);
}

// Sets FIELDS; with KEEP the object's other fields stay.
void Sandbox::Modify(std::string_view name, const StoreObject &fields, bool keep) {
    StoreLock lock(Path(kStore + std::string(".lock")));
    std::string path = kStore + std::string(name), text;
    StoreObject merged = keep ? ParseObject(ReadFile(path).value_or("")) : StoreObject{};
    for (const auto &[field, value] : fields) merged[field] = value;
    for (const auto &[field, value] : merged) text += field + "=" + EscapeStoreValue(value) + "\n";
    WriteFile(path, text);
}

std::optional<std::string> Sandbox::Request(std::string_view datagram, milliseconds timeout) {
    // Made inside the box's network namespace, a fresh socket per request stays there after this thread
    // has gone back to its own, and no late reply to an earlier request can reach it.
    std::string theirs = "/proc/" + std::to_string(atoi(ReadFile("sandbox/run/box.pid").value_or("0").c_str())) +
                         "/ns/net";
    int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int other = open(theirs.c_str(), O_RDONLY | O_CLOEXEC);
    if (own < 0 || other < 0 || setns(other, CLONE_NEWNET) != 0) FailErrno("cannot enter " + theirs);
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (setns(own, CLONE_NEWNET) != 0) abort();  // the rest of the test would talk to the wrong network
    close(own);
    close(other);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(kControlPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sendto(sock, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0)
        FailErrno("cannot send in " + theirs);
    std::optional<std::string> reply;
    char buffer[65536];
    // A program that has ended (a power cut kills it on purpose) answers nothing: no need to wait it out.
    for (auto deadline = Clock::now() + timeout; !reply;) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
        pollfd pfd = {sock, POLLIN, 0};
        if (left < 0) break;
        if (poll(&pfd, 1, static_cast<int>(std::min<long long>(left, 50))) == 0) {
            if (ReadFile("sandbox/run/status") && poll(&pfd, 1, 0) == 0) break;
            continue;
        }
        // An ICMP "port unreachable" shows as an error: nobody listens yet.
        ssize_t n = recv(sock, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n >= 0) reply = std::string(buffer, static_cast<size_t>(n));
    }
    close(sock);
    return reply;
}

std::optional<int32_t> Sandbox::Send(uint16_t code, std::string_view body, milliseconds timeout) {
    size_t n = body.size();
    std::string datagram = {'\x2d', '\xa5', char(code & 0xff), char(code >> 8), char(n & 0xff), char(n >> 8), 0, 0};
    auto reply = Request(datagram.append(body), timeout);
    if (reply && reply->size() != 4) ADD_FAILURE() << "reply to code " << code << " has " << reply->size() << " bytes";
    if (!reply || reply->size() != 4) return std::nullopt;
    int32_t word;
    memcpy(&word, reply->data(), 4);  // the host's order is the target's, little-endian
    return word;
}

}  // namespace kvard::test
