// kvard-sandbox advance and replay (docs/replay.md): simulated minutes for the
// daemon of a running box, sent as datagrams from one socket in its network
// namespace.
#include "tools/sandbox/replay.h"

#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "kvard_version.h"
#include "tools/sandbox/box.h"
#include "tools/sandbox/layout.h"
#include "tools/sandbox/paths.h"
#include "tools/sandbox/timespec.h"
#include "tools/sandbox/util.h"

namespace sandbox {
namespace {

constexpr uint16_t kControlPort = 22724;
constexpr uint16_t kMagic = 0xA52D;
constexpr uint16_t kMsgWriteStatistic = 6, kMsgSimWake = 5640, kMsgSimInput = 7254;
constexpr const char *kSimStateFile = "sim";  // below the control directory
constexpr const char *kDefaultInterface = "eth0.1";
// The daemon keeps time in a signed 32-bit word.
constexpr int64_t kLastTime = INT32_MAX;
constexpr double kDefaultTimeout = 5;

enum ExitCode { kDone = 0, kBoxFailed = 1, kBadInput = 2 };

// A failure of the box or of its daemon, as opposed to a bad argument or file.
struct BoxFailure : Error {
    using Error::Error;
};

// The daemon's simulated clock and WAN counters.
struct Point {
    int64_t time = 0;
    uint64_t tx = 0, rx = 0;
};

volatile sig_atomic_t gStopSignal = 0;
void OnStop(int signal) { gStopSignal = signal; }

// ---------------------------------------------------------------- arguments

struct Common {
    std::string dirOption;  // -C, --dir
    std::string interface = kDefaultInterface;
    double timeout = kDefaultTimeout;
    std::vector<std::string> operands;
};

int Usage(const char *command, const std::string &message) {
    if (message.find("--help") != std::string::npos)
        fprintf(stderr, "kvard-sandbox %s: %s\n", command, message.c_str());
    else
        fprintf(stderr, "kvard-sandbox %s: %s (see 'kvard-sandbox %s --help')\n", command, message.c_str(), command);
    return kBadInput;
}

int PrintVersion() {
    printf("kvard-sandbox %s\n", KVARD_VERSION);
    return kDone;
}

// The option at fault after getopt_long returned '?' or ':'.
std::string OptionWord(int argc, char **argv) {
    return optind >= 1 && optind <= argc ? argv[optind - 1] : "";
}

std::optional<double> ParseSeconds(const std::string &text) {
    char *end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value > 0) || value > 3600) return std::nullopt;
    return value;
}

bool ValidInterface(const std::string &name) {
    return !name.empty() && name.size() <= 15 && name.find_first_of(": \t\n") == std::string::npos;
}

// The options advance and replay share (-i, -T, -C, -h, -V) and getopt's complaints. Returns -1
// when the option was taken and parsing goes on, else the exit status to end with.
int CommonOption(int c, Common &common, const char *command, const char *usage, int argc, char **argv) {
    switch (c) {
    case 'i':
        if (!ValidInterface(optarg)) return Usage(command, std::string("bad interface name '") + optarg + "'");
        common.interface = optarg;
        return -1;
    case 'T': {
        auto seconds = ParseSeconds(optarg);
        if (!seconds) return Usage(command, std::string("bad value '") + optarg + "' of --timeout (seconds, up to 3600)");
        common.timeout = *seconds;
        return -1;
    }
    case 'C': common.dirOption = optarg; return -1;
    case 'h': fputs(usage, stdout); return kDone;
    case 'V': return PrintVersion();
    case ':': return Usage(command, "option " + OptionWord(argc, argv) + " needs a value");
    default: return Usage(command, "unknown option " + OptionWord(argc, argv));
    }
}

// The operands after the options: the state directory (from them, -C or the environment) and the
// one operand each command takes, named WHAT when it is missing. Returns -1 when both are had.
int CommonOperands(Common &common, const char *command, const char *what, int argc, char **argv, std::string *dir) {
    for (int i = optind; i < argc; ++i) common.operands.emplace_back(argv[i]);
    try {
        *dir = ResolveInstanceDir(common.dirOption, common.operands, 1, 1);
    } catch (const Error &e) {
        return Usage(command, common.operands.empty() ? std::string("missing ") + what : e.what());
    }
    return -1;
}

