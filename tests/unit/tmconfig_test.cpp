// Reading the settings object into a TmConfig, through a real store.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/tmcore.h"
#include "platform/bcm_dm_util.h"
#include "tests/unit/cms_tempstore.h"

namespace {

using Fields = std::map<std::string, std::string>;

std::string StoreText(const Fields &fields)
{
    std::string text;
    for (const auto &[name, value] : fields) text += name + "=" + value + "\n";
    return text;
}

struct Expect {
    uint32_t enable = 0;
    uint64_t roundOff = 0;
    uint32_t resetDay = 1;
    uint32_t resetHour = 0;
    uint32_t resetMinute = 0;
    uint64_t limitVol = 0;
    int32_t limitTime = 0;
    uint64_t warnVol = 0;
    int32_t warnTime = 0;
    uint32_t disconnectLimit = 0;
    uint32_t ledflashLimit = 0;
    uint32_t limitType = 0;
};

struct Case {
    const char *claim;
    Fields fields;
    Expect expect;
};

Expect With(void (*set)(Expect &))
{
    Expect e;
    set(e);
    return e;
}

TEST(ReadConfig, converts_every_setting_as_the_router_always_has)
{
    const Case cases[] = {
        {"nothing set: all zero but the reset day", {}, {}},
        {"traffic_on true turns the meter on", {{"traffic_on", "true"}}, With([](Expect &e) { e.enable = 1; })},
        {"traffic_on in capitals is off", {{"traffic_on", "TRUE"}}, {}},
        {"hour 11 in the afternoon is 23", {{"hour", "11"}, {"ampm_sel", "true"}},
         With([](Expect &e) { e.resetHour = 23; })},
        {"hour 12 in the afternoon is 24", {{"hour", "12"}, {"ampm_sel", "true"}},
         With([](Expect &e) { e.resetHour = 24; })},
        {"hour 12 without the afternoon flag stays 12", {{"hour", "12"}, {"ampm_sel", "false"}},
         With([](Expect &e) { e.resetHour = 12; })},
        {"hour 12 with no afternoon field stays 12", {{"hour", "12"}}, With([](Expect &e) { e.resetHour = 12; })},
        {"no hour in the afternoon is 0, not 12", {{"ampm_sel", "true"}}, {}},
        {"day 0 stays 0", {{"day", "0"}}, With([](Expect &e) { e.resetDay = 0; })},
        {"day and minute pass unchanged", {{"day", "31"}, {"min", "59"}},
         With([](Expect &e) { e.resetDay = 31, e.resetMinute = 59; })},
        {"an empty contrl_type limits both directions",
         {{"volcontrl", "true"}, {"contrl_type", ""}, {"volume_monthly_limit", "1000"}},
         With([](Expect &e) { e.limitType = 2, e.limitVol = 1000000000; })},
        {"an absent contrl_type limits both directions", {{"volcontrl", "true"}},
         With([](Expect &e) { e.limitType = 2; })},
        {"Download only limits rx", {{"volcontrl", "true"}, {"contrl_type", "Download only"}},
         With([](Expect &e) { e.limitType = 1; })},
        {"the comparison is case-sensitive", {{"volcontrl", "true"}, {"contrl_type", "download only"}},
         With([](Expect &e) { e.limitType = 2; })},
        {"No limit still fills the volume limit",
         {{"volcontrl", "true"}, {"contrl_type", "No limit"}, {"volume_monthly_limit", "1000"}},
         With([](Expect &e) { e.limitType = 0, e.limitVol = 1000000000; })},
        {"a mark below the volume limit starts the warning there",
         {{"volcontrl", "true"}, {"volume_monthly_limit", "1000"}, {"mark", "100"}},
         With([](Expect &e) { e.limitType = 2, e.limitVol = 1000000000, e.warnVol = 900000000; })},
        {"a mark above the volume limit wraps",
         {{"volcontrl", "true"}, {"volume_monthly_limit", "100"}, {"mark", "200"}},
         With([](Expect &e) { e.limitType = 2, e.limitVol = 100000000, e.warnVol = 0ull - 100000000ull; })},
        {"a mark of 0 means no warning", {{"volcontrl", "true"}, {"volume_monthly_limit", "100"}, {"mark", "0"}},
         With([](Expect &e) { e.limitType = 2, e.limitVol = 100000000; })},
        {"an empty mark means no warning", {{"timecontrl", "true"}, {"conntime_monthly_limit", "24"}, {"mark", ""}},
         With([](Expect &e) { e.limitType = 3, e.limitTime = 86400; })},
        {"a time limit of 24 hours with a mark of 2",
         {{"timecontrl", "true"}, {"conntime_monthly_limit", "24"}, {"mark", "2"}},
         With([](Expect &e) { e.limitType = 3, e.limitTime = 86400, e.warnTime = 79200; })},
        {"a mark above the time limit goes negative",
         {{"timecontrl", "true"}, {"conntime_monthly_limit", "1"}, {"mark", "2"}},
         With([](Expect &e) { e.limitType = 3, e.limitTime = 3600, e.warnTime = -3600; })},
        {"both controls on: time wins the type, volume is filled all the same",
         {{"volcontrl", "true"},
          {"timecontrl", "true"},
          {"volume_monthly_limit", "1000"},
          {"conntime_monthly_limit", "24"},
          {"mark", "2"}},
         With([](Expect &e) {
             e.limitType = 3, e.limitVol = 1000000000, e.warnVol = 998000000, e.limitTime = 86400,
             e.warnTime = 79200;
         })},
        {"limits without their control stay 0", {{"volume_monthly_limit", "1000"}, {"conntime_monthly_limit", "5"}},
         {}},
        {"a time limit wraps in 32 bits", {{"timecontrl", "true"}, {"conntime_monthly_limit", "600000"}},
         With([](Expect &e) { e.limitType = 3, e.limitTime = (int32_t)(600000u * 3600u); })},
        {"round-up volume is the plain number", {{"round_up_volume", "2000000"}},
         With([](Expect &e) { e.roundOff = 2000000; })},
        {"a negative round-up volume is widened with its sign", {{"round_up_volume", "-1"}},
         With([](Expect &e) { e.roundOff = ~0ull; })},
        {"a round-up volume beyond 32 bits is clamped as by a 32-bit atol", {{"round_up_volume", "5000000000"}},
         With([](Expect &e) { e.roundOff = 2147483647; })},
        {"a volume limit is read in 64 bits", {{"volcontrl", "true"}, {"volume_monthly_limit", "5000000"}},
         With([](Expect &e) { e.limitType = 2, e.limitVol = 5000000000000ull; })},
        {"text that is no number reads as 0", {{"day", "x"}, {"hour", "ab"}}, With([](Expect &e) { e.resetDay = 0; })},
        {"block_on and led_on", {{"block_on", "true"}, {"led_on", "true"}},
         With([](Expect &e) { e.disconnectLimit = 1, e.ledflashLimit = 1; })},
        {"block_on and led_on need exactly true", {{"block_on", "yes"}, {"led_on", "1"}}, {}},
    };
    for (const Case &c : cases) {
        TempStore store;
        store.write("2888", StoreText(c.fields));
        TmConfig config;
        memset(&config, 0, sizeof config);
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(bcm_dm_ReadConfig("/tmp/kvard.conf", &config), 0) << c.claim;
        ::testing::internal::GetCapturedStdout();
        const Expect &e = c.expect;
        EXPECT_EQ(config.enable, e.enable) << c.claim;
        EXPECT_EQ(config.roundOff, e.roundOff) << c.claim;
        EXPECT_EQ(config.resetDay, e.resetDay) << c.claim;
        EXPECT_EQ(config.resetHour, e.resetHour) << c.claim;
        EXPECT_EQ(config.resetMinute, e.resetMinute) << c.claim;
        EXPECT_EQ(config.limitVol, e.limitVol) << c.claim;
        EXPECT_EQ(config.limitTime, e.limitTime) << c.claim;
        EXPECT_EQ(config.warnVol, e.warnVol) << c.claim;
        EXPECT_EQ(config.warnTime, e.warnTime) << c.claim;
        EXPECT_EQ(config.disconnectLimit, e.disconnectLimit) << c.claim;
        EXPECT_EQ(config.ledflashLimit, e.ledflashLimit) << c.claim;
        EXPECT_EQ(config.limitType, e.limitType) << c.claim;
    }
}

TEST(ReadConfig, prints_the_settings_on_one_line)
{
    TempStore store;
    store.write("2888", "traffic_on=true\nvolcontrl=true\ncontrl_type=Download only\nvolume_monthly_limit=100\n"
                        "day=5\nhour=\nmin=30\ncounter=7\nmark=10\n");
    TmConfig config = {};
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(bcm_dm_ReadConfig("", &config), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "traffic_on =true volcontrl =true contrl_type =Download only volume_monthly_limit =100 "
              "round_up_volume =(null) timecontrl =(null) conntime_monthly_limit =(null) day =5 hour  = min =30 "
              "ampm_sel =(null) counter =7 mark =10 led_on =(null) block_on =(null)\n");
}

TEST(ReadConfig, a_missing_settings_object_fails_and_leaves_the_record_alone)
{
    TempStore store;
    TmConfig config;
    memset(&config, 0x5A, sizeof config);
    TmConfig before = config;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(bcm_dm_ReadConfig("", &config), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Could not get MDMOID_ORNA_TRAFFIC_METER, ret=9005");
    EXPECT_EQ(0, memcmp(&config, &before, sizeof config));
}

TEST(ReadConfig, a_held_lock_fails_after_the_timeout_and_leaves_the_record_alone)
{
    TempStore store;
    store.write("2888", "traffic_on=true\n");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    if (holder == 0) {
        int fd = open(store.path(".lock").c_str(), O_RDWR | O_CREAT, 0644);
        flock(fd, LOCK_EX);
        if (write(ready[1], "x", 1) != 1) _exit(1);
        pause();
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    setenv("KVARD_MDM_LOCK_MAX_MS", "50", 1);
    TmConfig config;
    memset(&config, 0x33, sizeof config);
    TmConfig before = config;
    StderrCapture err;
    EXPECT_EQ(bcm_dm_ReadConfig("", &config), 1);
    std::string log = err.text();
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    unsetenv("KVARD_MDM_LOCK_MAX_MS");
    EXPECT_NE(log.find("bcm_dm_lock"), std::string::npos) << log;
    EXPECT_NE(log.find("could not get lock, ret="), std::string::npos) << log;
    EXPECT_EQ(0, memcmp(&config, &before, sizeof config));
}

}  // namespace
