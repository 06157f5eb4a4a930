// One datagram to the daemon's control port on 127.0.0.1 and the wait for its reply.
#ifndef KVARD_TMCTL_EXCHANGE_H
#define KVARD_TMCTL_EXCHANGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace tmctl {

struct Exchange {
    enum Outcome {
        kReply,      // a datagram came back; reply holds its bytes
        kNoReply,    // nothing within the timeout
        kRefused,    // the port is closed: the kernel answered for the daemon
        kFailed,     // the socket calls failed; error says which and why
    } outcome = kFailed;
    std::vector<uint8_t> reply;
    std::string error;
};

// Sends datagram to 127.0.0.1:port from a connected UDP socket and waits up to timeoutMs for an answer.
Exchange exchange(const std::vector<uint8_t> &datagram, uint16_t port, int timeoutMs);

}  // namespace tmctl

#endif