// "2M" is 2,000,000 bytes a second; "1.5k" 1,500. The suffixes are decimal,
// as the daemon's megabyte is; the result must be a whole number of bytes.
std::optional<uint64_t> ParseRate(const std::string &text) {
    size_t pos = 0;
    // 64 bits throughout, with the overflow checked: the 32-bit target has no 128-bit integer.
    uint64_t whole = 0, fraction = 0, fractionScale = 1;
    size_t digits = 0;
    while (pos < text.size() && isdigit(static_cast<unsigned char>(text[pos]))) {
        if (__builtin_mul_overflow(whole, 10u, &whole) ||
            __builtin_add_overflow(whole, static_cast<unsigned>(text[pos++] - '0'), &whole))
            return std::nullopt;
        ++digits;
    }
    if (digits == 0) return std::nullopt;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        size_t fractionDigits = 0;
        while (pos < text.size() && isdigit(static_cast<unsigned char>(text[pos]))) {
            fraction = fraction * 10 + static_cast<unsigned>(text[pos++] - '0');
            fractionScale *= 10;
            if (++fractionDigits > 9) return std::nullopt;
        }
        if (fractionDigits == 0) return std::nullopt;
    }
    uint64_t unit = 1;
    if (pos < text.size()) {
        switch (text[pos++]) {
        case 'k': unit = 1000; break;
        case 'M': unit = 1000000; break;
        case 'G': unit = 1000000000; break;
        default: return std::nullopt;
        }
    }
    if (pos != text.size()) return std::nullopt;
    if (fraction * unit % fractionScale != 0) return std::nullopt;
    uint64_t value;  // the fraction has at most 9 digits and the unit at most 10^9: its product fits
    if (__builtin_mul_overflow(whole, unit, &value) || __builtin_add_overflow(value, fraction * unit / fractionScale, &value))
        return std::nullopt;
    return value;
}

// ------------------------------------------------------------ the box's side

// The box's zone; the process takes it as its own, so that the many time
// conversions of a long file need not switch zones (and reread zone files).
std::string AdoptBoxZone(const Instance &instance) {
    std::string zone = ReadInstanceSettings(instance)["tz"];
    if (zone.empty()) zone = "UTC";
    setenv("TZ", zone.c_str(), 1);
    tzset();
    return zone;
}

// "PID STARTTIME" of the running program, or "" when none runs.
std::string RunningProgram(const Instance &instance) {
    Status status = ReadStatus(instance);
    if (status.state != State::Running) return "";
    auto text = ReadFile(instance.RunFile(kRunPid));
    auto record = text ? ParsePidRecord(*text) : std::nullopt;
    if (!record || !PidRecordAlive(*record)) return "";
    return std::to_string(record->pid) + " " + std::to_string(record->startTime);
}

std::string TrimLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    return text;
}

std::vector<NetDevLine> ReadNetDev(const Instance &instance) {
    std::vector<NetDevLine> lines;
    std::istringstream in(ReadFile(instance.Proc() + "/net/dev").value_or(""));
    std::string line;
    for (int header = 0; header < 2 && std::getline(in, line); ++header) {
    }
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        NetDevLine entry;
        std::istringstream name(line.substr(0, colon));
        name >> entry.name;
        std::istringstream numbers(line.substr(colon + 1));
        std::vector<uint64_t> columns;
        for (uint64_t value; numbers >> value;) columns.push_back(value);
        if (entry.name.empty()) continue;
        if (columns.size() > 0) entry.rxBytes = columns[0];
        if (columns.size() > 8) entry.txBytes = columns[8];
        lines.push_back(entry);
    }
    return lines;
}

// Where the simulation stands: the state file while the program that took its
// steps still runs, else the clock file and the interface's counters, which
// the last run of advance or replay left in agreement with it.
Point StartPoint(const Instance &instance, const std::string &program, const std::string &zone,
                 const std::string &interface) {
    const std::string path = instance.ControlFile(kSimStateFile);
    if (auto text = ReadFile(path); text && !program.empty()) {
        auto state = ParseSettings(*text);
        if (state["program"] == program) {
            auto time = ParseNumber(state["time"], 0, kLastTime);
            auto tx = ParseNumber(state["tx"], 0, UINT64_MAX), rx = ParseNumber(state["rx"], 0, UINT64_MAX);
            if (!time || !tx || !rx) throw Error("malformed " + path + " (remove it to start from the box's clock)");
            return {static_cast<int64_t>(*time), *tx, *rx};
        }
    }
    Point start;
    auto clock = ReadFile(instance.ControlFile(kClockFile));
    if (!clock) throw Error("missing " + instance.ControlFile(kClockFile));
    start.time = ParseClock(TrimLine(*clock), zone);
    if (start.time > kLastTime)
        throw Error("the box's clock " + TrimLine(*clock) + " is beyond the daemon's 32-bit time");
    for (const auto &line : ReadNetDev(instance))
        if (line.name == interface) start.tx = line.txBytes, start.rx = line.rxBytes;
    return start;
}

