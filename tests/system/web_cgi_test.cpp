// tm.cgi, the installed CGI program run as a web server runs it (the request
// in the environment, the body on stdin) inside a box beside kvard: its
// documents against tmctl's, a settings change that moves what kvard
// publishes, the values it refuses, the token and the other refusals that
// write nothing and send nothing, the reset, and a kvard that does not answer.
#include <glob.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using nlohmann::json;

const std::string kToken = "0123456789abcdef0123456789abcdef";
const std::string kForm = "application/x-www-form-urlencoded";

struct Request {
    std::string method = "GET", path;
    std::string body = "";
    std::map<std::string, std::string> env = {};   // over the defaults below; "" removes one
};

struct Reply {
    int status = 0;
    std::map<std::string, std::string> headers;   // the CGI's header lines but Status
    std::string body, err;
    json doc;
};

// A POST with the token as the page sends it.
Request Post(const std::string &path, const std::string &body)
{
    return {"POST", path, body, {{"HTTP_COOKIE", "tm_session=" + kToken}, {"HTTP_X_TM_TOKEN", kToken}}};
}

std::string Quoted(const std::string &s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// The box's clock for a host program, as the box gives it to the programs inside.
std::string FakeClock(const Sandbox &box)
{
    std::string preload;
    if (const char *asan = getenv("KVARD_ASAN_RUNTIME"); asan && *asan) preload = std::string(asan) + ":";
    glob_t found;
    if (glob("/usr/lib/*/faketime/libfaketime.so.1", 0, nullptr, &found) == 0) {
        preload += found.gl_pathv[0];
        globfree(&found);
    }
    return "LD_PRELOAD=" + Quoted(preload) + " FAKETIME_TIMESTAMP_FILE=" + Quoted(box.Path("sandbox/clock")) +
           " FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1 NO_FAKE_STAT=1 TZ=" + meter::kZone +
           " ASAN_OPTIONS=allocator_release_to_os_interval_ms=-1";
}

// `env -i VARS... PROGRAM ARGS` in the box's network namespace and clock, stdin from IN; stdout, stderr, status.
CommandResult InBox(Sandbox &box, const std::string &vars, const std::string &program, const std::string &in,
                    std::string *err)
{
    box.WriteFile("web.in", in);
    std::string line = "env -i PATH=\"$PATH\" KVARD_MDM_DIR=\"$KVARD_MDM_DIR\" " + FakeClock(box) + " " + vars + " " +
                       program + " <" + Quoted(box.Path("web.in")) + " >" + Quoted(box.Path("web.out")) + " 2>" +
                       Quoted(box.Path("web.err"));
    CommandResult r = box.Runner({"exec", box.Dir(), "--", "sh", "-c", line});
    *err = box.ReadFile("web.err").value_or("");
    return {r.status, box.ReadFile("web.out").value_or("") + r.out};
}

Reply Cgi(Sandbox &box, const Request &q)
{
    std::map<std::string, std::string> env = {{"REQUEST_METHOD", q.method},
                                              {"PATH_INFO", q.path},
                                              {"GATEWAY_INTERFACE", "CGI/1.1"},
                                              {"KVARD_WEB_FLASH", box.Path("sandbox/mtd.img")},
                                              {"KVARD_WEB_MANUAL_RESET", box.Path("data/tmrestarttime.data")}};
    if (q.method == "POST") env["CONTENT_TYPE"] = kForm, env["CONTENT_LENGTH"] = std::to_string(q.body.size());
    for (const auto &[name, value] : q.env) env[name] = value;
    std::string vars;
    for (const auto &[name, value] : env)
        if (!value.empty()) vars += name + "=" + Quoted(value) + " ";
    Reply r;
    CommandResult run = InBox(box, vars, Quoted(InstalledPrefix() + "/lib/kvard/cgi-bin/tm.cgi"), q.body, &r.err);
    EXPECT_EQ(run.status, 0) << q.method << " " << q.path << ": " << run.out << r.err;
    size_t end = run.out.find("\r\n\r\n");
    if (end == std::string::npos) {
        ADD_FAILURE() << "no end of the headers in: " << run.out;
        return r;
    }
    r.status = 200;
    for (size_t at = 0; at < end;) {
        size_t eol = run.out.find("\r\n", at), colon = run.out.find(": ", at);
        std::string name = run.out.substr(at, colon - at), value = run.out.substr(colon + 2, eol - colon - 2);
        if (name == "Status")
            r.status = std::stoi(value);
        else
            r.headers[name] = value;
        at = eol + 2;
    }
    r.body = run.out.substr(end + 4);
    r.doc = json::parse(r.body, nullptr, false);
    EXPECT_FALSE(r.doc.is_discarded()) << r.body;
    EXPECT_EQ(r.headers["Content-Type"], "application/json");
    EXPECT_EQ(r.headers["Cache-Control"], "no-store");
    return r;
}

std::string Tmctl(Sandbox &box, const std::string &args)
{
    std::string err;
    CommandResult r = InBox(box, "", "tmctl " + args, "", &err);
    EXPECT_EQ(r.status, 0) << args << ": " << err;
    return r.out;
}

std::string Settings(const Sandbox &box) { return box.ReadFile("var/lib/kvard/mdm/2888").value_or("(none)"); }
// The daemon prints the settings each time it reads them: once at its start and once per update datagram.
size_t SettingsReads(const Sandbox &box)
{
    std::string out = box.Stdout();
    size_t n = 0;
    for (size_t at = 0; (at = out.find("traffic_on =", at)) != std::string::npos; at++) n++;
    return n;
}
// Until kvard has handled every datagram sent before.
void Drain(Sandbox &box)
{
    static int n = 0;
    std::string mark = "drain" + std::to_string(++n);
    ASSERT_EQ(box.Send(kHeartbeat, mark + std::string(1, '\0')), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: " + mark));
}

// A running kvard with traffic this month and a few minutes of it on flash.
void Busy(Sandbox &box)
{
    meter::Go(box, {{"eth0.1", 0, 0}});
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));
    for (int minute = 1; minute <= 3; minute++) {
        box.SetNetDev({{"eth0.1", 40000000ull * minute, 3000000ull * minute}});
        char clock[32];
        snprintf(clock, sizeof clock, "2026-03-10 10:%02d:00", minute);
        box.SetTime(clock);
        ASSERT_EQ(box.Send(kTimeWake), 1);
    }
}

