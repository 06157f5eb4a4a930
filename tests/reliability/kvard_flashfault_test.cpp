// Flash that fails: each erase and program of a scenario that wraps both rings failing once in
// turn, and rings that wrap over bad blocks. The walk of the ring takes the record to the next
// page that works, so metering, the rebuild and the records on flash stay exact.
#include "tests/reliability/metered_run.h"

namespace {

using namespace kvard::test::reliability;

const uint32_t kHDayBlock = kHDayStart * kPageSize;
// Old rings, full but for the minute ring's last two pages and the half-day ring's last one.
// Process 1 writes 11:57 and 11:58 at their end, erases block 0 for 11:59, puts the morning on the
// half-day ring's last page at noon, then 12:00 and 12:01; stopped, it is away until past midnight,
// and process 2 folds the afternoon into the half-day ring's first block, erased for it, then
// writes 00:00 and 00:01. Process 3 only rebuilds.
const std::vector<std::pair<std::string, uint32_t>> kOps[2] = {
    {{"program", 2302 * kPageSize}, {"program", 2303 * kPageSize}, {"erase", 0}, {"program", 0},
     {"program", 2559 * kPageSize}, {"program", kPageSize}, {"program", 2 * kPageSize}},
    {{"erase", kHDayBlock}, {"program", kHDayBlock}, {"program", 3 * kPageSize}, {"program", 4 * kPageSize}}};

// What the two processes printed.
std::string Scenario(MeteredRun &run, const std::vector<std::string> &first, const std::vector<std::string> &second)
{
    const int32_t from = run.t;
    std::string printed;
    OldRings(kHDayStart - 2, kRingPages - 1).WriteTo(run.box);
    run.Start(T("2026-03-24 11:56:30"), first);
    for (int i = 0; i < 6; i++) run.Wake(run.model.nextMin);
    printed = run.box.Stdout();
    run.Stop();
    run.Start(T("2026-03-25 00:00:30"), second);
    for (int i = 0; i < 2; i++) run.Wake(run.model.nextMin);
    printed += run.box.Stdout();
    run.Stop();
    run.Start(run.t + 20);
    EXPECT_EQ(run.Stored(from), run.Expected(from)) << MeteredRun::Diff(run.Stored(from), run.Expected(from));
    return printed;
}

TEST(FlashFaults, each_erase_and_program_failing_once_is_walked_past_and_nothing_is_lost)
{
    {  // the scenario as it runs on flash that works
        MeteredRun run("2026-03-24 11:00:00", 1);
        Scenario(run, {kLogEnv}, {kLogEnv});
        std::vector<std::pair<std::string, uint32_t>> ops, want = kOps[0];
        want.insert(want.end(), kOps[1].begin(), kOps[1].end());
        for (const NandOp &o : NandLog(run.box)) ops.push_back({o.op, o.offset});
        ASSERT_EQ(ops, want);
    }
    for (size_t k = 0; k < kOps[0].size() + kOps[1].size(); k++) {
        const size_t process = k < kOps[0].size() ? 0 : 1, n = process ? k - kOps[0].size() : k;
        const auto &[op, offset] = kOps[process][n];
        SCOPED_TRACE(op + " at " + std::to_string(offset) + " fails");
        std::vector<std::string> env[2] = {{kLogEnv}, {kLogEnv}};
        env[process].insert(env[process].end(), {"MTDSIM_FAIL_AFTER=" + std::to_string(n), "MTDSIM_FAIL_COUNT=1"});
        MeteredRun run("2026-03-24 11:00:00", 2 + k);
        const std::string printed = Scenario(run, env[0], env[1]);
        std::vector<NandOp> failed;
        for (const NandOp &o : NandLog(run.box))
            if (o.result != "ok") failed.push_back(o);
        ASSERT_EQ(failed.size(), 1u);
        EXPECT_EQ(failed[0].op + " " + std::to_string(failed[0].offset) + " " + failed[0].detail,
                  op + " " + std::to_string(offset) + " injected");
        EXPECT_NE(printed.find("TmWriteFlash fail at " + std::to_string(offset) + "(" +
                               std::to_string(offset / kPageSize) + "). Write returns error!\n"), std::string::npos) << printed;
        if (HasFailure()) break;
    }
}

TEST(FlashFaults, rings_wrap_over_bad_blocks_and_metering_and_the_rebuild_stay_exact)
{
    // 7 of the 64 blocks, 5 of the rings' 40: the minute ring's first block, two in a row and one
    // more after a single good block, the half-day ring's first block; the rings are old and full
    // up to pages shortly before their ends.
    const std::set<uint32_t> bad = {0, 6, 7, 9, 36, 45, 58};
    const std::vector<std::string> env = {kLogEnv, "MTDSIM_BADBLOCKS=0,6,7,9,36,45,58"};
    const uint64_t seed = EnvNumber("KVARD_POWER_CUT_SEED", 20260324);
    SCOPED_TRACE("KVARD_POWER_CUT_SEED=" + std::to_string(seed));
    MeteredRun run("2026-03-24 08:00:00", seed);
    const int32_t from = run.t, end = T("2026-03-25 14:00:00");
    OldRings(kHDayStart - 40, kRingPages - 2, bad).WriteTo(run.box);
    ASSERT_TRUE(run.Start(run.t, env));
    while (run.t < end && !HasFailure()) {
        run.Wake(run.Next());
        if (run.Below(300)) continue;
        run.Stop();
        ASSERT_TRUE(run.Start(run.t + run.Below(2 * 3600), env));
    }
    run.Stop();
    ASSERT_TRUE(run.Start(run.t + 30, env));
    EXPECT_EQ(run.Stored(from), run.Expected(from)) << MeteredRun::Diff(run.Stored(from), run.Expected(from));
    // The daemon asks the chip about a block before each operation: none reaches a bad block,
    // and the rings go on in the block after each run of bad ones.
    std::set<uint32_t> erased;
    for (const NandOp &o : NandLog(run.box)) {
        EXPECT_FALSE(bad.count(o.offset / kPageSize / kBlockPages)) << o.op << " " << o.offset;
        if (o.op == "erase") erased.insert(o.offset / kPageSize / kBlockPages);
    }
    EXPECT_TRUE(erased.count(1) && erased.count(8) && erased.count(10) && erased.count(37)) << ::testing::PrintToString(erased);
}

}  // namespace
