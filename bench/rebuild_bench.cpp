// The history rebuild of the installed daemon in the sandbox, on an erased
// partition and on one whose two rings are full:
// - StartToReady: from the start of the box to the bound control port. The
//   daemon rebuilds before it opens the port, but the box's own start
//   (namespaces, mounts, the helper) costs far more than the rebuild.
// - ZoneChange: the round trip of TM_MSG_TIME_UPDATE after the zone's name
//   changed, which the daemon answers only after a full rebuild (and the
//   publication that ends it). This isolates the rebuild.
//
// - BareLoop: what the rebuild of full rings asks of the kernel, done by a
//   plain loop on the image file without the daemon and without the emulated
//   NAND: the rebuild reads every page of both rings twice, and per page read
//   the daemon opens and closes the device (the bad-block check), then opens,
//   seeks, reads the record and closes. The rebuild's own time is
//   ZoneChange/both_rings_full less ZoneChange/same_name_no_rebuild, in wall
//   time and in the daemon's CPU time (daemon_cpu_ms), to set against the
//   loop's wall and CPU time.
//
//   KVARD_PREFIX=<installed tree> rebuild_bench [--benchmark_repetitions=3]
//   rebuild_bench --write-image=PATH     writes the full partition to PATH and ends
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <benchmark/benchmark.h>

#include "tests/system/meter_util.h"

namespace {

using kvard::test::Sandbox;
using kvard::test::SandboxOptions;
using kvard::test::meter::Image;
using kvard::test::meter::kZone;
using Rec = kvard::test::meter::Record;

const char *const kClock = "2026-03-10 11:59:30";  // the last minute of a morning

int32_t Local(const char *text)
{
    return kvard::test::meter::T(text);
}

// The local half-day boundary before the boundary END: the local noon or
// midnight six hours earlier, so that 11- and 13-hour half-days come out right.
int32_t HalfDayBefore(int32_t end)
{
    setenv("TZ", kZone, 1);
    tzset();
    time_t probe = end - 6 * 3600;
    struct tm fields;
    localtime_r(&probe, &fields);
    fields.tm_hour = fields.tm_hour < 12 ? 0 : 12;
    fields.tm_min = fields.tm_sec = 0;
    fields.tm_isdst = -1;
    return int32_t(mktime(&fields));
}

// A partition as a router leaves it after months of use: the minute ring has
// wrapped (its newest page in the middle) and holds the 2304 minutes up to
// now, the last 719 of them the running morning; the half-day ring holds the
// 256 half-days up to this midnight, also wrapped. No minute is newer than
// the newest half-day but those of the running morning, so the start folds
// nothing and writes nothing: every start rebuilds the same history.
Image FullImage()
{
    using kvard::test::meter::kHDayPages;
    using kvard::test::meter::kHDayStart;
    using kvard::test::meter::kMinPages;
    Image image;
    const int32_t midnight = Local("2026-03-10 00:00:00");
    const int32_t lastMinute = Local("2026-03-10 11:58:00");
    const uint32_t newestMinutePage = 1000, newestHalfDayPage = 100;
    for (uint32_t k = 0; k < kMinPages; k++) {
        int32_t start = lastMinute - 60 * int32_t(k);
        uint32_t page = (newestMinutePage + kMinPages - k) % kMinPages;
        image.Put(page, Rec{start, start + 60, 1000 + k, 100000 + 7 * k, 0});
    }
    int32_t end = midnight;
    for (uint32_t k = 0; k < kHDayPages; k++) {
        int32_t start = HalfDayBefore(end);
        uint32_t page = (newestHalfDayPage + kHDayPages - k) % kHDayPages;
        image.Put(kHDayStart + page, Rec{start, end, 500000 + k, 50000000 + k, 0});
        end = start;
    }
    return image;
}

// Nanoseconds process PID has run on a CPU, from the scheduler's account; 0 when unknown.
double CpuNs(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    double ns = 0;
    in >> ns;
    return ns;
}

// Whether the process PID has a UDP socket bound to PORT (in its namespace).
bool PortBound(pid_t pid, int port)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/net/udp");
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string slot, local;
        fields >> slot >> local;
        size_t colon = local.rfind(':');
        if (colon != std::string::npos && strtol(local.c_str() + colon + 1, nullptr, 16) == port) return true;
    }
    return false;
}

