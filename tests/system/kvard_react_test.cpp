// Limits with their WAN and LED reactions, settings changed at run time, the manual reset on a made-up flash image.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <thread>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using Argv = std::vector<std::string>;
using Calls = std::vector<Argv>;
using Clock = std::chrono::steady_clock;

std::string Le32(int32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); }
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
void Settle(Sandbox &box, const std::string &clock, const StoreObject &fields, int reply = 1)
{
    box.UpdateObject("2888", fields);
    At(box, clock, kConfigUpdate, reply);
    At(box, clock);
}
void Start(Sandbox &box, const StoreObject &settings, const char *wan = "DHCP", const Argv &env = {})
{
    box.UpdateObject("1400", {{"wanType", wan}});
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
    int pid = atoi(pidFile.c_str());
    std::string path = "/proc/" + std::to_string(box.ProgramPid()) + "/root/.proc/" + std::to_string(pid) + "/stat";
    return pid > 0 && Eventually([&] {
        char state = 'Z';
        if (FILE *f = fopen(path.c_str(), "r"))
            state = fscanf(f, "%*d %*s %c", &state) == 1 && !fclose(f) ? state : 'Z';
        return state == 'Z';
    });
}
bool LedStarts(const Sandbox &box) { return Eventually([&] { return box.StubCalls("tmledflashd").size() == 1; }); }
Argv Logger(const std::string &text)
{
    Argv argv = {"logger", "-p", "local5.warn", "-t", "t Router operation"};
    std::istringstream words(text);
    for (std::string w; words >> w;) argv.push_back(w);
    return argv;
}
Argv Warn(const std::string &left)
{
    return Logger("[RouterOp][Traffic Meter]The counter is " + left + " before the monthly limit is reached,");
}
Argv Limit(const std::string &limit)
{
    return Logger("[RouterOp][Traffic Meter] The monthly limit " + limit + " has been reached,");
}
const Argv kRedirect = {"dnsmasq", "-C", "/etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf", "-p", "38053",
                        "-x", "/var/dnsmasq_tmRedirecHttpHttps.pid"};
const char *kRedirectPid = "var/dnsmasq_tmRedirecHttpHttps.pid", *kLedPid = "tmp/tmledflash.pid";

