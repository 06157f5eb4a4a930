// The limit and the warning with what they do to the WAN and the LED, settings
// changed while the daemon runs, and the manual reset on a hand-made flash image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <thread>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using Argv = std::vector<std::string>;
using Calls = std::vector<Argv>;
using Clock = std::chrono::steady_clock;
constexpr auto npos = std::string::npos;

int32_t Utc(const std::string &text)
{
    struct tm tm = {};
    strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm);
    return int32_t(timegm(&tm));
}
std::string Le32(int32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); }
std::string Asctime(const std::string &clock)  // the clock text as asctime prints it
{
    time_t t = Utc(clock);
    char text[32];
    return asctime_r(gmtime(&t), text);
}
std::string Field(const Sandbox &box, const std::string &field, const char *object = "2889")
{
    auto o = box.ReadObject(object);
    return o && o->count(field) ? o->at(field) : "<absent>";
}
std::string Status(const Sandbox &box) { return Field(box, "markStatus", "2888"); }
std::string File(const Sandbox &box, const char *path) { return box.ReadFile(path).value_or("<absent>"); }
void Rx(Sandbox &box, uint64_t rx, uint64_t tx = 0) { box.SetNetDev({{"eth0.1", rx, tx}}); }

// CODE at CLOCK; anything but REPLY fails the test.
void At(Sandbox &box, const std::string &clock, uint16_t code = kTimeWake, int reply = 1)
{
    box.SetTime(clock);
    if (box.Send(code, {}, milliseconds(10000)) != reply) throw std::runtime_error("unexpected reply at " + clock);
}
// New settings, then a wake at the clock of the early wake that they bring.
void Settle(Sandbox &box, const std::string &clock, const StoreObject &fields)
{
    box.UpdateObject("2888", fields);
    At(box, clock, kConfigUpdate);
    At(box, clock);
}
void Start(Sandbox &box, const StoreObject &settings, const std::vector<std::string> &env = {})
{
    box.UpdateObject("2888", settings);
    box.SetNetDev({{"eth0.1", 0, 0}, {"ppp0.2", 0, 0}});
    box.Start(env);
    if (!box.WaitReady()) throw std::runtime_error("the daemon did not come up");
}

// What runs in the background shows a little after the daemon went on.
bool Eventually(const std::function<bool()> &done)
{
    for (auto until = Clock::now() + milliseconds(5000); !done(); std::this_thread::sleep_for(milliseconds(5)))
        if (Clock::now() > until) return false;
    return true;
}
// The redirecting dnsmasq (its pid file is written before the daemon goes on) ended, seen in the box's procfs.
bool RedirectEnds(const Sandbox &box, const std::string &pidFile)
{
    std::string pid = pidFile.substr(0, pidFile.find('\n'));
    if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) return false;
    std::string path = "/proc/" + std::to_string(box.ProgramPid()) + "/root/.proc/" + pid + "/stat";
    return Eventually([&] {
        char state = 'Z';
        if (FILE *f = fopen(path.c_str(), "r"))
            state = fscanf(f, "%*d %*s %c", &state) == 1 && !fclose(f) ? state : 'Z';
        return state == 'Z';
    });
}
bool LedStarts(const Sandbox &box, size_t n)
{
    return Eventually([&] { return box.StubCalls("tmledflashd") == Calls(n, {"tmledflashd"}); });
}
Argv Logger(const std::string &text)
{
    Argv argv = {"logger", "-p", "local5.warn", "-t", "t Router operation"};
    std::istringstream words(text);
    for (std::string w; words >> w;) argv.push_back(w);
    return argv;
}
Argv Warn(const std::string &n, const char *unit = "MBytes")
{
    return Logger("[RouterOp][Traffic Meter]The counter is " + n + " " + unit +
                  " before the monthly limit is reached,");
}
Argv Limit(const std::string &n, const char *unit = "MBytes")
{
    return Logger("[RouterOp][Traffic Meter] The monthly limit " + n + " " + unit + " has been reached,");
}
const Argv kRedirect = {"dnsmasq", "-C", "/etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf", "-p", "38053",
                        "-x", "/var/dnsmasq_tmRedirecHttpHttps.pid"};
