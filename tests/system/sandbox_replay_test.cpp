// kvard-sandbox advance and replay against the production daemon: a month of
// traffic from a file drives it to the figures an exact model of the file gives,
// and a bad file or argument is refused whole, before anything reaches it.
#include <csignal>
#include <random>

#include "tests/system/meter_model.h"

namespace {

using namespace kvard::test::meter;

// Settings() makes the WAN a PPPoE link: the daemon reads this line.
const std::string kWan = "ppp0.2";

bool Has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// The interface's counters in the box's /proc/net/dev: rx, tx.
std::pair<uint64_t, uint64_t> NetDevCounters(const Sandbox &box)
{
    std::string text = box.ReadFile("proc/net/dev").value_or("");
    size_t at = text.find(kWan + ":");
    if (at == std::string::npos) return {0, 0};
    std::istringstream numbers(text.substr(at + kWan.size() + 1));
    std::vector<uint64_t> columns;
    for (uint64_t value; columns.size() < 9 && numbers >> value;) columns.push_back(value);
    return {columns.at(0), columns.at(8)};
}

// The box and the model side by side: the model is told each minute the file
// stands for, with the counters the box should see then.
struct Bench {
    Sandbox box{At("2026-03-20 00:00:00")};  // a Friday; the week turns on the 22nd, the period on the 27th
    Model model;
    uint64_t tx = 7000, rx = 5000;
    int32_t now = T("2026-03-20 00:00:00");

