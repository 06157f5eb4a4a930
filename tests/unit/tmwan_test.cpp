// The WAN counters. /proc/net/dev is replaced at link time (fopen is wrapped),
// the data model is a real temporary store.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "core/tmcore.h"
#include "platform/cms/cms.h"
#include "platform/tmwan.h"
#include "tests/unit/cms_tempstore.h"

namespace {
std::string netDevFixture;  // empty: the file can't be opened
int netDevOpens;
int lockCalls;
}  // namespace

extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (strcmp(path, "/proc/net/dev") != 0) return __real_fopen(path, mode);
    netDevOpens++;
    if (netDevFixture.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_fopen(netDevFixture.c_str(), mode);
}

extern "C" CmsRet __real_cmsLck_acquireLockWithTimeoutTraced(const char *caller, uint32_t timeoutMs);
extern "C" CmsRet __wrap_cmsLck_acquireLockWithTimeoutTraced(const char *caller, uint32_t timeoutMs)
{
    lockCalls++;
    return __real_cmsLck_acquireLockWithTimeoutTraced(caller, timeoutMs);
}

namespace {

const char *kHeader =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
    "carrier compressed\n";

class Wan : public ::testing::Test {
protected:
    TempStore store;
    std::string file;

    void SetUp() override
    {
        memset(&tmCore, 0, sizeof tmCore);
        file = store.path("netdev");
        netDevFixture = file;
        netDevOpens = 0;
        lockCalls = 0;
        Dhcp("eth0");
    }

    void Dhcp(const std::string &ifName)
    {
        store.write("1400", "wanType=DHCP\n");
        store.write("1152.1", "ifName=lan1\nisUpstream=0\n");
        store.write("1152.2", "ifName=" + ifName + "\nisUpstream=1\n");
    }

    void NetDev(const std::string &lines) { std::ofstream(file) << kHeader << lines; }

    int Read(uint64_t &tx, uint64_t &rx)
    {
        tx = rx = 0;
        return GetWanStatistics(&tx, &rx);
    }
};

TEST_F(Wan, scanning_rules_of_proc_net_dev)
{
    struct Case {
        const char *claim;
        const char *wanted;
        const char *lines;
        unsigned long long rx, tx;
    } cases[] = {
        {"a plain line", "eth0.1",
         "    lo: 100 1 0 0 0 0 0 0 100 1 0 0 0 0 0 0\n"
         "eth0.1: 5000 40 1 2 3 4 5 6 7000 50 7 8 9 10 11 12\n",
         5000, 7000},
        {"a counter directly behind the colon", "eth0.1", "eth0.1:5000 40 1 2 3 4 5 6 7000 50 7 8 9 10 11 12\n", 5000,
         7000},
        {"ppp0 does not match ppp0.2", "ppp0", "ppp0.2: 1 1 0 0 0 0 0 0 2 2 0 0 0 0 0 0\n", 0, 0},
        {"the first match wins", "ppp0",
         "ppp0: 11 1 0 0 0 0 0 0 22 2 0 0 0 0 0 0\nppp0: 33 1 0 0 0 0 0 0 44 2 0 0 0 0 0 0\n", 11, 22},
        {"a header-only file", "eth0.1", "", 0, 0},
        {"a name of 16 characters is no name", "abcdefghijklmnop",
         "abcdefghijklmnop: 9 9 0 0 0 0 0 0 9 9 0 0 0 0 0 0\n", 0, 0},
        {"a name of 15 characters is a name", "abcdefghijklmno",
         "abcdefghijklmno: 9 9 0 0 0 0 0 0 8 9 0 0 0 0 0 0\n", 9, 8},
        {"a short line leaves the missing columns 0", "eth0.1", "eth0.1: 123 4\n", 123, 0},
        {"64-bit counters", "eth0.1", "eth0.1: 18446744073709551615 1 0 0 0 0 0 0 4294967296 1 0 0 0 0 0 0\n",
         18446744073709551615ull, 4294967296ull},
        {"a line with a blank inside the name holds none", "eth0", "eth 0: 5 5 0 0 0 0 0 0 5 5 0 0 0 0 0 0\n", 0, 0},
    };
    for (const Case &c : cases) {
        NetDev(c.lines);
        TmNetDevStats stats;
        memset(&stats, 0, sizeof stats);
        EXPECT_EQ(TmReadNetDevStats(c.wanted, &stats), 0) << c.claim;
        EXPECT_EQ(stats.rxBytes, c.rx) << c.claim;
        EXPECT_EQ(stats.txBytes, c.tx) << c.claim;
    }
    TmNetDevStats stats = {};
    NetDev("eth0.1: 5000 40 1 2 3 4 5 6 7000 50 7 8 9 10 11 12\n");
    ASSERT_EQ(TmReadNetDevStats("eth0.1", &stats), 0);
    EXPECT_EQ(stats.rxPackets, 40u);
    EXPECT_EQ(stats.rxMulticast, 6u);
    EXPECT_EQ(stats.txPackets, 50u);
    EXPECT_EQ(stats.txCompressed, 12u);
    netDevFixture.clear();
    EXPECT_EQ(TmReadNetDevStats("eth0.1", &stats), -1);
}

TEST_F(Wan, the_kernels_zeros_never_reach_the_core)
{
    uint64_t tx, rx;
    NetDev("eth0.1: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 0u) << "the first call with both zero gives the (still zero) saved pair";
    EXPECT_EQ(rx, 0u);
    NetDev("eth0.1: 500 0 0 0 0 0 0 0 300 0 0 0 0 0 0 0\n");
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 300u);
    EXPECT_EQ(rx, 500u);
    NetDev("eth0.1: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 300u) << "both zero: the earlier pair";
    EXPECT_EQ(rx, 500u);
    NetDev("");
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 300u) << "interface missing: the earlier pair";
    NetDev("eth0.1: 0 0 0 0 0 0 0 0 7 0 0 0 0 0 0 0\n");
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 7u) << "one zero beside a non-zero counter is stored as is";
    EXPECT_EQ(rx, 0u);
    EXPECT_EQ(tmCore.savedWanTx, 7u);
    EXPECT_EQ(tmCore.savedWanRx, 0u);
}

