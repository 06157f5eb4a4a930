// "tmctl config show/set": the meter's settings (object 2888) as kvard reads
// them, and a checked change of them that kvard is then told about.
#ifndef KVARD_TMCTL_CONFIG_H
#define KVARD_TMCTL_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/tmctl/wire.h"

namespace tmctl {

// "tmctl config ARGS..."; returns the exit status (mdm.h, and kExitNotApplied).
int configCommand(const std::vector<std::string> &args);

// The document of "tmctl config show --json"; 0, or the exit status and
// *error (empty when the store library has reported the failure on stderr).
int configDocument(nlohmann::ordered_json *doc, std::string *error);

struct ConfigSetOptions {
    bool dryRun = false;
    bool notify = true;     // send TM_MSG_CONFIG_UPDATE once written
    int timeoutMs = 2000;   // for kvard's reply
    uint16_t port = kPort;
};

// A value that "config set" refuses.
struct ConfigProblem {
    std::string field;        // the field or alias named
    std::string shownField;   // as tmctl names it: "mark (from warn=5GB)"
    std::string value;        // as given (or as stored, when the stored value is at fault)
    std::string text;         // what tmctl prints after "FIELD: "
};

struct ConfigChange {
    std::string field;
    std::optional<std::string> old, now;   // nullopt: absent
    std::string note;                       // how an alias was read, or empty
};

struct ConfigSetResult {
    int status = 1;                        // tmctl's exit status
    std::vector<ConfigProblem> problems;   // status 2: nothing was written
    std::string error;                     // status 1: why; empty when the store library reported it on stderr
    std::vector<ConfigChange> changes;     // written (or, dry run, would be)
    bool notified = false;                 // a datagram was sent
    bool applied = false;                  // kvard answered 1
    std::optional<int32_t> reply;          // kvard's reply word, if one came
    std::string message;                   // the line tmctl prints last (may hold a line feed)
};

// "tmctl config set ASSIGNMENTS...": every value checked, all or nothing
// written under the store lock, then kvard told on 127.0.0.1:port.
ConfigSetResult configSet(const std::vector<std::string> &assignments, const ConfigSetOptions &options);

}  // namespace tmctl

#endif
