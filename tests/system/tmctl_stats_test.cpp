// tmctl stats, the installed tool as a user runs it beside a running daemon:
// its JSON against the statistics object the daemon published, its one line
// and --alert exit status across the limit states the daemon reaches, and its
// errors on stores that lack what it needs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using nlohmann::json;

CommandResult Stats(Sandbox &box, std::vector<std::string> args)
{
    args.insert(args.begin(), {"exec", box.Dir(), "--", "tmctl", "stats"});
    return box.Runner(args);
}
json Json(Sandbox &box)
{
    CommandResult r = Stats(box, {"--json"});
    EXPECT_EQ(r.status, 0) << r.out;
    return json::parse(r.out);
}
void Rx(Sandbox &box, uint64_t rx) { box.SetNetDev({{"eth0.1", rx, 0}}); }
void Wake(Sandbox &box, const char *clock)
{
    box.SetTime(clock);
    ASSERT_EQ(box.Send(kTimeWake), 1);
}
void Settle(Sandbox &box, const StoreObject &settings, const char *clock)
{
    box.UpdateObject("2888", settings);
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    Wake(box, clock);
}

const StoreObject kDownloadLimit = {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1000"}, {"mark", "100"}};

TEST(TmctlStats, json_matches_the_published_object_field_by_field_with_numbers_beside_the_texts)
{
    Sandbox box(meter::At("2026-03-10 09:59:00"));
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "50000"}, {"mark", "5000"}});
    meter::Go(box, {{"eth0.1", 500, 0}});
    box.SetNetDev({{"eth0.1", 500 + 123456785, 4000000}});   // 123.46 MB down, 4 MB up
    Wake(box, "2026-03-10 10:00:00");

    StoreObject published = box.ReadObject("2889").value();
    json j = Json(box);
    // Every field as stored, absent ones as null.
    for (const auto &[name, value] : j["published"].items())
        EXPECT_EQ(value, published.count(name) ? json(published[name]) : json(nullptr)) << name;
    EXPECT_EQ(j["published"].size(), 40u);
    for (const auto &[name, value] : published) EXPECT_TRUE(j["published"].contains(name)) << name;

    for (std::string period : {"today", "yesterday", "thisweek", "thismonth", "lastmonth"}) {
        const json &p = j["periods"][period];
        for (std::string what : {"upload", "download", "total"}) {
            EXPECT_DOUBLE_EQ(p[what].get<double>(), std::stod(published[period + "_" + what])) << period << what;
            if (p.contains(what + "Avg")) {
                EXPECT_DOUBLE_EQ(p[what + "Avg"].get<double>(), std::stod(published[period + "_" + what + "avg"]));
            }
        }
        EXPECT_EQ(p["connTime"], published[period + "_conntime"]);
        EXPECT_EQ(p.contains("uploadAvg"), period == "thisweek" || period.find("month") != std::string::npos);
    }
    EXPECT_DOUBLE_EQ(j["periods"]["today"]["download"].get<double>(), 123.46);
    EXPECT_DOUBLE_EQ(j["periods"]["today"]["upload"].get<double>(), 4.0);
    int h = 0, m = 0;
    ASSERT_EQ(sscanf(published["today_conntime"].c_str(), "%d:%d", &h, &m), 2);
    EXPECT_EQ(j["periods"]["today"]["connMinutes"], h * 60 + m);
    // Left of 50000 MB: the bytes, in units of 1024 with the low 10 bits cut.
    EXPECT_EQ(j["left"]["kind"], "volume");
    EXPECT_EQ(j["left"]["kib"], (50000000000ull - 123456785ull) >> 10);
    EXPECT_EQ(j["start"]["local"], "2026-03-01 00:00:00");
    EXPECT_EQ(j["current"]["local"], "2026-03-10 10:00:00");
    EXPECT_EQ(j["passedDays"], 9);
    EXPECT_EQ(j["periodDays"], 31);
    EXPECT_EQ(j["nextReset"]["local"], "2026-04-01 00:00:00");
    EXPECT_EQ(j["limit"], json::parse(R"({"enabled":true,"type":"download","unit":"MB","limit":50000.0,"warning":45000.0,
        "usedMB":123,"limitMB":50000,"usedMinutes":null,"limitHours":null})"));
    EXPECT_EQ(j["status"], json::parse(R"({"code":0,"text":"0","words":"no limit reached"})"));
    EXPECT_EQ(j["reset"], json::parse(R"({"day":1,"hour":0,"minute":0})"));

    // A connection-time limit: 24 hours with a mark 2 hours before it, on a PPP link.
    box.UpdateObject("1400", {{"wanType", "PPPoE"}});
    box.SetNetDev({{"ppp0.2", 0, 0}});
    ASSERT_EQ(box.Send(kLinkUpdate), 1);
    Settle(box, {{"volcontrl", "false"}, {"timecontrl", "true"}, {"conntime_monthly_limit", "24"}, {"mark", "2"},
                 {"day", "15"}, {"hour", "11"}, {"ampm_sel", "true"}, {"min", "30"}}, "2026-03-10 10:05:00");
    j = Json(box);
    published = box.ReadObject("2889").value();
    EXPECT_EQ(j["left"]["kind"], "time");
    EXPECT_EQ(j["left"]["text"], published["volume_left"]);
    EXPECT_EQ(j["limit"]["type"], "connection time");
    EXPECT_EQ(j["limit"]["unit"], "hours");
    EXPECT_EQ(j["limit"]["limit"], 24.0);
    EXPECT_EQ(j["limit"]["warning"], 22.0);
    EXPECT_EQ(j["limit"]["limitHours"], 24);
    EXPECT_EQ(j["reset"], json::parse(R"({"day":15,"hour":23,"minute":30})")) << "11 pm is 23";
    EXPECT_EQ(j["nextReset"]["local"], "2026-03-15 23:30:00") << "this month's reset is still to come";
    EXPECT_EQ(j["nextReset"]["epoch"], meter::T("2026-03-15 23:30:00"));
    ASSERT_EQ(sscanf(published["volume_left"].c_str(), "%d:%d", &h, &m), 2);
    EXPECT_EQ(j["left"]["minutes"], h * 60 + m);
    ASSERT_EQ(sscanf(published["connTimeUsed"].c_str(), "%d:%d", &h, &m), 2);
    EXPECT_EQ(j["limit"]["usedMinutes"], h * 60 + m);
}

