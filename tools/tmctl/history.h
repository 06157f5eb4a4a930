// "tmctl history": totals per period from the "tm" partition, worked out by the
// daemon's own rebuild, statistics and apportioning code run inside the tool.
#ifndef KVARD_TMCTL_HISTORY_H
#define KVARD_TMCTL_HISTORY_H

#include <string>
#include <vector>

namespace tmctl {

// "tmctl history ARGS..."; returns the exit status.
int historyCommand(const std::vector<std::string> &args);
// "tmctl chart ARGS...": the daily use of the last days as a picture; returns the exit status.
int chartCommand(const std::vector<std::string> &args);

}  // namespace tmctl

#endif