void StartToReady(benchmark::State &state, bool full)
{
    SandboxOptions options;
    options.time = kClock;
    options.zone = kZone;
    Sandbox box(options);
    (full ? FullImage() : Image()).WriteTo(box);
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        box.Start();
        pid_t pid = 0;
        while (pid == 0 || !PortBound(pid, kvard::test::kControlPort)) {
            if (pid == 0) pid = box.ProgramPid();
            auto waited = std::chrono::steady_clock::now() - begin;
            if (waited > std::chrono::seconds(10)) {
                state.SkipWithError("the daemon did not bind its port within 10 s");
                return;
            }
            usleep(100);
        }
        auto ready = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(ready - begin).count());
        box.Stop();
    }
    auto pages = kvard::test::meter::Records(box, false).size() + kvard::test::meter::Records(box, true).size();
    state.counters["records"] = double(pages);
}

void ZoneChange(benchmark::State &state, bool full, bool rename)
{
    SandboxOptions options;
    options.time = kClock;
    options.zone = kZone;
    Sandbox box(options);
    (full ? FullImage() : Image()).WriteTo(box);
    box.Start();
    if (!box.WaitReady()) {
        state.SkipWithError("the daemon did not start");
        return;
    }
    // Two names of the same rules: only the name is compared.
    const char *const names[] = {"CET-1CEST,M3.5.0,M10.5.0/3", kZone};
    size_t turn = 0;
    const pid_t daemon = box.ProgramPid();
    const double cpuBefore = CpuNs(daemon);
    for (auto _ : state) {
        if (rename) box.UpdateObject("1045", {{"localTimeZone", names[turn++ % 2]}});
        auto begin = std::chrono::steady_clock::now();
        auto reply = box.Send(kvard::test::kTimeUpdate);
        auto end = std::chrono::steady_clock::now();
        if (reply != 1) {
            state.SkipWithError("TM_MSG_TIME_UPDATE was not answered with 1");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
    }
    // The daemon's own CPU time per round trip: unlike the wall time, untouched
    // by whatever else the machine runs meanwhile.
    state.counters["daemon_cpu_ms"] = (CpuNs(daemon) - cpuBefore) / 1e6 / double(state.iterations());
    state.counters["records"] =
        double(kvard::test::meter::Records(box, false).size() + kvard::test::meter::Records(box, true).size());
}

void BareLoop(benchmark::State &state)
{
    char path[] = "/dev/shm/kvard-bare-loop-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) {
        state.SkipWithError("cannot create the image file");
        return;
    }
    const std::string bytes = FullImage().bytes;
    bool written = write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
    close(fd);
    if (!written) {
        unlink(path);
        state.SkipWithError("cannot write the image file");
        return;
    }
    const uint32_t pages = kvard::test::meter::kMinPages + kvard::test::meter::kHDayPages;
    char record[40];
    for (auto _ : state) {
        for (uint32_t n = 0; n < 2 * pages; n++) {
            uint32_t page = n % pages;
            close(open(path, O_RDWR));
            int d = open(path, O_RDWR);
            lseek(d, off_t(page) * kvard::test::meter::kPageSize, SEEK_SET);
            benchmark::DoNotOptimize(read(d, record, sizeof record));
            close(d);
        }
    }
    unlink(path);
    state.counters["reads"] = 2 * pages;
}

BENCHMARK(BareLoop)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ZoneChange, same_name_no_rebuild, false, false)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ZoneChange, erased_partition, false, true)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ZoneChange, both_rings_full, true, true)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(StartToReady, erased_partition, false)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(StartToReady, both_rings_full, true)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv)
{
    const std::string option = "--write-image=";
    if (argc == 2 && std::string(argv[1]).rfind(option, 0) == 0) {
        std::ofstream out(argv[1] + option.size(), std::ios::binary);
        out << FullImage().bytes;
        return out.good() ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