TEST(TmctlStats, oneline_and_alert_follow_the_limit_state_the_daemon_reaches)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    box.UpdateObject("2888", kDownloadLimit);
    meter::Go(box, {{"eth0.1", 0, 0}});
    // Download of 1000 MB with a mark at 900 MB; what is left counts in units of 1024.
    const struct {
        uint64_t rx;
        const char *block, *clock;
        int alert;
        std::string line;
    } steps[] = {
        {123000000, "false", "2026-03-10 10:01:00", 0,
         "this month 123.00 MB of 1000 MB (12.3%) downloaded, 836.37 MiB left, no limit reached"},
        {950000000, "false", "2026-03-10 10:02:00", 10,
         "this month 950.00 MB of 1000 MB (95.0%) downloaded, 47.68 MiB left, warning"},
        {1000000001, "false", "2026-03-10 10:03:00", 11,
         "this month 1000.00 MB of 1000 MB (100.0%) downloaded, 0 KiB left, limit reached"},
        {1000000001, "true", "2026-03-10 10:04:00", 12,
         "this month 1000.00 MB of 1000 MB (100.0%) downloaded, 0 KiB left, limit reached, WAN down"},
    };
    for (const auto &s : steps) {
        Rx(box, s.rx);
        Settle(box, {{"block_on", s.block}}, s.clock);
        CommandResult r = Stats(box, {"--oneline", "--alert"});
        EXPECT_EQ(r.status, s.alert) << s.clock;
        EXPECT_EQ(r.out, s.line + "\n") << s.clock;
        EXPECT_EQ(Stats(box, {"--oneline"}).status, 0) << "without --alert the state is no failure";
    }
    // The table for people names the limit state's moment and the figures.
    CommandResult table = Stats(box, {});
    EXPECT_EQ(table.status, 0);
    for (std::string want : {"1000.00", "1000 MB", "900 MB", "since 2026-03-10 10:0"})
        EXPECT_NE(table.out.find(want), std::string::npos) << want << " in\n" << table.out;

    // A status the daemon never writes: shown as unknown, and a failure for --alert.
    box.UpdateObject("2888", {{"markStatus", "2"}});
    CommandResult unknown = Stats(box, {"--oneline"});
    EXPECT_EQ(unknown.status, 0);
    EXPECT_NE(unknown.out.find("unknown status '2'"), std::string::npos) << unknown.out;
    unknown = Stats(box, {"--alert"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(std::count(unknown.out.begin(), unknown.out.end(), '\n'), 1 + std::count(table.out.begin(), table.out.end(), '\n'))
        << "the table and one error line:\n" << unknown.out;
}

TEST(TmctlStats, stores_without_what_it_needs_and_bad_arguments_fail_with_one_line)
{
    const char *prefix = getenv("KVARD_PREFIX");
    ASSERT_TRUE(prefix) << "run through ctest";
    char tmpl[] = "/tmp/tmctl-stats-XXXXXX";
    ASSERT_TRUE(mkdtemp(tmpl));
    const std::string dir = tmpl, tmctl = std::string(prefix) + "/bin/tmctl";
    auto put = [&](const std::string &store, const std::string &name, const std::string &text) {
        mkdir((dir + "/" + store).c_str(), 0755);
        std::ofstream(dir + "/" + store + "/" + name) << text;
    };
    mkdir((dir + "/empty").c_str(), 0755);
    put("seeded", "2888", "markStatus=0\n");
    put("seeded", "2889", "");   // as the sandbox seeds it, before kvard publishes
    put("nosettings", "2889", "start_data_time=Sun Mar  1 00:00:00 2026\\n\ncurrent_data_time=Sun Mar  1 00:00:00 2026\\n\n");
    put("locked", "2888", "markStatus=0\n");
    const struct {
        std::string command;
        int status;
        std::string mentions;
    } cases[] = {
        {"KVARD_MDM_DIR=" + dir + "/missing " + tmctl + " stats", 1, dir + "/missing"},
        {"KVARD_MDM_DIR=" + dir + "/empty " + tmctl + " stats --json", 1, "2889"},
        {"KVARD_MDM_DIR=" + dir + "/seeded " + tmctl + " stats --oneline", 1, "published no statistics"},
        {"KVARD_MDM_DIR=" + dir + "/nosettings " + tmctl + " stats --alert", 1, "2888"},
        {"flock " + dir + "/locked/.lock env KVARD_MDM_LOCK_MAX_MS=50 KVARD_MDM_DIR=" + dir + "/locked " + tmctl +
             " stats",
         1, dir + "/locked/.lock"},
        {tmctl + " stats --json --oneline", 2, "--oneline"},
        {tmctl + " stats --frobnicate", 2, "--frobnicate"},
        {tmctl + " stats today", 2, "'today'"},
    };
    for (const auto &c : cases) {
        int raw = std::system((c.command + " >" + dir + "/out 2>" + dir + "/err").c_str());
        std::ifstream outFile(dir + "/out"), errFile(dir + "/err");
        std::string out(std::istreambuf_iterator<char>(outFile), {}), err(std::istreambuf_iterator<char>(errFile), {});
        EXPECT_EQ(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, c.status) << c.command;
        EXPECT_EQ(out, "") << c.command;
        EXPECT_EQ(err.rfind("tmctl: ", 0), 0u) << c.command << ": " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << c.command << ": " << err;
        EXPECT_NE(err.find(c.mentions), std::string::npos) << c.command << ": " << err;
    }
    int raw = std::system((tmctl + " stats --help >" + dir + "/out").c_str());
    std::ifstream help(dir + "/out");
    std::string text(std::istreambuf_iterator<char>(help), {});
    EXPECT_EQ(WEXITSTATUS(raw), 0);
    EXPECT_EQ(text.rfind("usage: tmctl stats", 0), 0u);
    std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