TEST_F(Wan, the_interface_comes_from_the_wan_type)
{
    NetDev("ppp0: 1 0 0 0 0 0 0 0 2 0 0 0 0 0 0 0\n"
           "ppp0.2: 3 0 0 0 0 0 0 0 4 0 0 0 0 0 0 0\n"
           "eth9.1: 5 0 0 0 0 0 0 0 6 0 0 0 0 0 0 0\n");
    struct Case {
        const char *wanType;
        int result;
        uint64_t tx, rx;
    } cases[] = {
        {"PPPoE", 1, 4, 3}, {"PPTP", 1, 2, 1}, {"L2TP", 1, 2, 1}, {"Static", 1, 6, 5}, {"DHCP", 1, 6, 5},
        {"pppoe", 0, 99, 99}, {"", 0, 99, 99},
    };
    Dhcp("eth9");
    for (const Case &c : cases) {
        store.write("1400", std::string("wanType=") + c.wanType + "\n");
        uint64_t tx = 99, rx = 99;
        EXPECT_EQ(GetWanStatistics(&tx, &rx), c.result) << c.wanType;
        EXPECT_EQ(tx, c.tx) << c.wanType;
        EXPECT_EQ(rx, c.rx) << c.wanType;
    }
}

TEST_F(Wan, failures_leave_the_outputs_untouched)
{
    NetDev("eth0.1: 5 0 0 0 0 0 0 0 6 0 0 0 0 0 0 0\n");
    uint64_t tx = 42, rx = 43;
    unlink(store.path("1400").c_str());
    EXPECT_EQ(GetWanStatistics(&tx, &rx), 0) << "no WAN object";
    Dhcp("eth0");
    netDevFixture.clear();
    EXPECT_EQ(GetWanStatistics(&tx, &rx), 0) << "no /proc/net/dev";
    EXPECT_EQ(tx, 42u);
    EXPECT_EQ(rx, 43u);
}

TEST_F(Wan, a_static_wan_without_an_upstream_port_matches_no_line)
{
    store.write("1400", "wanType=Static\n");
    unlink(store.path("1152.2").c_str());
    NetDev(".1: 5 0 0 0 0 0 0 0 6 0 0 0 0 0 0 0\n:7 0 0 0 0 0 0 0 8 0 0 0 0 0 0 0\n");
    tmCore.savedWanTx = 11;
    tmCore.savedWanRx = 12;
    uint64_t tx, rx;
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 11u);
    EXPECT_EQ(rx, 12u);
}

TEST_F(Wan, simulated_input_reads_no_file_and_asks_no_data_model)
{
    tmCore.simActive = 1;
    tmCore.sim.simTx = 1234;
    tmCore.sim.simRx = 5678;
    uint64_t tx, rx;
    ASSERT_EQ(Read(tx, rx), 1);
    EXPECT_EQ(tx, 1234u);
    EXPECT_EQ(rx, 5678u);
    EXPECT_EQ(netDevOpens, 0);
    EXPECT_EQ(lockCalls, 0);
}

TEST_F(Wan, a_counter_reset_takes_the_new_base_and_zeroes_every_sum)
{
    NetDev("eth0.1: 500 0 0 0 0 0 0 0 300 0 0 0 0 0 0 0\n");
    TmExportData &ed = tmCore.exportData;
    memset(&ed, 0x11, sizeof ed);
    tmCore.lastMinTx = tmCore.lastMinRx = 9;
    tmCore.simActive = 0;
    ASSERT_EQ(TmResetTrafficCounters(), 1);
    EXPECT_EQ(ed.lastTx, 300u);
    EXPECT_EQ(ed.lastRx, 500u);
    EXPECT_NEAR(ed.lastTime, (int32_t)time(nullptr), 5);
    EXPECT_EQ(tmCore.lastMinTx, 0u);
    for (uint64_t v : {ed.otherTx, ed.otherRx, ed.roundOffRx, ed.hDayTx, ed.hDayRx, ed.monthlyTx, ed.monthlyRx,
                       ed.todayTx, ed.todayRx, ed.yesterdayTx, ed.yesterdayRx, ed.weekTx, ed.weekRx,
                       ed.lastMonthTailTx, ed.lastMonthTailRx})
        EXPECT_EQ(v, 0u);
    for (int32_t v : {ed.otherTime, ed.hDayTime, ed.monthlyTime, ed.todayTime, ed.yesterdayTime, ed.weekTime,
                      ed.lastMonthTailTime})
        EXPECT_EQ(v, 0);
    EXPECT_EQ(ed.link, 0x11111111u) << "the link, limits and period times are not touched";
    EXPECT_EQ(ed.nextResetTime, 0x11111111);
    EXPECT_EQ(ed.hDayList[5].tx, 0x1111111111111111ull);

    netDevFixture.clear();
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(TmResetTrafficCounters(), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Fail to get tx/rx counters\n");
    EXPECT_EQ(ed.lastTx, 0u);
    EXPECT_EQ(ed.lastRx, 0u);
}

}  // namespace
