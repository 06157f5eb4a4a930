// The rebuild at start-up from flash images laid out by the test page by page:
// the ring cursors, the two lists and the figures published from them.
#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test::meter;

struct Page { bool halfDay; uint32_t index; Record r; };  // INDEX in its ring
Page P(bool halfDay, uint32_t index, const std::string &start, uint64_t rx)
{
    return {halfDay, index, {T(start), T(start) + (halfDay ? 43200 : 60), 10, rx, 0}};
}
void StartOn(Sandbox &box, const std::vector<Page> &pages)
{
    Image image;
    for (const Page &p : pages) image.Put((p.halfDay ? kHDayStart : 0) + p.index, p.r);
    image.WriteTo(box);
    Go(box);
}

TEST(Rebuild, cursors_lists_and_figures_from_crafted_rings)
{
    const char *old = "2025-06-01 00:00:00";
    std::vector<Page> setBack;  // pages 0-4 written at 09:46-09:50, then the clock went back: 5-9 at 08:56-09:00
    for (int32_t i = 0; i < 10; i++)
        setBack.push_back(P(false, i, Text(T(i < 5 ? "2026-03-10 09:46:00" : "2026-03-10 08:51:00") + 60 * i), 100000));
    struct Case {
        const char *claim, *clock, *running;  // the running half-day's start
        std::vector<Page> pages;
        uint32_t minCursor, hDayCursor, hDayRecords;  // records after the start: more where the rebuild folded
        const char *latest, *month;                   // latest "" for none
        uint64_t listRx;                              // in both lists together
    } cases[] = {
        {"empty rings", "2026-03-10 10:00:00", "2026-03-10 00:00:00", {}, 0, 2304, 0, "", "0.00", 0},
        {"newest in each ring's last page; older than the list: nowhere", "2026-03-10 10:00:00", "2026-03-10 00:00:00",
         {P(false, 5, old, 1000), P(false, 2303, "2025-06-01 00:01:00", 1000), P(true, 5, "2026-01-06 00:00:00", 1000),
          P(true, 255, "2026-01-06 12:00:00", 1000)},
         0, 2304, 2, "2026-01-07 00:00:00", "0.00", 0},
        {"the list's first half-day is in, the one before it out", "2026-03-10 10:00:00", "2026-03-10 00:00:00",
         {P(true, 3, "2026-01-07 12:00:00", 3000000), P(true, 9, "2026-01-07 00:00:00", 5000000)}, 0, 2308, 2,
         "2026-01-08 00:00:00", "0.00", 3000000},
        {"a minute after the list's end is dropped and stays on flash", "2026-03-10 10:00:00", "2026-03-10 00:00:00",
         {P(false, 0, "2026-03-10 11:59:00", 1000000), P(false, 1, "2026-03-10 12:00:00", 2000000),
          P(false, 2, "2026-03-10 13:00:00", 4000000)},
         3, 2304, 0, "", "1.00", 1000000},
        {"the clock set back: the newest record mid-ring", "2026-03-10 10:00:00", "2026-03-10 00:00:00", setBack,
         5, 2304, 0, "", "1.00", 1000000},
        {"a second before noon the morning runs", "2026-03-11 11:59:59", "2026-03-11 00:00:00",
         {P(false, 0, "2026-03-11 11:58:00", 1000000)}, 1, 2304, 0, "", "1.00", 1000000},
        {"at 12:00:00 the afternoon begins and the morning is folded", "2026-03-11 12:00:00", "2026-03-11 12:00:00",
         {P(false, 0, "2026-03-11 11:58:00", 1000000)}, 1, 2305, 1, "", "1.00", 1000000},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At(c.clock));
        StartOn(box, c.pages);
        std::string s;
        std::vector<Record> lists = Lists(box, &s);
        EXPECT_EQ(Num(s, kMinCursor), c.minCursor);
        EXPECT_EQ(Num(s, kHDayCursor), c.hDayCursor);
        EXPECT_EQ(Num(s, kLatest), *c.latest ? T(c.latest) : 0);
        uint64_t rx = 0;
        for (const Record &r : lists) rx += r.rx;
        EXPECT_EQ(rx, c.listRx);
        EXPECT_EQ(Stat(box, "thismonth_download"), c.month);
        EXPECT_EQ(Records(box, true).size(), c.hDayRecords);
        size_t minutes = std::count_if(c.pages.begin(), c.pages.end(), [](const Page &p) { return !p.halfDay; });
        EXPECT_EQ(Records(box, false).size(), minutes) << "the rebuild writes no minute";
        // The lists frame the running half-day: 720 minutes from its start, 124 half-days back, touching.
        const int32_t running = T(c.running);
        EXPECT_EQ(lists[kH + 123], (Record{running, running + 43200}));
        EXPECT_EQ(lists[kH].tStart, running - 123 * 43200) << "62 days back";
        for (size_t i = 0; i < kH + 123; i++)
            ASSERT_EQ(lists[i].tEnd, i + 1 == kH ? running + 43200 : lists[i + 1].tStart) << "entry " << i;
        EXPECT_EQ(lists[0].tStart, running);
    }
}

TEST(Rebuild, a_stored_manual_reset_counts_only_strictly_inside_the_period)
{
    // The period began on 1 June 2026 at 06:00; the morning's half-day record goes 6 of 12 hours to
    // each period, in binary32 (rx 1e12 + 1 gives 499,999,997,952 each); a reset in force keeps it out.
    const int32_t L = T("2026-06-01 06:00:00"), R = T("2026-07-01 06:00:00");
    auto le32 = [](int32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); };
    for (auto [value, applied] : {std::pair{0, false}, {L, false}, {R, false}, {L + 1, true}, {R - 1, true}}) {
        SCOPED_TRACE(Text(value));
        Sandbox box(At("2026-06-01 14:00:00"));
        box.UpdateObject("2888", {{"day", "1"}, {"hour", "6"}, {"contrl_type", "Both directions"},
                                  {"volume_monthly_limit", "2000000"}});
        if (value) box.WriteFile("data/tmrestarttime.data", le32(value));
        StartOn(box, {{true, 0, {T("2026-06-01 00:00:00"), T("2026-06-01 12:00:00"), 9999999, 1000000000001ull, 43199}},
                      {false, 0, {T("2026-06-01 13:00:00"), T("2026-06-01 13:01:00"), 1000, 2000000, 0}}});
        EXPECT_EQ(Num(Dump(box, kDumpState), "Last Reset Time: "), L);
        EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"),
                  value ? std::optional(le32(applied ? value : 0)) : std::nullopt);
        ExpectStats(box, {{"start_data_time", Asc(applied ? value : L)}, {"thismonth_upload", applied ? "0.00" : "5.00"},
                          {"thismonth_download", applied ? "2.00" : "500002.00"}, {"dataUsed", applied ? "2" : "500006"},
                          {"today_download", applied ? "2.00" : "500002.00"}, {"lastmonth_download", "500000.00"},
                          {"thismonth_conntime", applied ? "00:00" : "05:59"}, {"lastmonth_conntime", "05:59"},
                          {"volume_left", applied ? " 1862 G 658 M 741 K " : " 1396 G 1000 M 819 K "}});
    }
}

}  // namespace
