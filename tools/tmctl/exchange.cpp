// One datagram to the control port and the wait for its reply (exchange.h).
// The socket is connected so that an ICMP port-unreachable comes back as
// ECONNREFUSED: "no daemon" is then told apart from "no answer in time".
#include "tools/tmctl/exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace tmctl {

namespace {

std::string sysError(const char *what)
{
    return std::string(what) + ": " + strerror(errno);
}

}  // namespace

Exchange exchange(const std::vector<uint8_t> &datagram, uint16_t port, int timeoutMs)
{
    Exchange ex;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ex.error = sysError("socket");
        return ex;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        ex.error = sysError("connect");
        close(fd);
        return ex;
    }
    if (send(fd, datagram.data(), datagram.size(), 0) != static_cast<ssize_t>(datagram.size())) {
        ex.outcome = errno == ECONNREFUSED ? Exchange::kRefused : Exchange::kFailed;
        ex.error = sysError("send");
        close(fd);
        return ex;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        int n = poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ex.error = sysError("poll");
            break;
        }
        if (n == 0) {
            ex.outcome = Exchange::kNoReply;
            break;
        }
        uint8_t buf[512];
        ssize_t got = recv(fd, buf, sizeof buf, 0);
        if (got >= 0) {
            ex.outcome = Exchange::kReply;
            ex.reply.assign(buf, buf + got);
        } else if (errno == ECONNREFUSED) {
            ex.outcome = Exchange::kRefused;
        } else if (errno == EINTR || errno == EAGAIN) {
            continue;
        } else {
            ex.error = sysError("recv");
        }
        break;
    }
    close(fd);
    return ex;
}

}  // namespace tmctl
