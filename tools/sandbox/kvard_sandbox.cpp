// kvard-sandbox: runs kvard (or any program) in a hermetic "router in a box".
// See docs/sandbox.md; `kvard-sandbox --help` gives the summary.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "kvard_version.h"
#include "tools/sandbox/box.h"
#include "tools/sandbox/layout.h"
#include "tools/sandbox/paths.h"
#include "tools/sandbox/replay.h"
#include "tools/sandbox/timespec.h"
#include "tools/sandbox/util.h"
#include "tools/sandbox/web.h"

namespace {

using namespace sandbox;

const char kOverview[] = R"USAGE(usage: kvard-sandbox COMMAND [DIR] [OPTIONS] [OPERANDS]
       kvard-sandbox help [COMMAND] | --help | --version

Runs a program (by default the installed kvard) in a hermetic box with its own
state directory DIR, network namespace, fake /proc files, fake clock and stub
commands. Needs bubblewrap and libfaketime; runs as root or, where the kernel
allows unprivileged user namespaces, as the user who owns DIR.

Commands:
  init     lay out a state directory
  run      run the program in the foreground
  start    start the program in the background
  wait     wait until the program listens
  status   tell whether the program runs, or how it ended
  signal   send a signal to the program
  stop     end the program, and the box with it
  exec     run a host command in the box's network namespace
  time     set the fake clock
  proc     replace a fake /proc file
  netdev   replace /proc/net/dev with given byte counters
  advance  step the clock and the WAN counters minute by minute at given rates
  replay   step them along the rows of a CSV file
  web      serve the Traffic Meter page from the box to the host's browser

Every command takes:
  -C, --dir DIR   the state directory (instead of the DIR operand)
  -h, --help      this command's usage
  -V, --version   the version

DIR may be left out when -C or the environment variable KVARD_SANDBOX_DIR
names it. Times are "YYYY-MM-DD hh:mm:ss" in the box's zone, now, @EPOCH, or
+DURATION / -DURATION such as +90s, +15m, -1h30m, +2d, +1w.

Exit status: 2 for a bad command line or a failed request; see each command
for the rest. `kvard-sandbox help COMMAND` describes one command.
)USAGE";

// Option codes without a short form.
enum : int {
    kTime = 256,
    kTz,
    kSeed,
    kMtdSize,
    kMtdEraseSize,
    kMtdWriteSize,
    kNoMtd,
    kUptime,
    kPids,
    kEnv,
    kBind,
    kRoBind,
    kQuiet,
    kWait,
    kTimeout,
    kPort,
    kListen,
    kStopWeb,
};

struct Parsed {
    std::string dirOption;                // -C / --dir
    std::vector<std::string> operands;    // before --
    std::vector<std::string> command;     // after --
    bool dashDash = false;
};

using OptionHandler = std::function<void(int code, const std::string &value)>;

struct Command {
    const char *name;
    const char *usage;
    std::vector<option> options;  // besides -C, -h, -V
    int (*run)(const Command &, int argc, char **argv);
};

[[noreturn]] void Unexpected(const std::string &what) { throw UsageError("unexpected " + what + " (see --help)"); }

const char *OptionName(const std::vector<option> &options, int code) {
    for (const auto &o : options)
        if (o.val == code) return o.name;
    return nullptr;
}

// An operand that starts with a minus and a digit ("-1h", "-9") is never an
// option: no option of the runner is a digit, and negative times and
// durations are operands of their own.
bool NegativeOperand(const char *arg) { return arg[0] == '-' && arg[1] >= '0' && arg[1] <= '9'; }

