#include "tools/sandbox/util.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace sandbox {

std::string ErrnoText(std::string_view operation, std::string_view path) {
    std::string text(operation);
    text += ' ';
    text += path;
    text += ": ";
    text += strerror(errno);
    return text;
}

std::optional<std::string> ReadFileIfReadable(const std::string &path) {
    try {
        return ReadFile(path);
    } catch (const Error &) {
        return std::nullopt;
    }
}

std::optional<std::string> ReadFile(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return std::nullopt;
        throw Error(ErrnoText("cannot open", path));
    }
    std::string content;
    char buffer[8192];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int saved = errno;
            close(fd);
            errno = saved;
            throw Error(ErrnoText("cannot read", path));
        }
        if (n == 0) break;
        content.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return content;
}

static void WriteAll(int fd, std::string_view data, const std::string &path) {
    while (!data.empty()) {
        ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Error(ErrnoText("cannot write", path));
        data.remove_prefix(static_cast<size_t>(n));
    }
}

void WriteFileAtomic(const std::string &path, std::string_view content, mode_t mode) {
    // A hidden name, so that a reader listing the directory (a store walk)
    // never takes the half-written file for an entry.
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temp = dir + "." + base + ".tmp." + std::to_string(getpid());
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) throw Error(ErrnoText("cannot create", temp));
    try {
        WriteAll(fd, content, temp);
    } catch (...) {
        close(fd);
        unlink(temp.c_str());
        throw;
    }
    if (fchmod(fd, mode) != 0 || close(fd) != 0) {
        std::string message = ErrnoText("cannot finish", temp);
        unlink(temp.c_str());
        throw Error(message);
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        std::string message = ErrnoText("cannot rename " + temp + " to", path);
        unlink(temp.c_str());
        throw Error(message);
    }
}

void MakeDirs(const std::string &path, mode_t mode) {
    if (path.empty()) return;
    std::string partial;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        partial = path.substr(0, next);
        pos = next + 1;
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), mode) != 0 && errno != EEXIST)
            throw Error(ErrnoText("cannot create directory", partial));
    }
    if (!IsDirectory(path)) throw Error("not a directory: " + path);
}

void RemoveFile(const std::string &path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) throw Error(ErrnoText("cannot remove", path));
}

bool PathExists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool IsDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string AbsolutePath(const std::string &path) {
    std::string full = path;
    if (full.empty() || full[0] != '/') {
        char cwd[4096];
        if (!getcwd(cwd, sizeof cwd)) throw Error(ErrnoText("cannot read", "the working directory"));
        full = std::string(cwd) + "/" + path;
    }
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos < full.size()) {
        size_t next = full.find('/', pos);
        if (next == std::string::npos) next = full.size();
        std::string part = full.substr(pos, next - pos);
        pos = next + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
            continue;
        }
        parts.push_back(part);
    }
    std::string result;
    for (const auto &part : parts) result += "/" + part;
    return result.empty() ? "/" : result;
}

std::map<std::string, std::string> ParseSettings(std::string_view text) {
    std::map<std::string, std::string> settings;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        settings[std::string(line.substr(0, eq))] = std::string(line.substr(eq + 1));
    }
    return settings;
}

std::string FormatSettings(const std::map<std::string, std::string> &settings) {
    std::string text;
    for (const auto &[name, value] : settings) text += name + "=" + value + "\n";
    return text;
}

std::optional<unsigned long long> ParseNumber(std::string_view text, unsigned long long min,
                                              unsigned long long max) {
    if (text.empty() || text.size() > 24) return std::nullopt;
    std::string copy(text);
    int base = 10;
    const char *start = copy.c_str();
    if (copy.size() > 2 && copy[0] == '0' && (copy[1] == 'x' || copy[1] == 'X')) {
        base = 16;
        start += 2;
    }
    if (!isxdigit(static_cast<unsigned char>(*start))) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(start, &end, base);
    if (errno != 0 || *end != '\0' || value < min || value > max) return std::nullopt;
    return value;
}