const char *kRedirectPid = "var/dnsmasq_tmRedirecHttpHttps.pid", *kLedPid = "tmp/tmledflash.pid";

TEST(Limit, a_period_runs_from_the_warning_mark_to_a_disconnect_and_back_in_local_time)
{
    SandboxOptions berlin;  // UTC+1: the period began at 23:00 UTC on 31 December
    berlin.zone = "Europe/Berlin";
    Sandbox box(berlin);
    Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    struct Row { const char *clock; uint64_t rx; StoreObject settings; const char *status, *warnFile, *limitFlags;
                 Calls lines; const char *warned, *limited; } rows[] = {  // "": no limit file, no time yet
        {"10:00:05", 8000000, {}, "0", "<absent>", "", {}, "", ""},  // at the mark
        {"10:00:10", 8000001, {}, "1", "001", "w", {Warn("2")}, "10:00:10", ""},
        {"10:00:15", 10000000, {}, "1", "001", "w", {}, "10:00:10", ""},  // at the limit
        {"10:00:20", 10000001, {}, "3", "011", "lw", {Limit("10")}, "10:00:10", "10:00:20"},  // the limit line alone
        {"10:00:25", 10000001, {{"mark", "0"}}, "3", "010", "l", {Limit("10")}, "10:00:10", "10:00:25"},
        {"10:00:30", 10000001, {{"block_on", "true"}, {"led_on", "true"}}, "4", "110", "ld", {Limit("10")}, "10:00:10",
         "10:00:30"}};
    Calls lines;
    std::string notice;
    for (const Row &r : rows) {
        std::string clock = std::string("2024-01-15 ") + r.clock;
        SCOPED_TRACE(clock);
        Rx(box, r.rx);
        Settle(box, clock, r.settings);
        notice = r.lines.empty() ? notice : clock;
        EXPECT_EQ(Status(box) + " " + File(box, "tmp/tmwarn.data"), std::string(r.status) + " " + r.warnFile);
        std::string limitFile = std::string(r.limitFlags) + "\n" + std::to_string(Utc(notice) - 3600) + "\n" +
                                std::to_string(Utc(notice) - Utc("2024-01-01 00:00:00")) + "\n";
        EXPECT_EQ(File(box, "tmp/tmlimit.data"), *r.limitFlags ? limitFile : "<absent>");
        lines.insert(lines.end(), r.lines.begin(), r.lines.end());
        EXPECT_EQ(box.StubCalls("logger"), lines);
        for (auto [field, time] : {std::pair{"warningTime", r.warned}, {"limitedTime", r.limited}})
            EXPECT_EQ(Field(box, field), *time ? Asctime(std::string("2024-01-15 ") + time) : "<absent>");
    }
    ASSERT_TRUE(LedStarts(box, 1));
    Argv order;  // the WAN goes down before the LED starts
    for (const Argv &call : box.StubCalls()) order.push_back(call[0] == "logger" ? "" : call[0]);
    EXPECT_EQ(order, (Argv{"", "", "", "ifconfig", "dnsmasq", "tmledflashd", ""}));
    std::string redirect = File(box, kRedirectPid);

    // A raised limit undoes it all in one wake, which stands still 3 s for the port.
    auto before = Clock::now();
    Settle(box, "2024-01-15 10:00:40", {{"volume_monthly_limit", "20"}});
    EXPECT_GE(Clock::now() - before, milliseconds(2900));
    EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data") + File(box, "tmp/tmlimit.data") + File(box, kLedPid),
              "0000<absent><absent>");
    EXPECT_TRUE(RedirectEnds(box, redirect));
    EXPECT_EQ(box.StubCalls("logger"), lines) << "no line for the end of a limit";
    EXPECT_EQ(box.StubCalls("ifconfig"), (Calls{{"ifconfig", "eth0.1", "down"}, {"ifconfig", "eth0", "down"},
                                                {"ifconfig", "eth0", "up"}}));
    EXPECT_EQ(box.StubCalls("dnsmasq"), Calls{kRedirect});
}

