// "tmctl stats": the figures kvard publishes, the settings they are measured
// against and the limit state, for people (a table, one line) and scripts (JSON, exit status).
#ifndef KVARD_TMCTL_STATS_H
#define KVARD_TMCTL_STATS_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct TmConfig;

namespace tmctl {

// Exit status of --alert, after the limit state; 1 and 2 keep their meaning.
enum { kAlertWarning = 10, kAlertLimit = 11, kAlertWanDown = 12 };

// The settings as kvard reads them (bcm_dm_ReadConfig into a zeroed CONFIG),
// without the console line that function prints; its result: 0 read, non-zero not.
int readConfigQuietly(TmConfig *config);
// "tmctl stats ARGS..."; returns the exit status.
int statsCommand(const std::vector<std::string> &args);
// The document of "tmctl stats --json"; 0, or the exit status and *error
// (empty when the store library has reported the failure on stderr).
int statsDocument(nlohmann::ordered_json *doc, std::string *error);

}  // namespace tmctl

#endif
