// Small file and process helpers of the sandbox runner. Failures throw
// sandbox::Error with a message that names the operation and the path.
#ifndef KVARD_SANDBOX_UTIL_H
#define KVARD_SANDBOX_UTIL_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// "OPERATION PATH: strerror(errno)", for an Error.
std::string ErrnoText(std::string_view operation, std::string_view path);

// The whole file; nullopt when it does not exist; throws on any other failure.
std::optional<std::string> ReadFile(const std::string &path);
// The same, with nullopt for any failure: for records that may be gone or half there.
std::optional<std::string> ReadFileIfReadable(const std::string &path);

// Writes a temporary file beside PATH and renames it over PATH, so readers
// see the old or the new content, never a mix. Throws on failure.
void WriteFileAtomic(const std::string &path, std::string_view content, mode_t mode = 0644);

// mkdir -p. Throws on failure.
void MakeDirs(const std::string &path, mode_t mode = 0755);

// Removes a file if it is there; throws on any failure but "not there".
void RemoveFile(const std::string &path);

bool PathExists(const std::string &path);
bool IsDirectory(const std::string &path);

// Absolute form of PATH (relative to the working directory), without
// resolving links; "." and ".." components are folded.
std::string AbsolutePath(const std::string &path);

// Parses "name=value" lines; lines without '=' are skipped.
std::map<std::string, std::string> ParseSettings(std::string_view text);
std::string FormatSettings(const std::map<std::string, std::string> &settings);

// Decimal (or 0x-prefixed hexadecimal) number in [min, max]; nullopt otherwise.
std::optional<unsigned long long> ParseNumber(std::string_view text, unsigned long long min,
                                              unsigned long long max);

// Signal number from "15", "TERM" or "SIGTERM"; nullopt when unknown.
std::optional<int> ParseSignal(std::string_view text);
// "SIGTERM" for 15; "signal 77" when the number has no name.
std::string SignalName(int signal);

// Start time of a process in clock ticks since boot (field 22 of its stat
// file); nullopt when no such process exists.
std::optional<unsigned long long> ProcessStartTime(pid_t pid);

// A pid file of the run directory: "PID STARTTIME". Alive means the process
// exists and started at the recorded time, so a reused pid does not count.
struct PidRecord {
    pid_t pid = 0;
    unsigned long long startTime = 0;
};
std::string FormatPidRecord(pid_t pid);  // reads the start time of PID now
std::optional<PidRecord> ParsePidRecord(std::string_view text);
bool PidRecordAlive(const PidRecord &record);

// Looks for an executable NAME in the directories of SEARCH_PATH (a PATH
// value) unless NAME contains a slash; nullopt when not found.
std::optional<std::string> FindExecutable(const std::string &name, const std::string &searchPath);

// A mistake in the command line (exit status 2), apart from a failure of the work.
struct UsageError : Error {
    using Error::Error;
};

// Environment variable naming the state directory when a command names none.
inline constexpr const char *kInstanceDirVariable = "KVARD_SANDBOX_DIR";

// The state directory a command works on, and OPERANDS without it.
// DIR_OPTION is the value of -C/--dir ("" when not given); OPERANDS are the
// command's operands in order. A command takes OTHERS_MIN + k * OTHERS_STEP
// operands besides DIR (k >= 0), at most OTHERS_MAX. The first operand is DIR
// when there is no -C and either the operands fit only with it, or both
// readings fit and the first operand names an existing directory or
// $KVARD_SANDBOX_DIR is unset. Without a
// DIR operand, -C and then $KVARD_SANDBOX_DIR name it. Throws UsageError when
// no directory is named or the operands fit neither reading.
std::string ResolveInstanceDir(const std::string &dirOption, std::vector<std::string> &operands, size_t othersMin,
                               size_t othersMax, size_t othersStep = 1);

}  // namespace sandbox

#endif