TEST(WebCgi, each_document_is_the_one_tmctl_prints_byte_for_byte)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    Busy(box);
    const std::string flash = Quoted(box.Path("sandbox/mtd.img"));
    const std::string manual = box.Path("data/tmrestarttime.data");
    // The history is the box's: its clock and its flash, then the reset made in it.
    json h = Cgi(box, {"GET", "/history"}).doc;
    EXPECT_EQ(h["at_local"], "2026-03-10 10:03:00");
    EXPECT_EQ(h["manual_reset"], 0);
    EXPECT_EQ(h["rows"].back()["download"], 120000000u) << h["rows"].back().dump();
    for (bool manualReset : {false, true}) {
        if (manualReset) {
            ASSERT_EQ(box.Send(kResetCounter), 1);
            ASSERT_TRUE(box.ReadFile("data/tmrestarttime.data")) << "kvard keeps the reset time there";
        }
        const struct {
            const char *path;
            std::string tmctl;
        } rows[] = {
            {"/stats", "stats --json"},
            {"/config", "config show --json"},
            {"/history", "history " + flash + " --days --json" + (manualReset ? " --manual-reset " + Quoted(manual) : "")},
        };
        for (const auto &row : rows) {
            Reply r = Cgi(box, {"GET", row.path});
            EXPECT_EQ(r.status, 200) << row.path << r.body;
            const std::string want = Tmctl(box, row.tmctl);
            EXPECT_EQ(r.body, want) << row.path;
            EXPECT_EQ(r.doc, json::parse(want)) << row.path;
            EXPECT_EQ(r.err, "") << row.path;
        }
    }
    h = Cgi(box, {"GET", "/history"}).doc;
    EXPECT_EQ(h["manual_reset"], meter::T("2026-03-10 10:03:00"));
    EXPECT_EQ(h["rows"].back()["download"], 0u) << "the reset zeroed the day so far";
}

TEST(WebCgi, a_session_token_is_new_and_random_unless_the_request_carries_a_well_formed_one)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    box.Start();
    const struct {
        std::string cookie;
        bool kept;
    } rows[] = {
        {"", false},
        {"tm_session=" + kToken, true},
        {"lang=de; tm_session=" + kToken + "; theme=dark", true},
        {"tm_session=" + kToken.substr(1), false},
        {"tm_session=0123456789ABCDEF0123456789ABCDEF", false},
        {"tm_session=" + kToken + "0", false},
        {"other_session=" + kToken, false},
    };
    std::vector<std::string> fresh;
    for (const auto &row : rows) {
        Reply r = Cgi(box, {"GET", "/session", "", {{"HTTP_COOKIE", row.cookie}}});
        ASSERT_EQ(r.status, 200) << r.body;
        std::string token = r.doc["token"];
        EXPECT_EQ(token.size(), 32u);
        EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos) << token;
        EXPECT_EQ(r.headers["Set-Cookie"], "tm_session=" + token + "; Path=/; SameSite=Strict; HttpOnly");
        EXPECT_EQ(token == kToken, row.kept) << row.cookie;
        if (!row.kept) fresh.push_back(token);
    }
    std::sort(fresh.begin(), fresh.end());
    EXPECT_EQ(std::unique(fresh.begin(), fresh.end()), fresh.end()) << "every new token differs";
}

