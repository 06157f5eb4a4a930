// docs/guide.md against the daemon: every table and block of the guide marked "<!-- check: NAME -->" is read
// here and each row is reproduced in the box, so a row that is wrong, or missing from a closed set, fails.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <unistd.h>

#include "tests/system/meter_util.h"

namespace {

using namespace kvard::test;
using Argv = std::vector<std::string>;
using Calls = std::vector<Argv>;
using Clock = std::chrono::steady_clock;
using Row = std::vector<std::string>;

// ---- Reading the guide ----

std::string Guide()
{
    const char *path = getenv("KVARD_GUIDE");
    std::ifstream in(path ? path : "");
    if (!in) throw std::runtime_error("KVARD_GUIDE does not name a readable guide");
    return {std::istreambuf_iterator<char>(in), {}};
}

// Where the marked piece begins: the first line after the marker that is not blank.
std::istringstream After(const std::string &doc, const std::string &name)
{
    std::string marker = "<!-- check: " + name + " -->\n";
    size_t at = doc.find(marker);
    if (at == std::string::npos) throw std::runtime_error("the guide has no " + marker);
    if (doc.find(marker, at + 1) != std::string::npos) throw std::runtime_error("two " + marker);
    at += marker.size();
    while (at < doc.size() && doc[at] == '\n') at++;
    return std::istringstream(doc.substr(at));
}

// The cells of a table line; a '|' inside a code span does not split.
Row Cells(const std::string &line)
{
    Row cells(1);
    for (size_t i = line.find('|') + 1; i < line.size(); i++) {
        if (line[i] == '`') {
            size_t n = line.find_first_not_of('`', i) - i, end = line.find(std::string(n, '`'), i + n);
            if (end == std::string::npos) throw std::runtime_error("unclosed code span in " + line);
            cells.back() += line.substr(i, end + n - i);
            i = end + n - 1;
        } else if (line[i] == '|') {
            cells.emplace_back();
        } else {
            cells.back() += line[i];
        }
    }
    cells.pop_back();  // behind the last '|'
    for (std::string &c : cells) {
        c.erase(0, std::min(c.find_first_not_of(' '), c.size()));
        c.erase(c.find_last_not_of(' ') + 1);
    }
    return cells;
}

struct Table {
    Row header;
    std::vector<Row> rows;
    size_t Col(const std::string &name) const
    {
        auto at = std::find(header.begin(), header.end(), name);
        if (at == header.end()) throw std::runtime_error("no column " + name);
        return at - header.begin();
    }
};

Table TableOf(const std::string &doc, const std::string &name)
{
    auto in = After(doc, name);
    Table t;
    std::string line;
    // A table inside a list item is indented.
    auto next = [&] { return std::getline(in, line) && (line.erase(0, line.find_first_not_of(' ')), true); };
    if (!next() || line.empty() || line[0] != '|') throw std::runtime_error(name + ": no table after its marker");
    t.header = Cells(line);
    next();  // the separator
    while (next() && !line.empty() && line[0] == '|') {
        t.rows.push_back(Cells(line));
        if (t.rows.back().size() != t.header.size()) throw std::runtime_error(name + ": ragged row " + line);
    }
    return t;
}

std::string BlockOf(const std::string &doc, const std::string &name)
{
    auto in = After(doc, name);
    std::string line, text;
    if (!std::getline(in, line) || line != "```") throw std::runtime_error(name + ": no code block after its marker");
    while (std::getline(in, line) && line != "```") text += line + "\n";
    return text;
}

// The code spans of a cell, their text as written; a span of the form "..." gives what is inside the quotes.
std::vector<std::string> Spans(const std::string &cell)
{
    std::vector<std::string> out;
    for (size_t i = cell.find('`'); i != std::string::npos; i = cell.find('`', i)) {
        size_t n = cell.find_first_not_of('`', i) - i, end = cell.find(std::string(n, '`'), i + n);
        std::string s = cell.substr(i + n, end - i - n);
        if (n > 1 && s.size() > 1 && s.front() == ' ' && s.back() == ' ') s = s.substr(1, s.size() - 2);
        if (s.size() > 1 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
        out.push_back(s);
        i = end + n;
    }
    return out;
}

// SEED with the cell's `name=value` spans set and its bare `name` spans removed.
StoreObject With(StoreObject seed, const std::string &cell)
{
    for (const std::string &s : Spans(cell)) {
        size_t eq = s.find('=');
        if (eq == std::string::npos)
            seed.erase(s);
        else
            seed[s.substr(0, eq)] = s.substr(eq + 1);
    }
    return seed;
}
std::string Span(const std::string &cell)
{
    auto s = Spans(cell);
    if (s.size() != 1) throw std::runtime_error("not one code span: " + cell);
    return s[0];
}

// A command line as the shell splits it: blanks separate, double quotes group.
Argv Words(const std::string &command)
{
    Argv out;
    std::string word;
    bool quoted = false, any = false;
    for (char c : command) {
        if (c == '"') quoted = !quoted, any = true;
        else if ((c == ' ' || c == '\n') && !quoted) { if (any) out.push_back(word); word.clear(), any = false; }
        else word += c, any = true;
    }
    if (any) out.push_back(word);
    return out;
}
std::string Replace(std::string s, const std::string &from, const std::string &to)
{
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
    return s;
}

// Whether TEXT has the shape of PATTERN: '#' one or more digits, '0' a digit, '_' a digit or a blank,
// 'A' a capital and 'a' a small letter; any other character stands for itself.
bool Like(const std::string &text, const std::string &pattern)
{
    size_t i = 0;
    for (char p : pattern) {
        char c = i < text.size() ? text[i] : '\0';
        bool digit = c >= '0' && c <= '9';
        if (p == '#') {
            if (!digit) return false;
            while (i < text.size() && text[i] >= '0' && text[i] <= '9') i++;
            continue;
        }
        bool ok = p == '0' ? digit : p == '_' ? digit || c == ' ' : p == 'A' ? c >= 'A' && c <= 'Z'
                : p == 'a' ? c >= 'a' && c <= 'z' : c == p;
        if (!ok || i >= text.size()) return false;
        i++;
    }
    return i == text.size();
}

// ---- The box ----

std::string Field(const Sandbox &box, const std::string &field, const char *object = "2889")
{
    auto o = box.ReadObject(object);
    return o && o->count(field) ? o->at(field) : "<absent>";
}
std::string File(const Sandbox &box, const std::string &path) { return box.ReadFile(path).value_or("<absent>"); }
std::string Le32(int32_t v) { return std::string(reinterpret_cast<const char *>(&v), 4); }

bool Eventually(const std::function<bool()> &done)
{
    for (auto until = Clock::now() + milliseconds(5000); !done(); std::this_thread::sleep_for(milliseconds(5)))
        if (Clock::now() > until) return false;
    return true;
}
// The redirecting dnsmasq of PIDFILE's content has ended, seen in the box's own procfs.
bool Ended(const Sandbox &box, const std::string &pidFile)
{
    int pid = atoi(pidFile.c_str());
    std::string path = "/proc/" + std::to_string(box.ProgramPid()) + "/root/.proc/" + std::to_string(pid) + "/stat";
    return pid > 0 && Eventually([&] {
        char state = 'Z';
        if (FILE *f = fopen(path.c_str(), "r")) state = fscanf(f, "%*d %*s %c", &state) == 1 && !fclose(f) ? state : 'Z';
        return state == 'Z';
    });
}

void At(Sandbox &box, const std::string &clock, uint16_t code = kTimeWake, int reply = 1)
{
    box.SetTime(clock);
    if (box.Send(code, {}, milliseconds(10000)) != reply) throw std::runtime_error("unexpected reply at " + clock);
}
// Saved settings put in force, and the wake that follows them, at CLOCK.
void Save(Sandbox &box, const std::string &clock, const StoreObject &fields)
{
    box.UpdateObject("2888", fields);
    At(box, clock, kConfigUpdate);
    At(box, clock);
}
void Up(Sandbox &box, const StoreObject &settings, const char *wan = "DHCP", const std::vector<NetDev> &dev = {},
        const Argv &env = {})
{
    box.UpdateObject("1400", {{"wanType", wan}});
    box.UpdateObject("2888", settings);
    if (!dev.empty()) box.SetNetDev(dev);
    box.Start(env);
    if (auto ready = box.WaitReady(); !ready) throw std::runtime_error(ready.message());
}

// ---- Settings ----

TEST(Guide, each_setting_is_a_field_of_the_settings_object_and_moves_the_period_as_the_guide_says)
{
    const std::string doc = Guide();
    Table t = TableOf(doc, "settings");
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    const StoreObject seed = *box.ReadObject("2888");
    std::set<std::string> fields, rows;
    for (const auto &[name, value] : seed)
        if (name != "markStatus") fields.insert(name);  // kvard's answer, not a setting
    for (const Row &r : t.rows) {
        std::string name = Span(r[t.Col("Field")]), example = Span(r[t.Col("Example")]), moves = r[t.Col("Moves the period")];
        SCOPED_TRACE(example);
        rows.insert(name);
        ASSERT_EQ(example.substr(0, example.find('=')), name) << "the example sets another field";
        box.WriteObject("2888", seed);
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        std::string before = Field(box, "start_data_time");
        box.UpdateObject("2888", {{name, example.substr(example.find('=') + 1)}});
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        ASSERT_TRUE(moves == "yes" || moves == "no") << moves;
        EXPECT_EQ(Field(box, "start_data_time") != before, moves == "yes") << "was " << before;
    }
    EXPECT_EQ(rows, fields) << "one row for each setting";
    EXPECT_EQ(t.rows.size(), fields.size());
}

TEST(Guide, what_kvard_takes_from_the_settings_is_what_its_dump_prints)
{
    Table t = TableOf(Guide(), "settings-read");
    ASSERT_EQ(t.rows.size(), 12u) << "a row was lost";
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    const StoreObject seed = *box.ReadObject("2888");
    ASSERT_EQ(box.Send(4436, std::string("\x3e\x14\0\0\0", 5)), 1);  // debug printing on: 5182 and one more byte
    for (const Row &r : t.rows) {
        SCOPED_TRACE(r[0]);
        box.WriteObject("2888", With(seed, r[t.Col("Settings written")]));
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        std::string out = box.Stdout();
        size_t dump = out.rfind("TM Config:\n");
        ASSERT_NE(dump, std::string::npos);
        out = out.substr(dump);
        for (const std::string &line : Spans(r[t.Col("kvard takes")]))
            EXPECT_NE(out.find("\n" + line + "\n"), std::string::npos) << line << " not in\n" << out.substr(0, 600);
    }
}

// Every combination of the three fields falls under exactly one row, and kvard takes the limit type that row names.
TEST(Guide, the_limit_type_table_covers_every_combination_once)
{
    Table t = TableOf(Guide(), "limit-type");
    const std::map<std::string, int> kinds = {{"nothing", 0}, {"bytes received", 1}, {"bytes sent plus received", 2},
                                              {"connection time", 3}};
    auto kindOf = [&](const std::string &words) {
        for (const auto &[prefix, type] : kinds)
            if (words.rfind(prefix, 0) == 0) return type;
        throw std::runtime_error("no limit type in " + words);
    };
    // Whether a cell covers VALUE: a code span is that text exactly, "not" a span anything else, "any" everything,
    // "anything else" every text but the spans of the other rows' cells of that column.
    auto covers = [&](size_t col, const std::string &cell, const std::string &value) {
        if (cell == "any") return true;
        if (cell.rfind("not ", 0) == 0) return value != Span(cell);
        if (cell.rfind("anything else", 0) == 0) {
            for (const Row &r : t.rows)
                if (!Spans(r[col]).empty() && r[col].find("not ") == std::string::npos && Span(r[col]) == value) return false;
            return true;
        }
        return value == Span(cell);
    };
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    const StoreObject seed = *box.ReadObject("2888");
    ASSERT_EQ(box.Send(4436, std::string("\x3e\x14\0\0\0", 5)), 1);  // debug printing on
    for (const char *vol : {"true", "false", "TRUE"})
        for (const char *time : {"true", "false", ""})
            for (const char *type : {"No limit", "Download only", "", "Both", "no limit"}) {
                SCOPED_TRACE(std::string("volcontrl=") + vol + " timecontrl=" + time + " contrl_type=" + type);
                std::vector<int> rows;
                for (const Row &r : t.rows)
                    if (covers(0, r[0], vol) && covers(1, r[1], time) && covers(2, r[2], type)) rows.push_back(kindOf(r[3]));
                ASSERT_EQ(rows.size(), 1u) << "rows that match";
                StoreObject settings = seed;
                settings["volcontrl"] = vol, settings["timecontrl"] = time, settings["contrl_type"] = type;
                box.WriteObject("2888", settings);
                ASSERT_EQ(box.Send(kConfigUpdate), 1);
                std::string out = box.Stdout();
                EXPECT_EQ(meter::Num(out.substr(out.rfind("TM Config:\n")), "\nLimit Type:"), rows[0]);
            }
}

// ---- Figures ----

TEST(Guide, volume_left_reads_as_the_guide_shows_it)
{
    Table t = TableOf(Guide(), "volume-left");
    ASSERT_EQ(t.rows.size(), 5u) << "a row was lost";
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    const StoreObject seed = *box.ReadObject("2888");
    for (const Row &r : t.rows) {
        SCOPED_TRACE(r[0]);
        box.WriteObject("2888", With(seed, r[t.Col("Settings")]));
        ASSERT_EQ(box.Send(kConfigUpdate), 1);
        EXPECT_EQ("\"" + Field(box, "volume_left") + "\"", "\"" + Span(r[t.Col("`volume_left`")]) + "\"");
    }
}

// ---- The limit: status, side files, syslog lines, commands ----

struct Guidebook {
    Table status, syslog, commands;
    Argv logger;  // the logger command, MESSAGE last
};

Argv Line(const Guidebook &g, const std::string &limit, const std::string &state, const std::string &n)
{
    for (const Row &r : g.syslog.rows)
        if (r[g.syslog.Col("Limit")] == limit && r[g.syslog.Col("State")] == state) {
            Argv argv(g.logger.begin(), g.logger.end() - 1);
            for (const std::string &w : Words(Replace(Span(r[g.syslog.Col("MESSAGE")]), "N", n))) argv.push_back(w);
            return argv;
        }
    ADD_FAILURE() << "no syslog line for a " << limit << " " << state;
    return {};
}

// The row of STATUS against the box after a wake at CLOCK: markStatus, the two files, the time stamped.
void ExpectStatusRow(const Guidebook &g, const Sandbox &box, const std::string &status, const std::string &clock,
                     int32_t periodStart)
{
    const Table &t = g.status;
    auto row = std::find_if(t.rows.begin(), t.rows.end(), [&](const Row &r) { return r[0] == status; });
    ASSERT_NE(row, t.rows.end()) << "no row for markStatus " << status;
    EXPECT_EQ(Field(box, "markStatus", "2888"), status);
    EXPECT_EQ(File(box, "tmp/tmwarn.data"), Span((*row)[t.Col("`/tmp/tmwarn.data`")]));
    std::string limitFile = (*row)[t.Col("First line of `/tmp/tmlimit.data`")];
    int32_t now = meter::T(clock);
    EXPECT_EQ(File(box, "tmp/tmlimit.data"), limitFile == "(no file)" ? "<absent>"
              : Span(limitFile) + "\n" + std::to_string(now) + "\n" + std::to_string(now - periodStart) + "\n");
    std::string stamped = (*row)[t.Col("Time stamped")];
    if (!stamped.empty()) {
        EXPECT_EQ(Field(box, Span(stamped)), meter::Asc(now)) << stamped;
    }
}

// The commands of the rows whose "When" belongs to PHASE; argument vectors of the stubbed ones, the rest apart.
struct Phase { Calls stubbed; std::vector<std::string> other; };
Phase Commands(const Guidebook &g, const std::function<bool(const std::string &)> &in)
{
    Phase p;
    for (const Row &r : g.commands.rows) {
        if (!in(r[0])) continue;
        Argv words = Words(Replace(Span(r[1]), "PORT", "eth0")), argv;
        for (const std::string &w : words) {
            if (w[0] == '>' || w == "&" || w.find(">&") != std::string::npos || w.find(">/") != std::string::npos) break;
            argv.push_back(w);
        }
        if (argv[0] == "ifconfig" || argv[0] == "dnsmasq" || argv[0] == "tmledflashd") p.stubbed.push_back(argv);
        else p.other.push_back(Span(r[1]));
    }
    std::sort(p.stubbed.begin(), p.stubbed.end());
    return p;
}
Calls Actions(const Sandbox &box)
{
    Calls c = box.StubCalls();
    c.erase(std::remove_if(c.begin(), c.end(), [](const Argv &a) { return a[0] == "logger"; }), c.end());
    std::sort(c.begin(), c.end());
    return c;
}

TEST(Guide, a_period_through_warning_limit_and_disconnect_writes_what_the_guide_lists)
{
    const std::string doc = Guide();
    Guidebook g{TableOf(doc, "status"), TableOf(doc, "syslog"), TableOf(doc, "commands"), Words(BlockOf(doc, "logger"))};
    ASSERT_EQ(g.logger.back(), "MESSAGE");
    std::set<std::string> when;
    for (const Row &r : g.commands.rows) when.insert(r[0]);
    const std::set<std::string> known = {"WAN goes down, DHCP, static, PPTP or L2TP", "WAN goes down, PPPoE",
                                         "WAN goes down, any link", "WAN comes back", "LED starts", "LED stops",
                                         "state clears"};
    EXPECT_EQ(when, known) << "every moment at which kvard runs a command, and no other";
    auto downDhcp = [](const std::string &w) { return (w.rfind("WAN goes down", 0) == 0 && w.find("PPPoE") == w.npos) || w == "LED starts"; };
    auto downPppoe = [](const std::string &w) { return w.rfind("WAN goes down", 0) == 0 && w.find("DHCP") == w.npos; };
    auto back = [](const std::string &w) { return w == "WAN comes back" || w == "LED stops" || w == "state clears"; };
    const int32_t january = meter::T("2024-01-01 00:00:00");
    std::set<std::string> statuses;

    // A download limit of 10 MB with its mark 2 MB before it, on DHCP; 1 MB sent counts for nothing here.
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    struct Step { const char *clock; uint64_t rx; StoreObject settings; const char *status; Calls lines; };
    const Step steps[] = {
        {"2024-01-15 10:00:10", 8000001, {}, "1", {Line(g, "volume", "warning", "2")}},
        {"2024-01-15 10:00:20", 10000001, {}, "3", {Line(g, "volume", "limit", "10")}},
        {"2024-01-15 10:00:30", 10000001, {{"block_on", "true"}, {"led_on", "true"}}, "4", {Line(g, "volume", "limit", "10")}},
        {"2024-01-15 10:00:40", 10000001, {{"contrl_type", "No limit"}}, "0", {}}};
    for (const Step &s : steps) {
        SCOPED_TRACE(s.clock);
        std::string redirect = File(box, "var/dnsmasq_tmRedirecHttpHttps.pid");
        box.SetNetDev({{"eth0.1", s.rx, 1000000}});
        box.ClearStubLog();
        Save(box, s.clock, s.settings);
        statuses.insert(s.status);
        ExpectStatusRow(g, box, s.status, s.clock, january);
        EXPECT_EQ(box.StubCalls("logger"), s.lines);
        if (s.status == std::string("1")) {  // the guide's worked example, as tmctl mdm get prints it
            ASSERT_EQ(box.Send(kWriteStatistic), 1);
            std::istringstream example(BlockOf(doc, "example"));
            int lines = 0;
            for (std::string line; std::getline(example, line); lines++) {
                std::string name = line.substr(0, line.find('='));
                EXPECT_EQ(name + "=" + Replace(Replace(Field(box, name), "\\", "\\\\"), "\n", "\\n"), line);
            }
            EXPECT_GE(lines, 10);
        }
        if (s.status == std::string("4")) {
            ASSERT_TRUE(Eventually([&] { return box.StubCalls("tmledflashd").size() == 1; }));  // in the background
            EXPECT_EQ(Actions(box), Commands(g, downDhcp).stubbed);
        }
        if (s.status == std::string("0")) {
            Phase p = Commands(g, back);
            EXPECT_EQ(Actions(box), p.stubbed);
            for (const std::string &c : p.other) {
                SCOPED_TRACE(c);
                if (c.rfind("kill ", 0) == 0) {
                    EXPECT_TRUE(Ended(box, redirect)) << "the redirect was not stopped";
                } else if (c.rfind("rm ", 0) == 0) {
                    EXPECT_EQ(File(box, Words(c)[1].substr(1)), "<absent>");
                } else {
                    ADD_FAILURE() << "a command the guide names that the box does not see";
                }
            }
        }
    }

    // The manual reset's file, through the events the guide names.
    Table file = TableOf(doc, "restart-file");
    std::map<std::string, std::string> holds;
    for (const Row &r : file.rows) holds[r[0]] = r[1];
    ASSERT_EQ(holds.size(), 3u);
    auto expect = [&](const char *event, int32_t moment) {  // MOMENT: when the event happened
        ASSERT_TRUE(holds.count(event)) << "no row for " << event;
        const std::string &h = holds[event];
        ASSERT_TRUE(h == "0" || h == "the moment of the reset") << h;
        EXPECT_EQ(File(box, "data/tmrestarttime.data"), Le32(h == "0" ? 0 : moment)) << event;
    };
    At(box, "2024-01-15 10:02:00", kResetCounter);
    expect("manual reset", meter::T("2024-01-15 10:02:00"));
    Save(box, "2024-01-15 10:02:10", {{"day", "16"}});
    expect("change of the reset day, hour or minute", meter::T("2024-01-15 10:02:10"));
    At(box, "2024-01-15 10:03:00", kResetCounter);
    expect("manual reset", meter::T("2024-01-15 10:03:00"));
    At(box, "2024-01-16 00:00:30");
    EXPECT_EQ(Field(box, "start_data_time"), "Tue Jan 16 00:00:00 2024\n") << "the period was reset";
    expect("period reset", meter::T("2024-01-16 00:00:30"));

    // A time limit of 2 hours, mark 1 hour, on PPPoE: the connection is up from 08:00.
    Sandbox ppp(meter::At("2024-01-15 08:00:00"));
    Up(ppp, {{"volcontrl", "false"}, {"timecontrl", "true"}, {"conntime_monthly_limit", "2"}, {"mark", "1"},
             {"block_on", "true"}}, "PPPoE", {{"ppp0.2", 0, 0}});
    const int32_t periodStart = january;
    ppp.ClearStubLog();
    At(ppp, "2024-01-15 09:00:01");
    ExpectStatusRow(g, ppp, "1", "2024-01-15 09:00:01", periodStart);
    At(ppp, "2024-01-15 10:00:01");
    ExpectStatusRow(g, ppp, "4", "2024-01-15 10:00:01", periodStart);
    EXPECT_EQ(ppp.StubCalls("logger"), (Calls{Line(g, "time", "warning", "1"), Line(g, "time", "limit", "2")}));
    EXPECT_EQ(Actions(ppp), Commands(g, downPppoe).stubbed);

    std::set<std::string> rows;
    for (const Row &r : g.status.rows) rows.insert(r[0]);
    EXPECT_EQ(rows, statuses) << "one row for each status kvard writes";
    EXPECT_EQ(g.syslog.rows.size(), 4u) << "a line for each state of each kind of limit";
}

TEST(Guide, every_published_figure_is_listed_once_in_its_form)
{
    Table t = TableOf(Guide(), "figures");
    // Patterns of Like(): each form with its alternatives.
    const std::map<std::string, std::vector<std::string>> forms = {
        {"asctime", {"Aaa Aaa _0 00:00:00 0000\n"}}, {"left", {" # G # M # K ", "# M # K ", "# K ", "#:#"}},
        {"hh:mm", {"0#:00"}}, {"h:mm", {"#:00"}}, {"MB", {"#.00"}}, {"MB a day", {"#.00"}},
        {"days", {"#"}}, {"whole MB", {"#"}}, {"hours", {"#"}}};
    // A warning and a limit reached under a volume limit, then a time limit set: every field has been written.
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {{"contrl_type", "Download only"}, {"volume_monthly_limit", "10"}, {"mark", "2"}});
    box.SetNetDev({{"eth0.1", 8000001, 0}});
    At(box, "2024-01-15 10:00:10");
    box.SetNetDev({{"eth0.1", 10000001, 0}});
    At(box, "2024-01-15 10:01:10");
    StoreObject figures = *box.ReadObject("2889");
    box.UpdateObject("2888", {{"timecontrl", "true"}, {"conntime_monthly_limit", "24"}});
    ASSERT_EQ(box.Send(kConfigUpdate), 1);
    StoreObject timeFigures = *box.ReadObject("2889");
    for (const auto &[name, value] : timeFigures) figures.emplace(name, value);  // the volume's stay

    std::set<std::string> listed;
    for (const Row &r : t.rows) {
        std::string name = Span(r[t.Col("Field")]), form = Span(r[t.Col("Form")]);
        EXPECT_TRUE(listed.insert(name).second) << name << " twice";
        ASSERT_TRUE(forms.count(form)) << name << ": unknown form " << form;
        ASSERT_TRUE(figures.count(name)) << name << " is not published";
        const auto &patterns = forms.at(form);
        EXPECT_TRUE(std::any_of(patterns.begin(), patterns.end(), [&](const std::string &p) { return Like(figures[name], p); }))
            << name << " = \"" << figures[name] << "\" is no " << form;
    }
    std::set<std::string> published;
    for (const auto &[name, value] : figures) published.insert(name);
    EXPECT_EQ(listed, published) << "one row for each field kvard publishes";
}

TEST(Guide, the_connection_time_that_survives_a_restart_is_the_one_the_guide_says)
{
    Table t = TableOf(Guide(), "conntime-restart");
    std::set<std::string> links;
    for (const Row &r : t.rows) {
        std::string wan = Span(r[0]);
        SCOPED_TRACE(wan);
        links.insert(wan);
        ASSERT_TRUE(wan == "DHCP" || wan == "PPPoE") << "a link the box cannot bring up";
        Sandbox box(meter::At("2024-01-15 10:00:00"));
        Up(box, {}, wan.c_str(), {{wan == "DHCP" ? "eth0.1" : "ppp0.2", 0, 0}});
        for (const char *clock : {"10:01:00", "10:02:00", "10:03:00", "10:04:00", "10:05:00"})
            At(box, std::string("2024-01-15 ") + clock);
        EXPECT_EQ(Field(box, "thismonth_conntime"), Span(r[1]));
        box.Stop();
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        EXPECT_EQ(Field(box, "thismonth_conntime"), Span(r[2])) << "after the restart";
    }
    EXPECT_EQ(links, (std::set<std::string>{"DHCP", "PPPoE"})) << "both kinds of link";
}

// Every tmctl command of the quick start runs in the box against the running daemon, in the order given.
TEST(Guide, the_quick_start_commands_run_as_written)
{
    const std::string doc = Guide();
    size_t from = doc.find("\n## Quick start\n"), to = doc.find("\n## ", from + 1);
    ASSERT_NE(from, std::string::npos);
    std::istringstream section(doc.substr(from, to - from));
    std::vector<std::string> commands;
    bool code = false;
    for (std::string line, joined; std::getline(section, line);) {
        if (line.rfind("```", 0) == 0) { code = !code; continue; }
        if (!code) continue;
        joined += line;
        if (!joined.empty() && joined.back() == '\\') { joined.pop_back(); continue; }
        if (joined.rfind("tmctl ", 0) == 0) commands.push_back(joined);
        joined.clear();
    }
    ASSERT_GE(commands.size(), 4u) << "the quick start lost its commands";
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    for (const std::string &command : commands) {
        SCOPED_TRACE(command);
        std::string comment = command.find("#") == std::string::npos ? "" : command.substr(command.find("#") + 1);
        Argv args = Words(command.substr(0, command.find("#")));
        args.insert(args.begin(), {"exec", box.Dir(), "--"});
        CommandResult r = box.Runner(args);
        EXPECT_EQ(r.status, 0) << r.out;
        // "prints 1 when done": what the command prints.
        if (size_t at = comment.find("prints "); at != std::string::npos) {
            EXPECT_EQ(r.out, comment.substr(at + 7, comment.find(' ', at + 7) - at - 7) + "\n");
        }
    }
    // The settings of the first command are those kvard now works with.
    auto settings = box.ReadObject("2888");
    ASSERT_TRUE(settings);
    EXPECT_EQ((*settings)["contrl_type"], "Download only");
    EXPECT_EQ((*settings)["volume_monthly_limit"], "50000");
    EXPECT_EQ((*settings)["mark"], "5000");
}

// Known limits: "A datagram every 2 s, of any kind, keeps every wake from running until the sender pauses for 3 s."
TEST(Guide, datagrams_every_2_s_keep_the_wake_from_running_until_a_3_s_pause)
{
    Sandbox box(meter::At("2024-01-15 10:00:00"));
    Up(box, {});
    const std::string started = Field(box, "current_data_time");
    box.SetTime("2024-01-15 10:01:30");  // a minute to close, which only a wake does
    for (auto until = Clock::now() + milliseconds(7000); Clock::now() < until;) {
        ASSERT_EQ(box.Send(kHeartbeat), 0);
        std::this_thread::sleep_for(milliseconds(2000));
    }
    EXPECT_EQ(Field(box, "current_data_time"), started) << "a wake ran";
    EXPECT_TRUE(Eventually([&] { return Field(box, "current_data_time") == "Mon Jan 15 10:01:30 2024\n"; }))
        << "no wake after the pause";
}

// ---- Signals, replies, messages ----

TEST(Guide, each_signal_does_what_the_guide_says)
{
    Table t = TableOf(Guide(), "signals");
    const std::map<std::string, int> numbers = {{"SIGHUP", SIGHUP}, {"SIGINT", SIGINT}, {"SIGQUIT", SIGQUIT},
                                                {"SIGUSR1", SIGUSR1}, {"SIGUSR2", SIGUSR2}, {"SIGTERM", SIGTERM}};
    std::set<std::string> names;
    for (const Row &r : t.rows) names.insert(r[0]);
    std::set<std::string> all;
    for (const auto &[name, n] : numbers) all.insert(name);
    ASSERT_EQ(names, all) << "the signals kvard catches, and the one that ends it";
    ASSERT_EQ(t.rows.back()[0], "SIGTERM") << "the ending one goes last";
    Sandbox box;
    Up(box, {});
    bool debug = false;
    for (const Row &r : t.rows) {
        SCOPED_TRACE(r[0]);
        std::string effect = r[t.Col("Effect")], logged = r[t.Col("Line on standard error")];
        size_t seen = 0;
        std::string line = logged.empty() ? "" : Span(logged) + "\n";
        for (size_t at = 0; !line.empty() && (at = box.Stderr().find(line, at)) != std::string::npos; at++) seen++;
        box.Signal(numbers.at(r[0]));
        if (effect == "ends kvard at once") {
            EXPECT_EQ(box.WaitExit(), "killed " + std::to_string(SIGTERM));
            continue;
        }
        EXPECT_TRUE(Eventually([&] {
            size_t n = 0;
            for (size_t at = 0; (at = box.Stderr().find(line, at)) != std::string::npos; at++) n++;
            return n == seen + 1;
        })) << line;
        if (effect == "debug printing on, or off again") {
            debug = !debug;
        } else {
            EXPECT_EQ(effect, "logged, nothing else");
        }
        std::string beat = "after " + r[0];
        ASSERT_EQ(box.Send(kHeartbeat, beat + '\0'), 0) << "still running";
        // The pass after a datagram prints the loop's debug line when debug printing is on.
        if (debug) {
            EXPECT_TRUE(box.WaitStdout("Heart Beat: " + beat + "\nKVARD select wait for"));
        } else {
            EXPECT_TRUE(box.WaitStdout("Heart Beat: " + beat + "\n"));
            std::this_thread::sleep_for(milliseconds(50));
            std::string out = box.Stdout();
            EXPECT_EQ(out.find("KVARD select", out.find("Heart Beat: " + beat)), std::string::npos);
        }
    }
}

uint16_t CodeOf(const std::string &word)
{
    const std::map<std::string, uint16_t> names = {
        {"TM_MSG_HEARTBEAT", 1}, {"TM_MSG_CONFIG_UPDATE", 2}, {"TM_MSG_LINK_UPDATE", 3}, {"TM_MSG_TIME_UPDATE", 4},
        {"TM_MSG_RESET_COUNTER", 5}, {"TM_MSG_WRITE_STATISTIC", 6}, {"TM_MSG_TIME_WAKE", 7}};
    return names.count(word) ? names.at(word) : uint16_t(std::stoul(word, nullptr, 0));
}

TEST(Guide, each_reply_word_comes_from_the_example_the_guide_gives)
{
    Table t = TableOf(Guide(), "replies");
    Sandbox box;
    Up(box, {});
    std::set<std::string> words;
    for (const Row &r : t.rows) {
        SCOPED_TRACE(r[0]);
        words.insert(r[0]);
        Argv example = Words(Span(r[t.Col("Example")]));
        ASSERT_GE(example.size(), 3u);
        ASSERT_EQ(example[0], "tmctl");
        std::optional<int32_t> reply;
        if (example[1] == "send") {
            reply = box.Send(CodeOf(example[2]));
        } else {
            ASSERT_EQ(example[1], "raw");
            std::string bytes;
            std::istringstream hex(example[2]);
            for (unsigned b; hex >> std::hex >> b;) bytes += char(b);
            auto raw = box.Request(bytes);
            ASSERT_TRUE(raw && raw->size() == 4);
            reply = *reinterpret_cast<const int32_t *>(raw->data());
        }
        EXPECT_EQ(reply, std::stoi(r[0]));
    }
    EXPECT_EQ(words, (std::set<std::string>{"-1", "0", "1"}));
}

TEST(Guide, each_message_of_the_troubleshooting_table_comes_where_and_with_the_status_it_says)
{
    Table t = TableOf(Guide(), "messages");
    const std::string kvard = InstalledPrefix() + "/sbin/kvard";
    struct Case {
        SandboxOptions options = {};
        std::function<void(Sandbox &)> before = [](Sandbox &) {};
        Argv env = {};
        std::function<void(Sandbox &)> running = [](Sandbox &) {};
    };
    auto noFlash = [] { return Case{.options = {.mtd = false}}; };
    const std::map<std::string, Case> cases = {
        {"Read File fail.", {}},
        {"READ FAIL: Length Mismatch", {.running = [](Sandbox &b) { EXPECT_EQ(b.Send(102), 1); }}},
        {"Read Config  fail", {.before = [](Sandbox &b) { b.RemoveFile("var/lib/kvard/mdm/2888"); }}},
        {"Init MTD fail", noFlash()},
        {"Initialize Flash fail!", noFlash()},
        {"KVARD: Fail to initialize core module!", noFlash()},
        {"Traffic meter is only running at router mode",
         {.before = [](Sandbox &b) { b.WriteObject("2700", {{"operationMode", "AP"}}); }}},
        {"could not get lock, ret=",
         {.env = {"KVARD_MDM_LOCK_MAX_MS=200"}, .running = [](Sandbox &b) {
              int fd = open(b.Path("var/lib/kvard/mdm/.lock").c_str(), O_RDWR | O_CREAT, 0600);
              ASSERT_EQ(flock(fd, LOCK_EX), 0);
              EXPECT_EQ(b.Send(kWriteStatistic), 0) << "not published";
              close(fd);
          }}},
        {"cmsMsg_init failed, ret = ", {.env = {"KVARD_MSG_FAIL=7"}}},
        {"cmsMdm_init failed, ret = ", {.env = {"KVARD_MDM_DIR=/usr/none"}}},
        // A second daemon, started once the first has bound the port.
        {"KVARD: Fail to bind socket!",
         {.options = {.command = {"/bin/sh", "-c", kvard + " >/dev/null 2>&1 & while ! grep -q ':58C4' /.proc/net/udp; "
                                                           "do sleep 0.05; done; exec " + kvard}}}},
        {"Fail to get tx/rx counters", {.running = [](Sandbox &b) {
              b.UpdateObject("1400", {{"wanType", "none"}});
              EXPECT_EQ(b.Send(kLinkUpdate), 0);
          }}},
    };
    std::set<std::string> texts, known;
    for (const auto &[text, c] : cases) known.insert(text);
    for (const Row &r : t.rows) {
        std::string text = Span(r[t.Col("Text")]), stream = r[t.Col("Stream")], status = r[t.Col("Exit status")];
        SCOPED_TRACE(text);
        texts.insert(text);
        if (!cases.count(text)) { ADD_FAILURE() << "no way to bring this message about"; continue; }
        const Case &c = cases.at(text);
        Sandbox box(c.options);
        c.before(box);
        box.Start(c.env);
        if (status.empty()) {
            ASSERT_TRUE(box.WaitReady());
            c.running(box);
            EXPECT_EQ(box.Status(), "running");
        } else {
            EXPECT_EQ(box.WaitExit(), "exited " + status);
        }
        ASSERT_TRUE(stream == "stdout" || stream == "stderr") << stream;
        EXPECT_TRUE(box.WaitText(stream.c_str(), text, milliseconds(5000)));
    }
    EXPECT_EQ(texts, known) << "a message the test brings about is missing from the guide";
}

}  // namespace
