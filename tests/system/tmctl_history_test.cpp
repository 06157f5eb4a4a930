// tmctl history against kvard: the daemon starts on a crafted image and
// publishes its figures; the tool, given a copy of that image as it was before
// the start, the same clock and the box's store, must print the same five
// periods to the last digit. The tables per day, week and month are checked
// against sums worked out here by hand.
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test::meter;
using nlohmann::json;

struct Outcome {
    int status;
    std::string out, err;
};

// `tmctl history ARGS` in the box's zone, with the box's store, then ENV assignments (which may replace it).
Outcome History(const Sandbox &box, const std::string &args, const std::string &env = "")
{
    std::string out = box.Path("history.out"), err = box.Path("history.err");
    std::string cmd = "env TZ=" + std::string(kZone) + " KVARD_MDM_DIR='" + box.Path("var/lib/kvard/mdm") + "' " + env + " '" +
                      InstalledPrefix() + "/bin/tmctl' history " + args + " >'" + out + "' 2>'" + err + "'";
    int raw = std::system(cmd.c_str());
    auto slurp = [](const std::string &path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
}

json HistoryJson(const Sandbox &box, const std::string &args, const std::string &env = "")
{
    Outcome r = History(box, args + " --json", env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r.status == 0 ? json::parse(r.out) : json::object();
}

// The published text of bytes and of seconds: binary32 megabytes with two decimals, and hh:mm.
std::string Mb(uint64_t bytes)
{
    char text[48];
    snprintf(text, sizeof text, "%.2f", double(float(bytes) / 1000000.0f));
    return text;
}
std::string Hm(int64_t seconds)
{
    char text[32];
    snprintf(text, sizeof text, "%02lld:%02lld", (long long)(seconds / 3600), (long long)(seconds % 3600 / 60));
    return text;
}

struct Page {
    bool halfDay;
    uint32_t index;  // in its ring
    Record r;
};
Record R(const std::string &start, int32_t seconds, uint64_t tx, uint64_t rx, int32_t used)
{
    return {T(start), T(start) + seconds, tx, rx, used};
}

struct Scenario {
    const char *claim, *clock;
    StoreObject settings;    // over the box's 2888
    const char *manual;      // a stored manual reset time, "" for none
    std::vector<Page> pages;
    std::vector<uint32_t> torn = {}, badCrc = {};  // pages (of the partition) spoilt after they were put
};

// A minute ring written round: the newest minute at page 3, the ring's end
// holding minutes of the morning before, which the start folds into a half-day.
std::vector<Page> WrappedMinutes()
{
    std::vector<Page> pages;
    for (uint32_t i = 0; i < 8; i++)
        pages.push_back({false, (kMinPages - 4 + i) % kMinPages,
                         R(Text(T("2026-03-10 11:56:00") + 60 * int32_t(i) + (i == 5 ? 30 : 0)), 60,
                           123456789ull * (i + 1), 987654321ull * (i + 1) + 7, 60)});
    pages.push_back({true, 0, R("2026-03-09 12:00:00", 43200, 33333333333ull, 77777777777ull, 40000)});
    return pages;
}

// A half-day ring written round: the newest at page 5, the oldest kept at page 250.
std::vector<Page> WrappedHalfDays()
{
    std::vector<Page> pages;
    for (uint32_t i = 0; i < 12; i++)
        pages.push_back({true, (kHDayPages - 6 + i) % kHDayPages,
                         R(Text(T("2026-02-25 00:00:00") + 43200 * int32_t(i)), 43200, 16777217ull * (i + 3),
                           1000000000001ull + 333333333ull * i, 3000 * int32_t(i))});
    pages.push_back({false, 0, R("2026-03-01 10:00:00", 60, 555, 1234567, 60)});
    return pages;
}

TEST(History, the_five_periods_are_the_daemons_to_the_digit)
{
    const Scenario scenarios[] = {
        {"a wrapped minute ring, a minute off the grid, the morning folded", "2026-03-10 12:04:30",
         {{"day", "10"}, {"hour", "6"}}, "", WrappedMinutes()},
        {"a wrapped half-day ring across the monthly reset and a week", "2026-03-01 10:01:00",
         {{"day", "27"}, {"hour", "7"}, {"min", "15"}}, "", WrappedHalfDays()},
        {"the day the clocks go forward: a morning of 11 hours", "2026-03-30 09:00:00",
         {{"day", "29"}, {"hour", "2"}, {"min", "30"}}, "",
         {{true, 0, R("2026-03-28 12:00:00", 43200, 5000001, 900000007, 43000)},
          {true, 1, R("2026-03-29 00:00:00", 39600, 7000003, 1100000009, 39000)},
          {true, 2, R("2026-03-29 12:00:00", 43200, 11, 123456789012ull, 42000)},
          {false, 0, R("2026-03-30 08:59:00", 60, 100, 200, 60)}}},
        {"a manual reset stored inside the period", "2026-06-01 14:00:00",
         {{"day", "1"}, {"hour", "6"}}, "2026-06-01 09:30:00",
         {{true, 0, R("2026-06-01 00:00:00", 43200, 9999999, 1000000000001ull, 43199)},
          {true, 1, R("2026-05-31 12:00:00", 43200, 4, 5, 6)},
          {false, 0, R("2026-06-01 13:00:00", 60, 1000, 2000000, 60)}}},
        {"reset day 31 in a 30-day month, beside a torn page and one whose CRC fails", "2026-04-30 10:00:00",
         {{"day", "31"}, {"hour", "0"}}, "",
         {{true, 0, R("2026-04-29 00:00:00", 43200, 1000, 3000000, 0)},
          {true, 1, R("2026-04-29 12:00:00", 43200, 2000, 5000000, 0)},
          {true, 2, R("2026-04-30 00:00:00", 43200, 4000, 7000000, 0)},  // torn below
          {true, 3, R("2026-04-28 12:00:00", 43200, 8000, 11000000, 0)},  // CRC spoilt below
          {false, 0, R("2026-04-30 09:58:00", 60, 16, 13000000, 0)},
          {false, 1, R("2026-04-30 09:59:00", 60, 32, 17000000, 0)}},
         {kHDayStart + 2}, {kHDayStart + 3}},
    };
    for (const Scenario &s : scenarios) {
        SCOPED_TRACE(s.claim);
        Sandbox box(At(s.clock));
        box.UpdateObject("2888", s.settings);
        std::string manualArg;
        if (*s.manual) {
            int32_t at = T(s.manual);
            std::string bytes(reinterpret_cast<const char *>(&at), 4);
            box.WriteFile("data/tmrestarttime.data", bytes);
            box.WriteFile("manual.data", bytes);
            manualArg = " --manual-reset '" + box.Path("manual.data") + "'";
        }
        Image image;
        for (const Page &p : s.pages) image.Put((p.halfDay ? kHDayStart : 0) + p.index, p.r);
        // A cut after the header and part of the record; a bit of tx flipped under a whole CRC.
        for (uint32_t page : s.torn) std::fill_n(&image.bytes[size_t(page) * kPageSize + 20], kPageSize - 20, '\xFF');
        for (uint32_t page : s.badCrc) image.bytes[size_t(page) * kPageSize + 16] ^= 0x04;
        box.WriteFile("before.img", image.bytes);
        image.WriteTo(box);
        Go(box);
        json j = HistoryJson(box, "'" + box.Path("before.img") + "' --at '" + s.clock + "'" + manualArg);
        ASSERT_TRUE(j.contains("periods"));
        for (const char *period : {"today", "yesterday", "thisweek", "thismonth", "lastmonth"}) {
            SCOPED_TRACE(period);
            const json &p = j["periods"][period];
            const std::string name = period;
            EXPECT_EQ(Mb(p["upload"]), Stat(box, name + "_upload"));
            EXPECT_EQ(Mb(p["download"]), Stat(box, name + "_download"));
            EXPECT_EQ(Mb(uint64_t(p["upload"]) + uint64_t(p["download"])), Stat(box, name + "_total"));
            EXPECT_EQ(Hm(p["conntime"]), Stat(box, name + "_conntime"));
        }
        EXPECT_TRUE(box.ReadFile("before.img") == image.bytes) << "the tool wrote the image";
        EXPECT_EQ(Asc(j["manual_reset"] != 0 ? int32_t(j["manual_reset"]) : int32_t(j["period_start"])),
                  Stat(box, "start_data_time"));
    }
}

// The daemon meters a morning into its own flash, stops, and starts again later;
// the tool on the image it left must give what the second start publishes.
TEST(History, an_image_the_daemon_wrote_gives_what_its_next_start_publishes)
{
    Sandbox box(At("2026-03-10 09:55:00"));
    Go(box, {{"eth0.1", 1000, 1000}});
    uint64_t rx = 1000, tx = 1000;
    for (int32_t t = T("2026-03-10 10:00:00"); t <= T("2026-03-10 12:30:00"); t += 600)
        WakeAt(box, t, {{"eth0.1", rx += 3000017 + uint64_t(t % 7) * 1000, tx += 120011}});
    box.Stop();
    box.WriteFile("before.img", box.ReadFile("sandbox/mtd.img").value());
    SetClock(box, T("2026-03-10 13:30:00"));
    Go(box);
    json j = HistoryJson(box, "'" + box.Path("before.img") + "' --at '2026-03-10 13:30:00'");
    ASSERT_TRUE(j.contains("periods"));
    EXPECT_NE(Stat(box, "today_download"), "0.00");
    for (const char *period : {"today", "yesterday", "thisweek", "thismonth", "lastmonth"}) {
        const std::string name = period;
        EXPECT_EQ(Mb(j["periods"][period]["download"]), Stat(box, name + "_download")) << name;
        EXPECT_EQ(Mb(j["periods"][period]["upload"]), Stat(box, name + "_upload")) << name;
    }
}

TEST(History, per_half_day_day_week_and_month_tables_add_up_by_hand)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    box.UpdateObject("2888", {{"day", "9"}});
    Image image;
    image.Put(kHDayStart + 0, R("2026-03-08 00:00:00", 43200, 1, 1000000, 100));
    image.Put(kHDayStart + 1, R("2026-03-08 12:00:00", 43200, 2, 2000000, 200));
    image.Put(kHDayStart + 2, R("2026-03-09 00:00:00", 43200, 4, 4000000, 400));
    image.Put(kHDayStart + 3, R("2026-02-28 12:00:00", 43200, 8, 8000000, 800));
    image.Put(0, R("2026-03-10 09:00:00", 60, 16, 500000, 60));
    box.WriteFile("image", image.bytes);
    const std::string image_ = "'" + box.Path("image") + "' --at '2026-03-10 10:00:00' ";
    struct Want {
        const char *unit;
        std::map<std::string, uint64_t> rx;  // rows by local start; every other row 0
        size_t rows;
    } wants[] = {
        {"--half-days", {{"2026-02-28 12:00:00", 8000000}, {"2026-03-08 00:00:00", 1000000},
                         {"2026-03-08 12:00:00", 2000000}, {"2026-03-09 00:00:00", 4000000},
                         {"2026-03-10 00:00:00", 500000}}, 124},
        {"--days", {{"2026-02-28 00:00:00", 8000000}, {"2026-03-08 00:00:00", 3000000},
                    {"2026-03-09 00:00:00", 4000000}, {"2026-03-10 00:00:00", 500000}}, 63},
        {"--weeks", {{"2026-02-22 00:00:00", 8000000}, {"2026-03-08 00:00:00", 7500000}}, 10},
        {"--months", {{"2026-02-09 00:00:00", 11000000}, {"2026-03-09 00:00:00", 4500000}}, 4},
    };
    for (const Want &w : wants) {
        SCOPED_TRACE(w.unit);
        json j = HistoryJson(box, image_ + w.unit);
        ASSERT_EQ(j["rows"].size(), w.rows);
        uint64_t rx = 0, tx = 0;
        for (const json &row : j["rows"]) {
            auto it = w.rx.find(row["start_local"]);
            EXPECT_EQ(row["download"], it == w.rx.end() ? 0 : it->second) << row["start_local"];
            rx += uint64_t(row["download"]);
            tx += uint64_t(row["upload"]);
        }
        EXPECT_EQ(rx, 15500000u) << "every record counted once";
        EXPECT_EQ(tx, 31u);
    }
    // The same in CSV: a header line, the five periods, then one line per row.
    Outcome csv = History(box, image_ + "--days --csv");
    ASSERT_EQ(csv.status, 0) << csv.err;
    std::istringstream lines(csv.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "period,start,end,start_local,upload,download,conntime");
    std::getline(lines, line);
    EXPECT_EQ(line, "today," + std::to_string(T("2026-03-10 00:00:00")) + "," + std::to_string(T("2026-03-10 10:00:00")) +
                        ",2026-03-10 00:00:00,16,500000,60");
}

TEST(History, a_device_is_read_only_and_gives_what_its_image_gives)
{
    // The morning's minutes are folded into a half-day record by the rebuild: in memory only.
    Sandbox box(At("2026-03-10 12:04:30"));
    Image image;
    for (const Page &p : WrappedMinutes()) image.Put((p.halfDay ? kHDayStart : 0) + p.index, p.r);
    box.WriteFile("nand.img", image.bytes);
    box.WriteFile("copy.img", image.bytes);
    const char *asan = getenv("KVARD_ASAN_RUNTIME");
    std::string env = "LD_PRELOAD=" + std::string(asan ? std::string(asan) + ":" : "") + InstalledPrefix() +
                      "/lib/kvard/libmtdsim.so MTDSIM_IMAGE='" + box.Path("nand.img") + "' MTDSIM_LOG='" +
                      box.Path("nand.log") + "' MTDSIM_WRITESIZE=2048 MTDSIM_ERASESIZE=131072 MTDSIM_DEVICE=/dev/mtd3";
    const std::string common = " --at '2026-03-10 12:04:30' --manual-reset /dev/null --half-days";
    json device = HistoryJson(box, "/dev/mtd3" + common, env);
    json file = HistoryJson(box, "'" + box.Path("copy.img") + "'" + common);
    ASSERT_TRUE(device.contains("periods"));
    EXPECT_NE(device["periods"]["today"]["download"], 0);
    EXPECT_EQ(device["periods"], file["periods"]);
    EXPECT_EQ(device["rows"], file["rows"]);
    EXPECT_EQ(box.ReadFile("nand.log").value_or(""), "") << "an erase or a program reached the device";
    EXPECT_TRUE(box.ReadFile("nand.img") == image.bytes);
}

TEST(History, exit_status_and_one_error_line)
{
    Sandbox box(At("2026-03-10 10:00:00"));
    box.WriteFile("image", Image().bytes);
    const std::string image = "'" + box.Path("image") + "'";
    const struct {
        std::string args;
        int status;
        const char *says;
        std::string env = "";
    } cases[] = {
        {image + " --at '2026-03-10 10:00:00'", 0, ""},
        {image, 1, "settings object 2888", "KVARD_MDM_DIR='" + box.Path("no-store") + "'"},
        {image + " --days --weeks", 2, "give one of"},
        {image + " --json --csv", 2, "give one of"},
        {image + " --at yesterday", 2, "--at needs"},
        {image + " --reset-day 32", 2, "--reset-day"},
        {image + " extra", 2, "unexpected argument"},
        {"", 2, "which IMAGE"},
        {"'" + box.Path("none.img") + "'", 1, "cannot open"},
        {image + " --page-size 16 --block-size 64", 2, "no room"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args);
        Outcome r = History(box, c.args, c.env);
        EXPECT_EQ(r.status, c.status) << r.err;
        if (c.status == 0) {
            EXPECT_EQ(r.err, "");
            EXPECT_NE(r.out.find("MB = 1,000,000 bytes"), std::string::npos);
        } else {
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_EQ(r.err.rfind("tmctl: ", 0), 0u) << r.err;
            EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
            EXPECT_EQ(r.out, "");
        }
    }
    Outcome help = History(box, "--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: tmctl history", 0), 0u) << help.out;
}

}  // namespace