TEST(WebCgi, good_settings_are_written_kvard_is_told_and_the_period_it_publishes_moves)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    meter::Go(box, {{"eth0.1", 0, 0}});
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));
    size_t reads = SettingsReads(box);

    Reply r = Cgi(box, Post("/config", "day=15&hour=6&min=30&limit=50GB"));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.doc, json::parse(R"({"ok":true,"changes":[
        {"field":"volume_monthly_limit","old":"0","new":"50000"},
        {"field":"day","old":"1","new":"15"},{"field":"hour","old":"0","new":"6"},{"field":"min","old":"0","new":"30"}],
        "applied":true,"reply":1,"message":"applied: kvard took the new settings"})"));
    EXPECT_EQ(SettingsReads(box), reads + 1);
    EXPECT_EQ(box.ReadObject("2889").value()["start_data_time"], meter::Asc(meter::T("2026-02-15 06:30:00")));
    EXPECT_EQ(Cgi(box, {"GET", "/stats"}).doc["start"]["local"], "2026-02-15 06:30:00");

    // Blanks and escapes as a browser sends them; the same values again change nothing.
    r = Cgi(box, Post("/config", "reset=15+06%3A30&contrl_type=Download%20only"));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.doc["changes"], json::parse(R"([{"field":"contrl_type","old":"No limit","new":"Download only"}])"));
    r = Cgi(box, Post("/config", "day=15&contrl_type=download"));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.doc["changes"], json::array());
    EXPECT_EQ(r.doc["applied"], true);
    EXPECT_EQ(box.ReadObject("2888").value()["contrl_type"], "Download only");
}

TEST(WebCgi, a_bad_value_is_refused_naming_field_and_value_and_nothing_is_written_or_sent)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    meter::Go(box);
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));
    box.UpdateObject("2888", {{"volume_monthly_limit", "1000"}});
    const std::string before = Settings(box);
    const size_t reads = SettingsReads(box);
    const struct {
        std::string body;
        std::vector<std::vector<std::string>> errors;   // field, value and a part of the message, in order
    } rows[] = {
        {"volume_monthly_limit=unlimited", {{"volume_monthly_limit", "unlimited", "'unlimited' is not a number of megabytes"}}},
        {"volume_monthly_limit=50GB", {{"volume_monthly_limit", "50GB", "for 50 GB write 50000, or use limit=50GB"}}},
        {"limit=unlimited", {{"limit", "unlimited", "is not a size such as 800MB, 50GB or 1.5TB"}}},
        {"day=32", {{"day", "32", "is not a day of the month"}}},
        {"hour=24&min=-1", {{"hour", "24", "is not an hour"}, {"min", "-1", "is not a minute"}}},
        {"mark=1000", {{"mark", "1000", "is not below the volume limit of 1000 MB"}}},
        {"warn=2GB", {{"mark", "2000", "is not below the volume limit"}}},
        {"quota=5", {{"quota", "5", "is no setting"}}},
        {"markStatus=0", {{"markStatus", "0", "is kvard's own output"}}},
        {"day", {{"day", "", "needs a value"}}},
        {"day=5&day=6", {{"day", "6", "is a second value for day in this command (first '5')"}}},
        {"day=%zz", {{"day", "%zz", "is not URL-encoded"}}},
        {"da%2=5", {{"da%2", "5", "the name 'da%2' is not URL-encoded"}}},
        {"counter=a%00b", {{"counter", "a%00b", "NUL"}}},
        {"day%3D5=6", {{"day=5", "6", "is no setting"}}},
        {"counter=a%0Ab", {{"counter", "a\nb", "control character"}}},
        // A good value beside a bad one is not written either, and every problem is named at once.
        {"day=15&x=%G0&traffic_on=maybe", {{"x", "%G0", "URL-encoded"}, {"traffic_on", "maybe", "is not a switch"}}},
        {"", {}},
        {"&&", {}},
    };
    for (const auto &row : rows) {
        Reply r = Cgi(box, Post("/config", row.body));
        EXPECT_EQ(r.status, 422) << row.body << ": " << r.body;
        EXPECT_EQ(r.doc["ok"], false);
        ASSERT_EQ(r.doc["errors"].size(), row.errors.size()) << row.body << ": " << r.body;
        for (size_t i = 0; i < row.errors.size(); i++) {
            const json &e = r.doc["errors"][i];
            EXPECT_EQ(e["field"], row.errors[i][0]) << row.body;
            EXPECT_EQ(e["value"], row.errors[i][1]) << row.body;
            EXPECT_NE(e["message"].get<std::string>().find(row.errors[i][2]), std::string::npos) << e;
        }
        std::string message = r.doc["message"];
        EXPECT_EQ(message.rfind("nothing written", 0), 0u) << message;
        EXPECT_EQ(Settings(box), before) << row.body;
    }
    Drain(box);
    EXPECT_EQ(SettingsReads(box), reads) << "no update datagram";
}

