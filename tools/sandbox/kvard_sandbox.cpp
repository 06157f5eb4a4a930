// kvard-sandbox: runs kvard (or any program) in a hermetic "router in a box".
// See docs/sandbox.md; `kvard-sandbox --help` gives the summary.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/sandbox/box.h"
#include "tools/sandbox/layout.h"
#include "tools/sandbox/paths.h"
#include "tools/sandbox/util.h"

namespace {

using namespace sandbox;

const char kUsage[] = R"USAGE(usage: kvard-sandbox COMMAND DIR [OPTIONS]

Runs a program (by default the installed kvard) in a hermetic box with its own
state directory DIR, network namespace, fake /proc files, fake clock and stub
commands. Needs root, bubblewrap and libfaketime.

  init DIR [--time "YYYY-MM-DD hh:mm:ss"|now] [--tz ZONE] [--seed router|none]
           [--mtd-size B] [--mtd-erasesize B] [--mtd-writesize B] [--no-mtd]
           [--uptime SECONDS] [--pids N]
      Lays out DIR (default: now, UTC, router, 8 MiB / 128 KiB / 2 KiB flash).
  run DIR [RUN-OPTIONS] [--quiet] [-- COMMAND ARGS...]
      Runs in the foreground until the program ends; copies its output here
      unless --quiet. Exit code: the program's status, 128+N if signal N
      killed it, 125 if the box did not start. ^C sends SIGTERM, twice kills.
  start DIR [RUN-OPTIONS] [--wait] [--timeout SEC] [-- COMMAND ARGS...]
      Runs in the background; prints the program's host pid. With --wait
      also waits for readiness as `wait` does.
      RUN-OPTIONS: --env NAME=VALUE, --bind HOST[:BOX], --ro-bind HOST[:BOX]
      (each repeatable).
  wait DIR [--timeout SEC] [--port N]
      Waits until UDP port N (default 22724) is bound in the box. Exit code
      0 ready, 1 timed out, 3 the program ended first (its status printed).
  status DIR
      Prints "running pid N", "exited N", "killed N (SIGNAME)", "failed: ...",
      "not started". Exit code 0 while running, 3 otherwise.
  signal DIR SIGNAL
      Sends SIGNAL (number, TERM or SIGTERM) to the program.
  stop DIR [SIGNAL] [--timeout SEC]
      Sends SIGNAL (default TERM), waits up to SEC (default 5) for the end,
      then kills the whole box. Prints the final status.
  exec DIR -- COMMAND ARGS...
      Runs a host command in the box's network namespace (so 127.0.0.1:22724
      is the instance's), with the installed bin/ first in PATH and
      KVARD_MDM_DIR set to the instance's store.
  time DIR "YYYY-MM-DD hh:mm:ss"|now
      Sets the fake clock, read in the box's zone. The clock stands still
      between settings.
  proc DIR FILE
      Replaces the fake /proc/FILE (e.g. net/dev, uptime, mtd) with stdin.
  netdev DIR NAME RX TX [NAME RX TX ...]
      Replaces /proc/net/dev with lo and the given interfaces' byte counters.
)USAGE";

struct Args {
    std::vector<std::string> items;
    size_t pos = 0;

    bool Done() const { return pos >= items.size(); }
    const std::string &Peek() const { return items[pos]; }
    std::string Next(const std::string &what) {
        if (Done()) throw Error("missing " + what);
        return items[pos++];
    }
    std::vector<std::string> Rest() {
        std::vector<std::string> rest(items.begin() + static_cast<long>(pos), items.end());
        pos = items.size();
        return rest;
    }
};

uint64_t NumberOption(Args &args, const std::string &option, uint64_t min, uint64_t max) {
    std::string text = args.Next("value of " + option);
    auto value = ParseNumber(text, min, max);
    if (!value)
        throw Error("bad value '" + text + "' of " + option + " (" + std::to_string(min) + " to " +
                    std::to_string(max) + ")");
    return *value;
}