    Bench()
    {
        Settings(box);
        Go(box, {{kWan, rx, tx}});
        model.Start(now, tx, rx);
    }
    void Minute(int32_t m, uint64_t newTx, uint64_t newRx)
    {
        model.Wake(m, tx = newTx, rx = newRx);
        now = m;
    }
    CommandResult Run(std::vector<std::string> args)
    {
        args.insert(args.begin() + 1, box.Dir());
        args.insert(args.end(), {"--interface", kWan});
        return box.Runner(args);
    }
    // Every figure the model knows, as published.
    void Check(const std::string &when)
    {
        StoreObject got = box.ReadObject("2889").value_or(StoreObject{});
        std::string wrong;
        for (const auto &[name, value] : model.Figures(now, tx, rx))
            if (got[name] != value) wrong += "\n  " + name + ": \"" + got[name] + "\", model \"" + value + "\"";
        EXPECT_TRUE(wrong.empty()) << when << " at " << Text(now) << wrong;
        EXPECT_EQ(got["current_data_time"], Asc(now)) << when << ": published on the final clock";
        EXPECT_EQ(box.ReadFile("sandbox/clock"), Text(now) + "\n") << when;
        EXPECT_EQ(NetDevCounters(box), std::make_pair(rx, tx)) << when;
    }
};

// A month of minutes from FROM to TO as a file of cumulative counters, rows a
// minute apart or a few minutes apart with the same traffic in each minute,
// idle stretches, and all three ways of writing a time. MINUTES gets the
// counters at each minute's end, relative to the file's first row.
std::string MonthFile(int32_t from, int32_t to, std::vector<std::tuple<int32_t, uint64_t, uint64_t>> &minutes)
{
    std::mt19937_64 rng(20260320);
    auto below = [&rng](uint64_t n) { return rng() % n; };
    const uint64_t firstRx = 4000000000, firstTx = 123456;  // not the box's: only the growth counts
    uint64_t rx = firstRx, tx = firstTx;
    std::string file = "# a month of traffic\ntime,rx_bytes,tx_bytes\n" + Text(from) + "," + std::to_string(rx) + "," +
                       std::to_string(tx) + "\n";
    for (int32_t t = from, rows = 0; t < to; rows++) {
        uint64_t roll = below(100), span = roll < 75 ? 1 : roll < 95 ? 2 + below(8) : 30 + below(150);
        span = std::min<uint64_t>(span, (to - t) / 60);
        bool idle = span > 20 || below(5) == 0;
        uint64_t perRx = idle ? 0 : below(2000000), perTx = idle ? 0 : below(200000);
        for (uint64_t i = 0; i < span; i++) minutes.emplace_back(t += 60, (rx += perRx) - firstRx, (tx += perTx) - firstTx);
        std::string time = roll % 5 == 0 ? Text(t) : roll % 5 == 1 ? "@" + std::to_string(t) : "+" + std::to_string(span) + "m";
        file += time + "," + std::to_string(rx) + "," + std::to_string(tx) + "\n";
        if (rows % 997 == 0) file += "\n# " + Text(t, "%A %d %B") + "\n";
    }
    return file;
}

TEST(SandboxReplay, a_month_from_a_file_and_advances_at_rates_reach_the_models_figures)
{
    Bench bench;
    Sandbox &box = bench.box;
    bench.Minute(T("2026-03-20 00:01:00"), bench.tx, bench.rx);  // a timer wake on the box's own clock
    SetClock(box, bench.now);
    Want(box.Send(kTimeWake), 1, "wake");

    // The first advance starts from the clock file and the interface's line.
    CommandResult advance = bench.Run({"advance", "15m", "--rx-rate", "1000", "--tx-rate", "0.5k"});
    ASSERT_EQ(advance.status, 0) << advance.out;
    EXPECT_TRUE(Has(advance.out, "advanced 15 minutes to 2026-03-20 00:16:00: rx +900000 bytes, tx +450000 bytes"))
        << advance.out;
    for (int i = 1; i <= 15; i++) bench.Minute(T("2026-03-20 00:01:00") + 60 * i, 7000 + 30000 * i, 5000 + 60000 * i);
    bench.Check("after advance 15m");
    ExpectStats(box, {{"today_download", "0.90"}, {"today_upload", "0.45"}});

    // 31 days and more: the week turns, the period resets on the 27th at 06:30, the clocks go forward on the 29th.
    std::vector<std::tuple<int32_t, uint64_t, uint64_t>> minutes;
    box.WriteFile("month.csv", MonthFile(bench.now, T("2026-04-20 09:37:00"), minutes));
    const uint64_t baseTx = bench.tx, baseRx = bench.rx;
    CommandResult replay = bench.Run({"replay", box.Path("month.csv")});
    ASSERT_EQ(replay.status, 0) << replay.out;
    EXPECT_TRUE(Has(replay.out, std::to_string(minutes.size()) + " minutes to 2026-04-20 09:37:00")) << replay.out;
    for (const auto &[m, rx, tx] : minutes) bench.Minute(m, baseTx + tx, baseRx + rx);
    bench.Check("after the month");
    EXPECT_NE(Stat(box, "lastmonth_download"), "0.00");
    EXPECT_NE(Stat(box, "today_download"), "0.00");

    // Volumes with the columns named in another order, uneven over the minutes and off the minute.
    box.WriteFile("volumes.csv", "time,tx,rx\n+3m,20,10\n+90s,0,1000\n+30s,0,0\n");
    replay = bench.Run({"replay", box.Path("volumes.csv"), "--volumes"});
    ASSERT_EQ(replay.status, 0) << replay.out;
    const int32_t e = bench.now;
    const Record want[] = {{e, e + 60, 6, 3, 60},        {e + 60, e + 120, 7, 3, 60},   {e + 120, e + 180, 7, 4, 60},
                           {e + 180, e + 240, 0, 666, 60}, {e + 240, e + 300, 0, 334, 60}};
    std::vector<Record> records = Records(box, false);
    for (const Record &r : want) EXPECT_NE(std::find(records.begin(), records.end(), r), records.end()) << Text(r.tStart);
    for (const Record &r : want) bench.Minute(r.tEnd, bench.tx + r.tx, bench.rx + r.rx);
    bench.Check("after the volumes");

    // A daemon that does not answer: the step is named. The steps were sent and
    // kvard takes them when it goes on, so the next advance goes on after them:
    // no minute twice, no counter going back.
    box.Signal(SIGSTOP);
    advance = bench.Run({"advance", "5m", "--rx-rate", "1M", "--timeout", "0.3"});
    box.Signal(SIGCONT);
    EXPECT_EQ(advance.status, 1) << advance.out;
    EXPECT_TRUE(Has(advance.out, "the simulated input for 2026-04-20 09:43:00 (step 1): no reply within 0.3 s "
                                 "(kvard takes the steps sent when it goes on); the box stands at 2026-04-20 09:47:00"))
        << advance.out;
    advance = bench.Run({"advance", "5m", "--rx-rate", "1M"});
    ASSERT_EQ(advance.status, 0) << advance.out;
    EXPECT_TRUE(Has(advance.out, "to 2026-04-20 09:52:00")) << advance.out;
    for (int i = 1; i <= 10; i++) bench.Minute(e + 300 + 60 * i, bench.tx, bench.rx + 60000000);
    bench.Check("after an advance that failed and one that did not");
}

TEST(SandboxReplay, a_bad_file_or_argument_sends_nothing)
{
    Bench bench;
    Sandbox &box = bench.box;
    std::string late = "time,rx,tx\n";  // the fault at the end of a long file
    for (int i = 0; i < 3000; i++) late += "+1m," + std::to_string(1000 * i) + ",0\n";
    late += "+1m,1,x\n";
    const struct {
        const char *name;
        std::optional<std::string> file;  // nullopt: no such file
        std::vector<std::string> args;    // after the file, or in place of replay FILE when the first is advance
        std::vector<std::string> said;
    } cases[] = {
        {"malformed time", "time,rx,tx\n2026-03-20 00:05:00,0,0\n\n2026-03-20 24:10:00,10,10\n", {},
         {"bad.csv:4: column 1 (time): bad time '2026-03-20 24:10:00'"}},
        {"time going back", "# comment\n2026-03-20 00:10:00,0,0\n@1773961500,5,5\n", {},
         {"bad.csv:3: column 1 (time): '@1773961500' (2026-03-20 00:05:00) is not after line 2's '2026-03-20 00:10:00'"}},
        {"first row before the box's clock", "2026-03-19 23:59:00,0,0\n", {},
         {"bad.csv:1: column 1 (time): '2026-03-19 23:59:00'", "before the box's clock 2026-03-20 00:00:00"}},
        {"counter going back", "time,rx,tx\n+1m,100,100\n+1m,50,200\n", {},
         {"bad.csv:3: column 2 (rx): counter '50' is below line 2's 100"}},
        {"counter going back in a named column", "tx,time,rx\n100,+1m,100\n99,+1m,200\n", {},
         {"bad.csv:3: column 1 (tx): counter '99' is below line 2's 100"}},
        {"bad number", "+1m,100,1e6\n", {}, {"bad.csv:1: column 3 (tx): bad number '1e6'"}},
        {"negative number", "+1m,-5,0\n", {}, {"bad.csv:1: column 2 (rx): bad number '-5'"}},
        {"a column short", "+1m,100\n", {}, {"bad.csv:1: 2 columns in '+1m,100'"}},
        {"unknown column name", "time,rx,bytes\n", {}, {"bad.csv:1: column 3: unknown column name 'bytes'"}},
        {"a fault on the last of 3001 rows", late, {}, {"bad.csv:3002: column 3 (tx): bad number 'x'"}},
        {"volume on the box's clock", "+0s,10,0\n", {"--volumes"}, {"bad.csv:1: column 1 (time): '+0s' is the box's clock"}},
        {"counter past 2^64", "+1m,18446744073709551615,0\n", {"--volumes"},
         {"bad.csv:1: column 2 (rx): '18446744073709551615' takes the box's rx counter past 2^64-1"}},
        {"empty file", "", {}, {"bad.csv: no rows"}},
        {"only a header and comments", "# nothing yet\ntime,rx,tx\n\n", {}, {"bad.csv: no rows"}},
        {"missing file", std::nullopt, {}, {"cannot open", "bad.csv: No such file or directory"}},
        {"bad rate", std::nullopt, {"advance", "15m", "--rx-rate", "2X"}, {"bad value '2X' of --rx-rate"}},
        {"fractional byte rate", std::nullopt, {"advance", "15m", "--tx-rate", "0.5"}, {"bad value '0.5' of --tx-rate"}},
        {"bad duration", std::nullopt, {"advance", "15q"}, {"bad DURATION '15q'"}},
        {"unknown option", "+1m,0,0\n", {"--speed", "2"}, {"unknown option --speed"}},
    };
    const StoreObject published = box.ReadObject("2889").value();
    const std::string out = box.Stdout();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        box.RemoveFile("bad.csv");
        if (c.file) box.WriteFile("bad.csv", *c.file);
        std::vector<std::string> args = {"replay", box.Path("bad.csv")};
        if (!c.args.empty() && c.args[0] == "advance") args.clear();
        args.insert(args.end(), c.args.begin(), c.args.end());
        CommandResult result = bench.Run(args);
        EXPECT_EQ(result.status, 2) << result.out;
        for (const auto &part : c.said) EXPECT_TRUE(Has(result.out, part)) << result.out;
        EXPECT_EQ(box.ReadObject("2889"), published);
        EXPECT_EQ(box.Stdout(), out);
        EXPECT_FALSE(box.ReadFile("sandbox/sim"));
    }
    // Help and version touch nothing either.
    for (const char *command : {"advance", "replay"}) {
        CommandResult help = box.Runner({command, "--help"}), version = box.Runner({command, "--version"});
        EXPECT_EQ(help.status, 0);
        EXPECT_TRUE(Has(help.out, std::string("usage: kvard-sandbox ") + command)) << help.out;
        EXPECT_EQ(version.status, 0);
        EXPECT_TRUE(Has(version.out, "kvard-sandbox ")) << version.out;
    }
    // No simulated input reached the daemon: a timer wake still closes a minute on the box's clock.
    bench.Minute(T("2026-03-20 00:01:00"), bench.tx, bench.rx);
    SetClock(box, bench.now);
    Want(box.Send(kTimeWake), 1, "wake");
    EXPECT_EQ(Stat(box, "current_data_time"), Asc(bench.now));
    // Nor is a daemon that has ended sent anything.
    box.Stop();
    box.WriteFile("good.csv", "+1m,0,0\n");
    CommandResult ended = bench.Run({"replay", box.Path("good.csv")});
    EXPECT_EQ(ended.status, 1) << ended.out;
    EXPECT_TRUE(Has(ended.out, "kvard is not running")) << ended.out;
}

}  // namespace