// Parses ARGV (argv[0] is the command's name) with getopt_long. Options and
// operands may come in any order; "--" ends the options, and what follows
// it is the command of run, start and exec (operands for the others).
// Returns false when --help or --version was answered: nothing else happens then.
bool ParseArguments(const Command &command, int argc, char **argv, Parsed &parsed, const OptionHandler &handle) {
    std::vector<option> options = command.options;
    options.push_back({"dir", required_argument, nullptr, 'C'});
    options.push_back({"help", no_argument, nullptr, 'h'});
    options.push_back({"version", no_argument, nullptr, 'V'});
    options.push_back({nullptr, 0, nullptr, 0});
    // '-': operands come back in place, so that "--" marks where they stop;
    // ':': a missing value is told apart from an unknown option.
    const char *shortOptions = "-:C:hV";
    opterr = 0;
    optind = 0;  // a full restart of GNU getopt, whatever parsed before
    for (;;) {
        int next = optind > 0 ? optind : 1;
        if (next < argc && NegativeOperand(argv[next])) {
            parsed.operands.push_back(argv[next]);
            optind = next + 1;
            continue;
        }
        int index = -1;
        int code = getopt_long(argc, argv, shortOptions, options.data(), &index);
        if (code == -1) break;
        switch (code) {
        case 1: parsed.operands.push_back(optarg); break;
        case 'C':
            if (!*optarg) throw UsageError("empty value of --dir");
            parsed.dirOption = optarg;
            break;
        case 'h': fputs(command.usage, stdout); return false;
        case 'V': printf("kvard-sandbox %s\n", KVARD_VERSION); return false;
        case ':': {
            // As typed: "-C" or "--dir", both of which set 'C'.
            const char *name = OptionName(options, optopt);
            bool typedLong = strncmp(argv[optind - 1], "--", 2) == 0;
            std::string shown = name && (optopt >= 256 || typedLong) ? std::string("--") + name
                                                                     : std::string("-") + static_cast<char>(optopt);
            throw UsageError(std::string(command.name) + ": option '" + shown + "' needs a value");
        }
        case '?': {
            if (const char *name = optopt ? OptionName(options, optopt) : nullptr)
                throw UsageError(std::string(command.name) + ": option '--" + name + "' takes no value");
            std::string shown = optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1]);
            throw UsageError(std::string(command.name) + ": unknown option '" + shown + "' (see kvard-sandbox " +
                             command.name + " --help)");
        }
        default: handle(code, optarg ? optarg : ""); break;
        }
    }
    if (optind > 1 && optind <= argc && strcmp(argv[optind - 1], "--") == 0) parsed.dashDash = true;
    if (optind < argc) {
        parsed.dashDash = true;
        parsed.command.assign(argv + optind, argv + argc);
    }
    return true;
}

uint64_t NumberValue(const std::string &option, const std::string &text, uint64_t min, uint64_t max) {
    auto value = ParseNumber(text, min, max);
    if (!value)
        throw UsageError("bad value '" + text + "' of " + option + " (" + std::to_string(min) + " to " +
                         std::to_string(max) + ")");
    return *value;
}

double SecondsValue(const std::string &option, const std::string &text) {
    char *end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0) || value > 86400)
        throw UsageError("bad value '" + text + "' of " + option + " (seconds, 0 to 86400)");
    return value;
}

std::pair<std::string, std::string> BindValue(const std::string &option, const std::string &text) {
    size_t colon = text.find(':');
    std::string host = text.substr(0, colon);
    std::string box = colon == std::string::npos ? AbsolutePath(host) : text.substr(colon + 1);
    if (host.empty() || box.empty() || box[0] != '/')
        throw UsageError("bad value '" + text + "' of " + option + ": expected HOST[:BOX] with BOX absolute");
    return {host, box};
}

// A command whose operands besides DIR number NEEDED, and nothing but the
// operands could name DIR: a missing operand is said as such.
void RequireOperands(const Parsed &parsed, size_t needed, const char *command, const char *what) {
    const char *fromEnv = getenv(kInstanceDirVariable);
    bool dirElsewhere = !parsed.dirOption.empty() || (fromEnv && *fromEnv);
    if (parsed.operands.size() < needed + (dirElsewhere ? 0 : 1))
        throw UsageError(std::string(command) + ": missing " + what);
}

// Commands that take nothing after "--".
void NoCommand(const Parsed &parsed) {
    if (!parsed.command.empty()) Unexpected("operand '" + parsed.command.front() + "'");
}

const char kInitUsage[] = R"USAGE(usage: kvard-sandbox init [DIR] [--time TIME] [--tz ZONE] [--seed router|none]
           [--mtd-size B] [--mtd-erasesize B] [--mtd-writesize B] [--no-mtd]
           [--uptime SECONDS] [--pids N]

