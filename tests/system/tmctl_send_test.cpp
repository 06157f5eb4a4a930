// tmctl send and raw against a stand-in for the daemon's port, in a private
// network namespace of this test so that nothing else on the machine answers
// on 127.0.0.1:22724 and the outcomes are deterministic.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/system/tmctl_run.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Moves this process into a network namespace of its own with loopback up.
// Empty when done, else why not.
std::string enterPrivateNetwork()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return std::string("unshare: ") + strerror(errno);
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    strcpy(ifr.ifr_name, "lo");
    if (s < 0 || ioctl(s, SIOCGIFFLAGS, &ifr) != 0) return std::string("SIOCGIFFLAGS lo: ") + strerror(errno);
    ifr.ifr_flags |= IFF_UP;
    if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0) return std::string("SIOCSIFFLAGS lo: ") + strerror(errno);
    close(s);
    return "";
}

// A socket on the control port that records one datagram and answers with
// `answer` (nothing when empty).
class FakeDaemon {
public:
    explicit FakeDaemon(Bytes answer) : answer_(std::move(answer))
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(22724);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << strerror(errno);
        timeval tv{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeDaemon()
    {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    // The datagram received, after the tool has finished; got() false when none came.
    bool got() const { return got_; }
    const Bytes &datagram() const { return datagram_; }

private:
    void serve()
    {
        uint8_t buf[2048];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0) return;
        got_ = true;
        datagram_.assign(buf, buf + n);
        if (!answer_.empty())
            sendto(fd_, answer_.data(), answer_.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
    }
    Bytes answer_;
    int fd_ = -1;
    bool got_ = false;
    Bytes datagram_;
    std::thread thread_;
};

class TmctlSend : public ::testing::Test {
protected:
    static void SetUpTestSuite() { netError_ = enterPrivateNetwork(); }
    void SetUp() override { ASSERT_EQ(netError_, "") << "a private network namespace is needed (run as root)"; }
    static std::string netError_;
};
std::string TmctlSend::netError_;

TEST_F(TmctlSend, with_nothing_listening_it_says_the_daemon_is_missing_at_once)
{
    ToolRun r = runTmctl({"send", "TM_MSG_HEARTBEAT", "--timeout", "3000"});
    EXPECT_EQ(r.exit, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lineCount(r.err), 1) << r.err;
    EXPECT_NE(r.err.find("127.0.0.1:22724"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("is kvard running?"), std::string::npos) << r.err;
    EXPECT_LT(r.ms, 2000) << "a refused port is known without waiting out the timeout";
}

TEST_F(TmctlSend, with_a_silent_listener_it_gives_up_after_the_timeout)
{
    FakeDaemon silent({});
    ToolRun r = runTmctl({"send", "7", "--timeout", "300"});
    EXPECT_EQ(r.exit, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "tmctl: no reply from 127.0.0.1:22724 within 300 ms (is kvard running?)\n");
    EXPECT_GE(r.ms, 300);
    EXPECT_LT(r.ms, 2000);
    EXPECT_EQ(silent.datagram(), (Bytes{0x2D, 0xA5, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

struct ExchangeCase {
    const char *what;
    std::vector<std::string> args;
    Bytes sent;     // what the daemon must receive
    Bytes answer;   // what it sends back (nothing when empty)
    int exit;
    const char *out;
};

class TmctlExchange : public TmctlSend, public ::testing::WithParamInterface<ExchangeCase> {};

TEST_P(TmctlExchange, sends_exactly_these_bytes_and_prints_the_reply_word)
{
    const ExchangeCase &c = GetParam();
    FakeDaemon daemon(c.answer);
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"--timeout", "500"});
    ToolRun r = runTmctl(args);
    EXPECT_EQ(r.exit, c.exit) << c.what << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.what;
    if (c.exit != 0) {
        EXPECT_EQ(lineCount(r.err), 1) << c.what << ": " << r.err;
    }
    EXPECT_TRUE(daemon.got()) << c.what;
    EXPECT_EQ(daemon.datagram(), c.sent) << c.what;
}

const Bytes kZero = {0, 0, 0, 0};

INSTANTIATE_TEST_SUITE_P(
    Cases, TmctlExchange,
    ::testing::Values(
        ExchangeCase{"heartbeat text ends in one NUL",
                     {"send", "TM_MSG_HEARTBEAT", "--text", "hello"},
                     {0x2D, 0xA5, 0x01, 0x00, 0x06, 0x00, 0x00, 0x00, 'h', 'e', 'l', 'l', 'o', 0x00},
                     kZero, 0, "0\n"},
        ExchangeCase{"debug on by hex code and hex body",
                     {"send", "0x1154", "--hex", "3e 14 00 00 01"},
                     {0x2D, 0xA5, 0x54, 0x11, 0x05, 0x00, 0x00, 0x00, 0x3E, 0x14, 0x00, 0x00, 0x01},
                     {1, 0, 0, 0}, 0, "1\n"},
        ExchangeCase{"sim wake replies the interval",
                     {"send", "TM_MSG_SIM_WAKE"},
                     {0x2D, 0xA5, 0x08, 0x16, 0x00, 0x00, 0x00, 0x00},
                     {0xC0, 0xC6, 0x2D, 0x00}, 0, "3000000\n"},
        ExchangeCase{"malformed raw datagram gets -1",
                     {"raw", "2d a5 01"},
                     {0x2D, 0xA5, 0x01},
                     {0xFF, 0xFF, 0xFF, 0xFF}, 0, "-1\n"},
        ExchangeCase{"zero-length datagram with no reply expected", {"raw", "", "--no-reply"}, {}, {}, 0, ""},
        ExchangeCase{"a reply where none is expected fails",
                     {"raw", "2da5", "--no-reply"},
                     {0x2D, 0xA5},
                     {0xFF, 0xFF, 0xFF, 0xFF}, 1, "-1\n"},
        ExchangeCase{"no reply to raw fails without --no-reply", {"raw", "2da5"}, {0x2D, 0xA5}, {}, 1, ""},
        ExchangeCase{"a reply of the wrong size fails",
                     {"send", "3"},
                     {0x2D, 0xA5, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00},
                     {1, 0, 0}, 1, ""}));

struct UsageCase {
    std::vector<std::string> args;
    const char *named;   // what the error line must name
};

class TmctlUsage : public TmctlSend, public ::testing::WithParamInterface<UsageCase> {};

TEST_P(TmctlUsage, bad_arguments_exit_2_with_one_line_and_send_nothing)
{
    FakeDaemon daemon({0, 0, 0, 0});
    ToolRun r = runTmctl(GetParam().args);
    EXPECT_EQ(r.exit, 2) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lineCount(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(GetParam().named), std::string::npos) << r.err;
    EXPECT_FALSE(daemon.got());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TmctlUsage,
    ::testing::Values(UsageCase{{"send", "TM_MSG_NOTHING"}, "TM_MSG_NOTHING"}, UsageCase{{"send", "70000"}, "70000"},
                      UsageCase{{"send"}, "CODE"}, UsageCase{{"send", "1", "--hex", "2dz"}, "not a hex digit"},
                      UsageCase{{"send", "1", "--text", "a", "--hex", "00"}, "one of --text and --hex"},
                      UsageCase{{"send", "1", "--timeout", "soon"}, "--timeout"},
                      UsageCase{{"send", "1", "--port", "9"}, "--port"}, UsageCase{{"raw", "2da"}, "odd"},
                      UsageCase{{"frobnicate"}, "frobnicate"}, UsageCase{{}, "command"}));

class TmctlHelp : public TmctlSend, public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(TmctlHelp, every_command_explains_itself)
{
    ToolRun r = runTmctl(GetParam());
    EXPECT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(r.out.rfind("usage: tmctl", 0), 0u) << r.out;
    EXPECT_EQ(r.err, "");
}

INSTANTIATE_TEST_SUITE_P(Commands, TmctlHelp,
                         ::testing::Values(std::vector<std::string>{"--help"},
                                           std::vector<std::string>{"send", "--help"},
                                           std::vector<std::string>{"raw", "--help"},
                                           std::vector<std::string>{"mdm", "--help"},
                                           std::vector<std::string>{"mdm", "get", "--help"},
                                           std::vector<std::string>{"mdm", "set", "--help"}));

}  // namespace
