// A stand-in program for testing the sandbox itself: run in the box, it binds
// UDP 127.0.0.1:22724 like the daemon and answers text requests about what it
// sees inside (files, clock, environment, processes). One request, one reply.
//
//   probe [--port N] [--no-bind] [--bind-delay-ms N] [--exit N]
//   probe --client REQUEST [--port N]   send one request, print the reply
//
// Requests (the reply follows the arrow):
//   ping                -> pong
//   time                -> "<time(NULL)> <YYYY-MM-DD hh:mm:ss> <zone abbreviation>"
//   clock               -> "<seconds>.<nanoseconds>" of CLOCK_REALTIME
//   read PATH           -> "ok\n" + content, or "error <reason>"
//   readlink PATH       -> "ok\n" + target, or "error <reason>"
//   write PATH\nTEXT    -> ok | error <reason>
//   env NAME            -> "set VALUE" or "unset"
//   sh COMMAND          -> "<exit status>\n" + the command's stdout (through popen)
//   spawn\0ARG0\0ARG1.. -> "<exit status>" of the exact argument vector
//   alive PID           -> 1 when PID exists and is no zombie, else 0
//   say TEXT            -> ok, after printing TEXT and a line feed on stdout
//   exit N              -> ok, then exit(N)
//   raise N             -> ok, then raise(N)
// A datagram that starts with the daemon's header (bytes 0x2d 0xa5, then
// code and length, little-endian) gets a 4-byte little-endian reply instead:
// code << 16 | length when the length matches the body, else -1.
// Caught signals (HUP, INT, QUIT, USR1, USR2) are printed as "signal N".
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t gSignals[65];

void OnSignal(int sig) { gSignals[sig] = gSignals[sig] + 1; }

std::string Error(const char *what) { return std::string("error ") + what + ": " + strerror(errno); }

std::string ReadWhole(const std::string &path) {
    FILE *file = fopen(path.c_str(), "rb");
    if (!file) return Error(path.c_str());
    std::string content = "ok\n";
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) content.append(buffer, n);
    fclose(file);
    return content;
}

int ExitStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::string HandleHeader(const std::string &datagram) {
    auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(datagram[i])); };
    uint32_t code = byte(2) | byte(3) << 8, length = byte(4) | byte(5) << 8;
    uint32_t reply = length == datagram.size() - 8 ? code << 16 | length : 0xffffffffu;
    std::string out;
    for (int i = 0; i < 4; ++i) out += static_cast<char>(reply >> (8 * i));
    return out;
}

std::string Handle(const std::string &request) {
    if (request.size() >= 8 && request[0] == '\x2d' && request[1] == '\xa5') return HandleHeader(request);
    size_t space = request.find(' ');
    std::string verb = request.substr(0, std::min(space, request.find('\0')));
    std::string arg = space == std::string::npos ? "" : request.substr(space + 1);
    if (verb == "ping") return "pong";
    if (verb == "time") {
        time_t now = time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        char text[64];
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local);
        return std::to_string(static_cast<long long>(now)) + " " + text;
    }
    if (verb == "clock") {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        char text[64];
        snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(now.tv_sec), now.tv_nsec);
        return text;
    }
    if (verb == "read") return ReadWhole(arg);
    if (verb == "readlink") {
        char target[4096];
        ssize_t n = readlink(arg.c_str(), target, sizeof target);
        if (n < 0) return Error(arg.c_str());
        return "ok\n" + std::string(target, static_cast<size_t>(n));
    }
    if (verb == "write") {
        size_t eol = arg.find('\n');
        std::string path = arg.substr(0, eol);
        std::string text = eol == std::string::npos ? "" : arg.substr(eol + 1);
        FILE *file = fopen(path.c_str(), "wb");
        if (!file) return Error(path.c_str());
        bool ok = fwrite(text.data(), 1, text.size(), file) == text.size();
        if (fclose(file) != 0) ok = false;
        return ok ? "ok" : Error(path.c_str());
    }
    if (verb == "env") {
        const char *value = getenv(arg.c_str());
        return value ? std::string("set ") + value : "unset";
    }
    if (verb == "sh") {
        FILE *pipe = popen(arg.c_str(), "r");
        if (!pipe) return Error("popen");
        std::string out;
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
        return std::to_string(ExitStatus(pclose(pipe))) + "\n" + out;
    }
    if (verb == "spawn") {
        std::vector<std::string> argv;
        for (size_t pos = request.find('\0'); pos != std::string::npos;) {
            size_t next = request.find('\0', pos + 1);
            argv.push_back(request.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1));
            pos = next;
        }
        if (argv.empty()) return "error spawn: no arguments";
        pid_t pid = fork();
        if (pid < 0) return Error("fork");
        if (pid == 0) {
            std::vector<char *> args;
            for (auto &a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return std::to_string(ExitStatus(status));
    }
    if (verb == "alive") {
        pid_t pid = static_cast<pid_t>(atol(arg.c_str()));
        if (pid <= 0 || kill(pid, 0) != 0) return "0";
        std::string stat = ReadWhole("/proc/" + arg + "/stat");
        size_t close = stat.rfind(')');
        bool zombie = close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
        return zombie ? "0" : "1";
    }
    if (verb == "say") {
        printf("%s\n", arg.c_str());
        return "ok";
    }
    if (verb == "exit" || verb == "raise") return "ok";
    return "error unknown request '" + verb + "'";
}