TEST(Limit, the_limit_type_decides_what_counts_and_a_limit_of_0_still_holds)
{
    Sandbox box;
    Start(box, {});
    struct Row { const char *type, *limit, *mark; uint64_t tx, rx; const char *status; Calls lines; } rows[] = {
        {"Download only", "0", "0", 0, 0, "0", {}}, {"Download only", "0", "0", 0, 1, "3", {Limit("0")}},
        {"Download only", "10", "0", 50000000, 10000000, "0", {}},  // what was sent does not count
        {"Both directions", "60", "0", 50000000, 10000000, "0", {}},
        {"Both directions", "60", "0", 50000000, 10000001, "3", {Limit("60")}},
        {"", "60", "0", 50000000, 10000001, "3", {}},  // counts both directions as well
        {"Both directions", "70", "10", 50000000, 10000001, "1", {Warn("10")}},
        {"Download only", "20", "0", 50000000, 10000001, "0", {}}};  // a mark of 0 never warns
    for (const Row &r : rows) {
        std::string clock = "2024-01-15 10:00:" + std::to_string(10 + (&r - rows));
        Rx(box, r.rx, r.tx);
        Settle(box, clock, {{"contrl_type", r.type}, {"volume_monthly_limit", r.limit}, {"mark", r.mark}});
        EXPECT_EQ(Status(box), r.status) << clock;
        EXPECT_EQ(box.StubCalls("logger"), r.lines) << clock;
        box.ClearStubLog();
    }
}

TEST(Limit, the_supplement_of_a_short_ppp_session_counts_at_once_only_for_download_only)
{
    for (auto [type, afterLoss] : {std::pair{"Download only", "3"}, {"Both directions", "0"}}) {
        SCOPED_TRACE(type);  // 1000 bytes of a 5 MB minimum, then the link is lost
        Sandbox box;
        box.UpdateObject("1400", {{"wanType", "PPPoE"}});
        Start(box, {{"contrl_type", type}, {"volume_monthly_limit", "4"}, {"round_up_volume", "5000000"}});
        for (auto [clock, status] : std::vector<std::pair<const char *, const char *>>{
                 {"10:00:10", "0"}, {"10:00:20", afterLoss}, {"10:01:00", afterLoss}, {"10:01:10", "3"}}) {
            std::string sim(28, '\0');  // simulated clock and counters: now, 4 reserved, tx, rx, quiet
            int32_t now = Utc(std::string("2024-01-15 ") + clock), quiet = 1;
            uint64_t rx = 1000;
            memcpy(&sim[0], &now, 4);
            memcpy(&sim[16], &rx, 8);
            memcpy(&sim[24], &quiet, 4);
            ASSERT_EQ(box.Send(7254, sim), 1);
            ASSERT_EQ(box.Send(5640), 3000000);
            EXPECT_EQ(Status(box), status) << clock;
            box.UpdateObject("1400", {{"wanType", "none"}});
        }
        EXPECT_EQ(box.StubCalls("logger"), Calls{Limit("4")});
    }
}