TEST(Limit, a_period_runs_from_the_warning_mark_to_a_disconnect_each_way_out_undoes_it_and_a_restart_redoes_it)
{
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    struct Row { const char *clock; uint64_t rx; StoreObject settings; const char *statusAndWarnFile, *limitFlags;
                 Calls lines; const char *warned, *limited; } rows[] = {  // "": no limit file, no time yet
        {"10:00:05", 8000000, {}, "0 <absent>", "", {}, "", ""},  // at the mark
        {"10:00:10", 8000001, {}, "1 001", "w", {Warn("2 MBytes")}, "10:00:10", ""},
        {"10:00:15", 10000000, {}, "1 001", "w", {}, "10:00:10", ""},  // at the limit
        {"10:00:20", 10000001, {}, "3 011", "lw", {Limit("10 MBytes")}, "10:00:10", "10:00:20"},  // no warning line
        {"10:00:25", 10000001, {{"mark", "0"}}, "3 010", "l", {Limit("10 MBytes")}, "10:00:10", "10:00:25"},
        {"10:00:30", 10000001, {{"block_on", "true"}, {"led_on", "true"}}, "4 110", "ld", {Limit("10 MBytes")},
         "10:00:10", "10:00:30"}};
    for (const Row &r : rows) {
        std::string clock = std::string("2024-01-15 ") + r.clock;
        SCOPED_TRACE(clock);
        Rx(box, r.rx);
        box.ClearStubLog();
        Settle(box, clock, r.settings);
        std::string notice = "2024-01-15 " + std::max<std::string>(r.warned, r.limited);  // the last line's
        EXPECT_EQ(Status(box) + " " + File(box, "tmp/tmwarn.data"), r.statusAndWarnFile);
        EXPECT_EQ(File(box, "tmp/tmlimit.data"),  // the flags, the clock of the last line, its seconds into the period
                  *r.limitFlags ? r.limitFlags + ("\n" + std::to_string(meter::T(notice))) + "\n" +
                                      std::to_string(meter::T(notice) - meter::T("2024-01-01 00:00:00")) + "\n"
                                : "<absent>");
        EXPECT_EQ(box.StubCalls("logger"), r.lines);
        for (auto [field, time] : {std::pair{"warningTime", r.warned}, {"limitedTime", r.limited}})
            EXPECT_EQ(Field(box, field), *time ? "Mon Jan 15 " + std::string(time) + " 2024\n" : "<absent>");
    }
    ASSERT_TRUE(LedStarts(box));

    // Each way out undoes it all in one wake, which stands still 3 s for the port, and the way back redoes it.
    struct Way { StoreObject off, on; bool ledGone; } ways[] = {  // LED GONE: its daemon went away before the stop
        {{{"volume_monthly_limit", "20"}}, {{"volume_monthly_limit", "10"}}, false},
        {{{"contrl_type", "No limit"}}, {{"contrl_type", "Download only"}}, false},
        {{{"traffic_on", "false"}}, {{"traffic_on", "true"}}, true}};
    for (const Way &w : ways) {
        SCOPED_TRACE(w.off.begin()->first);
        std::string redirect = File(box, kRedirectPid), clock = "2024-01-15 10:01:" + std::to_string(1 + (&w - ways));
        box.ClearStubLog();
        if (w.ledGone) box.RemoveFile(kLedPid);
        auto before = Clock::now();
        Settle(box, clock + "0", w.off);
        EXPECT_GE(Clock::now() - before, milliseconds(2900));
        EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data") + File(box, "tmp/tmlimit.data") + File(box, kLedPid),
                  "0000<absent><absent>");
        EXPECT_TRUE(RedirectEnds(box, redirect));
        Settle(box, clock + "5", w.on);
        EXPECT_TRUE(LedStarts(box));  // after the WAN went down, in the background: a syslog line may come first
        Calls got = box.StubCalls();
        std::stable_partition(got.begin(), got.end(), [](const Argv &call) { return call[0] != "logger"; });
        EXPECT_EQ(got, (Calls{{"ifconfig", "eth0", "down"}, {"ifconfig", "eth0", "up"}, {"ifconfig", "eth0.1", "down"},
                              kRedirect, {"tmledflashd"}, Limit("10 MBytes")})) << "no line for the end of a limit";
    }

    // Restarted above the limit: nothing until the clock is synchronised; a moved reset moment is refused yet holds.
    box.Stop();  // with the minute of 10:00 on flash
    box.ClearStubLog();
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    Start(box, {{"day", "2"}});
    EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data") + File(box, "tmp/tmlimit.data"), "0000<absent>");
    Settle(box, "2024-01-15 10:02:30", {});
    Settle(box, "2024-01-15 10:02:35", {{"day", "3"}}, 0);
    EXPECT_EQ(Status(box), "0");
    box.UpdateObject("1045", {{"status", "Synchronized"}});
    At(box, "2024-01-15 10:02:40");
    EXPECT_EQ(Status(box) + File(box, "tmp/tmwarn.data"), "4110");
    EXPECT_EQ(Field(box, "start_data_time"), "Wed Jan  3 00:00:00 2024\n");
    EXPECT_EQ(box.StubCalls("dnsmasq"), Calls{kRedirect});
    EXPECT_TRUE(LedStarts(box));
}

TEST(Limit, the_limit_type_decides_what_counts_and_a_limit_of_0_still_holds)
{
    Sandbox box;
    Start(box, {});
    struct Row { const char *type, *limit, *mark; uint64_t tx, rx; const char *status; Calls lines; } rows[] = {
        {"Download only", "0", "0", 0, 0, "0", {}}, {"Download only", "0", "0", 0, 1, "3", {Limit("0 MBytes")}},
        {"Download only", "10", "0", 50000000, 10000000, "0", {}},  // what was sent does not count
        {"Both directions", "60", "0", 50000000, 10000001, "3", {Limit("60 MBytes")}},
        {"Both directions", "70", "10", 50000000, 10000001, "1", {Warn("10 MBytes")}}};
    for (const Row &r : rows) {
        std::string clock = "2024-01-15 10:00:" + std::to_string(10 + (&r - rows));
        Rx(box, r.rx, r.tx);
        Settle(box, clock, {{"contrl_type", r.type}, {"volume_monthly_limit", r.limit}, {"mark", r.mark}});
        EXPECT_EQ(std::pair(Status(box), box.StubCalls("logger")), std::pair(std::string(r.status), r.lines)) << clock;
        box.ClearStubLog();
    }
}

TEST(Limit, the_supplement_of_a_short_ppp_session_counts_at_once_only_for_download_only)
{
    for (auto [type, afterLoss] : {std::pair{"Download only", "3"}, {"Both directions", "0"}}) {
        SCOPED_TRACE(type);  // 1000 bytes of a 5 MB minimum, then the link is lost
        Sandbox box(meter::At("2024-01-15 10:00:00"));
        Start(box, {{"contrl_type", type}, {"volume_monthly_limit", "4"}, {"round_up_volume", "5000000"}}, "PPPoE");
        for (auto [clock, status] : std::vector<std::pair<const char *, const char *>>{
                 {"10:00:10", "0"}, {"10:00:20", afterLoss}, {"10:01:00", afterLoss}, {"10:01:10", "3"}}) {
            meter::SimInput(box, meter::T(std::string("2024-01-15 ") + clock), 0, 1000);
            ASSERT_EQ(box.Send(meter::kSimWake), 3000000);
            EXPECT_EQ(Status(box), status) << clock;
            box.UpdateObject("1400", {{"wanType", "none"}});
        }
        EXPECT_EQ(box.StubCalls("logger"), Calls{Limit("4 MBytes")});
    }
}