double SecondsOption(Args &args, const std::string &option) {
    std::string text = args.Next("value of " + option);
    char *end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || value < 0 || value > 86400)
        throw Error("bad value '" + text + "' of " + option + " (seconds)");
    return value;
}

std::pair<std::string, std::string> BindOption(Args &args, const std::string &option) {
    std::string text = args.Next("value of " + option);
    size_t colon = text.find(':');
    std::string host = text.substr(0, colon);
    std::string box = colon == std::string::npos ? AbsolutePath(host) : text.substr(colon + 1);
    if (host.empty() || box.empty() || box[0] != '/') throw Error("bad " + option + " '" + text + "'");
    return {host, box};
}

[[noreturn]] void Unknown(const std::string &option) {
    throw Error("unknown option '" + option + "' (see --help)");
}

int CmdInit(Args &args) {
    std::string dir = args.Next("state directory");
    InitOptions options;
    while (!args.Done()) {
        std::string option = args.Next("option");
        if (option == "--time")
            options.time = args.Next("value of --time");
        else if (option == "--tz")
            options.zone = args.Next("value of --tz");
        else if (option == "--seed")
            options.seed = args.Next("value of --seed");
        else if (option == "--mtd-size")
            options.mtdSize = NumberOption(args, option, 1, 0xffffffffu);
        else if (option == "--mtd-erasesize")
            options.mtdEraseSize = NumberOption(args, option, 1, 0xffffffffu);
        else if (option == "--mtd-writesize")
            options.mtdWriteSize = NumberOption(args, option, 1, 0xffffffffu);
        else if (option == "--no-mtd")
            options.mtd = false;
        else if (option == "--uptime")
            options.uptime = NumberOption(args, option, 0, 100000000);
        else if (option == "--pids")
            options.pids = static_cast<unsigned>(NumberOption(args, option, 1, 32768));
        else
            Unknown(option);
    }
    InitInstance(dir, options, LocateTree().Helper());
    return 0;
}

struct RunCommandLine {
    RunOptions run;
    bool quiet = false;
    bool wait = false;
    double timeout = 10;
};

