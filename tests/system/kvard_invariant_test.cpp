// Days of random traffic with restarts at random minutes and at the calendar's edges, every figure
// checked against an exact model after each wake and start. KVARD_INVARIANT_SEED picks a run.
#include <random>

#include "tests/system/meter_model.h"

namespace {

using namespace kvard::test::meter;

// Stops beside the random ones: at the first wake at or after AT, OFFSET s later, back DOWN s after.
const struct { const char *at; int offset, down; } kRestarts[] = {
    {"2026-03-24 12:00:00", 0, 0},         // at a half-day boundary to the second
    {"2026-03-24 23:20:00", 0, 110 * 60},  // down across midnight: the evening is folded
    {"2026-03-27 06:30:00", 0, 0},         // at the monthly reset
    {"2026-03-29 10:00:00", 0, 3 * 3600},  // down across the end of the spring change's 11-hour morning
    {"2026-04-27 05:00:00", 0, 3 * 3600},  // down across the monthly reset: the start does it
    {"2026-04-27 13:00:00", 0, 0},         // after the half-day across that reset was folded
};

TEST(Invariant, random_traffic_with_restarts_agrees_with_the_model)
{
    const uint64_t seed = getenv("KVARD_INVARIANT_SEED") ? strtoull(getenv("KVARD_INVARIANT_SEED"), nullptr, 0) : 20260323;
    SCOPED_TRACE("KVARD_INVARIANT_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    auto below = [&rng](uint64_t n) { return int32_t(rng() % n); };
    int32_t t = T("2026-03-23 20:00:00"), end = T("2026-04-28 20:00:00");
    uint64_t tx = 1000 + below(1000000), rx = 5000 + below(1000000);
    auto traffic = [&](int32_t seconds) {  // mostly busy minutes, some idle
        for (int32_t m = 0; m < (seconds + 59) / 60; m++)
            if (below(5)) rx += below(3000000), tx += below(300000);
    };
    Sandbox box(At(Text(t)));
    Settings(box);
    Model model;
    auto start = [&](int32_t at) {
        SetClock(box, at);
        Go(box, {{"ppp0.2", rx, tx}});
        model.Start(at, tx, rx);
    };
    auto check = [&](int32_t now, const std::string &when) {
        StoreObject got = box.ReadObject("2889").value_or(StoreObject{});
        std::string wrong;
        for (const auto &[name, value] : model.Figures(now, tx, rx))
            if (got[name] != value) wrong += "\n  " + name + ": \"" + got[name] + "\", model \"" + value + "\"";
        ASSERT_TRUE(wrong.empty()) << when << " " << Text(now) << wrong;
    };
    start(t);
    size_t forced = 0;
    while (t < end && !HasFailure()) {
        // On time mostly, else late, but the half-day boundary on time.
        int32_t due = model.nextMin, boundary = HalfEnd(due - 1), roll = below(100);
        int32_t w = due + 60 * (roll < 90 ? 0 : roll < 98 ? 1 + below(10) : 10 + below(170));
        w = due == boundary ? due : std::max(due, std::min(w, boundary - 60));
        traffic(w - t);
        SimWake(box, t = w, tx, rx);
        model.Wake(w, tx, rx);
        check(w, "after the wake at");
        int offset = below(60), down = below(4) ? 0 : below(8 * 3600);
        if (forced < std::size(kRestarts) && w >= T(kRestarts[forced].at))
            offset = kRestarts[forced].offset, down = kRestarts[forced++].down;
        else if (below(500))
            continue;
        // Show the minute in progress, stop, and start again DOWN later; the traffic meanwhile is never seen.
        t += offset;
        traffic(t - model.last.t);
        SimInput(box, t, tx, rx);
        SetClock(box, t);
        Want(box.Send(kWriteStatistic), 1, "write statistic");
        check(t, "before the stop at");
        std::array<Sums, 4> before = model.sums;
        box.Stop();
        traffic(down);
        start(t += down);
        check(t, "after the start at");
        // Only a record across the period's start, split by time, may move a sum bounded by that start.
        bool split = Half(model.L) != model.L && HalfEnd(model.L) <= Half(t);
        for (int g = 0; g < 4 && !down; g++)
            EXPECT_TRUE((split && model.From(t)[g] == model.L) || before[g] == model.sums[g]) << "sum " << g << " moved";
    }
}

}  // namespace