Lays out the state directory DIR (created when missing, empty otherwise).
  --time TIME        the clock: "YYYY-MM-DD hh:mm:ss" in ZONE, now (default),
                     @EPOCH, or +DURATION / -DURATION from the host's now
  --tz ZONE          the box's zone (default UTC): a zoneinfo name or POSIX rule
  --seed router|none the store: a router in router mode (default), or none
  --mtd-size B, --mtd-erasesize B, --mtd-writesize B
                     flash geometry (default 8 MiB, 128 KiB, 2 KiB)
  --no-mtd           no flash partition
  --uptime SECONDS   /proc/uptime (default 100)
  --pids N           links /proc/1../proc/N into the box's procfs (default 1024)
Exit status: 0 laid out, 2 a bad option or a failed write (nothing is laid out
for a bad option).
)USAGE";

int CmdInit(const Command &command, int argc, char **argv) {
    Parsed parsed;
    InitOptions options;
    std::string time = "now";
    bool ok = ParseArguments(command, argc, argv, parsed, [&](int code, const std::string &value) {
        switch (code) {
        case kTime: time = value; break;
        case kTz: options.zone = value; break;
        case kSeed: options.seed = value; break;
        case kMtdSize: options.mtdSize = NumberValue("--mtd-size", value, 1, 0xffffffffu); break;
        case kMtdEraseSize: options.mtdEraseSize = NumberValue("--mtd-erasesize", value, 1, 0xffffffffu); break;
        case kMtdWriteSize: options.mtdWriteSize = NumberValue("--mtd-writesize", value, 1, 0xffffffffu); break;
        case kNoMtd: options.mtd = false; break;
        case kUptime: options.uptime = NumberValue("--uptime", value, 0, 100000000); break;
        case kPids: options.pids = static_cast<unsigned>(NumberValue("--pids", value, 1, 32768)); break;
        }
    });
    if (!ok) return 0;
    NoCommand(parsed);
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0);
    if (!ValidZone(options.zone)) throw UsageError("unknown time zone '" + options.zone + "'");
    // A clock text stays as written (a time in the spring gap included);
    // the other forms are shown in the box's zone.
    if (ValidClockText(time)) {
        ParseClock(time, options.zone);
        options.time = time;
    } else {
        options.time = FormatClock(ParseTimeArgument(time, options.zone, ::time(nullptr)), options.zone);
    }
    InitInstance(dir, options, LocateTree().Helper());
    return 0;
}

const char kRunUsage[] = R"USAGE(usage: kvard-sandbox run [DIR] [RUN-OPTIONS] [--quiet] [-- COMMAND ARGS...]

Runs COMMAND (default: the installed kvard) in the box in the foreground until
it ends, copying its output here unless --quiet. ^C sends SIGTERM to the
program, a second ^C kills the box.
  --env NAME=VALUE     set a variable in the box (repeatable)
  --bind HOST[:BOX]    bind a host path writable (repeatable)
  --ro-bind HOST[:BOX] bind a host path read-only (repeatable)
  --quiet              leave the output in DIR/stdout and DIR/stderr only
Exit status: the program's, 128+N when signal N killed it, 125 when the box
did not start, 2 for a bad command line.
)USAGE";

const char kStartUsage[] = R"USAGE(usage: kvard-sandbox start [DIR] [RUN-OPTIONS] [--wait] [--timeout SEC] [-- COMMAND ARGS...]

Starts COMMAND (default: the installed kvard) in the box in the background and
prints its host pid once it runs.
  --env NAME=VALUE     set a variable in the box (repeatable)
  --bind HOST[:BOX]    bind a host path writable (repeatable)
  --ro-bind HOST[:BOX] bind a host path read-only (repeatable)
  --wait               then wait until UDP port 22724 is bound, as `wait` does
  --timeout SEC        how long --wait waits (default 10)
Exit status: 0 started (and ready with --wait), 1 not ready in time, 3 the
program ended first, 2 for a bad command line or a box that did not start.
)USAGE";

struct RunLine {
    RunOptions run;
    bool quiet = false;
    bool wait = false;
    double timeout = 10;
};

std::vector<option> RunOptionsTable(bool foreground) {
    std::vector<option> options = {
        {"env", required_argument, nullptr, kEnv},
        {"bind", required_argument, nullptr, kBind},
        {"ro-bind", required_argument, nullptr, kRoBind},
    };
    if (foreground) {
        options.push_back({"quiet", no_argument, nullptr, kQuiet});
    } else {
        options.push_back({"wait", no_argument, nullptr, kWait});
        options.push_back({"timeout", required_argument, nullptr, kTimeout});
    }
    return options;
}