std::optional<int> ParseSignal(std::string_view text) {
    if (auto number = ParseNumber(text, 1, 64)) return static_cast<int>(*number);
    std::string name(text);
    if (name.rfind("SIG", 0) == 0) name = name.substr(3);
    for (int sig = 1; sig < 32; ++sig) {
        const char *abbrev = sigabbrev_np(sig);
        if (abbrev && name == abbrev) return sig;
    }
    return std::nullopt;
}

std::string SignalName(int signal) {
    const char *abbrev = sigabbrev_np(signal);
    if (!abbrev) return "signal " + std::to_string(signal);
    return std::string("SIG") + abbrev;
}

std::optional<unsigned long long> ProcessStartTime(pid_t pid) {
    std::optional<std::string> stat;
    try {
        stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    } catch (const Error &) {
        return std::nullopt;
    }
    if (!stat) return std::nullopt;
    // The command name in parentheses may hold blanks; fields count from its end.
    size_t close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::string rest = stat->substr(close + 2);
    // rest starts at field 3 (state); start time is field 22.
    size_t pos = 0;
    for (int field = 3; field < 22; ++field) {
        pos = rest.find(' ', pos);
        if (pos == std::string::npos) return std::nullopt;
        ++pos;
    }
    return strtoull(rest.c_str() + pos, nullptr, 10);
}

std::string FormatPidRecord(pid_t pid) {
    auto start = ProcessStartTime(pid);
    return std::to_string(pid) + " " + std::to_string(start.value_or(0)) + "\n";
}

std::optional<PidRecord> ParsePidRecord(std::string_view text) {
    PidRecord record;
    unsigned long long start = 0;
    long pid = 0;
    std::string copy(text);
    if (sscanf(copy.c_str(), "%ld %llu", &pid, &start) != 2 || pid <= 0) return std::nullopt;
    record.pid = static_cast<pid_t>(pid);
    record.startTime = start;
    return record;
}

bool PidRecordAlive(const PidRecord &record) {
    auto start = ProcessStartTime(record.pid);
    return start && *start == record.startTime;
}

std::optional<std::string> FindExecutable(const std::string &name, const std::string &searchPath) {
    if (name.empty()) return std::nullopt;
    if (name.find('/') != std::string::npos) {
        if (access(name.c_str(), X_OK) == 0) return name;
        return std::nullopt;
    }
    size_t pos = 0;
    while (pos <= searchPath.size()) {
        size_t next = searchPath.find(':', pos);
        if (next == std::string::npos) next = searchPath.size();
        std::string dir = searchPath.substr(pos, next - pos);
        pos = next + 1;
        if (dir.empty()) continue;
        std::string candidate = dir + "/" + name;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::nullopt;
}

static bool OthersFit(size_t count, size_t min, size_t max, size_t step) {
    return count >= min && count <= max && (count - min) % (step ? step : 1) == 0;
}

std::string ResolveInstanceDir(const std::string &dirOption, std::vector<std::string> &operands, size_t othersMin,
                               size_t othersMax, size_t othersStep) {
    const size_t count = operands.size();
    bool withDir = count > 0 && dirOption.empty() && OthersFit(count - 1, othersMin, othersMax, othersStep);
    bool withoutDir = OthersFit(count, othersMin, othersMax, othersStep);
    if (withDir && withoutDir) {
        // Both readings fit (stop DIR | stop SIGNAL): an existing directory is
        // DIR; otherwise the first operand is DIR only when nothing else names one.
        const char *fromEnv = getenv(kInstanceDirVariable);
        withDir = IsDirectory(operands[0]) || !fromEnv || !*fromEnv;
    }
    if (withDir) {
        std::string dir = operands.front();
        operands.erase(operands.begin());
        if (dir.empty()) throw UsageError("empty state directory name");
        return dir;
    }
    if (!withoutDir) {
        if (count < othersMin) throw UsageError("missing operand (see --help)");
        throw UsageError("unexpected operand '" + operands.back() + "' (see --help)");
    }
    if (!dirOption.empty()) return dirOption;
    const char *fromEnv = getenv(kInstanceDirVariable);
    if (fromEnv && *fromEnv) return fromEnv;
    throw UsageError(std::string("no state directory: give DIR, -C DIR or set ") + kInstanceDirVariable);
}

}  // namespace sandbox
