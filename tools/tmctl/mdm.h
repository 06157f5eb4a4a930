// "tmctl mdm get/set": objects of the data-model store, under its lock.
#ifndef KVARD_TMCTL_MDM_H
#define KVARD_TMCTL_MDM_H

#include <string>
#include <vector>

namespace tmctl {

// Exit status of a command: 0 done, 1 failed at run time, 2 bad arguments or
// values, 3 settings saved but not applied by kvard (not running, or it refused).
enum { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitNotApplied = 3 };

// How long tmctl waits for the store lock.
constexpr unsigned kLockTimeoutMs = 5000;

// Prints the non-null fields of OID[.N] as name=value lines in object order.
int mdmGet(const std::string &instance);
// Applies name=value (value in the store's escaped form) and bare name (null) to OID[.N], creating it if missing.
int mdmSet(const std::string &instance, const std::vector<std::string> &assignments);

}  // namespace tmctl

#endif