// Parses run's and start's command line; false when --help or --version answered.
bool ParseRun(const Command &command, int argc, char **argv, RunLine &line, std::string &dir) {
    Parsed parsed;
    bool ok = ParseArguments(command, argc, argv, parsed, [&](int code, const std::string &value) {
        switch (code) {
        case kEnv:
            if (value.find('=') == std::string::npos || value[0] == '=')
                throw UsageError("bad value '" + value + "' of --env: expected NAME=VALUE");
            line.run.env.push_back(value);
            break;
        case kBind: line.run.binds.push_back(BindValue("--bind", value)); break;
        case kRoBind: line.run.roBinds.push_back(BindValue("--ro-bind", value)); break;
        case kQuiet: line.quiet = true; break;
        case kWait: line.wait = true; break;
        case kTimeout: line.timeout = SecondsValue("--timeout", value); break;
        }
    });
    if (!ok) return false;
    if (parsed.dashDash && parsed.command.empty()) throw UsageError("no command after --");
    dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0);
    line.run.command = parsed.command;
    return true;
}

int ReportWait(const Instance &instance, WaitResult result, int port, double timeout) {
    switch (result) {
    case WaitResult::Ready: return 0;
    case WaitResult::TimedOut:
        fprintf(stderr, "kvard-sandbox: UDP port %d not bound in %s after %g s (%s)\n", port, instance.dir.c_str(),
                timeout, DescribeStatus(ReadStatus(instance)).c_str());
        return 1;
    case WaitResult::Ended: break;
    }
    fprintf(stderr, "kvard-sandbox: the program ended before binding UDP port %d: %s (see %s)\n", port,
            DescribeStatus(ReadStatus(instance)).c_str(), instance.Stderr().c_str());
    return 3;
}

int CmdRun(const Command &command, int argc, char **argv) {
    RunLine line;
    std::string dir;
    if (!ParseRun(command, argc, argv, line, dir)) return 0;
    Instance instance = OpenInstance(dir);
    return RunForeground(instance, LocateTree(), line.run, !line.quiet);
}

int CmdStart(const Command &command, int argc, char **argv) {
    RunLine line;
    std::string dir;
    if (!ParseRun(command, argc, argv, line, dir)) return 0;
    Instance instance = OpenInstance(dir);
    pid_t pid = StartBackground(instance, LocateTree(), line.run);
    printf("%d\n", static_cast<int>(pid));
    fflush(stdout);
    if (!line.wait) return 0;
    return ReportWait(instance, WaitReady(instance, 22724, line.timeout), 22724, line.timeout);
}

const char kWaitUsage[] = R"USAGE(usage: kvard-sandbox wait [DIR] [--timeout SEC] [--port N]

Waits until UDP port N (default 22724) is bound in the box.
  --timeout SEC   how long (default 10)
  --port N        which port
Exit status: 0 ready, 1 timed out, 3 the program ended first (its status
printed), 2 for a bad command line.
)USAGE";

int CmdWait(const Command &command, int argc, char **argv) {
    Parsed parsed;
    double timeout = 10;
    int port = 22724;
    bool ok = ParseArguments(command, argc, argv, parsed, [&](int code, const std::string &value) {
        if (code == kTimeout) timeout = SecondsValue("--timeout", value);
        if (code == kPort) port = static_cast<int>(NumberValue("--port", value, 1, 65535));
    });
    if (!ok) return 0;
    NoCommand(parsed);
    Instance instance = OpenInstance(ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0));
    return ReportWait(instance, WaitReady(instance, port, timeout), port, timeout);
}

const char kStatusUsage[] = R"USAGE(usage: kvard-sandbox status [DIR]

Prints "running pid N", "starting", "exited N", "killed N (SIGNAME)",
"failed: REASON", "lost: REASON" or "not started".
Exit status: 0 while running or starting, 3 otherwise, 2 for a bad command line.
)USAGE";

int CmdStatus(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    NoCommand(parsed);
    Instance instance = OpenInstance(ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0));
    Status status = ReadStatus(instance);
    printf("%s\n", DescribeStatus(status).c_str());
    return status.state == State::Running || status.state == State::Starting ? 0 : 3;
}

int SignalArgument(const std::string &text) {
    auto sig = ParseSignal(text);
    if (!sig) throw UsageError("unknown signal '" + text + "' (a number, TERM or SIGTERM)");
    return *sig;
}