// One UDP socket in the box's network namespace, connected to the daemon's
// port, so that nothing but its replies reaches us.
class Control {
public:
    Control(const Instance &instance, double timeout) : timeoutMs_(static_cast<int>(timeout * 1000)) {
        auto text = ReadFile(instance.RunFile(kRunBox));
        auto box = text ? ParsePidRecord(*text) : std::nullopt;
        if (!box || !PidRecordAlive(*box)) throw BoxFailure("the box of " + instance.dir + " is not running");
        std::string theirs = "/proc/" + std::to_string(box->pid) + "/ns/net";
        int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        if (own < 0) throw BoxFailure(ErrnoText("cannot open", "/proc/thread-self/ns/net"));
        int other = open(theirs.c_str(), O_RDONLY | O_CLOEXEC);
        if (other < 0 || setns(other, CLONE_NEWNET) != 0) {
            std::string why = ErrnoText("cannot enter the box's network namespace (root needed)", theirs);
            if (other >= 0) close(other);
            close(own);
            throw BoxFailure(why);
        }
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int saved = errno;
        // The socket stays in the box's namespace; this process goes back to its own.
        if (setns(own, CLONE_NEWNET) != 0) abort();
        close(own);
        close(other);
        if (fd_ < 0) throw BoxFailure("cannot open a socket in the box: " + std::string(strerror(saved)));
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(kControlPort);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
            close(fd_);
            throw BoxFailure("cannot address 127.0.0.1:22724 in the box: " + std::string(strerror(errno)));
        }
        // A blocking receive with a timeout: one system call per reply, not a poll and a read.
        const int ms = timeoutMs_ > 0 ? timeoutMs_ : 1;   // 0 would mean no limit at all
        timeval limit = {ms / 1000, (ms % 1000) * 1000};
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
            close(fd_);
            throw BoxFailure("cannot set the reply timeout: " + std::string(strerror(errno)));
        }
    }
    ~Control() { close(fd_); }
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;

    // Sends DATAGRAM; WHAT names it in errors.
    void Send(const std::string &datagram, const std::string &what) {
        ssize_t sent;
        while ((sent = send(fd_, datagram.data(), datagram.size(), 0)) < 0 && errno == EINTR) {
        }
        if (sent < 0) Fail(what, errno == ECONNREFUSED ? "kvard does not listen on 127.0.0.1:22724 in the box" : strerror(errno));
    }

    int32_t Ask(const std::string &datagram, const std::string &what) {
        Send(datagram, what);
        return Reply(what);
    }

    // The next reply word; WHAT names the datagram it answers. kvard answers
    // in the order it was asked, one datagram after the other.
    int32_t Reply(const std::string &what) {
        for (;;) {
            unsigned char reply[64];
            ssize_t n = recv(fd_, reply, sizeof reply, 0);   // blocks up to the receive timeout
            if (n < 0 && errno == EINTR) continue;  // a stop request waits for the step's end
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                timedOut_ = true;
                Fail(what, "no reply within " + FormatSeconds() + " s");
            }
            // A refused send reports here: nobody listens on the port.
            if (n < 0 && errno == ECONNREFUSED) Fail(what, "kvard does not listen on 127.0.0.1:22724 in the box");
            if (n < 0) Fail(what, strerror(errno));
            if (n != 4) Fail(what, "a reply of " + std::to_string(n) + " bytes instead of 4");
            uint32_t word = reply[0] | reply[1] << 8 | reply[2] << 16 | static_cast<uint32_t>(reply[3]) << 24;
            return static_cast<int32_t>(word);
        }
    }

private:
    [[noreturn]] void Fail(const std::string &what, const std::string &why) {
        throw BoxFailure(what + ": " + why);
    }
    std::string FormatSeconds() const {
        char text[32];
        snprintf(text, sizeof text, "%g", timeoutMs_ / 1000.0);
        return text;
    }

    int fd_ = -1;
    int timeoutMs_;
    bool timedOut_ = false;

public:
    // Whether a reply failed to come in time (kvard alive but not answering),
    // rather than being refused.
    bool TimedOut() const { return timedOut_; }
};

void Put(std::string &out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i, value >>= 8) out += static_cast<char>(value & 0xff);
}

std::string Datagram(uint16_t code, const std::string &body = {}) {
    std::string out;
    Put(out, kMagic, 2);
    Put(out, code, 2);
    Put(out, body.size(), 2);
    Put(out, 0, 2);
    return out + body;
}

// The simulated input of a step: its time and counters, and a non-zero last
// word, which keeps the daemon from printing a line per step.
std::string SimInput(const Point &point) {
    std::string body;
    Put(body, static_cast<uint32_t>(point.time), 4);
    Put(body, 0, 4);
    Put(body, point.tx, 8);
    Put(body, point.rx, 8);
    Put(body, 1, 4);
    return Datagram(kMsgSimInput, body);
}

// ----------------------------------------------------------------- the run

