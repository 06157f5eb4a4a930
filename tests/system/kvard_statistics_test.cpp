// The statistics object as the daemon publishes it, field by field.
#include <gtest/gtest.h>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;

TEST(Statistics, the_start_state_synchronised_and_not)
{
    for (const char *sync : {"Synchronized", "Unsynchronized"}) {
        SCOPED_TRACE(sync);
        Sandbox box(meter::At("2026-03-10 10:00:00"));
        box.UpdateObject("1045", {{"status", sync}});
        meter::Go(box);
        StoreObject zero = {{"start_data_time", "Sun Mar  1 00:00:00 2026\n"}, {"volume_left", "0 K "},
                            {"current_data_time", "Tue Mar 10 10:00:00 2026\n"}, {"passedDay", "9"},
                            {"periodDay", sync[0] == 'S' ? "31" : "0"}, {"connTimeUsed", ""}};
        for (std::string period : {"today", "yesterday", "thisweek", "thismonth", "lastmonth"}) {
            zero[period + "_conntime"] = "00:00";
            for (std::string what : {"upload", "download", "total"}) {
                zero[period + "_" + what] = "0.00";
                if (period == "thisweek" || period.find("month") != std::string::npos)
                    zero[period + "_" + what + "avg"] = "0.00";
            }
        }
        meter::ExpectStats(box, zero);  // an absent field reads as ""
    }
}

TEST(Statistics, a_minute_of_traffic_against_a_volume_limit_then_a_time_limit)
{
    Sandbox box(meter::At("2026-03-10 09:59:00"));
    box.UpdateObject("1400", {{"wanType", "PPPoE"}});
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1000"}});
    meter::Go(box, {{"ppp0.2", 1000, 500}});
    meter::WakeAt(box, meter::T("2026-03-10 10:00:00"), {{"ppp0.2", 1000 + 123456785000ull, 500 + 5000}});
    // Single precision: 123456.78, not .79; 5000 bytes are just under 0.005 in binary32.
    meter::ExpectStats(box, {{"today_download", "123456.78"}, {"today_upload", "0.00"}, {"today_total", "123456.79"},
                             {"thismonth_download", "123456.78"}, {"yesterday_download", "0.00"},
                             {"dataUsed", "123456"}, {"dataLimited", "1000"}, {"volume_left", "0 K "},
                             {"thismonth_conntime", "00:01"}, {"current_data_time", "Tue Mar 10 10:00:00 2026\n"}});
    box.UpdateObject("2888", {{"volcontrl", "false"}, {"timecontrl", "true"}, {"conntime_monthly_limit", "24"}});
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    meter::ExpectStats(box, {{"connTimeUsed", "0:01"}, {"connTimeLimited", "24"}, {"volume_left", "23:59"}});
    EXPECT_EQ(box.Send(kWriteStatistic), 1);
    box.RemoveFile("var/lib/kvard/mdm/2889");
    EXPECT_EQ(box.Send(kWriteStatistic), 0);
}

}  // namespace
