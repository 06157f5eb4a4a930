// The runner's time arguments (durations, the forms of a time, clock texts in
// zones with and without daylight saving time) and the choice of the state
// directory among the operands, the -C option and the environment.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <vector>
#include <optional>
#include <string>

#include "tools/sandbox/timespec.h"
#include "tools/sandbox/util.h"

namespace sandbox {
namespace {

TEST(ParseDuration, forms_sums_and_rejects) {
    const int64_t tenYears = 3653LL * 86400;
    struct { const char *text; std::optional<int64_t> seconds; } rows[] = {
        {"90", 90},          {"90s", 90},          {"15m", 900},         {"2h", 7200},
        {"2d", 172800},      {"1w", 604800},       {"1h30m", 5400},      {"1w2d3h4m5s", 788645},
        {"0", 0},            {"0s", 0},            {"3653d", tenYears},  {"521w6d", tenYears},
        {"3653d1s", {}},     {"3654d", {}},        {"99999999999999999999s", {}},
        {"9223372036854775807", {}},               {"1000000w", {}},
        {"", {}},            {"s", {}},            {"h1", {}},           {"1h30", {}},
        {"-5m", {}},         {"+5m", {}},          {"1.5h", {}},         {"1 h", {}},
        {" 1h", {}},         {"1H", {}},           {"1y", {}},           {"1hh", {}},
        {"1h-30m", {}},      {"15min", {}},
    };
    for (const auto &row : rows) EXPECT_EQ(ParseDuration(row.text), row.seconds) << row.text;
}

TEST(ParseTimeArgument, absolute_epoch_relative_and_now) {
    const int64_t base = 1711846799;  // 2024-03-31 01:59:59 CET
    struct { const char *text, *zone; int64_t expected; } rows[] = {
        {"2024-03-31 01:59:59", "Europe/Berlin", 1711846799},
        {"2024-03-31 03:00:00", "Europe/Berlin", 1711846800},
        {"2024-03-31 01:59:59", "UTC", 1711850399},
        {"2024-02-29 00:00:00", "UTC", 1709164800},
        {"1970-01-01 00:00:00", "UTC", 0},
        {"@0", "UTC", 0},
        {"@1711846799", "Europe/Berlin", 1711846799},
        {"+90s", "UTC", base + 90},
        {"+90", "UTC", base + 90},
        {"-1h30m", "UTC", base - 5400},
        {"+1w", "UTC", base + 604800},
        {"-0", "UTC", base},
    };
    for (const auto &row : rows) EXPECT_EQ(ParseTimeArgument(row.text, row.zone, base), row.expected) << row.text;
    int64_t before = time(nullptr);
    int64_t now = ParseTimeArgument("now", "Europe/Berlin", 0);
    EXPECT_GE(now, before);
    EXPECT_LE(now, time(nullptr));
}

TEST(ParseTimeArgument, malformed_out_of_range_and_before_1970_name_the_text) {
    const char *rows[] = {
        "",  "yesterday", "2024-03-31", "2024-03-31T01:59:59", "2024-3-31 01:59:59", "2024-03-31 01:59:59 ",
        "2023-02-29 12:00:00", "2024-04-31 12:00:00", "2024-13-01 00:00:00", "2024-01-01 24:00:00",
        "1969-12-31 23:59:59", "@", "@-1", "@1e9", "@253402300800", "@9999999999999", "+", "-", "+1y",
        "+15min", "--1h", "+-1h", "-1h", "+3654d", "Now",
    };
    for (const char *text : rows) {
        try {
            ParseTimeArgument(text, "UTC", 600);
            ADD_FAILURE() << "accepted '" << text << "'";
        } catch (const Error &e) {
            std::string message = e.what();
            EXPECT_NE(message.find(std::string("'") + text + "'"), std::string::npos) << message;
            EXPECT_NE(message.find("+DURATION"), std::string::npos) << message;
        }
    }
}

TEST(FormatClock, zones_daylight_saving_and_the_zone_of_the_caller_left_alone) {
    setenv("TZ", "America/New_York", 1);
    struct { int64_t t; const char *zone, *text; } rows[] = {
        {1711846799, "Europe/Berlin", "2024-03-31 01:59:59"},
        {1711846800, "Europe/Berlin", "2024-03-31 03:00:00"},
        {1729990800, "Europe/Berlin", "2024-10-27 02:00:00"},
        {0, "UTC", "1970-01-01 00:00:00"},
        {1711846800, "CET-1CEST,M3.5.0,M10.5.0/3", "2024-03-31 03:00:00"},
        {253402300799, "UTC", "9999-12-31 23:59:59"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(FormatClock(row.t, row.zone), row.text) << row.t << " " << row.zone;
        EXPECT_STREQ(getenv("TZ"), "America/New_York");
    }
    // An hour on from half past one in the night of the spring gap is half past three.
    int64_t before = ParseTimeArgument("2024-03-31 01:30:00", "Europe/Berlin", 0);
    EXPECT_EQ(FormatClock(ParseTimeArgument("+1h", "Europe/Berlin", before), "Europe/Berlin"), "2024-03-31 03:30:00");
    // And back in autumn the wall clock shows 02:30 twice.
    int64_t autumn = ParseTimeArgument("2024-10-27 01:30:00", "Europe/Berlin", 0);
    EXPECT_EQ(FormatClock(autumn + 3600, "Europe/Berlin"), "2024-10-27 02:30:00");
    EXPECT_EQ(FormatClock(autumn + 7200, "Europe/Berlin"), "2024-10-27 02:30:00");
    EXPECT_EQ(FormatClock(autumn + 10800, "Europe/Berlin"), "2024-10-27 03:30:00");
    unsetenv("TZ");
}

TEST(ResolveInstanceDir, operands_option_and_environment) {
    char temp[] = "/tmp/kvard-resolve-XXXXXX";
    ASSERT_NE(mkdtemp(temp), nullptr);
    const std::string existing = temp;
    using List = std::vector<std::string>;
    struct Row {
        const char *env;   // KVARD_SANDBOX_DIR, nullptr: unset
        std::string option;
        List operands;
        size_t min, max, step;
        std::string dir;   // "" when it must throw
        List rest;
    };
    const size_t many = 1000;
    const Row rows[] = {
        {nullptr, "", {"d"}, 0, 0, 1, "d", {}},                       // init d
        {"e", "", {}, 0, 0, 1, "e", {}},                              // init
        {"e", "c", {}, 0, 0, 1, "c", {}},                             // init -C c
        {"e", "c", {"d"}, 0, 0, 1, "", {}},                           // init -C c d
        {nullptr, "", {}, 0, 0, 1, "", {}},                           // status with nothing
        {"", "", {}, 0, 0, 1, "", {}},                                // an empty variable names nothing
        {"e", "", {"d", "TERM"}, 1, 1, 1, "d", {"TERM"}},             // signal d TERM
        {"e", "", {"TERM"}, 1, 1, 1, "e", {"TERM"}},                  // signal TERM
        {nullptr, "", {"TERM"}, 1, 1, 1, "", {}},                     // signal TERM, no directory
        {"e", "", {"d", "TERM", "x"}, 1, 1, 1, "", {}},
        {"e", "", {"TERM"}, 0, 1, 1, "e", {"TERM"}},                  // stop TERM
        {"e", "", {existing}, 0, 1, 1, existing, {}},                 // stop DIR
        {nullptr, "", {"box"}, 0, 1, 1, "box", {}},                   // stop box: DIR, the only source
        {"e", "", {"d", "eth0", "1", "2"}, 3, many, 3, "d", {"eth0", "1", "2"}},
        {"e", "", {"eth0", "1", "2"}, 3, many, 3, "e", {"eth0", "1", "2"}},
        {"e", "", {"eth0", "1"}, 3, many, 3, "", {}},
        {"e", "", {""}, 0, 0, 1, "", {}},
    };
    for (const auto &row : rows) {
        if (row.env)
            setenv("KVARD_SANDBOX_DIR", row.env, 1);
        else
            unsetenv("KVARD_SANDBOX_DIR");
        List operands = row.operands;
        std::string label = "option '" + row.option + "', " + std::to_string(row.operands.size()) + " operands";
        if (row.dir.empty()) {
            EXPECT_THROW(ResolveInstanceDir(row.option, operands, row.min, row.max, row.step), UsageError) << label;
            continue;
        }
        EXPECT_EQ(ResolveInstanceDir(row.option, operands, row.min, row.max, row.step), row.dir) << label;
        EXPECT_EQ(operands, row.rest) << label;
    }
    unsetenv("KVARD_SANDBOX_DIR");
    rmdir(temp);
}

}  // namespace
}  // namespace sandbox