// The counters on the line from A to B at time T (A.time < T <= B.time),
// rounded down, so that the minutes of a stretch add up to its whole volume.
Point Between(const Point &a, const Point &b, int64_t t) {
    // (to - from) * part / span, rounded down, in 64 bits: with part < span, both below 2^32 (the
    // daemon's clock is 32-bit), the quotient's whole spans and the remainder's share cannot overflow.
    const uint64_t part = static_cast<uint64_t>(t - a.time), span = static_cast<uint64_t>(b.time - a.time);
    auto along = [&](uint64_t from, uint64_t to) {
        uint64_t moved = to - from;
        return from + moved / span * part + moved % span * part / span;
    };
    return {t, along(a.tx, b.tx), along(a.rx, b.rx)};
}

struct Outcome {
    Point reached;
    int64_t minutes = 0;  // minute boundaries passed
    int exitCode = kDone;
};

void SaveState(const Instance &instance, const std::string &program, const std::string &zone,
               const std::string &interface, const Point &point) {
    std::vector<NetDevLine> lines = ReadNetDev(instance);
    bool found = false;
    for (auto &line : lines)
        if (line.name == interface) line.rxBytes = point.rx, line.txBytes = point.tx, found = true;
    if (!found) lines.push_back({interface, point.rx, point.tx});
    WriteProcFile(instance, "net/dev", FormatNetDev(lines));
    std::string clock = FormatClock(point.time, zone);
    SetClock(instance, clock);
    WriteFileAtomic(instance.ControlFile(kSimStateFile),
                    FormatSettings({{"program", program},
                                    {"time", std::to_string(point.time)},
                                    {"clock", clock},
                                    {"tx", std::to_string(point.tx)},
                                    {"rx", std::to_string(point.rx)}}));
}

// Steps the daemon along KNOTS (the first being where it stands now): at every
// minute boundary one simulated input and one simulation wake, each awaited,
// and a last step at the end when that lies within a minute. Afterwards the
// clock file, /proc/net/dev and the state file tell where it stands, and the
// daemon publishes once more on that clock.
Outcome Drive(const Instance &instance, const std::string &program, const std::string &zone,
              const Common &common, const std::vector<Point> &knots) {
    Outcome outcome;
    outcome.reached = knots.front();
    Control control(instance, common.timeout);
    struct sigaction stop = {}, oldInt = {}, oldTerm = {}, oldHup = {};
    stop.sa_handler = OnStop;
    sigaction(SIGINT, &stop, &oldInt);
    sigaction(SIGTERM, &stop, &oldTerm);
    sigaction(SIGHUP, &stop, &oldHup);
    std::string failure;
    struct Sent {
        Point point;
        int64_t number;     // 1-based, for messages
        bool minute;        // a minute boundary (the last step may lie within a minute)
    };
    std::optional<Sent> lastSent;
    int64_t sentMinutes = 0;
    try {
        // Steps go out ahead of their replies, up to kInFlight minutes, so that
        // the tool and kvard work side by side; kvard takes its datagrams in
        // order and answers every simulated input with 1, so the replies come
        // back in the order of the steps. A step counts as taken when both its
        // replies are in; a stop waits for the replies of the steps sent.
        constexpr size_t kInFlight = 8;
        std::deque<Sent> inFlight;
        int64_t sentSteps = 0;
        auto what = [&](const Sent &s, const char *datagram) {
            return std::string(datagram) + " for " + FormatClock(s.point.time, zone) + " (step " +
                   std::to_string(s.number) + ")";
        };
        auto collect = [&] {
            const Sent s = inFlight.front();
            inFlight.pop_front();
            int32_t reply = control.Reply(what(s, "the simulated input"));
            if (reply != 1) throw BoxFailure(what(s, "the simulated input") + ": reply " + std::to_string(reply));
            outcome.reached = s.point;
            reply = control.Reply(what(s, "the simulation wake"));
            if (reply <= 0) throw BoxFailure(what(s, "the simulation wake") + ": reply " + std::to_string(reply));
            if (s.minute) ++outcome.minutes;
        };
        auto step = [&](const Point &point, bool minute) {
            Sent s{point, ++sentSteps, minute};
            control.Send(SimInput(point), what(s, "the simulated input"));
            control.Send(Datagram(kMsgSimWake), what(s, "the simulation wake"));
            inFlight.push_back(s);
            lastSent = s;
            if (minute) ++sentMinutes;
            if (inFlight.size() >= kInFlight) collect();
        };
        for (size_t k = 1; k < knots.size() && !gStopSignal; ++k) {
            const Point &a = knots[k - 1], &b = knots[k];
            for (int64_t m = (a.time / 60 + 1) * 60; m <= b.time && !gStopSignal; m += 60) step(Between(a, b, m), true);
        }
        const Point &last = knots.back();
        if (!gStopSignal && last.time % 60 != 0 && last.time > knots.front().time) step(last, false);
        while (!inFlight.empty()) collect();
    } catch (const BoxFailure &e) {
        failure = e.what();
        // A kvard that is alive but late (stopped, busy) still has the steps
        // sent in its socket and takes them in order when it goes on: the box
        // stands where the last of them leads, and the next run goes on from
        // there, never sending kvard a minute it already took.
        if (control.TimedOut() && lastSent) {
            outcome.reached = lastSent->point;
            outcome.minutes = sentMinutes;
            failure += " (kvard takes the steps sent when it goes on)";
        }
    }
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGTERM, &oldTerm, nullptr);
    sigaction(SIGHUP, &oldHup, nullptr);

    // Whatever the daemon took is kept, also after a failure, so that the
    // next run goes on from there.
    try {
        SaveState(instance, program, zone, common.interface, outcome.reached);
    } catch (const Error &e) {
        // Steps were taken: this is no fault of the arguments.
        throw BoxFailure(std::string(e.what()) + (failure.empty() ? "" : "; before that: " + failure));
    }
    if (!failure.empty()) throw BoxFailure(failure + "; the box stands at " + FormatClock(outcome.reached.time, zone));
    int32_t published = control.Ask(Datagram(kMsgWriteStatistic), "the request to publish the figures");
    if (published != 1) throw BoxFailure("kvard did not publish the figures (reply " + std::to_string(published) + ")");
    if (gStopSignal) {
        fprintf(stderr, "kvard-sandbox: stopped by %s at %s\n", SignalName(gStopSignal).c_str(),
                FormatClock(outcome.reached.time, zone).c_str());
        outcome.exitCode = 128 + gStopSignal;
    }
    return outcome;
}