TEST(Limit, a_connection_time_limit_counts_only_while_the_wan_is_ppp)
{
    for (bool ppp : {true, false}) {
        SandboxOptions options;
        options.time = "2024-01-15 08:00:00";
        Sandbox box(options);
        box.UpdateObject("1400", {{"wanType", ppp ? "PPPoE" : "DHCP"}});
        Start(box, {{"volcontrl", "false"}, {"timecontrl", "true"}, {"conntime_monthly_limit", "2"}, {"mark", "1"}});
        for (auto [clock, status] : std::vector<std::pair<const char *, const char *>>{
                 {"09:00:00", "0"}, {"09:00:01", "1"}, {"10:00:00", "1"}, {"10:00:01", "3"}, {"10:01:00", "3"},
                 {"10:01:00", "0"},  // the same second as the minute's close: no time to measure
                 {"10:01:01", "3"}}) {
            At(box, std::string("2024-01-15 ") + clock);
            EXPECT_EQ(Status(box), ppp ? status : "0") << clock;
        }
        box.UpdateObject("1400", {{"wanType", "DHCP"}});
        At(box, "2024-01-15 10:01:02");
        EXPECT_EQ(Status(box), "0");
        Calls lines = {Warn("1", "hours"), Limit("2", "hours"), Limit("2", "hours")};
        EXPECT_EQ(box.StubCalls("logger"), ppp ? lines : Calls{});
    }
}

TEST(Limit, switching_off_the_limit_type_or_the_meter_or_a_restart_undoes_the_reactions)
{
    Sandbox box;
    Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"led_on", "true"},
                {"block_on", "true"}});
    Rx(box, 2000000);
    At(box, "2024-01-15 10:00:05");
    ASSERT_EQ(Status(box), "4");
    struct Row { StoreObject off, on; bool ledGone; } rows[] = {  // LED GONE: its daemon went away before the stop
        {{{"contrl_type", "No limit"}}, {{"contrl_type", "Download only"}}, false},
        {{{"traffic_on", "false"}}, {{"traffic_on", "true"}}, true}};
    for (const Row &r : rows) {
        std::string redirect = File(box, kRedirectPid), clock = "2024-01-15 10:00:1";
        if (r.ledGone) box.RemoveFile(kLedPid);
        Settle(box, clock + std::to_string(&r - rows), r.off);
        EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data") + File(box, "tmp/tmlimit.data") + File(box, kLedPid),
                  "0000<absent><absent>");
        EXPECT_TRUE(RedirectEnds(box, redirect));
        Settle(box, clock + std::to_string(&r - rows + 5), r.on);
        EXPECT_EQ(Status(box), "4");
        EXPECT_TRUE(LedStarts(box, &r - rows + 2)) << "the LED starts anew";
    }
    EXPECT_EQ(box.StubCalls("ifconfig").size(), 7u);
    EXPECT_EQ(box.StubCalls("logger"), Calls(3, Limit("1")));

    // Restarted above the limit: all clear, and nothing before the clock is
    // synchronised, when a moved reset moment is refused yet holds.
    At(box, "2024-01-15 10:01:00");  // the minute goes to flash
    box.Stop();
    box.ClearStubLog();
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    Start(box, {{"day", "2"}});
    EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data") + File(box, "tmp/tmlimit.data"), "0000<absent>");
    At(box, "2024-01-15 10:01:30", kConfigUpdate, 1);
    box.UpdateObject("2888", {{"day", "3"}});
    At(box, "2024-01-15 10:01:35", kConfigUpdate, 0);
    At(box, "2024-01-15 10:01:35");
    EXPECT_EQ(Status(box), "0");
    box.UpdateObject("1045", {{"status", "Synchronized"}});
    At(box, "2024-01-15 10:01:40");
    EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data"), "4110");
    EXPECT_EQ(Field(box, "start_data_time"), "Wed Jan  3 00:00:00 2024\n");
    EXPECT_EQ(box.StubCalls("dnsmasq"), Calls{kRedirect});
    EXPECT_TRUE(LedStarts(box, 1));
}

