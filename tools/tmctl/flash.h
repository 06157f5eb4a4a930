// "tmctl flash": the traffic history on the "tm" partition, read without the daemon.
#ifndef KVARD_TMCTL_FLASH_H
#define KVARD_TMCTL_FLASH_H

#include <string>
#include <vector>

namespace tmctl {

// "tmctl flash ARGS..."; returns the exit status.
int flashCommand(const std::vector<std::string> &args);

}  // namespace tmctl

#endif