// Runs BODY, turning its exceptions into messages and exit codes.
template <typename Body>
int Guard(const char *command, Body body) {
    try {
        return body();
    } catch (const BoxFailure &e) {
        fprintf(stderr, "kvard-sandbox %s: %s\n", command, e.what());
        return kBoxFailed;
    } catch (const Error &e) {
        fprintf(stderr, "kvard-sandbox %s: %s\n", command, e.what());
        return kBadInput;
    } catch (const std::exception &e) {
        fprintf(stderr, "kvard-sandbox %s: %s\n", command, e.what());
        return kBoxFailed;
    }
}

std::string Growth(uint64_t from, uint64_t to) { return "+" + std::to_string(to - from); }

// ---------------------------------------------------------------- advance

const char kAdvanceUsage[] = R"USAGE(usage: kvard-sandbox advance [DIR] DURATION [--rx-rate R] [--tx-rate T] [OPTIONS]

Moves the simulated time of the running kvard in the box at DIR (default
$KVARD_SANDBOX_DIR) forward by DURATION, one minute at a time, while the WAN
counters grow at the given rates. DURATION: 90s, 15m, 2h, 1d, 1w, 1h30m, ...
(a bare number counts seconds).

  --rx-rate R        received bytes per second (default 0): a whole number of
                     bytes, with an optional decimal suffix k (1000), M (10^6)
                     or G (10^9): 2M is 2000000, 1.5k is 1500
  --tx-rate T        sent bytes per second, likewise
  --interface NAME   the WAN line of /proc/net/dev to start from and to update
                     (default eth0.1, the seeded DHCP router's; ppp0.2 for PPPoE)
  --timeout SEC      how long to wait for each reply of kvard (default 5)
  -C, --dir DIR      the state directory (instead of the DIR operand)
  -h, --help         this text
  -V, --version      the version

The first step puts kvard into simulation mode until it restarts: its timer
wakes then do nothing, and only advance and replay move its clock and counters.
Time and counters go on from where the last advance or replay left them
(DIR/sandbox/sim); at the end the box's clock and /proc/net/dev show them.

Exit status: 0 done; 1 kvard is not running or did not answer (the steps it
answered are kept); 2 bad arguments, nothing sent; 128+N stopped by signal N
after a whole step. See docs/replay.md.
)USAGE";

