// "tmctl history": totals per period from the "tm" partition, worked out by the
// daemon's own rebuild, statistics and apportioning code run inside the tool.
#ifndef KVARD_TMCTL_HISTORY_H
#define KVARD_TMCTL_HISTORY_H

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tmctl {

// "tmctl history ARGS..."; returns the exit status.
int historyCommand(const std::vector<std::string> &args);
// "tmctl chart ARGS...": the daily use of the last days as a picture; returns the exit status.
int chartCommand(const std::vector<std::string> &args);
// The document of "tmctl history PATH --days --json", with --manual-reset FILE
// when one is given, at the moment time() answers; 0, or the status and *error.
int historyDaysDocument(const std::string &path, const std::optional<std::string> &manualResetFile,
                        nlohmann::json *doc, std::string *error);

}  // namespace tmctl

#endif
