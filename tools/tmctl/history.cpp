// "tmctl history" (history.h). The daemon's start is replayed on a copy of the
// partition in memory (historyhost.h): the rebuild of the lists and the period
// totals, then the collection of the published figures, so that today,
// yesterday, this week, this month and last month are the daemon's to the
// last digit. The table per half-day, day, week or month spreads the rebuilt
// lists over calendar buckets with the daemon's apportioning.
#include "tools/tmctl/history.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <nlohmann/json.hpp>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "history/tmcalendar.h"
#include "history/tmflash.h"
#include "history/tmmtd.h"
#include "history/tmrings.h"
#include "history/tmsidefile.h"
#include "history/tmstat.h"
#include "platform/bcm_dm_util.h"
#include "platform/cms/cms.h"
#include "platform/cms/cms_store.h"
#include "platform/tmtext.h"
#include "tools/tmctl/chart.h"
#include "tools/tmctl/flashscan.h"
#include "tools/tmctl/historyhost.h"
#include "tools/tmctl/cli.h"
#include "tools/tmctl/mdm.h"

namespace tmctl {

namespace {

const char kHistoryHelp[] =
    "usage: tmctl history (IMAGE | DEVICE) [--half-days | --days | --weeks | --months]\n"
    "                     [--json | --csv] [--at \"YYYY-MM-DD hh:mm:ss\"]\n"
    "                     [--reset-day N] [--reset-hour N] [--reset-minute N]\n"
    "                     [--manual-reset FILE] [--page-size N --block-size N]\n"
    "\n"
    "Traffic per period from a \"tm\" partition (an image file, or an MTD device\n"
    "opened read-only), rebuilt as kvard rebuilds it when it starts: today,\n"
    "yesterday, this week, this month and last month exactly as kvard would\n"
    "publish them, then a table of the traffic kvard keeps (62 days back) per\n"
    "half-day, day (the default), week (from Sunday) or month (from the reset day).\n"
    "  --at T            the moment of the rebuild, local time (default now)\n"
    "  --reset-day N     1-31, --reset-hour N 0-23, --reset-minute N 0-59: the\n"
    "                    monthly reset; what is not given comes from the settings\n"
    "                    object 2888 of the store (KVARD_MDM_DIR)\n"
    "  --manual-reset FILE  the manual reset time as kvard keeps it (4 bytes);\n"
    "                    default " TM_RESTART_TIME_FILE " for a device, none for an image\n"
    "  --json            one JSON document (schema in docs/tmctl.md)\n"
    "  --csv             one line per period, with a header line\n"
    "  --page-size N, --block-size N   geometry of an image file (default 2048, 131072)\n"
    "Units: MB = 1,000,000 bytes, connection time h:mm. Times are local (TZ).\n"
    "Nothing is written: not the partition, not the store, not the reset file.\n"
    "Exit status: 0 done, 1 failed, 2 bad arguments.\n";

const char kChartHelp[] =
    "usage: tmctl chart (IMAGE | DEVICE) -o FILE.png | FILE.svg [--days N]\n"
    "                   [--at \"YYYY-MM-DD hh:mm:ss\"] [--manual-reset FILE]\n"
    "                   [--page-size N --block-size N]\n"
    "\n"
    "Draws the daily download and upload of the last N days (default 31, at most\n"
    "62) from a \"tm\" partition, rebuilt as tmctl history rebuilds it, as stacked\n"
    "bars in MB (1,000,000 bytes). With a volume limit in the settings (object 2888\n"
    "of the store, KVARD_MDM_DIR) the period's running total is drawn against it on\n"
    "a second axis; the start of the monthly period is marked.\n"
    "  -o, --output FILE  the picture: PNG or SVG, by the name's ending\n"
    "  --days N           how many days, ending with today (1 to 62)\n"
    "  --at, --manual-reset, --page-size, --block-size: as for tmctl history\n"
    "Exit status: 0 done, 1 failed, 2 bad arguments.\n";

enum class Unit { HalfDays, Days, Weeks, Months };
enum class Format { Text, Json, Csv };

struct Options {
    std::string path;
    Unit unit = Unit::Days;
    Format format = Format::Text;
    bool haveAt = false;
    int32_t at = 0;
    int resetDay = -1, resetHour = -1, resetMinute = -1;
    bool haveManual = false;
    std::string manualFile;
    FlashOptions flash;
};

struct Row {
    std::string label;
    int32_t start, end;
    uint64_t upload, download;
    int32_t conntime;
};

int usage(const std::string &message, const char *command = "history")
{
    fprintf(stderr, "tmctl: %s (try 'tmctl %s --help')\n", message.c_str(), command);
    return kExitUsage;
}

bool parseNumber(const char *text, long long low, long long high, long long *out)
{
    if (!*text || strspn(text, "0123456789") != strlen(text) || strlen(text) > 10) return false;
    long long v = strtoll(text, nullptr, 10);
    if (v < low || v > high) return false;
    *out = v;
    return true;
}

bool parseAt(const char *text, int32_t *out)
{
    struct tm fields = {};
    const char *end = strptime(text, "%Y-%m-%d %H:%M:%S", &fields);
    if (!end || *end) return false;
    fields.tm_isdst = -1;
    time_t t = mktime(&fields);
    if (t == (time_t)-1 || t < INT32_MIN || t > INT32_MAX) return false;
    *out = (int32_t)t;
    return true;
}

// The options that history and chart share, numbered alike in both.
enum { kAt = 256, kManual, kPage, kBlock, kOwnOptions };

// Takes a shared option: 0 taken, 1 not a shared one, or the usage status for a bad value.
int takeShared(int c, Options *o, const char *command)
{
    long long v = 0;
    switch (c) {
    case kAt:
        if (!parseAt(optarg, &o->at))
            return usage("--at needs a local time \"YYYY-MM-DD hh:mm:ss\", not '" + std::string(optarg) + "'", command);
        o->haveAt = true;
        return 0;
    case kManual:
        o->haveManual = true;
        o->manualFile = optarg;
        return 0;
    case kPage:
    case kBlock:
        if (!parseNumber(optarg, 1, UINT32_MAX, &v))
            return usage(std::string(c == kPage ? "--page-size" : "--block-size") + " needs a byte count", command);
        (c == kPage ? o->flash.pageSize : o->flash.blockSize) = (uint32_t)v;
        return 0;
    default:
        return 1;
    }
}

int parseOptions(const std::vector<std::string> &args, Options *o)
{
    std::vector<std::string> words = args;
    words.insert(words.begin(), "tmctl history");
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    enum { kDay = kOwnOptions, kHour, kMinute, kHalf, kDays, kWeeks, kMonths, kJson, kCsv, kHelp, kVersion };
    static const struct option longOptions[] = {
        {"at", required_argument, nullptr, kAt},         {"reset-day", required_argument, nullptr, kDay},
        {"reset-hour", required_argument, nullptr, kHour}, {"reset-minute", required_argument, nullptr, kMinute},
        {"manual-reset", required_argument, nullptr, kManual}, {"page-size", required_argument, nullptr, kPage},
        {"block-size", required_argument, nullptr, kBlock}, {"half-days", no_argument, nullptr, kHalf},
        {"days", no_argument, nullptr, kDays},           {"weeks", no_argument, nullptr, kWeeks},
        {"months", no_argument, nullptr, kMonths},       {"json", no_argument, nullptr, kJson},
        {"csv", no_argument, nullptr, kCsv},             {"help", no_argument, nullptr, kHelp},
        {"version", no_argument, nullptr, kVersion},     {nullptr, 0, nullptr, 0},
    };
    optind = 0;
    opterr = 0;
    int units = 0, formats = 0;
    for (;;) {
        int c = getopt_long((int)words.size(), argv.data(), ":", longOptions, nullptr);
        if (c == -1) break;
        long long v = 0;
        switch (c) {
        case kDay:
            if (!parseNumber(optarg, 1, 31, &v)) return usage("--reset-day takes 1 to 31");
            o->resetDay = (int)v;
            break;
        case kHour:
            if (!parseNumber(optarg, 0, 23, &v)) return usage("--reset-hour takes 0 to 23");
            o->resetHour = (int)v;
            break;
        case kMinute:
            if (!parseNumber(optarg, 0, 59, &v)) return usage("--reset-minute takes 0 to 59");
            o->resetMinute = (int)v;
            break;
        case kHalf: o->unit = Unit::HalfDays, units++; break;
        case kDays: o->unit = Unit::Days, units++; break;
        case kWeeks: o->unit = Unit::Weeks, units++; break;
        case kMonths: o->unit = Unit::Months, units++; break;
        case kJson: o->format = Format::Json, formats++; break;
        case kCsv: o->format = Format::Csv, formats++; break;
        case kHelp: fputs(kHistoryHelp, stdout); return -1;
        case kVersion: printVersion(); return -1;
        case ':': return usage(std::string(argv[optind - 1]) + " needs a value");
        default:
            if (int r = takeShared(c, o, "history"); r != 1) {
                if (r != 0) return r;
                break;
            }
            return usage("history: unknown option " + std::string(argv[optind - 1]));
        }
    }
    if (units > 1) return usage("give one of --half-days, --days, --weeks and --months");
    if (formats > 1) return usage("give one of --json and --csv");
    if (optind >= (int)words.size()) return usage("history: which IMAGE or DEVICE?");
    if (optind + 1 < (int)words.size()) return usage("history: unexpected argument '" + std::string(argv[optind + 1]) + "'");
    o->path = argv[optind];
    return kExitOk;
}

// The daemon's code prints as it goes (the settings it read, a missing reset
// file); none of that belongs in this command's output.
class QuietStdout {
public:
    QuietStdout()
    {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~QuietStdout()
    {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;
private:
    int saved_;
};

// The settings the daemon would start with: the store's, with the options over them.
int readSettings(const Options &o, TmConfig *config, std::string *error)
{
    memset(config, 0, sizeof *config);
    if (o.resetDay < 0 || o.resetHour < 0 || o.resetMinute < 0) {
        int32_t shm = 0;
        int read = 1;
        {
            QuietStdout quiet;
            if (cmsMdm_initWithAcc(0, 0, nullptr, &shm) == CMSRET_SUCCESS) read = bcm_dm_ReadConfig("", config);
        }
        if (read != 0) {
            *error = std::string("the settings object 2888 of the store ") + cmsStore_dir() +
                     " cannot be read: give --reset-day, --reset-hour and --reset-minute";
            return kExitFailed;
        }
    }
    if (o.resetDay >= 0) config->resetDay = (uint32_t)o.resetDay;
    if (o.resetHour >= 0) config->resetHour = (uint32_t)o.resetHour;
    if (o.resetMinute >= 0) config->resetMinute = (uint32_t)o.resetMinute;
    return kExitOk;
}

// The start of kvard on a synchronised clock: the ring layout as TmInit lays
// it, the rebuild, and the figures it would publish. The running minute's
// counters are in no record, so metering counts as off for the collection.
int replayStart(const TmConfig &config, TmStatistic *s, std::string *error)
{
    QuietStdout quiet;
    TmExportData &ed = tmCore.exportData;
    memset(&ed, 0, sizeof ed);
    tmCore.config = config;
    ed.limitType = config.limitType;
    ed.limitVol = config.limitVol;
    ed.limitTime = config.limitTime;
    ed.resetDay = config.resetDay;
    if (TmFlashInit() != 0) {
        *error = "the partition's geometry cannot carry the rings";
        return kExitFailed;
    }
    TmPlaceRings();
    ed.timeSync = 1;
    TmInitTrafficList(1);
    memset(s, 0, sizeof *s);
    TmCollectStatistic(s);
    TmFlashCleanup();
    return kExitOk;
}

// Gapless buckets from the one that holds from up to the one that holds until - 1.
std::vector<TmRecord> buckets(Unit unit, const TmConfig &config, int32_t from, int32_t until, int32_t now)
{
    std::vector<TmRecord> out;
    auto add = [&out](int32_t start, int32_t end) { out.push_back({start, end, 0, 0, 0, 0}); };
    const TmExportData &ed = tmCore.exportData;
    switch (unit) {
    case Unit::HalfDays:
        for (int i = 0; i < TM_HDAY_LIST_SIZE; i++) add(ed.hDayList[i].tStart, ed.hDayList[i].tEnd);
        break;
    case Unit::Days:
    case Unit::Weeks: {
        int32_t t = TmDayStart(from);
        if (unit == Unit::Weeks) t = TmWeekStart(t);
        while (t < until) {
            TmCalcDayWeekBoundaries(t);
            int32_t next = unit == Unit::Days ? tmCore.nextDay : tmCore.nextWeek;
            if (next <= t) break;
            add(t, next);
            t = next;
        }
        break;
    }
    case Unit::Months: {
        // The periods back from the current one, each as the daemon finds the
        // period around a moment just before the start of the one after it.
        std::vector<std::pair<int32_t, int32_t>> periods;
        int32_t start = ed.lastResetTime, next = ed.nextResetTime;
        for (int n = 0; n < 12 && next > from; n++) {
            periods.insert(periods.begin(), {start, next});
            setHistoryClock(start - 1);
            if (TmCalcResetTimes(config.resetDay, config.resetHour, config.resetMinute) == 0) break;
            if (tmCore.exportData.lastResetTime >= start) break;
            next = start;
            start = tmCore.exportData.lastResetTime;
        }
        setHistoryClock(now);
        for (const auto &p : periods) add(p.first, p.second);
        break;
    }
    }
    return out;
}

std::vector<Row> table(Unit unit, const TmConfig &config, int32_t now)
{
    const TmExportData &ed = tmCore.exportData;
    const int32_t from = ed.hDayList[0].tStart, until = ed.hDayList[TM_HDAY_LIST_SIZE - 1].tEnd;
    const int32_t lastReset = ed.lastResetTime, nextReset = ed.nextResetTime;
    std::vector<TmRecord> b = buckets(unit, config, from, until, now);
    tmCore.exportData.lastResetTime = lastReset;
    tmCore.exportData.nextResetTime = nextReset;
    std::vector<Row> rows;
    if (b.empty()) return rows;
    // The apportioning wants two buckets at least; a spare one after the last takes nothing that is kept.
    b.push_back({b.back().tEnd, b.back().tEnd + 1, 0, 0, 0, 0});
    for (const TmRecord &r : ed.hDayList) TmApportionRecord(b.data(), (uint32_t)b.size(), &r);
    for (const TmRecord &r : tmCore.minList) TmApportionRecord(b.data(), (uint32_t)b.size(), &r);
    b.pop_back();
    for (const TmRecord &r : b)
        rows.push_back({localTime(r.tStart), r.tStart, r.tEnd, r.tx, r.rx, r.tUsed});
    return rows;
}

std::vector<Row> periods(const TmStatistic &s)
{
    const int32_t now = s.current_data_time, L = s.start_data_time;
    const int32_t d = TmDayStart(now);
    const int32_t monthFrom = s.manualTime != 0 ? s.manualTime : L;
    auto row = [](const char *name, int32_t start, int32_t end, const TmPeriodFigures &p) {
        return Row{name, start, end, p.upload, p.download, p.conntime};
    };
    return {row("today", TmTodayStart(d, L), now, s.today),
            row("yesterday", TmYesterdayStart(d, L), d, s.yesterday),
            row("thisweek", TmThisWeekStart(d, L), now, s.thisweek),
            row("thismonth", monthFrom, now, s.thismonth),
            row("lastmonth", (int32_t)(L - s.lastmonth.elapsed), L, s.lastmonth)};
}

const char *unitName(Unit u)
{
    switch (u) {
    case Unit::HalfDays: return "half-days";
    case Unit::Weeks: return "weeks";
    case Unit::Months: return "months";
    default: return "days";
    }
}

nlohmann::json rowJson(const Row &r)
{
    return {{"start", r.start}, {"end", r.end}, {"start_local", localTime(r.start)}, {"end_local", localTime(r.end)},
            {"upload", r.upload}, {"download", r.download}, {"conntime", r.conntime}};
}

void printText(const Options &o, const TmStatistic &s, const std::vector<Row> &fixed, const std::vector<Row> &rows)
{
    char up[TM_TEXT_SIZE], down[TM_TEXT_SIZE], total[TM_TEXT_SIZE], conn[TM_TEXT_SIZE];
    printf("%s at %s; period from %s to %s", o.path.c_str(), localTime(s.current_data_time).c_str(),
           localTime(s.start_data_time).c_str(), localTime(s.next_data_time).c_str());
    if (s.manualTime) printf(", reset by hand at %s", localTime(s.manualTime).c_str());
    printf("\n\n");
    auto line = [&](const std::string &label, const std::string &from, const Row &r) {
        printf("%-10s %-19s %14s %14s %14s %9s\n", label.c_str(), from.c_str(), TmTextMegabytes(up, r.upload),
               TmTextMegabytes(down, r.download), TmTextMegabytes(total, r.upload + r.download),
               TmTextDuration(conn, r.conntime));
    };
    printf("%-10s %-19s %14s %14s %14s %9s\n", "period", "from", "upload MB", "download MB", "total MB", "connected");
    for (const Row &r : fixed) line(r.label, localTime(r.start), r);
    printf("\n%-10s %-19s %14s %14s %14s %9s\n", unitName(o.unit), "from", "upload MB", "download MB", "total MB",
           "connected");
    for (const Row &r : rows) line("", localTime(r.start), r);
    printf("\nMB = 1,000,000 bytes; connected h:mm\n");
}

// What a replayed start leaves: the settings it ran with, the figures it would
// publish, and the moment it ran at.
struct Rebuilt {
    TmConfig config;
    TmStatistic s;
    int32_t now = 0;
};

// The partition read, the settings taken and kvard's start replayed at the
// moment asked for; 0, or the failure's status and *error.
int rebuild(const Options &o, Rebuilt *r, std::string *error)
{
    TmConfig *config = &r->config;
    TmStatistic *s = &r->s;
    int32_t *now = &r->now;
    FlashScan scan;
    int status = scanFlash(o.path, o.flash, &scan, error);
    if (status == kExitOk) status = loadPartition(scan, error);
    if (status == kExitOk) status = readSettings(o, config, error);
    if (status != kExitOk) return status;
    *now = o.haveAt ? o.at : (int32_t)time(nullptr);
    setHistoryClock(*now);
    setManualResetFile(o.haveManual ? o.manualFile : scan.geometry.device ? TM_RESTART_TIME_FILE : "");
    status = replayStart(*config, s, error);
    if (status != kExitOk) *error = o.path + ": " + *error;
    return status;
}

// As rebuild, with a failure reported on stderr.
int rebuildOrSay(const Options &o, Rebuilt *r)
{
    std::string error;
    int status = rebuild(o, r, &error);
    if (status != kExitOk) fprintf(stderr, "tmctl: %s\n", error.c_str());
    return status;
}

nlohmann::json document(const Options &o, const Rebuilt &rebuilt, const std::vector<Row> &fixed, const std::vector<Row> &rows)
{
    const TmStatistic &s = rebuilt.s;
    nlohmann::json doc = {{"source", o.path}, {"at", rebuilt.now}, {"at_local", localTime(rebuilt.now)},
                          {"period_start", s.start_data_time}, {"period_next", s.next_data_time},
                          {"manual_reset", s.manualTime}, {"unit", unitName(o.unit)}};
    for (const Row &r : fixed) doc["periods"][r.label] = rowJson(r);
    doc["rows"] = nlohmann::json::array();
    for (const Row &r : rows) doc["rows"].push_back(rowJson(r));
    return doc;
}

}  // namespace

int historyDaysDocument(const std::string &path, const std::optional<std::string> &manualResetFile,
                        nlohmann::json *doc, std::string *error)
{
    Options o;
    o.path = path;
    o.haveManual = manualResetFile.has_value();
    o.manualFile = manualResetFile.value_or("");
    Rebuilt r;
    int status = rebuild(o, &r, error);
    if (status == kExitOk) *doc = document(o, r, periods(r.s), table(o.unit, r.config, r.now));
    return status;
}

int historyCommand(const std::vector<std::string> &args)
{
    Options o;
    int status = parseOptions(args, &o);
    if (status == -1) return kExitOk;
    if (status != kExitOk) return status;
    Rebuilt r;
    if ((status = rebuildOrSay(o, &r)) != kExitOk) return status;
    const TmStatistic &s = r.s;
    const int32_t now = r.now;
    const std::vector<Row> fixed = periods(s);
    const std::vector<Row> rows = table(o.unit, r.config, now);

    if (o.format == Format::Json) {
        printf("%s\n", document(o, r, fixed, rows).dump(2).c_str());
    } else if (o.format == Format::Csv) {
        printf("period,start,end,start_local,upload,download,conntime\n");
        auto line = [](const std::string &label, const Row &r) {
            printf("%s,%ld,%ld,%s,%llu,%llu,%ld\n", label.c_str(), (long)r.start, (long)r.end, localTime(r.start).c_str(),
                   (unsigned long long)r.upload, (unsigned long long)r.download, (long)r.conntime);
        };
        for (const Row &r : fixed) line(r.label, r);
        std::string unit = unitName(o.unit);
        unit.pop_back();
        for (const Row &r : rows) line(unit, r);
    } else {
        printText(o, s, fixed, rows);
    }
    return fflush(stdout) == 0 ? kExitOk : kExitFailed;
}

namespace {

int parseChartOptions(const std::vector<std::string> &args, Options *o, std::string *output, int *days)
{
    std::vector<std::string> words = args;
    words.insert(words.begin(), "tmctl chart");
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    enum { kDays = kOwnOptions, kHelp, kVersion };
    static const struct option longOptions[] = {
        {"output", required_argument, nullptr, 'o'},      {"days", required_argument, nullptr, kDays},
        {"at", required_argument, nullptr, kAt},          {"manual-reset", required_argument, nullptr, kManual},
        {"page-size", required_argument, nullptr, kPage}, {"block-size", required_argument, nullptr, kBlock},
        {"help", no_argument, nullptr, kHelp},            {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0;
    opterr = 0;
    for (;;) {
        int c = getopt_long((int)words.size(), argv.data(), ":o:", longOptions, nullptr);
        if (c == -1) break;
        long long v = 0;
        switch (c) {
        case 'o': *output = optarg; break;
        case kDays:
            if (!parseNumber(optarg, 1, TM_HDAY_LIST_SIZE / 2, &v))
                return usage("--days takes 1 to 62 (kvard keeps 62 days), not '" + std::string(optarg) + "'", "chart");
            *days = (int)v;
            break;
        case kHelp: fputs(kChartHelp, stdout); return -1;
        case kVersion: printVersion(); return -1;
        case ':': return usage(std::string(argv[optind - 1]) + " needs a value", "chart");
        default:
            if (int r = takeShared(c, o, "chart"); r != 1) {
                if (r != 0) return r;
                break;
            }
            return usage("chart: unknown option " + std::string(argv[optind - 1]), "chart");
        }
    }
    auto endsWith = [&](const char *suffix) {
        size_t n = strlen(suffix);
        return output->size() > n && output->compare(output->size() - n, n, suffix) == 0;
    };
    if (!endsWith(".png") && !endsWith(".svg"))
        return usage("chart: where to? give -o FILE.png or -o FILE.svg, not '" + *output + "'", "chart");
    if (optind >= (int)words.size()) return usage("chart: which IMAGE or DEVICE?", "chart");
    if (optind + 1 < (int)words.size()) return usage("chart: unexpected argument '" + std::string(argv[optind + 1]) + "'", "chart");
    o->path = argv[optind];
    return kExitOk;
}

}  // namespace

int chartCommand(const std::vector<std::string> &args)
{
    Options o;
    std::string output;
    int days = 31;
    int status = parseChartOptions(args, &o, &output, &days);
    if (status == -1) return kExitOk;
    if (status != kExitOk) return status;
    Rebuilt r;
    if ((status = rebuildOrSay(o, &r)) != kExitOk) return status;
    const TmConfig &config = r.config;
    const int32_t now = r.now;
    const std::vector<Row> rows = table(Unit::Days, config, now);
    ChartInput in;
    // The days up to and with today: the table reaches to the end of the running half-day.
    size_t end = rows.size();
    while (end > 0 && rows[end - 1].start > now) end--;
    for (size_t i = end > (size_t)days ? end - (size_t)days : 0; i < end; i++)
        in.days.push_back({rows[i].start, rows[i].download, rows[i].upload});
    if (config.limitType == 1 || config.limitType == 2) {
        in.limit = config.limitVol;
        in.limitCountsUpload = config.limitType == 2;
    }
    in.periodStart = r.s.start_data_time;
    if (!in.days.empty())
        in.title = "Daily use in MB, " + localTime(in.days.front().start).substr(0, 10) + " to " +
                   localTime(in.days.back().start).substr(0, 10);
    std::string error;
    if (drawChart(in, output, &error) != 0) {
        fprintf(stderr, "tmctl: %s\n", error.c_str());
        return kExitFailed;
    }
    printf("%s: %zu days drawn\n", output.c_str(), in.days.size());
    return kExitOk;
}

}  // namespace tmctl