TEST(Action, the_wan_port_is_the_first_line_of_wanports_cut_to_six_with_the_suffix_of_the_connection)
{
    struct Row { const char *wan, *interface; std::optional<std::string> ports; const char *downed; } rows[] = {
        {"PPPoE", "ppp0.2", "vlan9\nignored\n", "vlan9.2"}, {"PPTP", "ppp0", "eth0123456789\n", "eth012.1"},
        {"L2TP", "ppp0", "eth0", "eth.1"},  // the last character read goes, line end or not
        {"Static", "eth0.1", "", ""}, {"DHCP", "eth0.1", std::nullopt, ""}};  // "": no port, no ifconfig
    for (const Row &r : rows) {
        SCOPED_TRACE(r.wan);
        Sandbox box;
        box.UpdateObject("1400", {{"wanType", r.wan}});
        r.ports ? box.WriteFile("tmp/WanPorts", *r.ports) : box.RemoveFile("tmp/WanPorts");
        Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"block_on", "true"}});
        box.SetNetDev({{r.interface, 2000000, 0}});
        At(box, "2024-01-15 10:00:10");
        EXPECT_EQ(Status(box), "4");
        EXPECT_EQ(box.StubCalls("ifconfig"), Calls(*r.downed ? 1 : 0, {"ifconfig", r.downed, "down"}));
        EXPECT_EQ(box.StubCalls("dnsmasq"), Calls{kRedirect});
        if (*r.downed) continue;
        std::string redirect = File(box, kRedirectPid);
        Settle(box, "2024-01-15 10:00:20", {{"volume_monthly_limit", "5"}});
        EXPECT_TRUE(RedirectEnds(box, redirect) && box.StubCalls("ifconfig").empty());
    }
}

TEST(Config, an_update_publishes_before_its_reply_and_the_wake_10_ms_later_measures_the_new_limit)
{
    Sandbox box;
    Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}});
    Rx(box, 5000000);
    At(box, "2024-01-15 10:01:00");
    ASSERT_EQ(box.Send(4436, std::string("\x3e\x14\x00\x00\x00", 5)), 1);  // debug output on
    const std::string early = "KVARD select wait for sec=0 usec=10000\nKVARD select retval=0\nTmHandleTimeWake ";
    for (const char *limit : {"10", "4"}) {  // a save with nothing changed, then a limit below the 5 MB used
        box.UpdateObject("2888", {{"volume_monthly_limit", limit}});
        box.UpdateObject("2889", {{"thismonth_download", "stale"}});
        size_t from = box.Stdout().size();
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        EXPECT_EQ(Field(box, "thismonth_download"), "5.00");
        std::string out;
        Eventually([&] { return (out = box.Stdout().substr(from)).find("sec=3 usec=0\n", out.find(early)) != npos; });
        size_t at = out.find(early);
        size_t react = out.find("KVARD: Update Limit Warning (l:1 w:0 d:0");
        EXPECT_EQ(react != npos && react > at && react < out.find("sec=3 usec=0\n"), *limit == '4') << out;
    }
    EXPECT_EQ(Status(box), "3");
    box.RemoveFile("var/lib/kvard/mdm/2888");
    At(box, "2024-01-15 10:01:10", kConfigUpdate, 0);
    EXPECT_TRUE(box.WaitStdout("Read Config  fail\n"));
}

