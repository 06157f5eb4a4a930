// `kvard-sandbox web` (web.h). The listening socket is made here, in the
// host's network namespace, and handed to lighttpd as a socket-activation
// descriptor; lighttpd itself runs in the box's mount, network and pid
// namespaces, so the CGI sees the box's store, flash and clock and talks to
// kvard on the box's loopback, while the host's browser reaches the page. The
// server ends with the box: it is a process of the box's pid namespace.
#include "tools/sandbox/web.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>

#include "tools/sandbox/paths.h"
#include "tools/sandbox/util.h"

namespace sandbox {

namespace {

constexpr const char *kRunWeb = "web";             // below kRunDir: url and the server's host pid
constexpr const char *kWebDir = "web";             // below the control directory
constexpr const char *kWebConfig = "lighttpd.conf";
constexpr const char *kWebErrorLog = "error.log";
constexpr const char *kWebAccessLog = "access.log";

std::string BoxWebPath(const char *name) { return std::string(kBoxControlDir) + "/" + kWebDir + "/" + name; }
std::string HostWebPath(const Instance &instance, const char *name) {
    return instance.ControlFile(kWebDir) + "/" + name;
}

// A lighttpd string literal.
std::string Quoted(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The HTTP status of GET PATH, or -1 when no answer came by DEADLINE.
int HttpStatus(const std::string &address, int port, const std::string &path, double deadline) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address == "0.0.0.0" ? "127.0.0.1" : address.c_str(), &to.sin_addr);
    std::string request = "GET " + path + " HTTP/1.0\r\nHost: " + address + "\r\n\r\n";
    std::string answer;
    bool sent = false;
    int status = -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0 && errno != EINPROGRESS) {
        close(fd);
        return -1;
    }
    while (Now() < deadline) {
        pollfd p = {fd, static_cast<short>(sent ? POLLIN : POLLOUT), 0};
        int left = static_cast<int>((deadline - Now()) * 1000) + 1;
        if (poll(&p, 1, left > 100 ? 100 : left) <= 0) continue;
        if (p.revents & (POLLERR | POLLHUP | POLLNVAL) && !(p.revents & POLLIN)) break;
        if (!sent) {
            if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) break;
            sent = true;
            continue;
        }
        char buffer[512];
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        answer.append(buffer, static_cast<size_t>(n));
        size_t eol = answer.find("\r\n");
        if (eol != std::string::npos) {
            int code = 0;
            if (sscanf(answer.c_str(), "HTTP/%*d.%*d %d", &code) == 1) status = code;
            break;
        }
    }
    close(fd);
    return status;
}

std::string Url(const std::string &address, int port) {
    return "http://" + std::string(address == "0.0.0.0" ? "127.0.0.1" : address) + ":" + std::to_string(port) + "/";
}

// The server's record, when it still runs.
std::optional<std::pair<std::string, PidRecord>> RunningServer(const Instance &instance) {
    std::optional<std::string> text = ReadFileIfReadable(instance.RunFile(kRunWeb));
    if (!text) return std::nullopt;
    auto settings = ParseSettings(*text);
    auto record = ParsePidRecord(settings["pid"]);
    if (!record || !PidRecordAlive(*record) || settings["url"].empty()) return std::nullopt;
    return std::make_pair(settings["url"], *record);
}

// The pids of PID's children (lighttpd is nsenter's one child).
std::vector<pid_t> Children(pid_t pid) {
    std::vector<pid_t> children;
    auto text = ReadFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    if (!text) return children;
    std::istringstream in(*text);
    for (long child; in >> child;)
        if (child > 0) children.push_back(static_cast<pid_t>(child));
    return children;
}

int ListenSocket(const std::string &address, int port) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &at.sin_addr) != 1)
        throw UsageError("bad --listen '" + address + "': expected an IPv4 address such as 127.0.0.1");
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw Error(ErrnoText("cannot create", "a TCP socket"));
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0 || listen(fd, 64) != 0) {
        int saved = errno;
        close(fd);
        throw Error("cannot listen on " + address + ":" + std::to_string(port) + ": " + strerror(saved));
    }
    return fd;
}

int BoundPort(int fd) {
    sockaddr_in at = {};
    socklen_t length = sizeof at;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&at), &length) != 0) throw Error(ErrnoText("cannot read", "the socket's port"));
    return ntohs(at.sin_port);
}

std::string LogTail(const std::string &path) {
    auto text = ReadFile(path).value_or("");
    if (text.size() > 800) text = "..." + text.substr(text.size() - 800);
    return text;
}

}  // namespace