const char kSignalUsage[] = R"USAGE(usage: kvard-sandbox signal [DIR] SIGNAL

Sends SIGNAL (a number, TERM or SIGTERM) to the program.
Exit status: 0 sent, 2 not running or a bad command line.
)USAGE";

int CmdSignal(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    parsed.operands.insert(parsed.operands.end(), parsed.command.begin(), parsed.command.end());
    RequireOperands(parsed, 1, "signal", "SIGNAL");
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 1, 1);
    int sig = SignalArgument(parsed.operands[0]);
    SignalProgram(OpenInstance(dir), sig);
    return 0;
}

const char kStopUsage[] = R"USAGE(usage: kvard-sandbox stop [DIR] [SIGNAL] [--timeout SEC]

Sends SIGNAL (default TERM) to the program, waits up to SEC (default 5) for
the box to end, then kills the whole box. Prints the final status. With one
operand and KVARD_SANDBOX_DIR set, the operand is DIR when it names an
existing directory and SIGNAL otherwise.
Exit status: 0 ended (or never started), 1 still running, 2 for a bad
command line.
)USAGE";

int CmdStop(const Command &command, int argc, char **argv) {
    Parsed parsed;
    double timeout = 5;
    bool ok = ParseArguments(command, argc, argv, parsed, [&](int code, const std::string &value) {
        if (code == kTimeout) timeout = SecondsValue("--timeout", value);
    });
    if (!ok) return 0;
    parsed.operands.insert(parsed.operands.end(), parsed.command.begin(), parsed.command.end());
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 1);
    int sig = parsed.operands.empty() ? SIGTERM : SignalArgument(parsed.operands[0]);
    Status status = StopInstance(OpenInstance(dir), sig, timeout);
    printf("%s\n", DescribeStatus(status).c_str());
    return Ended(status) || status.state == State::NotStarted ? 0 : 1;
}

const char kExecUsage[] = R"USAGE(usage: kvard-sandbox exec [DIR] -- COMMAND ARGS...

Runs a host command in the box's network namespace (so 127.0.0.1:22724 is the
instance's), with the installed bin/ first in PATH and KVARD_MDM_DIR set to
the instance's store. Works for root, and for the user who started the box.
Exit status: the command's; 127 when it cannot be run, 2 when the box does
not run or for a bad command line.
)USAGE";

int CmdExec(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    if (!parsed.dashDash) throw UsageError("exec: expected -- COMMAND ARGS...");
    if (parsed.command.empty()) throw UsageError("no command after --");
    Instance instance = OpenInstance(ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0));
    ExecInNetwork(instance, LocateTree(), parsed.command);
}

const char kTimeUsage[] = R"USAGE(usage: kvard-sandbox time [DIR] TIME

Sets the fake clock. TIME is "YYYY-MM-DD hh:mm:ss" in the box's zone, now,
@EPOCH, or +DURATION / -DURATION from the clock as it stands (such as +90s,
+15m, -1h30m, +2d, +1w; real seconds, so +1h across the spring-forward gap
shows two hours more on the wall clock). The clock stands still between
settings.
Exit status: 0 set, 2 a bad time or command line (the clock stays).
)USAGE";

int CmdTime(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    parsed.operands.insert(parsed.operands.end(), parsed.command.begin(), parsed.command.end());
    RequireOperands(parsed, 1, "time", "TIME");
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 1, 1);
    Instance instance = OpenInstance(dir);
    const std::string &text = parsed.operands[0];
    std::string zone = ReadInstanceSettings(instance)["tz"];
    if (ValidClockText(text)) {
        ParseClock(text, zone);
        SetClock(instance, text);
        return 0;
    }
    int64_t base = 0;
    if (text[0] == '+' || text[0] == '-') {
        std::string clock = ReadFile(instance.ControlFile(kClockFile)).value_or("");
        while (!clock.empty() && (clock.back() == '\n' || clock.back() == '\r')) clock.pop_back();
        try {
            base = ParseClock(clock, zone);
        } catch (const Error &) {
            throw Error("cannot move the clock of " + instance.dir + " from '" + clock +
                        "': set it with an absolute time first");
        }
    }
    SetClock(instance, FormatClock(ParseTimeArgument(text, zone, base), zone));
    return 0;
}