TEST(Config, a_moved_reset_moment_recounts_the_periods_from_the_lists_and_ends_a_manual_reset)
{
    // Sunday 14th: 1 MB in the morning's last minute. Monday 15th: 1 MB at
    // 04:00, 2 MB at 08:00 in the running half-day.
    SandboxOptions options;
    options.time = "2024-01-14 11:59:00";
    Sandbox box(options);
    Start(box, {});
    for (auto [clock, rx] : std::vector<std::pair<const char *, uint64_t>>{
             {"14 12:00", 1}, {"14 23:59", 1}, {"15 00:00", 1}, {"15 04:00", 1}, {"15 04:01", 2}, {"15 08:00", 2},
             {"15 08:01", 4}}) {
        Rx(box, rx * 1000000);
        At(box, std::string("2024-01-") + clock + ":00");
    }
    struct Row { StoreObject moment; const char *start, *figures; } rows[] = {  // month, last, today, yesterday, week
        {{{"day", "14"}, {"hour", "6"}}, "Sun Jan 14 06:00:00 2024\n", "3.50 0.50 3.00 0.50 3.50 "},  // half by time
        {{{"day", "15"}}, "Mon Jan 15 06:00:00 2024\n", "2.00 2.00 2.00 0.00 2.00 "},  // a tail of the running one
        {{{"day", "14"}, {"hour", "0"}, {"ampm_sel", "true"}}, "Sun Jan 14 12:00:00 2024\n",
         "3.00 1.00 3.00 0.00 3.00 "},
        {{{"day", "1"}, {"ampm_sel", "false"}}, "Mon Jan  1 00:00:00 2024\n", "4.00 0.00 3.00 1.00 4.00 "}};
    for (const Row &r : rows) {
        box.UpdateObject("2888", r.moment);
        At(box, "2024-01-15 08:01:30", kConfigUpdate);
        std::string figures;
        for (const char *f : {"thismonth", "lastmonth", "today", "yesterday", "thisweek"})
            figures += Field(box, std::string(f) + "_download") + " ";
        EXPECT_EQ(Field(box, "start_data_time") + figures, r.start + std::string(r.figures));
    }
    for (auto [change, kept] : {std::pair{"volume_monthly_limit", true}, {"min", false}}) {  // only the moment ends it
        At(box, "2024-01-15 08:01:40", kResetCounter);
        box.UpdateObject("2888", {{change, "1"}});
        At(box, "2024-01-15 08:01:40", kConfigUpdate);
        EXPECT_EQ(File(box, "data/tmrestarttime.data"), Le32(kept ? Utc("2024-01-15 08:01:40") : 0)) << change;
        EXPECT_EQ(Field(box, "start_data_time"), kept ? "Mon Jan 15 08:01:40 2024\n" : "Mon Jan  1 00:01:00 2024\n");
    }
}

// The default partition: 2 KiB pages, 64 to a block; the half-day ring starts at page 2304.
constexpr uint32_t kPage = meter::kPageSize, kHDay = meter::kHDayStart;
using Rec = meter::Record;
using Pages = std::vector<std::pair<uint32_t, Rec>>;
std::string Image(const Pages &pages)
{
    meter::Image image;
    for (const auto &[page, r] : pages) image.Put(page, r);
    return image.bytes;
}
std::vector<uint32_t> PagesOtherThan(const Sandbox &box, const Pages &expected)
{
    std::string image = box.ReadFile("sandbox/mtd.img").value_or(""), want = Image(expected);
    std::vector<uint32_t> pages;
    for (uint32_t p = 0; p * kPage < want.size(); p++)
        if (image.size() != want.size() || image.compare(p * kPage, kPage, want, p * kPage, kPage)) pages.push_back(p);
    return pages;
}
std::string Rewrite(const std::vector<uint32_t> &pages)  // the NAND log of rewriting a block's first PAGES
{
    std::string log = "erase " + std::to_string(pages[0] * kPage) + " 131072 ok\n";
    for (uint32_t p : pages) log += "program " + std::to_string(p * kPage) + " 2048 ok\n";
    return log;
}

const int32_t L = Utc("2024-01-01 00:00:00"), D = Utc("2024-01-15 00:00:00");  // the period's start, today
// Block 0 ends in the period's one record, block 1 is of an earlier period, block 2 zeroed, block 3 the
// period's around a blank page; half-days start a second before the period and at its very start.
const Pages kBefore = {
    {0, {L - 3600, L - 3540, 1, 10000000, 0}}, {2, {L - 3540, L - 3480, 2, 20000000, 0}},
    {3, {D + 32400, D + 32460, 3, 500000, 0}}, {64, {L - 7200, L - 7140, 0, 5000000, 0}},
    {128, {D + 28800, D + 28860, 0, 0, 0}},    {192, {D + 34200, D + 34260, 7, 700000, 0}},
    {194, {D + 34260, D + 34320, 8, 800000, 0}}, {kHDay, {L - 43200, L, 10, 1000000, 0}},
    {kHDay + 1, {L - 1, L + 43199, 20, 2000000, 0}}, {kHDay + 2, {L, L + 43200, 30, 3000000, 0}},
    {kHDay + 3, {D - 43200, D, 40, 4000000, 0}}, {kHDay + 4, {L + 86400, L + 129600, 0, 0, 0}}};
