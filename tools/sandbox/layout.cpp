#include "tools/sandbox/layout.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/sandbox/paths.h"
#include "tools/sandbox/util.h"

namespace sandbox {

std::string Instance::RunFile(std::string_view name) const {
    return Control() + "/" + kRunDir + "/" + std::string(name);
}

Instance OpenInstance(const std::string &dir) {
    Instance instance{AbsolutePath(dir)};
    if (!PathExists(instance.ControlFile(kSettingsFile)))
        throw Error("not a sandbox state directory (run 'kvard-sandbox init' first): " + instance.dir);
    return instance;
}

std::map<std::string, std::string> ReadInstanceSettings(const Instance &instance) {
    auto text = ReadFile(instance.ControlFile(kSettingsFile));
    if (!text) throw Error("missing " + instance.ControlFile(kSettingsFile));
    return ParseSettings(*text);
}

bool ValidClockText(std::string_view text) {
    // Exactly "YYYY-MM-DD hh:mm:ss": libfaketime reads it with strptime in
    // the process's zone, and we want every instance to read it the same way.
    static const char pattern[] = "dddd-dd-dd dd:dd:dd";
    if (text.size() != sizeof pattern - 1) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == 'd' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != pattern[i])
            return false;
    }
    auto field = [&](size_t pos, size_t len) { return std::atoi(std::string(text.substr(pos, len)).c_str()); };
    int month = field(5, 2), day = field(8, 2), hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
    return field(0, 4) >= 1970 && month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour <= 23 &&
           minute <= 59 && second <= 60;
}

std::string NowClockText(const std::string &zone) {
    const char *old = getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", zone.c_str(), 1);
    tzset();
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    if (old)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    return text;
}

void SetClock(const Instance &instance, std::string_view text) {
    if (!ValidClockText(text))
        throw Error("bad time '" + std::string(text) + "': expected \"YYYY-MM-DD hh:mm:ss\"");
    WriteFileAtomic(instance.ControlFile(kClockFile), std::string(text) + "\n");
}

bool ValidZone(const std::string &zone) {
    if (zone.empty() || zone.size() > 200) return false;
    for (unsigned char c : zone)
        if (c < 0x20 || c == 0x7f || c == '\\') return false;
    std::string name = zone[0] == ':' ? zone.substr(1) : zone;
    if (name.find("..") == std::string::npos && PathExists("/usr/share/zoneinfo/" + name)) return true;
    // A POSIX rule such as "CET-1CEST,M3.5.0,M10.5.0/3": a name, then an offset.
    bool letters = isalpha(static_cast<unsigned char>(zone[0])) || zone[0] == '<';
    return letters && zone.find_first_of("0123456789") != std::string::npos;
}

// Links of the fake /proc into the box's real procfs.
static const char *const kProcLinks[] = {"self", "thread-self", "sys", "meminfo", "stat", "cpuinfo", "mounts"};

void WriteProcFile(const Instance &instance, const std::string &relative, std::string_view content) {
    if (relative.empty() || relative[0] == '/' || relative.back() == '/')
        throw Error("bad /proc file name '" + relative + "': give a relative file name such as net/dev");
    std::string first = relative.substr(0, relative.find('/'));
    for (const char *link : kProcLinks)
        if (first == link) throw Error("/proc/" + first + " is the box's real procfs, not a fake file");
    if (first.find_first_not_of("0123456789") == std::string::npos)
        throw Error("/proc/" + first + " is the box's real procfs, not a fake file");
    size_t pos = 0;
    while (pos < relative.size()) {
        size_t next = relative.find('/', pos);
        if (next == std::string::npos) next = relative.size();
        std::string part = relative.substr(pos, next - pos);
        if (part.empty() || part == "." || part == "..")
            throw Error("bad /proc file name '" + relative + "'");
        pos = next + 1;
    }
    std::string path = instance.Proc() + "/" + relative;
    MakeDirs(path.substr(0, path.rfind('/')));
    WriteFileAtomic(path, content);
}

