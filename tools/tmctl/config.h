// "tmctl config show/set": the meter's settings (object 2888) as kvard reads
// them, and a checked change of them that kvard is then told about.
#ifndef KVARD_TMCTL_CONFIG_H
#define KVARD_TMCTL_CONFIG_H

#include <string>
#include <vector>

namespace tmctl {

// "tmctl config ARGS..."; returns the exit status (mdm.h, and kExitNotApplied).
int configCommand(const std::vector<std::string> &args);

}  // namespace tmctl

#endif
