// The state directory of one sandbox instance: its layout, the fake /proc
// files, the clock file and the seeded data-model store.
#ifndef KVARD_SANDBOX_LAYOUT_H
#define KVARD_SANDBOX_LAYOUT_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// Paths of one instance, all absolute.
struct Instance {
    std::string dir;

    std::string Control() const { return dir + "/sandbox"; }
    std::string ControlFile(std::string_view name) const { return Control() + "/" + std::string(name); }
    std::string RunFile(std::string_view name) const;
    std::string Proc() const { return dir + "/proc"; }
    std::string Store() const { return dir + "/var/lib/kvard/mdm"; }
    std::string Stdout() const { return dir + "/stdout"; }
    std::string Stderr() const { return dir + "/stderr"; }
};

// The instance at DIR; throws unless DIR was laid out by InitInstance.
Instance OpenInstance(const std::string &dir);

struct InitOptions {
    std::string time = "now";    // "YYYY-MM-DD hh:mm:ss" or "now"
    std::string zone = "UTC";
    std::string seed = "router"; // "router" or "none"
    bool mtd = true;
    uint64_t mtdSize = 8u << 20;
    uint64_t mtdEraseSize = 131072;
    uint64_t mtdWriteSize = 2048;
    uint64_t uptime = 100;       // seconds, for /proc/uptime
    unsigned pids = 1024;        // /proc/1 .. /proc/N link into the box's procfs
};

// Lays out DIR (created if missing, must be empty otherwise). Throws on a bad
// option or a failed write. STUB_TARGET is the helper the stubs link to.
Instance InitInstance(const std::string &dir, const InitOptions &options, const std::string &stubTarget);

// Points the stub links at TARGET (a later install may have moved the helper).
// Regular files in the stub directory are left alone: they replace a stub.
void LinkStubs(const Instance &instance, const std::string &stubTarget);

// The settings that init chose (tz, mtd, geometry).
std::map<std::string, std::string> ReadInstanceSettings(const Instance &instance);

// True for "YYYY-MM-DD hh:mm:ss" with fields in range.
bool ValidClockText(std::string_view text);

// The current time in ZONE, as clock text.
std::string NowClockText(const std::string &zone);

// Replaces the clock file (atomically); throws on a malformed time.
void SetClock(const Instance &instance, std::string_view text);

// Replaces DIR/proc/RELATIVE (atomically); RELATIVE must name a file below the
// fake /proc that is not one of its links into the real procfs.
void WriteProcFile(const Instance &instance, const std::string &relative, std::string_view content);

// One interface line of /proc/net/dev.
struct NetDevLine {
    std::string name;
    uint64_t rxBytes = 0;
    uint64_t txBytes = 0;
};

// A complete /proc/net/dev text in the kernel's format: the two header lines
// and one line per interface, other columns zero.
std::string FormatNetDev(const std::vector<NetDevLine> &lines);

// Whether ZONE names a zone file or looks like a POSIX TZ rule.
bool ValidZone(const std::string &zone);

}  // namespace sandbox

#endif
