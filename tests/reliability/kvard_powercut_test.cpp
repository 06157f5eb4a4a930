// Power cuts: the page being programmed is torn and the daemon killed at a random program of days
// of traffic, of the fold at a start, and of the manual reset's rewrite; after each cut a restart,
// sometimes hours later. A torn page holds a record only if the cut left its first 40 bytes (the
// header and the record under its CRC) whole; otherwise it is no record, and what is lost is the
// one record the wake was writing: a minute, or the half-day's last minute, which is in no minute
// record. A fold loses nothing, its minutes stay until a fold gets through.
// KVARD_POWER_CUTS sets the number of cuts of the traffic (30), a fifth of it those of the reset;
// KVARD_POWER_CUT_SEED picks the run.
#include <chrono>

#include "tests/reliability/metered_run.h"

namespace {

using namespace kvard::test::reliability;

const uint64_t kSeed = EnvNumber("KVARD_POWER_CUT_SEED", 20260325), kCuts = EnvNumber("KVARD_POWER_CUTS", 30);

// How much of the torn page is programmed: none, part of the record, just all of it, or more.
std::string CutBytes(MeteredRun &run)
{
    int roll = run.Below(8);
    return roll == 0 ? "0" : roll < 4 ? std::to_string(1 + run.Below(39)) : roll == 4 ? "40" : std::to_string(41 + run.Below(2007));
}
std::optional<NandOp> Cut(const MeteredRun &run, size_t from)
{
    for (const NandOp &o : NandLog(run.box, from))
        if (o.result == "cut") return o;
    return std::nullopt;
}

TEST(PowerCut, after_each_cut_the_figures_are_the_traffic_less_at_most_the_torn_record)
{
    SCOPED_TRACE("KVARD_POWER_CUT_SEED=" + std::to_string(kSeed) + " KVARD_POWER_CUTS=" + std::to_string(kCuts));
    const auto began = std::chrono::steady_clock::now();
    MeteredRun run("2026-03-23 20:00:00", kSeed);
    OldRings(kHDayStart - 13, kRingPages - 3).WriteTo(run.box);  // both rings wrap within the first day
    enum { kFold, kMinuteLost, kMinuteKept, kHalfLost, kHalfKept };
    std::array<int, 5> seen = {};
    uint64_t lostMost = 0, restarts = 0;
    for (uint64_t cut = 0; cut < kCuts && !HasFailure(); cut++) {
        // A random program; for a third of the runs aimed at the half-day's record.
        const int after = run.Below(8) ? run.Below(400) : 0;
        const bool aim = run.Below(3) == 0;
        const std::string bytes = CutBytes(run);
        const size_t logFrom = run.box.ReadFile("sandbox/nand.log").value_or("").size();
        const int32_t down = run.Below(4) ? run.Below(120) : run.Below(30 * 3600);
        SCOPED_TRACE("cut " + std::to_string(cut) + " after " + std::to_string(after) + " programs, " + bytes + " bytes");
        restarts++;
        std::vector<std::string> env = {kLogEnv, "MTDSIM_CUT_AFTER=" + std::to_string(after), "MTDSIM_CUT_BYTES=" + bytes};
        const int32_t startedAt = run.t + (cut ? down : 0);
        if (!run.Start(startedAt, env)) {
            if (getenv("KVARD_POWER_CUT_TRACE")) printf("cut %d at start %s\n", int(cut), Text(startedAt).c_str());
            std::optional<NandOp> torn = Cut(run, logFrom);
            ASSERT_TRUE(torn && torn->offset >= kHDayStart * kPageSize) << "only a fold programs at a start";
            seen[kFold]++;
            continue;
        }
        int folds = 0, w = 0;
        for (const NandOp &o : NandLog(run.box, logFrom)) folds += o.op == "program" && o.result == "ok";
        for (int wakes = 0; run.Wake(w = run.Next(aim ? after - folds - wakes : -1), false); wakes++) {
            run.Apply(w);
            ASSERT_LT(wakes, after + 1) << "no cut";
            if (HasFailure()) return;
        }
        // The wake at W was killed: its record is on flash if the torn page holds it whole.
        std::optional<NandOp> torn = Cut(run, logFrom);
        ASSERT_TRUE(torn) << run.box.Status();
        const uint32_t page = torn->offset / kPageSize;
        const View view = Views(*run.box.ReadFile("sandbox/mtd.img"))[page];
        const bool whole = view.kind == View::kRecord, half = page >= kHDayStart;
        EXPECT_EQ(whole, std::stoi(torn->detail) >= 40) << "page " << page;
        const Sums before = {run.tx - run.model.last.tx, run.rx - run.model.last.rx, w - run.model.last.t};
        if (whole) {
            auto [inHalf, record] = run.Apply(w, false);
            EXPECT_EQ(inHalf, half);
            EXPECT_EQ(view.r, record) << "page " << page;
        } else {
            lostMost = std::max(lostMost, before.tx + before.rx);
        }
        if (getenv("KVARD_POWER_CUT_TRACE"))
            printf("cut %d at %s page %u whole %d, start %s\n", int(cut), Text(w).c_str(), page, whole, Text(startedAt).c_str());
        seen[half ? (whole ? kHalfKept : kHalfLost) : (whole ? kMinuteKept : kMinuteLost)]++;
    }
    ASSERT_TRUE(run.Start(run.t + 30)) << "a last start without a cut";
    std::set<uint32_t> erased;  // both rings wrapped: blocks of each were erased
    for (const NandOp &o : NandLog(run.box))
        if (o.op == "erase") erased.insert(o.offset >= kHDayStart * kPageSize);
    EXPECT_EQ(erased.size(), 2u);
    printf("power cuts: %" PRIu64 " (folds %d, minutes lost %d kept %d, half-days lost %d kept %d), %" PRIu64
           " restarts, %.1f simulated days, most lost in one cut %" PRIu64 " bytes, %.1f s\n",
           kCuts, seen[kFold], seen[kMinuteLost], seen[kMinuteKept], seen[kHalfLost], seen[kHalfKept], restarts + 1,
           (run.t - T("2026-03-23 20:00:00")) / 86400.0, lostMost,
           std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
}

}  // namespace

// The image of the reset's cuts. The period began on 1 January; the minute ring holds December's
// last hour, then 15 January up to 10:00; the half-day ring the half-days from 1 November to
// 14 January. A reset at 10:00 rewrites minute blocks 0 to 10 (block 0 with December's hour
// unchanged) and the half-day ring's second and third blocks (the second with half of December).
const int32_t kL = T("2024-01-01 00:00:00"), kP = T("2023-12-01 00:00:00"), kReset = T("2024-01-15 10:00:00");
Image LaidOut()
{
    Image image;
    for (uint32_t p = 0, m = T("2023-12-31 23:00:00"); p < 660; p++, m += 60) {
        if (p == 60) m = T("2024-01-15 00:00:00");
        image.Put(p, {int32_t(m), int32_t(m + 60), 100 + p, 10000 * (p + 1), 60});
    }
    for (uint32_t p = kHDayStart, h = T("2023-11-01 00:00:00"); p < kHDayStart + 150; p++, h = HalfEnd(h))
        image.Put(p, {int32_t(h), HalfEnd(h), 7, 1000000 + p, 43200});
    return image;
}
// A page as the cut leaves it: the first BYTES of its new content programmed.
View Torn(const Record &r, int bytes)
{
    std::string page(kPageSize, '\xFF');
    auto put = [&page](size_t at, uint64_t v, int n) { for (; n--; v >>= 8) page[at++] = char(v); };
    put(0, 32, 2), put(8, uint32_t(r.tStart), 4), put(12, uint32_t(r.tEnd), 4), put(16, r.tx, 8), put(24, r.rx, 8);
    put(32, uint32_t(r.tUsed), 4), put(36, 0, 4), put(4, Crc32(page.data() + 8, 32), 4);
    std::fill(page.begin() + bytes, page.end(), '\xFF');
    return Classify(page.data());
}
// The rewrite of VIEWS block by block, cut at program CUT (counted from 0) with BYTES of it
// programmed and the rest of its block left erased; the program counts at which blocks began.
std::vector<size_t> Rewrite(std::vector<View> &views, size_t cut = SIZE_MAX, int bytes = 0)
{
    std::vector<size_t> starts;
    size_t programs = 0;
    auto changed = [](const View &v) { return v.kind == View::kRecord && v.r.tStart >= kL && (v.r.tx || v.r.rx || v.r.tUsed); };
    for (uint32_t first = 0; first < kRingPages; first += kBlockPages) {
        auto begin = views.begin() + first, end = begin + kBlockPages, f = std::find_if(begin, end, changed);
        if (f == end) continue;
        std::vector<View> old(begin, end);
        std::fill(begin, end, View{});
        starts.push_back(programs);
        for (auto p = begin; p != end; ++p) {
            View v = old[p - begin];
            if (p >= f && v.kind != View::kRecord) continue;
            if (changed(v)) v.r.tx = v.r.rx = 0, v.r.tUsed = 0;
            v = {View::kRecord, v.kind == View::kRecord ? v.r : Record{}};
            if (programs++ == cut) return *p = Torn(v.r, bytes), starts;
            *p = v;
        }
    }
    return starts.push_back(programs), starts;
}

TEST(PowerCut, a_cut_in_the_manual_resets_rewrite_loses_only_the_rest_of_its_block_and_a_retry_completes_the_reset)
{
    const Image image = LaidOut();
    const std::vector<View> laid = Views(image.bytes);
    std::vector<View> done = laid;
    const std::vector<size_t> starts = Rewrite(done);
    ASSERT_EQ(starts.size(), 11u + 2u + 1u);
    ASSERT_EQ(starts.back(), 660u + 64u + 22u);
    MeteredRun run("2024-01-15 10:00:00", kSeed);  // its randomness; the box runs as laid out here
    run.box.UpdateObject("2888", {{"day", "1"}, {"hour", "0"}, {"min", "0"}});
    for (uint64_t i = 0; i < std::max<uint64_t>(kCuts / 5, 1) && !HasFailure(); i++) {
        // At a block's first page (just erased), at its last, or anywhere.
        const size_t block = run.Below(starts.size() - 1), roll = run.Below(3);
        const size_t cut = roll == 0 ? starts[block] : roll == 1 ? starts[block + 1] - 1 : run.Below(starts.back());
        const std::string bytes = CutBytes(run);
        SCOPED_TRACE("reset cut after " + std::to_string(cut) + " programs, " + bytes + " bytes");
        std::vector<View> want = laid;
        Rewrite(want, cut, std::stoi(bytes));
        image.WriteTo(run.box);
        run.box.RemoveFile("data/tmrestarttime.data");
        run.box.Start({"MTDSIM_CUT_AFTER=" + std::to_string(cut), "MTDSIM_CUT_BYTES=" + bytes});
        ASSERT_TRUE(run.box.WaitReady());
        EXPECT_EQ(run.box.Send(kResetCounter), std::nullopt);
        ASSERT_TRUE(run.Killed()) << run.box.Status();
        std::vector<View> got = Views(*run.box.ReadFile("sandbox/mtd.img"));
        for (uint32_t page = 0, shown = 0; page < kRingPages && shown < 5; page++)
            if (!(got[page] == want[page]) && ++shown) ADD_FAILURE() << "page " << page << " kind " << got[page].kind
                                                                << " " << ::testing::PrintToString(got[page].r);
        // What the rebuild counts: the period's records with figures left, and December's half-days.
        int32_t latest = 0;
        uint64_t month = 0, last = 0;
        for (uint32_t page = kHDayStart; page < kRingPages; page++)
            if (want[page].kind == View::kRecord) latest = std::max(latest, want[page].r.tEnd);
        for (uint32_t page = 0; page < kRingPages; page++) {
            const Record &r = want[page].r;
            if (want[page].kind != View::kRecord || (page < kHDayStart && r.tEnd <= latest)) continue;
            month += r.tStart >= kL ? r.rx : 0;
            last += page >= kHDayStart && r.tStart >= kP && r.tEnd <= kL ? r.rx : 0;
        }
        run.box.Start();
        ASSERT_TRUE(run.box.WaitReady());
        ExpectStats(run.box, {{"start_data_time", Asc(kReset)}, {"thismonth_download", Mb(month)},
                              {"lastmonth_download", Mb(last)}});
        EXPECT_EQ(run.box.Send(kResetCounter), 1) << "the retry";
        ExpectStats(run.box, {{"thismonth_download", "0.00"}, {"thismonth_upload", "0.00"}, {"lastmonth_download", Mb(last)}});
        run.box.Stop();
    }
}