TEST(WebCgi, refused_requests_write_nothing_and_send_nothing)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    meter::Go(box);
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));
    const std::string before = Settings(box);
    const size_t reads = SettingsReads(box);
    const std::string other = "fedcba9876543210fedcba9876543210";
    auto post = [](const std::string &path, std::map<std::string, std::string> env, std::string body = "day=20") {
        Request q = Post(path, body);
        for (const auto &[name, value] : env) q.env[name] = value;
        return q;
    };
    const struct {
        Request request;
        int status;
        std::string says, allow = "";
    } rows[] = {
        {post("/config", {{"HTTP_COOKIE", ""}, {"HTTP_X_TM_TOKEN", ""}}), 403, "missing or wrong session token: reload the page"},
        {post("/config", {{"HTTP_X_TM_TOKEN", ""}}), 403, "session token"},
        {post("/config", {{"HTTP_COOKIE", ""}}), 403, "session token"},
        {post("/config", {{"HTTP_X_TM_TOKEN", other}}), 403, "session token"},
        {post("/config", {{"HTTP_COOKIE", "tm_session=abc"}, {"HTTP_X_TM_TOKEN", "abc"}}), 403, "session token"},
        {post("/reset", {{"HTTP_COOKIE", ""}}, ""), 403, "session token"},
        {post("/reset", {{"HTTP_X_TM_TOKEN", other}}, "confirm=1"), 403, "session token"},
        {{"GET", "/reset"}, 405, "/reset takes POST", "POST"},
        {post("/stats", {}), 405, "/stats takes GET", "GET"},
        {post("/session", {}), 405, "takes GET", "GET"},
        {{"PUT", "/config", "day=20"}, 405, "takes GET, POST", "GET, POST"},
        {{"GET", "/nothing"}, 404, "no endpoint '/nothing'"},
        {{"GET", ""}, 404, "no endpoint"},
        {post("/config", {{"CONTENT_LENGTH", "4097"}}, std::string(4097, 'a')), 413, "at most 4096"},
        {post("/config", {{"CONTENT_TYPE", "text/plain"}}), 415, "application/x-www-form-urlencoded"},
        {post("/config", {{"CONTENT_TYPE", "application/json"}}, R"({"day":20})"), 415, "not 'application/json'"},
        {post("/reset", {{"CONTENT_TYPE", "multipart/form-data; boundary=x"}}, "--x--"), 415, "urlencoded"},
        {post("/config", {{"CONTENT_LENGTH", "6x"}}), 400, "is not a byte count"},
        {post("/config", {{"CONTENT_LENGTH", "40"}}), 400, "ended after 6 of 40 bytes"},
        {post("/reset", {}, "confirm=0"), 422, "confirm=1"},
        {post("/reset", {}, "confirm=1&day=20"), 422, "confirm=1"},
    };
    for (const auto &row : rows) {
        Reply r = Cgi(box, row.request);
        std::string what = row.request.method + " " + row.request.path + " " + row.request.body;
        EXPECT_EQ(r.status, row.status) << what << ": " << r.body;
        EXPECT_EQ(r.doc["ok"], false) << what;
        std::string error = r.doc.value("error", "");
        EXPECT_NE(error.find(row.says), std::string::npos) << what << ": " << error;
        EXPECT_EQ(r.headers.count("Allow") ? r.headers["Allow"] : "", row.allow) << what;
    }
    // The media type is compared without case and parameters.
    Request typed = post("/config", {{"CONTENT_TYPE", "Application/X-WWW-Form-Urlencoded; charset=UTF-8"}}, "day=1");
    EXPECT_EQ(Cgi(box, typed).status, 200);
    EXPECT_EQ(Settings(box), before);
    Drain(box);
    EXPECT_EQ(SettingsReads(box), reads + 1) << "only the last, accepted, POST sent an update";
    EXPECT_FALSE(box.ReadFile("data/tmrestarttime.data")) << "no reset was made";
}

