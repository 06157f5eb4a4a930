// The daemon reads the store at every wake and keeps what it read only while
// the files are unchanged: a change another process makes between two wakes,
// the same size and within the same second as the wake before it, is what the
// next wake reads. The WAN port's row is switched from eth0 to eth5 right
// after a wake, and the minute the next wake closes counts eth5.1's traffic.
#include <fcntl.h>
#include <sys/file.h>

#include <fstream>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test::meter;

const char *const kRow = "var/lib/kvard/mdm/1152.1";

// The seeded router's WAN port, eth0 in row 1, rewritten in place under the store's lock.
void RewriteInPlace(Sandbox &box, const std::string &content)
{
    int lock = open(box.Path("var/lib/kvard/mdm/.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    std::ofstream(box.Path(kRow), std::ios::in | std::ios::out) << content;
    close(lock);
}

TEST(StoreChange, another_process_changes_the_wan_port_between_two_wakes)
{
    const struct { const char *how; } cases[] = {{"in place"}, {"tmctl mdm set"}};
    for (const auto &c : cases) {
        Sandbox box(At("2026-03-10 10:00:00"));
        ASSERT_EQ(box.ReadFile(kRow), "ifName=eth0\nisUpstream=1\n") << "the seeded router changed";
        const std::vector<NetDev> counters = {{"eth0.1", 1000000, 100000}, {"eth5.1", 50000000, 3000000}};
        box.SetNetDev(counters);
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        WakeAt(box, T("2026-03-10 10:00:10"));
        WakeAt(box, T("2026-03-10 10:00:20"));   // read again unchanged
        if (std::string(c.how) == "in place") {
            RewriteInPlace(box, "ifName=eth5\nisUpstream=1\n");
        } else {
            CommandResult r = box.Runner({"exec", box.Dir(), "--", "tmctl", "mdm", "set", "1152.1", "ifName=eth5"});
            ASSERT_EQ(r.status, 0) << r.out;
        }
        ASSERT_EQ(box.ReadFile(kRow), "ifName=eth5\nisUpstream=1\n");
        WakeAt(box, T("2026-03-10 10:01:00"));
        // eth0.1 stood still; the 49 MB and 2.9 MB are eth5.1's lead over it.
        EXPECT_EQ(Stat(box, "today_download"), "49.00") << c.how;
        EXPECT_EQ(Stat(box, "today_upload"), "2.90") << c.how;
        box.Stop();
    }
}

}  // namespace