const char kProcUsage[] = R"USAGE(usage: kvard-sandbox proc [DIR] FILE

Replaces the fake /proc/FILE (such as net/dev, uptime, mtd) with stdin.
Exit status: 0 written, 2 a bad FILE or command line.
)USAGE";

int CmdProc(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    parsed.operands.insert(parsed.operands.end(), parsed.command.begin(), parsed.command.end());
    RequireOperands(parsed, 1, "proc", "FILE");
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 1, 1);
    Instance instance = OpenInstance(dir);
    std::string content((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    WriteProcFile(instance, parsed.operands[0], content);
    return 0;
}

const char kNetDevUsage[] = R"USAGE(usage: kvard-sandbox netdev [DIR] NAME RX TX [NAME RX TX ...]

Replaces /proc/net/dev with lo and the given interfaces' byte counters.
Exit status: 0 written, 2 a bad operand or command line.
)USAGE";

int CmdNetDev(const Command &command, int argc, char **argv) {
    Parsed parsed;
    if (!ParseArguments(command, argc, argv, parsed, [](int, const std::string &) {})) return 0;
    parsed.operands.insert(parsed.operands.end(), parsed.command.begin(), parsed.command.end());
    RequireOperands(parsed, 3, "netdev", "NAME RX TX: give them for at least one interface");
    std::string dir = ResolveInstanceDir(parsed.dirOption, parsed.operands, 3, ~size_t{0}, 3);
    std::vector<NetDevLine> lines = {{"lo", 0, 0}};
    for (size_t i = 0; i + 2 < parsed.operands.size(); i += 3) {
        NetDevLine line;
        line.name = parsed.operands[i];
        if (line.name.empty() || line.name.size() > 15 || line.name.find_first_of(": \t\n") != std::string::npos)
            throw UsageError("bad interface name '" + line.name + "'");
        line.rxBytes = NumberValue("RX of " + line.name, parsed.operands[i + 1], 0, ~0ULL);
        line.txBytes = NumberValue("TX of " + line.name, parsed.operands[i + 2], 0, ~0ULL);
        lines.push_back(line);
    }
    WriteProcFile(OpenInstance(dir), "net/dev", FormatNetDev(lines));
    return 0;
}

const char kWebUsage[] = R"USAGE(usage: kvard-sandbox web [DIR] [--port N] [--listen ADDR] [--timeout SEC]
       kvard-sandbox web [DIR] --stop

Serves the Traffic Meter page and its CGI (tm.cgi) with lighttpd from inside
the running box, so that the CGI reads the box's store, flash and clock and
talks to its kvard, on a TCP port of the host that a browser on the host
reaches. Prints the URL once the page answers. The server ends with the box;
a second call prints the URL of the server that runs. Needs root and lighttpd
(Debian package lighttpd); the server's files are in DIR/sandbox/web.
  --port N        the host's port (default: any free port)
  --listen ADDR   the host's address to listen on (default 127.0.0.1; 0.0.0.0
                  shows the page to the whole network, without a login)
  --timeout SEC   how long to wait for the first answer (default 10)
  --stop          end the server (the box goes on)
Exit status: 0 served (or stopped), 3 --stop found no server, 2 for a bad
command line or a server that could not be started.
)USAGE";

int CmdWeb(const Command &command, int argc, char **argv) {
    Parsed parsed;
    WebOptions options;
    bool stop = false;
    bool ok = ParseArguments(command, argc, argv, parsed, [&](int code, const std::string &value) {
        if (code == kTimeout) options.timeoutSeconds = SecondsValue("--timeout", value);
        if (code == kPort) options.port = static_cast<int>(NumberValue("--port", value, 1, 65535));
        if (code == kListen) options.address = value;
        if (code == kStopWeb) stop = true;
    });
    if (!ok) return 0;
    NoCommand(parsed);
    Instance instance = OpenInstance(ResolveInstanceDir(parsed.dirOption, parsed.operands, 0, 0));
    if (stop) return StopWeb(instance) ? 0 : 3;
    printf("%s\n", StartWeb(instance, LocateTree(), options).c_str());
    return 0;
}

