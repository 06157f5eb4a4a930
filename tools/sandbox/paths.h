// Names shared by the runner (outside the box) and its helper (inside): where
// the instance's control directory appears and what the files in it are called.
#ifndef KVARD_SANDBOX_PATHS_H
#define KVARD_SANDBOX_PATHS_H

namespace sandbox {

// The control directory as the program sees it. Outside it is DIR/sandbox.
inline constexpr const char *kBoxControlDir = "/.sandbox";
// Real procfs of the box's pid namespace; the fake /proc links into it.
inline constexpr const char *kBoxRealProc = "/.proc";

// Below the control directory.
inline constexpr const char *kClockFile = "clock";          // libfaketime's timestamp file
inline constexpr const char *kStubLogFile = "stubs.log";    // one line per stub call
inline constexpr const char *kStubBinDir = "bin";           // first in the box's PATH
inline constexpr const char *kMtdImageFile = "mtd.img";     // backing file of the emulated NAND
inline constexpr const char *kSettingsFile = "settings";    // what init chose (name=value)
inline constexpr const char *kRunDir = "run";               // files of the current or last run
inline constexpr const char *kLsanSuppressionsFile = "lsan.supp"; // for sanitizer builds

// Below kRunDir.
inline constexpr const char *kRunSupervisor = "supervisor.pid"; // host pid and start time of the supervisor
inline constexpr const char *kRunBox = "box.pid";               // host pid of the box's pid-1 process
inline constexpr const char *kRunNsPid = "nspid";               // program's pid inside the box (helper writes)
inline constexpr const char *kRunPid = "pid";                   // program's pid on the host
inline constexpr const char *kRunStatus = "status";             // "exited N", "killed N" or "failed TEXT"

// The stub commands; all are links to the helper, which acts by the name it is called by.
inline constexpr const char *kStubNames[] = {"logger", "ifconfig", "dnsmasq", "tmledflashd"};

// The pid file that tmledflashd keeps while it flashes.
inline constexpr const char *kLedFlashPidFile = "/tmp/tmledflash.pid";

}  // namespace sandbox

#endif
