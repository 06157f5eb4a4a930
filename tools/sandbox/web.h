// `kvard-sandbox web`: the Traffic Meter page and its CGI served by lighttpd
// from inside a running box, on a port of the host's loopback (docs/web.md).
#ifndef KVARD_SANDBOX_WEB_H
#define KVARD_SANDBOX_WEB_H

#include <string>

#include "tools/sandbox/box.h"
#include "tools/sandbox/layout.h"

namespace sandbox {

struct WebOptions {
    std::string address = "127.0.0.1";  // where the host's browser connects
    int port = 0;                       // 0: any free port
    double timeoutSeconds = 10;         // for the server's first answer
};

// Starts the server for the running box INSTANCE (or finds the one that
// already serves it) and returns its URL once it answers. Throws when the
// box does not run, the page or lighttpd is missing, the port is taken or the
// server does not answer in time.
std::string StartWeb(const Instance &instance, const Tree &tree, const WebOptions &options);

// Ends the server of INSTANCE; false when none was running. The box ending
// ends it too.
bool StopWeb(const Instance &instance);

// The lighttpd configuration for the box: PORT and ADDRESS must be those of
// the socket handed over, ENV what the CGI gets (exposed for the tests).
std::string WebServerConfig(const Tree &tree, const std::string &address, int port,
                            const std::vector<std::pair<std::string, std::string>> &env);

}  // namespace sandbox

#endif
