// The daemon reads the WAN counters of the interface that the data model names.
#include <gtest/gtest.h>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;

TEST(Wan, the_counting_base_comes_from_the_interface_the_data_model_names)
{
    struct Case {
        const char *wanType;
        const char *upstream;  // ifName of the upstream row
        const char *expected;
    } cases[] = {
        {"DHCP", "eth0", "Last Tx:222 Rx:111 "},
        {"Static", "eth4", "Last Tx:888 Rx:777 "},
        {"PPPoE", "eth0", "Last Tx:444 Rx:333 "},
        {"L2TP", "eth0", "Last Tx:666 Rx:555 "},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.wanType);
        Sandbox box;
        box.WriteObject("1400", {{"wanType", c.wanType}});
        box.WriteObject("1152.1", {{"ifName", c.upstream}, {"isUpstream", "1"}});
        box.SetNetDev({{"eth0.1", 111, 222}, {"ppp0.2", 333, 444}, {"ppp0", 555, 666}, {"eth4.1", 777, 888}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        ASSERT_EQ(box.Send(100), 0);
        EXPECT_TRUE(box.WaitStdout(c.expected)) << box.Stdout();
    }
}

}  // namespace