const std::vector<Command> &Commands() {
    static const std::vector<Command> commands = {
        {"init", kInitUsage,
         {{"time", required_argument, nullptr, kTime},
          {"tz", required_argument, nullptr, kTz},
          {"seed", required_argument, nullptr, kSeed},
          {"mtd-size", required_argument, nullptr, kMtdSize},
          {"mtd-erasesize", required_argument, nullptr, kMtdEraseSize},
          {"mtd-writesize", required_argument, nullptr, kMtdWriteSize},
          {"no-mtd", no_argument, nullptr, kNoMtd},
          {"uptime", required_argument, nullptr, kUptime},
          {"pids", required_argument, nullptr, kPids}},
         CmdInit},
        {"run", kRunUsage, RunOptionsTable(true), CmdRun},
        {"start", kStartUsage, RunOptionsTable(false), CmdStart},
        {"wait", kWaitUsage,
         {{"timeout", required_argument, nullptr, kTimeout}, {"port", required_argument, nullptr, kPort}},
         CmdWait},
        {"status", kStatusUsage, {}, CmdStatus},
        {"signal", kSignalUsage, {}, CmdSignal},
        {"stop", kStopUsage, {{"timeout", required_argument, nullptr, kTimeout}}, CmdStop},
        {"exec", kExecUsage, {}, CmdExec},
        {"time", kTimeUsage, {}, CmdTime},
        {"proc", kProcUsage, {}, CmdProc},
        {"netdev", kNetDevUsage, {}, CmdNetDev},
        {"web", kWebUsage,
         {{"port", required_argument, nullptr, kPort},
          {"listen", required_argument, nullptr, kListen},
          {"timeout", required_argument, nullptr, kTimeout},
          {"stop", no_argument, nullptr, kStopWeb}},
         CmdWeb},
    };
    return commands;
}

const Command *FindCommand(const std::string &name) {
    for (const auto &command : Commands())
        if (name == command.name) return &command;
    return nullptr;
}

// Commands that parse their own command line (replay.h).
using ExternalMain = int (*)(int argc, char **argv);
ExternalMain ExternalCommand(const std::string &name) {
    if (name == "advance") return AdvanceCommand;
    if (name == "replay") return ReplayCommand;
    return nullptr;
}

int Main(int argc, char **argv) {
    // Options before the command: --help, --version, and -C DIR for the command.
    std::vector<char *> dirArgs;
    int first = 1;
    for (; first < argc; ++first) {
        std::string arg = argv[first];
        if (arg == "--help" || arg == "-h") {
            fputs(kOverview, stdout);
            return 0;
        }
        if (arg == "--version" || arg == "-V") {
            printf("kvard-sandbox %s\n", KVARD_VERSION);
            return 0;
        }
        if (arg == "-C" || arg == "--dir") {
            if (first + 1 >= argc) throw UsageError("option '" + arg + "' needs a value");
            dirArgs = {argv[first], argv[first + 1]};
            ++first;
        } else if (arg.rfind("--dir=", 0) == 0 || (arg.rfind("-C", 0) == 0 && arg.size() > 2)) {
            dirArgs = {argv[first]};
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError("unknown option '" + arg + "' (see kvard-sandbox --help)");
        } else {
            break;
        }
    }
    if (first >= argc) {
        fputs(kOverview, stderr);
        return 2;
    }
    std::string name = argv[first];
    if (name == "help") {
        if (first + 1 >= argc) {
            fputs(kOverview, stdout);
            return 0;
        }
        std::string topic = argv[first + 1];
        if (auto external = ExternalCommand(topic)) {
            char help[] = "--help";
            char *args[] = {argv[first + 1], help, nullptr};
            return external(2, args);
        }
        const Command *command = FindCommand(topic);
        if (!command) throw UsageError(std::string("unknown command '") + argv[first + 1] + "' (see --help)");
        fputs(command->usage, stdout);
        return 0;
    }
    const Command *command = FindCommand(name);
    auto external = ExternalCommand(name);
    if (!command && !external) throw UsageError("unknown command '" + name + "' (see --help)");
    // The command's own argument vector: its name, then -C given before it, then the rest.
    std::vector<char *> args = {argv[first]};
    args.insert(args.end(), dirArgs.begin(), dirArgs.end());
    args.insert(args.end(), argv + first + 1, argv + argc);
    args.push_back(nullptr);
    int count = static_cast<int>(args.size() - 1);
    return external ? external(count, args.data()) : command->run(*command, count, args.data());
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception &e) {
        fprintf(stderr, "kvard-sandbox: %s\n", e.what());
        return 2;
    }
}