RunCommandLine ParseRunOptions(Args &args, bool foreground) {
    RunCommandLine line;
    while (!args.Done()) {
        std::string option = args.Next("option");
        if (option == "--") {
            line.run.command = args.Rest();
            if (line.run.command.empty()) throw Error("no command after --");
        } else if (option == "--env") {
            std::string entry = args.Next("value of --env");
            if (entry.find('=') == std::string::npos || entry[0] == '=')
                throw Error("bad --env '" + entry + "': expected NAME=VALUE");
            line.run.env.push_back(entry);
        } else if (option == "--bind") {
            line.run.binds.push_back(BindOption(args, option));
        } else if (option == "--ro-bind") {
            line.run.roBinds.push_back(BindOption(args, option));
        } else if (foreground && option == "--quiet") {
            line.quiet = true;
        } else if (!foreground && option == "--wait") {
            line.wait = true;
        } else if (!foreground && option == "--timeout") {
            line.timeout = SecondsOption(args, option);
        } else {
            Unknown(option);
        }
    }
    return line;
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

int CmdRun(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    RunCommandLine line = ParseRunOptions(args, true);
    return RunForeground(instance, LocateTree(), line.run, !line.quiet);
}

int CmdStart(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    RunCommandLine line = ParseRunOptions(args, false);
    pid_t pid = StartBackground(instance, LocateTree(), line.run);
    printf("%d\n", static_cast<int>(pid));
    fflush(stdout);
    if (!line.wait) return 0;
    return ReportWait(instance, WaitReady(instance, 22724, line.timeout), 22724, line.timeout);
}

int CmdWait(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    double timeout = 10;
    int port = 22724;
    while (!args.Done()) {
        std::string option = args.Next("option");
        if (option == "--timeout")
            timeout = SecondsOption(args, option);
        else if (option == "--port")
            port = static_cast<int>(NumberOption(args, option, 1, 65535));
        else
            Unknown(option);
    }
    return ReportWait(instance, WaitReady(instance, port, timeout), port, timeout);
}

int CmdStatus(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    if (!args.Done()) Unknown(args.Peek());
    Status status = ReadStatus(instance);
    printf("%s\n", DescribeStatus(status).c_str());
    return status.state == State::Running || status.state == State::Starting ? 0 : 3;
}

int SignalArgument(const std::string &text) {
    auto sig = ParseSignal(text);
    if (!sig) throw Error("unknown signal '" + text + "'");
    return *sig;
}

int CmdSignal(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    int sig = SignalArgument(args.Next("signal"));
    if (!args.Done()) Unknown(args.Peek());
    SignalProgram(instance, sig);
    return 0;
}

int CmdStop(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    int sig = SIGTERM;
    double timeout = 5;
    while (!args.Done()) {
        std::string item = args.Next("option");
        if (item == "--timeout")
            timeout = SecondsOption(args, item);
        else if (item.rfind("--", 0) == 0)
            Unknown(item);
        else
            sig = SignalArgument(item);
    }
    Status status = StopInstance(instance, sig, timeout);
    printf("%s\n", DescribeStatus(status).c_str());
    return Ended(status) || status.state == State::NotStarted ? 0 : 1;
}

int CmdExec(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    if (args.Done() || args.Next("--") != "--") throw Error("exec: expected -- COMMAND ARGS...");
    ExecInNetwork(instance, LocateTree(), args.Rest());
}

int CmdTime(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    std::string text = args.Next("time");
    if (!args.Done()) Unknown(args.Peek());
    if (text == "now") text = NowClockText(ReadInstanceSettings(instance)["tz"]);
    SetClock(instance, text);
    return 0;
}

int CmdProc(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    std::string file = args.Next("file name below /proc");
    if (!args.Done()) Unknown(args.Peek());
    std::string content((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    WriteProcFile(instance, file, content);
    return 0;
}

int CmdNetDev(Args &args) {
    Instance instance = OpenInstance(args.Next("state directory"));
    std::vector<NetDevLine> lines = {{"lo", 0, 0}};
    if (args.Done()) throw Error("netdev: give NAME RX TX for at least one interface");
    while (!args.Done()) {
        NetDevLine line;
        line.name = args.Next("interface name");
        if (line.name.empty() || line.name.size() > 15 || line.name.find_first_of(": \t\n") != std::string::npos)
            throw Error("bad interface name '" + line.name + "'");
        line.rxBytes = NumberOption(args, "RX of " + line.name, 0, ~0ULL);
        line.txBytes = NumberOption(args, "TX of " + line.name, 0, ~0ULL);
        lines.push_back(line);
    }
    WriteProcFile(instance, "net/dev", FormatNetDev(lines));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    Args args{std::vector<std::string>(argv + 1, argv + argc)};
    if (args.Done() || args.Peek() == "--help" || args.Peek() == "-h" || args.Peek() == "help") {
        fputs(kUsage, args.Done() ? stderr : stdout);
        return args.Done() ? 2 : 0;
    }
    std::string command = args.Next("command");
    try {
        if (command == "init") return CmdInit(args);
        if (command == "run") return CmdRun(args);
        if (command == "start") return CmdStart(args);
        if (command == "wait") return CmdWait(args);
        if (command == "status") return CmdStatus(args);
        if (command == "signal") return CmdSignal(args);
        if (command == "stop") return CmdStop(args);
        if (command == "exec") return CmdExec(args);
        if (command == "time") return CmdTime(args);
        if (command == "proc") return CmdProc(args);
        if (command == "netdev") return CmdNetDev(args);
        throw Error("unknown command '" + command + "' (see --help)");
    } catch (const std::exception &e) {
        fprintf(stderr, "kvard-sandbox: %s\n", e.what());
        return 2;
    }
}
