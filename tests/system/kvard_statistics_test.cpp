// The statistics object as the daemon publishes it, field by field.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;

SandboxOptions Berlin(const char *time)
{
    SandboxOptions o;
    o.time = time;
    o.zone = "Europe/Berlin";
    return o;
}

void ExpectFields(const StoreObject &object, const StoreObject &expected)
{
    for (const auto &[name, value] : expected) {
        auto it = object.find(name);
        ASSERT_NE(it, object.end()) << name << " missing";
        EXPECT_EQ(it->second, value) << name;
    }
}

const StoreObject kZeroPeriods = {
    {"today_conntime", "00:00"},       {"today_upload", "0.00"},          {"today_download", "0.00"},
    {"today_total", "0.00"},           {"yesterday_conntime", "00:00"},   {"yesterday_upload", "0.00"},
    {"yesterday_download", "0.00"},    {"yesterday_total", "0.00"},       {"thisweek_conntime", "00:00"},
    {"thisweek_upload", "0.00"},       {"thisweek_download", "0.00"},     {"thisweek_total", "0.00"},
    {"thisweek_uploadavg", "0.00"},    {"thisweek_downloadavg", "0.00"},  {"thisweek_totalavg", "0.00"},
    {"thismonth_conntime", "00:00"},   {"thismonth_upload", "0.00"},      {"thismonth_download", "0.00"},
    {"thismonth_total", "0.00"},       {"thismonth_uploadavg", "0.00"},   {"thismonth_downloadavg", "0.00"},
    {"thismonth_totalavg", "0.00"},    {"lastmonth_conntime", "00:00"},   {"lastmonth_upload", "0.00"},
    {"lastmonth_download", "0.00"},    {"lastmonth_total", "0.00"},       {"lastmonth_uploadavg", "0.00"},
    {"lastmonth_downloadavg", "0.00"}, {"lastmonth_totalavg", "0.00"},
};

TEST(Statistics, the_start_state_with_a_synchronised_clock)
{
    Sandbox box(Berlin("2026-03-10 10:00:00"));
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat);
    ExpectFields(*stat, kZeroPeriods);
    ExpectFields(*stat, {
                            {"start_data_time", "Sun Mar  1 00:00:00 2026\n"},
                            {"current_data_time", "Tue Mar 10 10:00:00 2026\n"},
                            {"volume_left", "0 K "},
                            {"passedDay", "9"},
                            {"periodDay", "31"},
                            {"dataUsed", "0"},
                            {"dataLimited", "0"},
                        });
    EXPECT_EQ(stat->count("connTimeUsed"), 0u) << "a volume meter leaves the time fields alone";
}

TEST(Statistics, the_start_state_before_the_clock_is_synchronised)
{
    Sandbox box(Berlin("2026-03-10 10:00:00"));
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat);
    ExpectFields(*stat, kZeroPeriods);
    ExpectFields(*stat, {
                            {"start_data_time", "Sun Mar  1 00:00:00 2026\n"},
                            {"current_data_time", "Tue Mar 10 10:00:00 2026\n"},
                            {"volume_left", "0 K "},
                            {"passedDay", "9"},
                            {"periodDay", "0"},
                        });
}

TEST(Statistics, a_volume_limit_and_a_minute_of_traffic)
{
    Sandbox box(Berlin("2026-03-10 09:59:30"));
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1000"}});
    box.SetNetDev({{"eth0.1", 1000, 500}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 1000 + 123456785000ull, 500 + 5000}});
    box.SetTime("2026-03-10 10:00:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat);
    ExpectFields(*stat, {
                            {"today_download", "123456.78"},  // single precision, not 123456.79
                            {"today_upload", "0.00"},         // 5000 bytes: just under 0.005 in binary32
                            {"today_total", "123456.79"},
                            {"thismonth_download", "123456.78"},
                            {"lastmonth_download", "0.00"},
                            {"yesterday_download", "0.00"},
                            {"dataUsed", "123456"},
                            {"dataLimited", "1000"},
                            {"volume_left", "0 K "},  // far past the limit
                            {"current_data_time", "Tue Mar 10 10:00:00 2026\n"},
                        });
}

TEST(Statistics, a_time_limit_publishes_hours_and_minutes)
{
    Sandbox box(Berlin("2026-03-10 09:59:00"));
    box.UpdateObject("1400", {{"wanType", "PPPoE"}});
    box.UpdateObject("2888", {{"timecontrl", "true"}, {"conntime_monthly_limit", "24"}});
    box.SetNetDev({{"ppp0.2", 10, 10}});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetTime("2026-03-10 10:00:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);
    auto stat = box.ReadObject("2889");
    ASSERT_TRUE(stat);
    ExpectFields(*stat, {
                            {"connTimeUsed", "0:01"},
                            {"connTimeLimited", "24"},
                            {"volume_left", "23:59"},
                            {"thismonth_conntime", "00:01"},
                        });
}

TEST(Statistics, the_publish_datagram_answers_one_and_zero_when_the_object_is_missing)
{
    Sandbox box(Berlin("2026-03-10 10:00:00"));
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    EXPECT_EQ(box.Send(kWriteStatistic), 1);
    box.RemoveFile("var/lib/kvard/mdm/2889");
    EXPECT_EQ(box.Send(kWriteStatistic), 0);
    EXPECT_TRUE(box.WaitStdout("Failed to get MDMOID_ORNA_TRAFFIC_METER_STATISTICS, ret="));
}

}  // namespace