Pages After(std::vector<uint32_t> zeroed)  // and page 1, blank before a changed one, an all-zero record
{
    Pages after = kBefore;
    for (auto &[page, r] : after)
        if (std::count(zeroed.begin(), zeroed.end(), page)) r = {r.tStart, r.tEnd, 0, 0, 0};
    after.push_back({1, {}});
    return after;
}
const char *kNandLog = "MTDSIM_LOG=/.sandbox/nand.log";

TEST(Reset, a_reset_zeroes_the_records_of_the_period_and_rewrites_only_their_blocks)
{
    Sandbox box;
    box.WriteFile("sandbox/mtd.img", Image(kBefore));
    Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "5"}}, {kNandLog});
    At(box, "2024-01-15 10:00:10");
    ASSERT_EQ(Status(box), "3") << "the month on flash is over 5 MB";
    Rx(box, 3000000);  // pending in the running minute: gone with the reset
    At(box, "2024-01-15 10:00:20", kResetCounter);
    std::string log = Rewrite({0, 1, 2, 3}) + Rewrite({192, 194}) + Rewrite({kHDay, kHDay + 1, kHDay + 2, kHDay + 3,
                                                                             kHDay + 4});
    EXPECT_EQ(File(box, "sandbox/nand.log"), log);
    Pages after = After({3, 192, 194, kHDay + 2, kHDay + 3});  // the period's records, 1 s early is not
    EXPECT_EQ(PagesOtherThan(box, after), std::vector<uint32_t>{});
    EXPECT_EQ(Field(box, "thismonth_download") + Field(box, "lastmonth_download"), "0.001.00");
    EXPECT_EQ(Field(box, "start_data_time"), "Mon Jan 15 10:00:20 2024\n");
    At(box, "2024-01-15 10:00:30");
    EXPECT_EQ(Status(box), "0");
    At(box, "2024-01-15 10:00:40", kResetCounter);
    EXPECT_EQ(File(box, "sandbox/nand.log"), log) << "zeroed records do not count as changed";

    Rx(box, 4000000);  // a new minute on page 195; only its block is rewritten
    At(box, "2024-01-15 10:01:00");
    log = File(box, "sandbox/nand.log");
    At(box, "2024-01-15 10:01:10", kResetCounter);
    EXPECT_EQ(File(box, "sandbox/nand.log").substr(log.size()), Rewrite({192, 193, 194, 195}));
    after.insert(after.end(), {{193, {}}, {195, {D + 36000, D + 36060, 0, 0, 0}}});
    EXPECT_EQ(PagesOtherThan(box, after), std::vector<uint32_t>{});
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:01:10")));
}

TEST(Reset, a_failing_page_gives_0_with_the_rest_done_and_before_synchronisation_flash_is_left_alone)
{
    for (bool synchronised : {true, false}) {
        Sandbox box;
        box.WriteFile("sandbox/mtd.img", Image(kBefore));
        if (!synchronised) box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        Start(box, {}, {kNandLog, "MTDSIM_FAIL_AFTER=0"});  // block 0's erase fails
        At(box, "2024-01-15 10:00:20", kResetCounter, synchronised ? 0 : 1);
        EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:00:20")));
        if (!synchronised) {  // no period to go by: earlier periods keep their figures
            EXPECT_FALSE(box.ReadFile("sandbox/nand.log"));
            EXPECT_EQ(PagesOtherThan(box, kBefore), std::vector<uint32_t>{});
            continue;
        }
        EXPECT_TRUE(box.WaitStdout("TmWriteFlash fail at 0(0). Write returns error!\n"));
        EXPECT_EQ(PagesOtherThan(box, After({192, 194, kHDay + 2, kHDay + 3})), std::vector<uint32_t>{});
        EXPECT_EQ(Field(box, "thismonth_download"), "0.50") << "the record that kept its figures counts";
    }
}

}  // namespace
