// The daemon's flash access pattern stays what it is: a fixed run (two days
// of busy minutes replayed, a restart on the written rings, a real wake, a
// zone change that rebuilds the history) must leave exactly the operation log
// recorded in tests/fixtures/flash_oplog.txt, every erase and program at the
// same offset in the same order. KVARD_RECORD_OPLOG=1 records it anew.
#include <fstream>
#include <sstream>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test::meter;

const std::string kWan = "ppp0.2";

// Minutes of cumulative counters from the file's first row, each minute busy.
std::string Minutes(int count, uint64_t seed)
{
    std::ostringstream file;
    file << "time,rx,tx\n+0s,0,0\n";
    uint64_t rx = 0, tx = 0, x = seed;
    for (int m = 1; m <= count; m++) {
        x = x * 6364136223846793005u + 1442695040888963407u;
        rx += 1000 + (x >> 40) % 2000000;
        tx += 100 + (x >> 20) % 200000;
        file << "+1m," << rx << "," << tx << "\n";
    }
    return file.str();
}

void Replay(Sandbox &box, const std::string &name, int minutes, uint64_t seed)
{
    box.WriteFile(name, Minutes(minutes, seed));
    CommandResult r = box.Runner({"replay", box.Dir(), box.Path(name), "--interface", kWan});
    ASSERT_EQ(r.status, 0) << r.out;
}

TEST(FlashOpLog, fixed_run_erases_and_programs_as_recorded)
{
    Sandbox box(At("2026-03-20 22:00:00"));
    box.WriteObject("1400", {{"wanType", "PPPoE"}});
    box.SetNetDev({{kWan, 5000, 7000}});
    const std::vector<std::string> env = {"MTDSIM_LOG=/.sandbox/nand.log"};
    box.Start(env);
    ASSERT_TRUE(box.WaitReady());
    // Past the end of the minute ring (2304 pages): every block of it erased once.
    Replay(box, "first.csv", 2400, 1);
    box.Stop();
    box.Start(env);
    ASSERT_TRUE(box.WaitReady());
    Replay(box, "second.csv", 600, 2);
    WakeAt(box, T("2026-03-23 08:10:00"), {{kWan, 9000000000, 800000000}});
    box.UpdateObject("1045", {{"localTimeZone", "CET-1CEST,M3.5.0,M10.5.0/3"}});
    ASSERT_EQ(box.Send(kvard::test::kTimeUpdate), 1);
    WakeAt(box, T("2026-03-23 08:11:00"), {{kWan, 9100000000, 810000000}});
    box.Stop();

    std::string log = box.ReadFile("sandbox/nand.log").value_or("");
    ASSERT_FALSE(log.empty());
    const std::string golden = std::string(getenv("KVARD_FIXTURES")) + "/flash_oplog.txt";
    if (const char *record = getenv("KVARD_RECORD_OPLOG"); record != nullptr && std::string(record) == "1") {
        std::ofstream(golden, std::ios::binary) << log;
        GTEST_SKIP() << "recorded " << golden;
    }
    std::ifstream in(golden, std::ios::binary);
    ASSERT_TRUE(in) << golden;
    std::string want((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(log.size(), want.size()) << "operations: " << std::count(log.begin(), log.end(), '\n') << ", recorded "
                                       << std::count(want.begin(), want.end(), '\n');
    EXPECT_TRUE(log == want) << "the operation log differs from " << golden;
}

}  // namespace