std::string FormatNetDev(const std::vector<NetDevLine> &lines) {
    std::string text =
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
        "carrier compressed\n";
    for (const auto &line : lines) {
        char buffer[256];
        // The kernel's own format (net/core/net-procfs.c).
        snprintf(buffer, sizeof buffer,
                 "%6s: %7" PRIu64 " %7llu %4llu %4llu %4llu %5llu %10llu %9llu %8" PRIu64
                 " %7llu %4llu %4llu %4llu %5llu %7llu %10llu\n",
                 line.name.c_str(), line.rxBytes, 0ULL, 0ULL, 0ULL, 0ULL, 0ULL, 0ULL, 0ULL, line.txBytes, 0ULL,
                 0ULL, 0ULL, 0ULL, 0ULL, 0ULL, 0ULL);
        text += buffer;
    }
    return text;
}

static std::string Hex8(uint64_t value) {
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%08" PRIx64, value);
    return buffer;
}

static std::string MtdText(const InitOptions &options) {
    std::string text = "dev:    size   erasesize  name\n";
    if (options.mtd) text += "mtd0: " + Hex8(options.mtdSize) + " " + Hex8(options.mtdEraseSize) + " \"tm\"\n";
    return text;
}

static void MakeLink(const std::string &target, const std::string &path) {
    if (symlink(target.c_str(), path.c_str()) != 0) throw Error(ErrnoText("cannot create link", path));
}

static void LayOutProc(const Instance &instance, const InitOptions &options) {
    MakeDirs(instance.Proc() + "/net");
    WriteFileAtomic(instance.Proc() + "/mtd", MtdText(options));
    char uptime[64];
    snprintf(uptime, sizeof uptime, "%" PRIu64 ".00 %" PRIu64 ".00\n", options.uptime, options.uptime);
    WriteFileAtomic(instance.Proc() + "/uptime", uptime);
    WriteFileAtomic(instance.Proc() + "/net/dev",
                    FormatNetDev({{"lo", 0, 0}, {"eth0", 0, 0}, {"eth0.1", 0, 0}, {"eth1", 0, 0}}));
    std::string real = kBoxRealProc;
    for (const char *link : kProcLinks) MakeLink(real + "/" + link, instance.Proc() + "/" + link);
    // Small pids of the box's namespace, for tools that open /proc/<own pid>
    // (the leak checker of AddressSanitizer, valgrind).
    for (unsigned pid = 1; pid <= options.pids; ++pid) {
        std::string name = std::to_string(pid);
        MakeLink(real + "/" + name, instance.Proc() + "/" + name);
    }
}

// Store files are written under the store's lock, as every writer must.
class StoreLock {
public:
    explicit StoreLock(const std::string &store) : path_(store + "/.lock") {
        fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) throw Error(ErrnoText("cannot open", path_));
        for (int waited = 0; flock(fd_, LOCK_EX | LOCK_NB) != 0; waited += 10) {
            if (errno != EWOULDBLOCK || waited >= 5000) {
                close(fd_);
                throw Error(ErrnoText("cannot lock", path_));
            }
            usleep(10000);
        }
    }
    ~StoreLock() { close(fd_); }
    StoreLock(const StoreLock &) = delete;
    StoreLock &operator=(const StoreLock &) = delete;

private:
    std::string path_;
    int fd_ = -1;
};

static void SeedRouter(const Instance &instance, const InitOptions &options) {
    const std::string store = instance.Store();
    MakeDirs(store);
    StoreLock lock(store);
    // Values hold no line feed or backslash, so they need no escaping.
    const std::vector<std::pair<std::string, std::string>> objects = {
        {"2700", "operationMode=RT\n"},
        {"1400", "wanType=DHCP\n"},
        {"1152.1", "ifName=eth0\nisUpstream=1\n"},
        {"1152.2", "ifName=eth1\nisUpstream=0\n"},
        {"1045", "status=Synchronized\nlocalTimeZone=" + options.zone + "\n"},
        {"2888",
         "traffic_on=true\n"
         "volcontrl=true\n"
         "contrl_type=No limit\n"
         "volume_monthly_limit=0\n"
         "round_up_volume=0\n"
         "timecontrl=false\n"
         "conntime_monthly_limit=0\n"
         "day=1\n"
         "hour=0\n"
         "min=0\n"
         "ampm_sel=false\n"
         "counter=0\n"
         "mark=0\n"
         "led_on=false\n"
         "block_on=false\n"
         "markStatus=0\n"},
        {"2889", ""},
    };
    for (const auto &[name, content] : objects) WriteFileAtomic(store + "/" + name, content);
    // The neighbour that names the WAN port.
    WriteFileAtomic(instance.dir + "/tmp/WanPorts", "eth0\n");
}