TEST(Limit, a_connection_time_limit_counts_only_while_the_wan_is_ppp)
{
    Sandbox box(meter::At("2024-01-15 08:00:00"));
    Start(box, {{"volcontrl", "false"}, {"timecontrl", "true"}, {"conntime_monthly_limit", "2"}, {"mark", "1"}},
          "PPPoE");
    for (auto [clock, status] : std::vector<std::pair<const char *, const char *>>{
             {"09:00:00", "0"}, {"09:00:01", "1"}, {"10:00:00", "1"}, {"10:00:01", "3"}, {"10:01:00", "3"},
             {"10:01:00", "0"},  // the same second as the minute's close: no time to measure
             {"10:01:01", "3"}}) {
        At(box, std::string("2024-01-15 ") + clock);
        EXPECT_EQ(Status(box), status) << clock;
    }
    box.UpdateObject("1400", {{"wanType", "DHCP"}});  // with the time still above the limit
    At(box, "2024-01-15 10:01:02");
    EXPECT_EQ(Status(box), "0");
    EXPECT_EQ(box.StubCalls("logger"), (Calls{Warn("1 hours"), Limit("2 hours"), Limit("2 hours")}));
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
        r.ports ? box.WriteFile("tmp/WanPorts", *r.ports) : box.RemoveFile("tmp/WanPorts");
        Start(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "1"}, {"block_on", "true"}}, r.wan);
        box.SetNetDev({{r.interface, 2000000, 0}});
        At(box, "2024-01-15 10:00:10");
        EXPECT_EQ(box.StubCalls("ifconfig"), Calls(*r.downed ? 1 : 0, {"ifconfig", r.downed, "down"}));
        if (*r.downed) continue;
        std::string redirect = File(box, kRedirectPid);
        Settle(box, "2024-01-15 10:00:20", {{"volume_monthly_limit", "5"}});
        EXPECT_TRUE(RedirectEnds(box, redirect) && box.StubCalls("ifconfig").empty()) << "redirect started and ended";
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
        std::string out;  // up to the first wait of 3 s, which follows the early wake
        Eventually([&] { return (out = box.Stdout().substr(from)).find("sec=3 usec=0\n") != std::string::npos; });
        size_t react = out.find("KVARD: Update Limit Warning (l:1 w:0 d:0");
        EXPECT_EQ(react != std::string::npos && react > out.find(early), *limit == '4') << out;
    }
    box.RemoveFile("var/lib/kvard/mdm/2888");  // settings that cannot be read
    At(box, "2024-01-15 10:01:10", kConfigUpdate, 0);
}

TEST(Config, a_moved_reset_moment_recounts_the_periods_from_the_lists_and_ends_a_manual_reset)
{
    // Sunday: 1 MB in the morning's last minute. Monday: 1 MB at 04:00, 2 MB at 08:00 in the running half-day.
    Sandbox box(meter::At("2024-01-14 11:59:00"));
    Start(box, {});
    for (auto [clock, rx] : std::vector<std::pair<const char *, uint64_t>>{
             {"14 12:00", 1}, {"14 23:59", 1}, {"15 00:00", 1}, {"15 04:00", 1}, {"15 04:01", 2}, {"15 08:00", 2},
             {"15 08:01", 4}}) {
        Rx(box, rx * 1000000);
        At(box, std::string("2024-01-") + clock + ":00");
    }
    struct Row { StoreObject moment; const char *start, *figures; } rows[] = {  // month, last, today, yesterday, week
        {{{"day", "14"}, {"ampm_sel", "true"}}, "Sun Jan 14 12:00:00 2024\n", "3.00 1.00 3.00 0.00 3.00 "},
        {{{"day", "1"}, {"ampm_sel", "false"}}, "Mon Jan  1 00:00:00 2024\n", "4.00 0.00 3.00 1.00 4.00 "},
        {{{"day", "14"}, {"hour", "6"}}, "Sun Jan 14 06:00:00 2024\n", "3.50 0.50 3.00 0.50 3.50 "},  // half by time
        {{{"day", "15"}}, "Mon Jan 15 06:00:00 2024\n", "2.00 2.00 2.00 0.00 2.00 "}};  // a tail of the running one
    for (const Row &r : rows) {
        box.UpdateObject("2888", r.moment);
        At(box, "2024-01-15 08:01:30", kConfigUpdate);
        std::string figures = Field(box, "start_data_time");
        for (const char *f : {"thismonth", "lastmonth", "today", "yesterday", "thisweek"})
            figures += Field(box, std::string(f) + "_download") + " ";
        EXPECT_EQ(figures, r.start + std::string(r.figures));
    }
    for (auto [change, kept] : {std::pair{"volume_monthly_limit", true}, {"min", false}}) {  // only the moment ends it
        At(box, "2024-01-15 08:01:40", kResetCounter);
        box.UpdateObject("2888", {{change, "1"}});
        At(box, "2024-01-15 08:01:40", kConfigUpdate);
        EXPECT_EQ(File(box, "data/tmrestarttime.data"), Le32(kept ? meter::T("2024-01-15 08:01:40") : 0)) << change;
        EXPECT_EQ(Field(box, "start_data_time"), kept ? "Mon Jan 15 08:01:40 2024\n" : "Mon Jan 15 06:01:00 2024\n");
    }
}