TEST(WebCgi, the_reset_zeroes_this_month_and_reports_kvards_reply)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    Busy(box);
    ASSERT_GT(Cgi(box, {"GET", "/stats"}).doc["periods"]["thismonth"]["download"].get<double>(), 100.0);

    for (const std::string body : {"", "confirm=1"}) {
        Request q = Post("/reset", body);
        if (body.empty()) q.env["CONTENT_TYPE"] = "";   // an empty POST may come without a type
        Reply r = Cgi(box, q);
        ASSERT_EQ(r.status, 200) << r.body;
        EXPECT_EQ(r.doc["ok"], true);
        EXPECT_EQ(r.doc["reply"], 1);
        EXPECT_NE(r.doc["message"].get<std::string>().find("reset"), std::string::npos);
    }
    json stats = Cgi(box, {"GET", "/stats"}).doc;
    for (std::string what : {"upload", "download", "total"}) EXPECT_EQ(stats["periods"]["thismonth"][what], 0.0) << what;
    EXPECT_EQ(stats["start"]["local"], "2026-03-10 10:03:00");
    EXPECT_EQ(Cgi(box, {"GET", "/history"}).doc["manual_reset"], meter::T("2026-03-10 10:03:00"));
}

TEST(WebCgi, a_kvard_that_does_not_answer_or_answers_0_is_reported_and_what_cannot_be_read_is_503)
{
    Sandbox box(meter::At("2026-03-10 10:00:00"));
    box.UpdateObject("1045", {{"status", "Unsynchronized"}});
    meter::Go(box);
    ASSERT_TRUE(box.WaitStdout("traffic_on ="));

    // With the clock not synchronised kvard answers 0 to a moved reset: saved, not applied.
    Reply r = Cgi(box, Post("/config", "day=20"));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.doc["applied"], false);
    EXPECT_EQ(r.doc["reply"], 0);
    EXPECT_EQ(r.doc["message"], "saved; kvard answered 0: the clock is not synchronised (object 1045 status "
                                "'Unsynchronized'). The new settings\nare in force; the period moves to the new "
                                "reset moment once the clock is set.");
    EXPECT_EQ(box.ReadObject("2888").value()["day"], "20");

    // Nothing listens on the port asked for: saved, not applied; no reset.
    Request q = Post("/config", "day=21");
    q.env["KVARD_WEB_PORT"] = "22725";
    r = Cgi(box, q);
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.doc, json::parse(R"({"ok":true,"changes":[{"field":"day","old":"20","new":"21"}],"applied":false,
        "reply":null,"message":"saved; kvard did not answer (nothing listens on 127.0.0.1:22725): it reads the settings when it starts"})"));
    EXPECT_EQ(box.ReadObject("2888").value()["day"], "21");
    q = Post("/reset", "");
    q.env["KVARD_WEB_PORT"] = "22725";
    r = Cgi(box, q);
    EXPECT_EQ(r.status, 503) << r.body;
    EXPECT_EQ(r.doc["reply"], nullptr);
    EXPECT_EQ(r.doc["message"], "not reset: nothing listens on 127.0.0.1:22725 (is kvard running?)");
    q.env["KVARD_WEB_PORT"] = "70000";
    EXPECT_EQ(Cgi(box, q).status, 500);

    const struct {
        Request request;
        std::string says;
    } rows[] = {
        {{"GET", "/stats"}, "no store at"},
        {{"GET", "/config"}, "no store at"},
        {{"GET", "/history", "", {{"KVARD_WEB_FLASH", box.Path("nowhere.img")}}}, "nowhere.img"},
        {Post("/config", "day=5"), "no store at"},
    };
    for (auto row : rows) {
        row.request.env["KVARD_MDM_DIR"] = box.Path("nowhere");
        Reply e = Cgi(box, row.request);
        EXPECT_EQ(e.status, 503) << row.request.path << ": " << e.body;
        EXPECT_NE(e.doc.value("error", "").find(row.says), std::string::npos) << e.body;
    }
}

TEST(WebCgi, without_published_figures_stats_is_503)
{
    Sandbox box({.time = "2026-03-10 10:00:00", .zone = meter::kZone, .command = {"/bin/sleep", "120"}});
    box.Start();
    Reply r = Cgi(box, {"GET", "/stats"});
    EXPECT_EQ(r.status, 503) << r.body;
    EXPECT_NE(r.doc.value("error", "").find("kvard has published no statistics"), std::string::npos) << r.body;
}

}  // namespace