void LinkStubs(const Instance &instance, const std::string &stubTarget) {
    const std::string bin = instance.ControlFile(kStubBinDir);
    MakeDirs(bin);
    for (const char *name : kStubNames) {
        std::string path = bin + "/" + name;
        char current[4096];
        ssize_t n = readlink(path.c_str(), current, sizeof current - 1);
        if (n >= 0) {
            current[n] = '\0';
            if (stubTarget == current) continue;
            RemoveFile(path);
        } else if (PathExists(path)) {
            continue;  // a replacement stub of the user's
        }
        MakeLink(stubTarget, path);
    }
}

static bool DirectoryEmpty(const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (!d) throw Error(ErrnoText("cannot read directory", dir));
    bool empty = true;
    while (struct dirent *entry = readdir(d)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            empty = false;
            break;
        }
    }
    closedir(d);
    return empty;
}

static void CheckGeometry(const InitOptions &options) {
    if (!options.mtd) return;
    if (options.mtdWriteSize == 0 || options.mtdEraseSize == 0 || options.mtdSize == 0)
        throw Error("flash geometry: sizes must be above 0");
    if (options.mtdEraseSize % options.mtdWriteSize != 0)
        throw Error("flash geometry: erase size " + std::to_string(options.mtdEraseSize) +
                    " is not a multiple of the write size " + std::to_string(options.mtdWriteSize));
    if (options.mtdSize % options.mtdEraseSize != 0)
        throw Error("flash geometry: size " + std::to_string(options.mtdSize) +
                    " is not a multiple of the erase size " + std::to_string(options.mtdEraseSize));
    if (options.mtdSize > 0xffffffffu)
        throw Error("flash geometry: size " + std::to_string(options.mtdSize) + " does not fit in 32 bits");
}

Instance InitInstance(const std::string &dir, const InitOptions &options, const std::string &stubTarget) {
    CheckGeometry(options);
    if (!ValidZone(options.zone)) throw Error("unknown time zone '" + options.zone + "'");
    if (options.seed != "router" && options.seed != "none")
        throw Error("unknown seed '" + options.seed + "': use router or none");
    std::string time = options.time == "now" ? NowClockText(options.zone) : options.time;
    if (!ValidClockText(time)) throw Error("bad time '" + time + "': expected \"YYYY-MM-DD hh:mm:ss\"");

    Instance instance{AbsolutePath(dir)};
    MakeDirs(instance.dir);
    if (!DirectoryEmpty(instance.dir)) throw Error("state directory is not empty: " + instance.dir);

    for (const char *sub : {"tmp", "var", "data"}) MakeDirs(instance.dir + "/" + sub);
    MakeDirs(instance.Control() + "/" + kRunDir);
    LayOutProc(instance, options);
    SetClock(instance, time);
    WriteFileAtomic(instance.ControlFile(kStubLogFile), "");
    LinkStubs(instance, stubTarget);
    if (options.seed == "router") SeedRouter(instance, options);

    std::map<std::string, std::string> settings = {
        {"tz", options.zone},
        {"mtd", options.mtd ? "1" : "0"},
        {"mtd_size", std::to_string(options.mtdSize)},
        {"mtd_erasesize", std::to_string(options.mtdEraseSize)},
        {"mtd_writesize", std::to_string(options.mtdWriteSize)},
    };
    // Written last: its presence marks a complete state directory.
    WriteFileAtomic(instance.ControlFile(kSettingsFile), FormatSettings(settings));
    return instance;
}

}  // namespace sandbox
