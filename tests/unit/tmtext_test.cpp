// The published text forms, with the worked numbers where single precision
// and double precision part ways.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/tmtext.h"

namespace {

TEST(Text, megabytes_in_single_precision)
{
    struct Case {
        uint64_t bytes;
        const char *text;
    } cases[] = {
        {0, "0.00"},
        {5000, "0.00"},  // the binary32 quotient lies just under 0.005
        {5000000, "5.00"},
        {123456785000ull, "123456.78"},  // the count is rounded to 24 bits first
        {1000000, "1.00"},
        {999999, "1.00"},
        {18446744073709551615ull, "18446744027136.00"},  // 2^64 / 10^6 to the 2^21 step of binary32
    };
    char buffer[TM_TEXT_SIZE];
    for (const Case &c : cases) EXPECT_STREQ(TmTextMegabytes(buffer, c.bytes), c.text) << c.bytes;
}

TEST(Text, averages_are_megabytes_a_day_over_at_least_one_day)
{
    struct Case {
        uint64_t bytes;
        int64_t elapsed;
        const char *text;
    } cases[] = {
        {6000000, 3600, "6.00"},        // an hour: the plain figure
        {6000000, 1, "6.00"},
        {6000000, 86400, "6.00"},
        {6000000, 129600, "4.00"},      // 36 hours: two thirds
        {6000000, 216000, "2.40"},      // 2.5 days
        {0, 86400 * 31, "0.00"},
        {6000000, 0, "6.00"},
    };
    char buffer[TM_TEXT_SIZE];
    for (const Case &c : cases) EXPECT_STREQ(TmTextAverage(buffer, c.bytes, c.elapsed), c.text) << c.elapsed;
}

TEST(Text, durations_drop_the_seconds_and_keep_two_digit_minutes)
{
    struct Case {
        int32_t seconds;
        const char *text;
    } cases[] = {
        {0, "00:00"}, {59, "00:00"}, {60, "00:01"}, {3599, "00:59"}, {3600, "01:00"},
        {360300, "100:05"}, {86400 * 31, "744:00"}, {-60, "00:4294967295"},
    };
    char buffer[TM_TEXT_SIZE];
    for (const Case &c : cases) EXPECT_STREQ(TmTextDuration(buffer, c.seconds), c.text) << c.seconds;
}

TEST(Text, remainders_in_powers_of_1024_or_hours_and_minutes)
{
    struct Case {
        uint64_t left;
        uint32_t timeLimit;
        const char *text;
    } cases[] = {
        {5000000000ull, 0, " 4 G 672 M 380 K "},
        {1000000000ull, 0, "953 M 690 K "},
        {1000000ull, 0, "976 K "},
        {0, 0, "0 K "},
        {1023, 0, "0 K "},
        {1ull << 30, 0, " 1 G 0 M 0 K "},
        {18446744073709551615ull, 0, " 17179869183 G 1023 M 1023 K "},
        {3 * 3600 + 5 * 60 + 59, 1, "3:5"},
        {0, 1, "0:0"},
        {100 * 3600, 1, "100:0"},
    };
    char buffer[TM_TEXT_SIZE];
    for (const Case &c : cases) EXPECT_STREQ(TmTextRemainder(buffer, c.left, c.timeLimit), c.text) << c.left;
}

TEST(Text, asctime_keeps_its_line_end)
{
    setenv("TZ", "UTC", 1);
    tzset();
    char buffer[TM_TEXT_SIZE];
    EXPECT_STREQ(TmTextAsctime(buffer, 1700000000), "Tue Nov 14 22:13:20 2023\n");
    EXPECT_STREQ(TmTextAsctime(buffer, 0), "Thu Jan  1 00:00:00 1970\n");
}

}  // namespace