int Advance(int argc, char **argv) {
    static const option longOptions[] = {
        {"rx-rate", required_argument, nullptr, 'r'}, {"tx-rate", required_argument, nullptr, 't'},
        {"interface", required_argument, nullptr, 'i'}, {"timeout", required_argument, nullptr, 'T'},
        {"dir", required_argument, nullptr, 'C'},     {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    const char *command = "advance";
    Common common;
    uint64_t rxRate = 0, txRate = 0;
    opterr = 0;
    optind = 0;
    for (int c; (c = getopt_long(argc, argv, ":C:hV", longOptions, nullptr)) != -1;) {
        switch (c) {
        case 'r':
        case 't': {
            auto rate = ParseRate(optarg);
            if (!rate)
                return Usage(command, std::string("bad value '") + optarg + "' of --" + (c == 'r' ? "rx" : "tx") +
                                               "-rate: expected bytes per second such as 1500, 2M or 1.5k");
            (c == 'r' ? rxRate : txRate) = *rate;
            break;
        }
        default:
            if (int status = CommonOption(c, common, command, kAdvanceUsage, argc, argv); status >= 0) return status;
        }
    }
    std::string dir;
    if (int status = CommonOperands(common, command, "DURATION", argc, argv, &dir); status >= 0) return status;
    const std::string durationText = common.operands.back();
    auto duration = ParseDuration(durationText);
    if (!duration || *duration <= 0)
        return Usage(command, "bad DURATION '" + durationText + "': expected such as 90s, 15m, 2h, 1d, 1w or 1h30m");

    return Guard(command, [&] {
        Instance instance = OpenInstance(dir);
        std::string zone = AdoptBoxZone(instance);
        std::string program = RunningProgram(instance);
        if (program.empty()) throw BoxFailure("kvard is not running in " + instance.dir + " (" + DescribeStatus(ReadStatus(instance)) + ")");
        Point start = StartPoint(instance, program, zone, common.interface);
        Point end{start.time + *duration, start.tx, start.rx};
        if (end.time > kLastTime)
            throw Error("advancing " + durationText + " from " + FormatClock(start.time, zone) +
                        " goes beyond the daemon's 32-bit clock (2038-01-19 03:14:07 UTC)");
        auto grow = [&](uint64_t from, uint64_t rate, const char *name) {
            uint64_t to;
            if (__builtin_mul_overflow(rate, static_cast<uint64_t>(*duration), &to) || __builtin_add_overflow(to, from, &to))
                throw Error(std::string("the ") + name + " counter would pass 2^64-1 within " + durationText);
            return to;
        };
        end.tx = grow(start.tx, txRate, "tx");
        end.rx = grow(start.rx, rxRate, "rx");
        Outcome outcome = Drive(instance, program, zone, common, {start, end});
        printf("advanced %" PRId64 " minutes to %s: rx %s bytes, tx %s bytes (%s counters rx %" PRIu64 " tx %" PRIu64 ")\n",
               outcome.minutes, FormatClock(outcome.reached.time, zone).c_str(),
               Growth(start.rx, outcome.reached.rx).c_str(), Growth(start.tx, outcome.reached.tx).c_str(),
               common.interface.c_str(), outcome.reached.rx, outcome.reached.tx);
        return outcome.exitCode;
    });
}

// ------------------------------------------------------------------ replay

const char kReplayUsage[] = R"USAGE(usage: kvard-sandbox replay [DIR] FILE.csv [--volumes] [OPTIONS]

Drives the running kvard in the box at DIR (default $KVARD_SANDBOX_DIR) through
the rows of FILE ("-" for standard input), minute by minute. Each row is
"time,rx,tx":

  time   "YYYY-MM-DD hh:mm:ss" in the box's zone, @EPOCH, or +DURATION after
         the row before (the first row: after the box's clock)
  rx tx  the WAN counters in bytes (cumulative: the replay adds their growth
         since the first row to the box's counters); with --volumes, the bytes
         received and sent since the row before

A first line "time,rx,tx" or "time,rx_bytes,tx_bytes" (in any order) names the
columns; lines starting with # and blank lines are skipped. Between two rows
the traffic is spread evenly over the seconds, so a gap of several minutes
books the same volume on each of its minutes. The whole file is read and
checked before anything is sent.

  --volumes          rx and tx are volumes since the row before
  --check            read and check the file, print what a replay would do,
                     send nothing
  --interface NAME   the WAN line of /proc/net/dev to start from and to update
                     (default eth0.1, the seeded DHCP router's; ppp0.2 for PPPoE)
  --timeout SEC      how long to wait for each reply of kvard (default 5)
  -C, --dir DIR      the state directory (instead of the DIR operand)
  -h, --help         this text
  -V, --version      the version

The first step puts kvard into simulation mode until it restarts (see
`kvard-sandbox advance --help`). Needs root: it enters the box's network
namespace.

Exit status: 0 done; 1 kvard is not running or did not answer (the steps it
answered are kept); 2 bad arguments or a bad file, nothing sent; 128+N stopped
by signal N after a whole step. See docs/replay.md.
)USAGE";

struct Column {
    enum Kind { kTime, kRx, kTx } kind;
    const char *name;
};

std::string Trim(const std::string &text) {
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string> SplitFields(const std::string &line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t comma = line.find(',', start);
        fields.push_back(Trim(line.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
        if (comma == std::string::npos) return fields;
        start = comma + 1;
    }
}

std::optional<uint64_t> ParseBytes(const std::string &text) {
    if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return ParseNumber(text, 0, UINT64_MAX);
}

std::string LowerCase(std::string text) {
    for (char &c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

// The file's rows as points of the daemon's time and counters, after START.
// Every fault throws an Error that names the file, the line, the column and
// the value.
struct ParsedFile {
    std::vector<Point> knots;  // START, then one per row
    size_t rows = 0;
};

ParsedFile ReadTrafficFile(const std::string &path, bool volumes, const Point &start, const std::string &zone) {
    std::string text;
    if (path == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        auto content = ReadFile(path);
        if (!content) throw Error("cannot open " + path + ": " + strerror(ENOENT));
        text = std::move(*content);
    }
    const std::string name = path == "-" ? "(stdin)" : path;

    std::vector<Column> columns = {{Column::kTime, "time"}, {Column::kRx, "rx"}, {Column::kTx, "tx"}};
    ParsedFile parsed;
    parsed.knots.push_back(start);
    Point base;             // the first row's counters in cumulative mode
    uint64_t lastRx = 0, lastTx = 0;
    int lastLine = 0;
    std::string lastTime;
    bool seenContent = false;
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;
        auto at = [&](size_t column) {
            return name + ":" + std::to_string(number) + ": column " + std::to_string(column + 1) + " (" +
                   columns[column].name + "): ";
        };
        std::vector<std::string> fields = SplitFields(trimmed);
        if (fields.size() != 3)
            throw Error(name + ":" + std::to_string(number) + ": " + std::to_string(fields.size()) +
                        " columns in '" + trimmed + "': expected 3, time,rx,tx");
        bool header = !seenContent;
        for (const auto &field : fields)
            if (!field.empty() && (isdigit(static_cast<unsigned char>(field[0])) || field[0] == '@' || field[0] == '+' ||
                                   field[0] == '-'))
                header = false;
        seenContent = true;
        if (header) {
            std::vector<Column> named;
            for (size_t c = 0; c < fields.size(); ++c) {
                std::string word = LowerCase(fields[c]);
                Column column;
                if (word == "time") column = {Column::kTime, "time"};
                else if (word == "rx" || word == "rx_bytes") column = {Column::kRx, "rx"};
                else if (word == "tx" || word == "tx_bytes") column = {Column::kTx, "tx"};
                else
                    throw Error(name + ":" + std::to_string(number) + ": column " + std::to_string(c + 1) +
                                ": unknown column name '" + fields[c] + "': expected time, rx (or rx_bytes) and tx (or tx_bytes)");
                for (const auto &seen : named)
                    if (seen.kind == column.kind)
                        throw Error(name + ":" + std::to_string(number) + ": column " + std::to_string(c + 1) +
                                    ": column '" + fields[c] + "' named twice");
                named.push_back(column);
            }
            columns = named;
            continue;
        }

        Point row;
        std::optional<uint64_t> rx, tx;
        std::string timeText;
        const int64_t previous = parsed.knots.back().time;
        for (size_t c = 0; c < 3; ++c) {
            const std::string &field = fields[c];
            switch (columns[c].kind) {
            case Column::kTime:
                if (field == "now")
                    throw Error(at(c) + "'now' is no time for a file: use \"YYYY-MM-DD hh:mm:ss\", @EPOCH or +DURATION");
                try {
                    row.time = ParseTimeArgument(field, zone, previous);
                } catch (const Error &e) {
                    // The forms a file takes, not those of the command line.
                    std::string why = e.what();
                    why = why.substr(0, why.find(": expected"));
                    throw Error(at(c) + why + ": expected \"YYYY-MM-DD hh:mm:ss\", @EPOCH or +DURATION (such as +90s, +15m, +1h30m)");
                }
                if (row.time > kLastTime)
                    throw Error(at(c) + "'" + field + "' is beyond the daemon's 32-bit clock (2038-01-19 03:14:07 UTC)");
                if (parsed.rows == 0 && row.time < start.time)
                    throw Error(at(c) + "'" + field + "' (" + FormatClock(row.time, zone) + ") is before the box's clock " +
                                FormatClock(start.time, zone) + ": the simulation only goes forward");
                if (parsed.rows > 0 && row.time <= previous)
                    throw Error(at(c) + "'" + field + "' (" + FormatClock(row.time, zone) + ") is not after line " +
                                std::to_string(lastLine) + "'s '" + lastTime + "' (" + FormatClock(previous, zone) +
                                "): rows go forward in time");
                timeText = field;
                break;
            case Column::kRx:
            case Column::kTx: {
                auto value = ParseBytes(field);
                if (!value) throw Error(at(c) + "bad number '" + field + "': expected a whole number of bytes");
                (columns[c].kind == Column::kRx ? rx : tx) = value;
                break;
            }
            }
        }
        const Point &before = parsed.knots.back();
        for (size_t c = 0; c < 3; ++c) {
            if (columns[c].kind == Column::kTime) continue;
            bool isRx = columns[c].kind == Column::kRx;
            uint64_t value = isRx ? *rx : *tx, was = isRx ? before.rx : before.tx;
            uint64_t counter;
            bool overflow;
            if (volumes) {
                overflow = __builtin_add_overflow(was, value, &counter);
            } else {
                uint64_t first = parsed.rows == 0 ? value : (isRx ? base.rx : base.tx);
                uint64_t last = parsed.rows == 0 ? value : (isRx ? lastRx : lastTx);
                if (value < last)
                    throw Error(at(c) + "counter '" + fields[c] + "' is below line " + std::to_string(lastLine) + "'s " +
                                std::to_string(last) + ": counters never go down (for volumes per row use --volumes)");
                overflow = __builtin_add_overflow(isRx ? start.rx : start.tx, value - first, &counter);
            }
            if (overflow)
                throw Error(at(c) + "'" + fields[c] + "' takes the box's " + columns[c].name + " counter past 2^64-1");
            (isRx ? row.rx : row.tx) = counter;
        }
        if (row.time == before.time && (row.rx != before.rx || row.tx != before.tx))
            throw Error(name + ":" + std::to_string(number) + ": column 1 (time): '" + timeText +
                        "' is the box's clock: the row's volume has no time to be spread over");
        if (parsed.rows == 0) base.rx = *rx, base.tx = *tx;
        lastRx = *rx, lastTx = *tx;
        lastLine = number, lastTime = timeText;
        ++parsed.rows;
        if (row.time == before.time) continue;  // a first row on the box's clock only fixes the counters' base
        parsed.knots.push_back(row);
    }
    if (parsed.rows == 0) throw Error(name + ": no rows (only a header, comments or blank lines)");
    return parsed;
}

int Replay(int argc, char **argv) {
    static const option longOptions[] = {
        {"volumes", no_argument, nullptr, 'v'},       {"check", no_argument, nullptr, 'c'},
        {"interface", required_argument, nullptr, 'i'}, {"timeout", required_argument, nullptr, 'T'},
        {"dir", required_argument, nullptr, 'C'},     {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    const char *command = "replay";
    Common common;
    bool volumes = false, check = false;
    opterr = 0;
    optind = 0;
    for (int c; (c = getopt_long(argc, argv, ":C:hV", longOptions, nullptr)) != -1;) {
        switch (c) {
        case 'v': volumes = true; break;
        case 'c': check = true; break;
        default:
            if (int status = CommonOption(c, common, command, kReplayUsage, argc, argv); status >= 0) return status;
        }
    }
    std::string dir;
    if (int status = CommonOperands(common, command, "FILE", argc, argv, &dir); status >= 0) return status;
    const std::string path = common.operands.back();

    return Guard(command, [&] {
        Instance instance = OpenInstance(dir);
        std::string zone = AdoptBoxZone(instance);
        std::string program = RunningProgram(instance);
        Point start = StartPoint(instance, program, zone, common.interface);
        ParsedFile file = ReadTrafficFile(path, volumes, start, zone);
        const Point &end = file.knots.back();
        const std::string name = path == "-" ? "(stdin)" : path;
        if (check) {
            printf("%s: %zu rows, %" PRId64 " minutes from %s to %s: rx %s bytes, tx %s bytes\n", name.c_str(),
                   file.rows, end.time / 60 - start.time / 60, FormatClock(start.time, zone).c_str(),
                   FormatClock(end.time, zone).c_str(), Growth(start.rx, end.rx).c_str(),
                   Growth(start.tx, end.tx).c_str());
            return static_cast<int>(kDone);
        }
        if (program.empty()) throw BoxFailure("kvard is not running in " + instance.dir + " (" + DescribeStatus(ReadStatus(instance)) + ")");
        Outcome outcome = Drive(instance, program, zone, common, file.knots);
        printf("replayed %s: %zu rows, %" PRId64 " minutes to %s: rx %s bytes, tx %s bytes (%s counters rx %" PRIu64
               " tx %" PRIu64 ")\n",
               name.c_str(), file.rows, outcome.minutes, FormatClock(outcome.reached.time, zone).c_str(),
               Growth(start.rx, outcome.reached.rx).c_str(), Growth(start.tx, outcome.reached.tx).c_str(),
               common.interface.c_str(), outcome.reached.rx, outcome.reached.tx);
        return outcome.exitCode;
    });
}

}  // namespace

int AdvanceCommand(int argc, char **argv) { return Advance(argc, argv); }

int ReplayCommand(int argc, char **argv) { return Replay(argc, argv); }

}  // namespace sandbox
