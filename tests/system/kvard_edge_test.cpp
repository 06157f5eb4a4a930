// The edges of 32-bit time: a clock a minute before 2038's wrap, a period that began before
// 1902, connection seconds summed past 2^31, live and rebuilt from flash. Each sum and difference
// wraps as on the 32-bit router, and mktime answers a moment past 2038 with -1; the sanitizer
// build stops the daemon at any overflow that would otherwise pass unseen.
#include <functional>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test::meter;

constexpr uint16_t kResetCounter = 5, kWriteStatistic = 6, kLinkUpdate = 3;
constexpr int32_t kStart = 1773997200;  // 2026-03-20 10:00:00 in Berlin, the box's clock throughout

void Ppp(Sandbox &box, bool up) { box.WriteObject("1400", up ? StoreObject{{"wanType", "PPPoE"}} : StoreObject{}); }
void Expect(Sandbox &box, uint16_t code) { Want(box.Send(code), 1, "datagram"); }

// Connection seconds as published: hours and minutes of the 32-bit value, each printed as an
// unsigned 32-bit number, so a wrapped (negative) sum shows both parts near 2^32.
std::string Duration(int32_t seconds)
{
    char out[32];
    snprintf(out, sizeof out, "%02u:%02u", uint32_t(seconds / 3600), uint32_t(seconds % 3600 / 60));
    return out;
}
int32_t Wrap(int64_t value) { return int32_t(uint32_t(uint64_t(value))); }

struct Case {
    const char *claim;
    bool linkUp;  // DHCP at the start, or no link
    std::function<void(Sandbox &)> run;
    StoreObject want;
};

TEST(TimeEdges, sums_and_differences_wrap_as_on_the_router)
{
    // Two minutes of PPP time, each counted from a link that came up at 60 s after the epoch:
    // the closes at 10:01:30 and 10:02:30 book now - 60 seconds each.
    const int32_t pppMonth = Wrap(int64_t(kStart + 90 - 60) + (kStart + 150 - 60));
    const int32_t rebuiltMonth = Wrap(int64_t(1616928864) + 639894016);
    Case cases[] = {
        {"a wake a minute before the wrap resets the period to January 2038, whose end mktime can't give",
         true, [](Sandbox &box) { SimWake(box, 2147483600, 10000, 2005000); },
         {{"current_data_time", "Tue Jan 19 04:13:20 2038\n"},
          {"start_data_time", "Fri Jan  1 00:00:00 2038\n"},
          {"passedDay", "18"},  // (2147483600 - 2145913200) / 86400
          // The end is -1: (-1 - 2145913200) / 86400 days, negative, printed as a 64-bit unsigned.
          {"periodDay", std::to_string(uint64_t(int64_t((-1 - 2145913200) / 86400)))},
          {"thismonth_download", "0.00"}}},
        {"a manual reset four seconds before the wrap is stale at once: the period has no end",
         true,
         [](Sandbox &box) {
             SimInput(box, 2147483596, 3000, 5000);
             Expect(box, kResetCounter);
         },
         {{"current_data_time", "Fri Mar 20 10:00:00 2026\n"},
          {"start_data_time", "Fri Jan  1 00:00:00 2038\n"},
          {"passedDay", std::to_string(uint32_t((kStart - 2145913200) / 86400))}}},
        {"a period that began in May 1906, seen from 2026: the span of 120 years wraps",
         true,
         [](Sandbox &box) {
             SimInput(box, -2009235600, 3000, 5000);  // 1906-05-02 00:00
             Expect(box, kResetCounter);
             SimInput(box, kStart, 3000, 5000);
             Expect(box, kWriteStatistic);
         },
         {{"start_data_time", "Wed May  2 00:00:00 1906\n"},  // the manual reset, in force
          {"passedDay", std::to_string(uint32_t(Wrap(int64_t(kStart) + 2009322000) / 86400))},
          {"periodDay", "31"},
          // The link's seconds since the reset, now - lastTime, wrap to a negative count.
          {"thismonth_conntime", Duration(Wrap(int64_t(kStart) + 2009235600))},
          {"today_conntime", Duration(Wrap(int64_t(kStart) + 2009235600))}}},
        {"connection seconds summed past 2^31 in the minute close",
         false,
         [](Sandbox &box) {
             int32_t t = kStart + 30;
             SimWake(box, t, 3000, 5000);
             for (int round = 0; round < 2; round++) {
                 Ppp(box, true);
                 SimInput(box, 60, 3000, 5000);
                 Expect(box, kLinkUpdate);
                 SimWake(box, t += 60, 3000, 5000);
                 Ppp(box, false);
                 Expect(box, kLinkUpdate);
             }
             EXPECT_EQ(Records(box, false), (std::vector<Record>{{kStart, kStart + 60, 0, 0, kStart + 90 - 60},
                                                                 {kStart + 60, kStart + 120, 0, 0, kStart + 150 - 60}}));
         },
         {{"passedDay", "19"}, {"thismonth_conntime", Duration(pppMonth)}, {"thisweek_conntime", Duration(pppMonth)}}},
        {"the same sum rebuilt from two CRC-valid minute records",
         true,
         [](Sandbox &box) {
             box.Stop();
             Image image;
             image.Put(0, {kStart - 3600, kStart - 3540, 10, 20, 1616928864});
             image.Put(1, {kStart - 3540, kStart - 3480, 10, 20, 639894016});
             image.WriteTo(box);
             Go(box);
         },
         {{"thismonth_conntime", Duration(rebuiltMonth)}, {"today_conntime", Duration(rebuiltMonth)}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box(At("2026-03-20 10:00:00"));
        box.WriteObject("1400", c.linkUp ? StoreObject{{"wanType", "DHCP"}} : StoreObject{});
        Go(box, {{"eth0", 5000, 3000}});
        try {
            c.run(box);
        } catch (const std::exception &e) {
            ADD_FAILURE() << e.what() << "\n" << box.Stderr();
            continue;
        }
        ExpectStats(box, c.want);
        EXPECT_EQ(box.Status(), "running") << box.Stderr();
    }
}

}  // namespace