int Client(const std::string &request, int port) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (sock < 0 || sendto(sock, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0) {
        perror("probe --client: send");
        return 1;
    }
    struct pollfd pfd = {sock, POLLIN, 0};
    if (poll(&pfd, 1, 2000) <= 0) {
        fprintf(stderr, "probe --client: no reply\n");
        return 1;
    }
    char buffer[65536];
    ssize_t n = recv(sock, buffer, sizeof buffer, 0);
    if (n < 0) return 1;
    fwrite(buffer, 1, static_cast<size_t>(n), stdout);
    close(sock);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    int port = 22724, bindDelayMs = 0, exitCode = -1;
    bool bind = true;
    const char *client = nullptr;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        bool hasValue = i + 1 < argc;
        if (option == "--port" && hasValue)
            port = atoi(argv[++i]);
        else if (option == "--no-bind")
            bind = false;
        else if (option == "--bind-delay-ms" && hasValue)
            bindDelayMs = atoi(argv[++i]);
        else if (option == "--exit" && hasValue)
            exitCode = atoi(argv[++i]);
        else if (option == "--client" && hasValue)
            client = argv[++i];
        else {
            fprintf(stderr, "probe: unknown option %s\n", argv[i]);
            return 64;
        }
    }
    if (client) return Client(client, port);

    printf("probe: started pid %d\n", static_cast<int>(getpid()));
    fprintf(stderr, "probe: stderr works\n");
    if (exitCode >= 0) return exitCode;
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2}) signal(sig, OnSignal);

    int sock = -1;
    for (int waited = 0;; waited += 10) {
        for (int sig = 1; sig < 65; ++sig) {
            while (gSignals[sig] > 0) {
                gSignals[sig] = gSignals[sig] - 1;
                printf("signal %d\n", sig);
            }
        }
        if (bind && sock < 0 && waited >= bindDelayMs) {
            sock = socket(AF_INET, SOCK_DGRAM, 0);
            struct sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(port));
            address.sin_addr.s_addr = inet_addr("127.0.0.1");
            if (sock < 0 || ::bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
                perror("probe: bind");
                return 1;
            }
        }
        struct pollfd pfd = {sock, POLLIN, 0};
        int ready = poll(&pfd, sock < 0 ? 0 : 1, 10);
        if (ready <= 0) continue;
        char buffer[65536];
        struct sockaddr_in from;
        socklen_t fromLength = sizeof from;
        ssize_t n = recvfrom(sock, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &fromLength);
        if (n < 0) continue;
        std::string request(buffer, static_cast<size_t>(n));
        std::string reply = Handle(request);
        sendto(sock, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from), fromLength);
        if (request.rfind("exit ", 0) == 0) exit(atoi(request.c_str() + 5));
        if (request.rfind("raise ", 0) == 0) raise(atoi(request.c_str() + 6));
    }
}