constexpr uint32_t kPage = meter::kPageSize, kHDay = meter::kHDayStart;  // 2 KiB pages, 64 to a block
using Pages = std::vector<std::pair<uint32_t, meter::Record>>;
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

const int32_t L = meter::T("2024-01-01 00:00:00"), D = meter::T("2024-01-15 00:00:00");  // the period's start, today
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

TEST(Reset, a_reset_zeroes_the_records_of_the_period_and_rewrites_only_their_blocks)
{
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    box.WriteFile("sandbox/mtd.img", Image(kBefore));
    Start(box, {}, "DHCP", {"MTDSIM_LOG=/.sandbox/nand.log"});
    Rx(box, 3000000);  // pending in the running minute: gone with the reset
    At(box, "2024-01-15 10:00:20", kResetCounter);
    std::string log = Rewrite({0, 1, 2, 3}) + Rewrite({192, 194}) + Rewrite({kHDay, kHDay + 1, kHDay + 2, kHDay + 3,
                                                                             kHDay + 4});
    EXPECT_EQ(File(box, "sandbox/nand.log"), log);
    Pages after = After({3, 192, 194, kHDay + 2, kHDay + 3});  // the period's records, 1 s early is not
    EXPECT_EQ(PagesOtherThan(box, after), std::vector<uint32_t>{});
    EXPECT_EQ(Field(box, "thismonth_download") + Field(box, "lastmonth_download"), "0.001.00");
    At(box, "2024-01-15 10:00:40", kResetCounter);
    EXPECT_EQ(File(box, "sandbox/nand.log"), log) << "zeroed records do not count as changed";

    Rx(box, 4000000);  // a new minute on page 195; only its block is rewritten
    At(box, "2024-01-15 10:01:00");
    log = File(box, "sandbox/nand.log");
    At(box, "2024-01-15 10:01:10", kResetCounter);
    EXPECT_EQ(File(box, "sandbox/nand.log").substr(log.size()), Rewrite({192, 193, 194, 195}));
    after.insert(after.end(), {{193, {}}, {195, {D + 36000, D + 36060, 0, 0, 0}}});
    EXPECT_EQ(PagesOtherThan(box, after), std::vector<uint32_t>{});
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(meter::T("2024-01-15 10:01:10")));
}

TEST(Reset, a_failing_page_gives_0_with_the_rest_done_and_before_synchronisation_flash_is_left_alone)
{
    for (bool synchronised : {true, false}) {  // unsynchronised, there is no period: flash is left as it is
        Sandbox box(meter::At("2024-01-15 10:00:00"));
        box.WriteFile("sandbox/mtd.img", Image(kBefore));
        if (!synchronised) box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        Start(box, {}, "DHCP", {"MTDSIM_LOG=/.sandbox/nand.log", "MTDSIM_FAIL_AFTER=0"});  // block 0's erase fails
        At(box, "2024-01-15 10:00:20", kResetCounter, synchronised ? 0 : 1);
        EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(meter::T("2024-01-15 10:00:20")));
        EXPECT_EQ(box.ReadFile("sandbox/nand.log").has_value(), synchronised);
        EXPECT_EQ(PagesOtherThan(box, synchronised ? After({192, 194, kHDay + 2, kHDay + 3}) : kBefore),
                  std::vector<uint32_t>{});
        EXPECT_TRUE(!synchronised || box.WaitStdout("TmWriteFlash fail at 0(0). Write returns error!\n"));
        EXPECT_EQ(Field(box, "thismonth_download"), synchronised ? "0.50" : "0.00");  // block 0 kept its record
    }
}

}  // namespace