std::string WebServerConfig(const Tree &tree, const std::string &address, int port,
                            const std::vector<std::pair<std::string, std::string>> &env) {
    std::string text =
        "# Written by kvard-sandbox web for one run; the listening socket is handed over\n"
        "# by the runner (socket activation), the address and port name it.\n"
        "server.modules = (\"mod_alias\", \"mod_cgi\", \"mod_setenv\", \"mod_accesslog\")\n"
        "server.systemd-socket-activation = \"enable\"\n"
        "server.bind = " + Quoted(address) + "\n"
        "server.port = " + std::to_string(port) + "\n"
        "server.document-root = " + Quoted(tree.WebRoot()) + "\n"
        "server.errorlog = " + Quoted(BoxWebPath(kWebErrorLog)) + "\n"
        "accesslog.filename = " + Quoted(BoxWebPath(kWebAccessLog)) + "\n"
        "server.upload-dirs = (\"/tmp\")\n"
        "index-file.names = (\"index.html\")\n"
        "mimetype.assign = (\".html\" => \"text/html; charset=utf-8\", \".css\" => \"text/css; charset=utf-8\",\n"
        "                   \".js\" => \"text/javascript; charset=utf-8\", \".svg\" => \"image/svg+xml\",\n"
        "                   \".png\" => \"image/png\", \".ico\" => \"image/x-icon\", \".json\" => \"application/json\")\n"
        "alias.url = (\"/cgi-bin/tm.cgi\" => " + Quoted(tree.WebCgi()) + ")\n"
        "$HTTP[\"url\"] =~ \"^/cgi-bin/tm\\.cgi\" { cgi.assign = (\"\" => \"\") }\n"
        "setenv.add-environment = (";
    for (size_t i = 0; i < env.size(); ++i)
        text += std::string(i ? ",\n    " : "\n    ") + Quoted(env[i].first) + " => " + Quoted(env[i].second);
    return text + "\n)\n";
}

std::string StartWeb(const Instance &instance, const Tree &tree, const WebOptions &options) {
    const pid_t boxPid = RunningBoxPid(instance);
    if (geteuid() != 0) throw Error("web needs root: it enters the box's mount namespace");
    if (auto running = RunningServer(instance)) return running->first;
    for (const std::string &path : {tree.WebRoot() + "/index.html", tree.WebCgi()})
        if (!PathExists(path))
            throw Error("the web page is not installed: " + path + " is missing (cmake --install, or the kvard-tools package)");
    const char *override = getenv("KVARD_SANDBOX_LIGHTTPD");
    std::string lighttpd = override && *override ? override
                                                 : FindExecutable("lighttpd", "/usr/sbin:/usr/bin:/sbin:/bin").value_or("");
    if (lighttpd.empty() || !PathExists(lighttpd)) throw Error("lighttpd not found (Debian package lighttpd)");

    int listenFd = ListenSocket(options.address, options.port);
    int port = BoundPort(listenFd);

    auto env = BoxEnvironment(instance, tree, tree.WebCgi());
    env.insert(env.begin(), {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"HOME", "/tmp"}});
    env.emplace_back("KVARD_MDM_DIR", "/var/lib/kvard/mdm");
    MakeDirs(instance.ControlFile(kWebDir));
    WriteFileAtomic(HostWebPath(instance, kWebConfig), WebServerConfig(tree, options.address, port, env));
    const std::string log = HostWebPath(instance, "server.log");
    // lighttpd checks that the descriptors are meant for it: LISTEN_PID must
    // be its pid in the box's pid namespace, which only the shell there knows.
    std::vector<std::string> command = EnterCommandLine(
        boxPid, "",
        {"/bin/sh", "-c", "LISTEN_PID=$$ exec \"$0\" -D -f \"$1\"", lighttpd, BoxWebPath(kWebConfig)},
        {"--mount", "--net", "--pid", "--root", "--wd"});

    pid_t child = fork();
    if (child < 0) throw Error(ErrnoText("cannot fork", "the web server"));
    if (child == 0) {
        setsid();
        int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
        if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(126);
        // The socket as the first activated descriptor, kept across exec.
        if (listenFd == 3 ? fcntl(3, F_SETFD, 0) < 0 : dup2(listenFd, 3) < 0) _exit(126);
        clearenv();
        setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
        setenv("LISTEN_FDS", "1", 1);
        std::vector<char *> argv;
        for (auto &arg : command) argv.push_back(arg.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(listenFd);

    const std::string url = Url(options.address, port);
    const double deadline = Now() + options.timeoutSeconds;
    int status = -1;
    while (Now() < deadline) {
        int wstatus;
        if (waitpid(child, &wstatus, WNOHANG) == child)
            throw Error("the web server ended at once (" +
                        (WIFEXITED(wstatus) ? "exit status " + std::to_string(WEXITSTATUS(wstatus))
                                            : std::string("signal ") + SignalName(WTERMSIG(wstatus))) +
                        "): " + LogTail(log) + LogTail(HostWebPath(instance, kWebErrorLog)));
        status = HttpStatus(options.address, port, "/", deadline);
        if (status > 0) break;
    }
    if (status != 200) {
        kill(child, SIGKILL);
        for (pid_t grandchild : Children(child)) kill(grandchild, SIGKILL);
        waitpid(child, nullptr, 0);
        throw Error("the web server did not answer " + url + (status > 0 ? " with 200 but " + std::to_string(status) : " in time") +
                    ": " + LogTail(HostWebPath(instance, kWebErrorLog)));
    }
    WriteFileAtomic(instance.RunFile(kRunWeb), FormatSettings({{"url", url}, {"pid", FormatPidRecord(child)}}));
    return url;
}

bool StopWeb(const Instance &instance) {
    auto running = RunningServer(instance);
    if (!running) return false;
    const pid_t nsenter = running->second.pid;
    for (pid_t server : Children(nsenter)) kill(server, SIGTERM);
    for (int i = 0; i < 50 && PidRecordAlive(running->second); ++i) usleep(100000);
    if (PidRecordAlive(running->second)) {
        for (pid_t server : Children(nsenter)) kill(server, SIGKILL);
        kill(nsenter, SIGKILL);
    }
    RemoveFile(instance.RunFile(kRunWeb));
    return true;
}

}  // namespace sandbox
