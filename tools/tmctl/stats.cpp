// "tmctl stats" (stats.h). One locked read of the published figures and of
// markStatus, then the settings as kvard itself converts them
// (bcm_dm_ReadConfig, which takes the lock on its own: the lock does not nest).
// The figures are shown as published; where the published text is a number,
// scripts get the number beside the text.
#include "tools/tmctl/stats.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include "core/tmcore.h"
#include "history/tmcalendar.h"
#include "platform/bcm_dm_util.h"
#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_store.h"
#include "tools/tmctl/historyhost.h"
#include "tools/tmctl/cli.h"
#include "tools/tmctl/mdm.h"

namespace tmctl {

namespace {

using Json = nlohmann::ordered_json;

const char kStatsHelp[] =
    "usage: tmctl stats [--json | --oneline] [--alert]\n"
    "\n"
    "Shows the traffic figures kvard publishes in the data-model store ($KVARD_MDM_DIR,\n"
    "default /var/lib/kvard/mdm): upload, download, total and connection time of\n"
    "today, yesterday, this week, this month and last month, the daily averages,\n"
    "what is left of the allowance, the period, the limit and the warning mark as\n"
    "kvard reads them from the settings, and the limit state (markStatus).\n"
    "Volumes are in MB of 1,000,000 bytes; what is left of a volume allowance is\n"
    "counted in powers of 1024 (K = 1024 bytes, M = 1024 K, G = 1024 M).\n"
    "  --json      one JSON document (schema in docs/tmctl.md)\n"
    "  --oneline   one line: this month's use against the limit, what is left, the state\n"
    "  --alert     exit status after the limit state: 0 below the warning mark and the\n"
    "              limit, 10 warning, 11 limit reached, 12 limit reached and WAN down\n"
    "Exit status: 0 done, 1 failed (no store, nothing published, lock not had,\n"
    "unknown limit state with --alert), 2 bad arguments.\n";

int usage(const std::string &message)
{
    fprintf(stderr, "tmctl: %s (try 'tmctl stats --help')\n", message.c_str());
    return kExitUsage;
}

int fail(const std::string &message)
{
    fprintf(stderr, "tmctl: %s\n", message.c_str());
    return kExitFailed;
}

using Text = std::optional<std::string>;   // a store field; nullopt when the field is null

// What one run reads from the store.
struct Snapshot {
    std::vector<std::pair<std::string, Text>> stat;   // every field of the statistics object, in object order
    Text markStatus;
    TmConfig config{};
};

Text field(const Snapshot &s, const std::string &name)
{
    for (const auto &[n, value] : s.stat)
        if (n == name) return value;
    return std::nullopt;
}

// Copies the string fields of an object of TYPE into OUT, null fields as nullopt.
void copyFields(const CmsObjectType *type, const void *obj, std::vector<std::pair<std::string, Text>> *out)
{
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind == CMS_FIELD_BYTE) continue;
        const char *value = *cmsFields_string(obj, f);
        out->emplace_back(f->name, value ? Text(value) : std::nullopt);
    }
}

// The figures, the limit state and the settings; 0, or kExitFailed and *error
// (empty when the store library has reported the failure on stderr).
int readSnapshot(Snapshot *snap, std::string *error)
{
    auto failed = [error](const std::string &why) {
        *error = why;
        return kExitFailed;
    };
    struct stat st;
    if (stat(cmsStore_dir(), &st) != 0 || !S_ISDIR(st.st_mode))
        return failed(std::string("no store at ") + cmsStore_dir() + " (is KVARD_MDM_DIR right?)");
    CmsRet lock = cmsLck_acquireLockWithTimeoutTraced("tmctl", kLockTimeoutMs);
    if (lock == CMSRET_TIMED_OUT) return failed(std::string("the store lock ") + cmsStore_dir() + "/.lock is held by another process");
    if (lock != CMSRET_SUCCESS) return kExitFailed;   // reported by the library, naming the lock file
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    void *stat = nullptr, *settings = nullptr;
    CmsRet statRet = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &stack, 0, &stat);
    CmsRet settingsRet = statRet == CMSRET_SUCCESS ? cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &stack, 0, &settings)
                                                   : statRet;
    if (statRet == CMSRET_SUCCESS)
        copyFields(cmsFields_find(MDMOID_ORNA_TRAFFIC_METER_STATISTICS), stat, &snap->stat);
    if (settingsRet == CMSRET_SUCCESS) {
        const char *m = static_cast<OrnaTrafficMeterObject *>(settings)->markStatus;
        snap->markStatus = m ? Text(m) : std::nullopt;
    }
    if (stat) cmsObj_free(&stat);
    if (settings) cmsObj_free(&settings);
    cmsLck_releaseLockTraced("tmctl");

    for (auto [ret, oid, name] : {std::tuple{statRet, 2889, "MDMOID_ORNA_TRAFFIC_METER_STATISTICS"},
                                  std::tuple{settingsRet, 2888, "MDMOID_ORNA_TRAFFIC_METER"}}) {
        if (ret == CMSRET_OBJECT_NOT_FOUND)
            return failed("object " + std::to_string(oid) + " (" + name + ") is not in the store " + cmsStore_dir() +
                        (oid == 2889 ? " (has kvard run?)" : ""));
        if (ret != CMSRET_SUCCESS) return kExitFailed;   // reported by the library, naming the file
    }
    // The runner seeds an empty statistics object; kvard fills it at its start.
    if (!field(*snap, "current_data_time") || !field(*snap, "start_data_time"))
        return failed(std::string("kvard has published no statistics in ") + cmsStore_dir() + " yet (is it running?)");
    if (readConfigQuietly(&snap->config) != 0)
        return failed(std::string("cannot read the settings (object 2888) in ") + cmsStore_dir());
    return kExitOk;
}

// ---- the published texts as numbers; nullopt when a text is not of its form ----

std::optional<double> megabytes(const Text &t)
{
    if (!t || t->empty()) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    double v = strtod(t->c_str(), &end);
    if (*end != '\0' || errno != 0 || !std::isfinite(v)) return std::nullopt;
    return v;
}

std::optional<long long> wholeNumber(const Text &t)
{
    if (!t || t->empty() || t->size() > 18 || t->find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return strtoll(t->c_str(), nullptr, 10);
}

// "H:M" (hours of any length, minutes of one or two digits) as minutes.
std::optional<long long> hoursMinutes(const Text &t)
{
    if (!t) return std::nullopt;
    size_t colon = t->find(':');
    if (colon == std::string::npos) return std::nullopt;
    auto h = wholeNumber(t->substr(0, colon)), m = wholeNumber(t->substr(colon + 1));
    if (!h || !m || *m > 59) return std::nullopt;
    return *h * 60 + *m;
}

// What is left: "H:M" of connection time, or " 4 G 672 M 380 K " of volume.
struct Left {
    bool time = false;
    long long minutes = 0;    // time
    long long kib = 0;        // volume, in units of 1024 bytes (the low 10 bits are not published)
};

std::optional<Left> left(const Text &t)
{
    if (!t) return std::nullopt;
    Left l;
    if (t->find(':') != std::string::npos) {
        auto m = hoursMinutes(t);
        if (!m) return std::nullopt;
        l.time = true;
        l.minutes = *m;
        return l;
    }
    const char *p = t->c_str();
    bool any = false;
    for (;;) {
        while (*p == ' ') p++;
        if (!*p) break;
        char *end = nullptr;
        if (*p < '0' || *p > '9') return std::nullopt;
        long long n = strtoll(p, &end, 10);
        if (*end != ' ') return std::nullopt;
        char unit = end[1];
        if (unit == 'G') l.kib += n << 20;
        else if (unit == 'M') l.kib += n << 10;
        else if (unit == 'K') l.kib += n;
        else return std::nullopt;
        any = true;
        p = end + 2;
    }
    return any ? std::optional<Left>(l) : std::nullopt;
}

// An asctime text (zone-free) as "YYYY-MM-DD hh:mm:ss"; nullopt when it is none.
std::optional<std::string> localText(const Text &t)
{
    if (!t) return std::nullopt;
    struct tm fields = {};
    const char *end = strptime(t->c_str(), "%a %b %d %H:%M:%S %Y", &fields);
    if (end == nullptr || (*end != '\0' && strcmp(end, "\n") != 0)) return std::nullopt;
    char out[32];
    strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S", &fields);
    return std::string(out);
}

// The next monthly reset after the moment the figures were published, by the
// daemon's own calendar (TmCalcResetTimes on a synchronised clock standing at
// that moment, read in this process's zone); nullopt when the moment is unknown.
std::optional<int32_t> nextReset(const TmConfig &c, const Text &published)
{
    if (!published) return std::nullopt;
    struct tm fields = {};
    const char *end = strptime(published->c_str(), "%a %b %d %H:%M:%S %Y", &fields);
    if (end == nullptr || (*end != '\0' && strcmp(end, "\n") != 0)) return std::nullopt;
    fields.tm_isdst = -1;
    setHistoryClock((int32_t)mktime(&fields));
    tmCore.exportData.timeSync = 1;
    if (TmCalcResetTimes(c.resetDay, c.resetHour, c.resetMinute) == 0) return std::nullopt;
    return tmCore.exportData.nextResetTime;
}


std::string trimmed(const std::string &s)
{
    size_t a = s.find_first_not_of(" \n"), b = s.find_last_not_of(" \n");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::string shown(const Text &t) { return t ? trimmed(*t) : "-"; }

// ---- the settings and the limit state ----

const char *limitKind(const TmConfig &c)
{
    static const char *const kinds[] = {"none", "download", "upload+download", "connection time"};
    return c.limitType < 4 ? kinds[c.limitType] : "none";
}

bool timeLimit(const TmConfig &c) { return c.limitType == 3; }
bool volumeLimit(const TmConfig &c) { return c.limitType == 1 || c.limitType == 2; }

// Limit and warning mark in the settings' own units: MB (10^6 bytes) or hours.
double limitValue(const TmConfig &c) { return timeLimit(c) ? c.limitTime / 3600.0 : c.limitVol / 1e6; }
double warnValue(const TmConfig &c) { return timeLimit(c) ? c.warnTime / 3600.0 : c.warnVol / 1e6; }
bool hasWarning(const TmConfig &c) { return timeLimit(c) ? c.warnTime != 0 : c.warnVol != 0; }

std::optional<long long> statusCode(const Text &markStatus)
{
    auto n = wholeNumber(markStatus);
    if (!n || (*n != 0 && *n != 1 && *n != 3 && *n != 4)) return std::nullopt;
    return n;
}

std::string statusWords(const Text &markStatus)
{
    switch (statusCode(markStatus).value_or(-1)) {
    case 0: return "no limit reached";
    case 1: return "warning";
    case 3: return "limit reached";
    case 4: return "limit reached, WAN down";
    }
    return "unknown status '" + markStatus.value_or("(null)") + "'";
}

std::string number(double v)
{
    char out[40];
    snprintf(out, sizeof out, v == std::floor(v) && std::fabs(v) < 1e15 ? "%.0f" : "%.2f", v);
    return out;
}

std::string leftWords(const Left &l)
{
    char out[48];
    if (l.time) {
        snprintf(out, sizeof out, "%lld:%02lld h", l.minutes / 60, l.minutes % 60);
    } else if (l.kib >= (1ll << 20)) {
        snprintf(out, sizeof out, "%.2f GiB", l.kib / 1048576.0);
    } else if (l.kib >= 1024) {
        snprintf(out, sizeof out, "%.2f MiB", l.kib / 1024.0);
    } else {
        snprintf(out, sizeof out, "%lld KiB", l.kib);
    }
    return out;
}

struct Period {
    const char *key, *label;
    bool averages;
};
const Period kPeriods[] = {{"today", "today", false},
                           {"yesterday", "yesterday", false},
                           {"thisweek", "this week", true},
                           {"thismonth", "this month", true},
                           {"lastmonth", "last month", true}};

std::string resetWords(const TmConfig &c)
{
    char out[64];
    snprintf(out, sizeof out, "day %u at %02u:%02u", c.resetDay, c.resetHour, c.resetMinute);
    return out;
}

// ---- renderings ----

void printTable(const Snapshot &s)
{
    const TmConfig &c = s.config;
    printf("Volumes in MB (1 MB = 1,000,000 bytes), averages in MB a day, connection time in hours:minutes.\n\n");
    printf("%-11s %12s %12s %12s %10s %12s %12s %12s\n", "period", "upload", "download", "total", "connected",
           "avg upload", "avg download", "avg total");
    for (const Period &p : kPeriods) {
        std::string k = p.key;
        printf("%-11s %12s %12s %12s %10s", p.label, shown(field(s, k + "_upload")).c_str(),
               shown(field(s, k + "_download")).c_str(), shown(field(s, k + "_total")).c_str(),
               shown(field(s, k + "_conntime")).c_str());
        if (p.averages)
            printf(" %12s %12s %12s", shown(field(s, k + "_uploadavg")).c_str(),
                   shown(field(s, k + "_downloadavg")).c_str(), shown(field(s, k + "_totalavg")).c_str());
        printf("\n");
    }
    printf("\n");
    Text start = field(s, "start_data_time"), now = field(s, "current_data_time");
    printf("%-14s %s, day %s of %s\n", "counting from", localText(start).value_or(shown(start)).c_str(),
           shown(field(s, "passedDay")).c_str(), shown(field(s, "periodDay")).c_str());
    printf("%-14s %s\n", "as of", localText(now).value_or(shown(now)).c_str());
    if (auto next = nextReset(c, now))
        printf("%-14s %s (the settings reset on %s)\n", "next reset", localTime(*next).c_str(), resetWords(c).c_str());
    else
        printf("%-14s unknown (the settings reset on %s)\n", "next reset", resetWords(c).c_str());
    auto l = left(field(s, "volume_left"));
    if (l && l->time)
        printf("%-14s %s (hours:minutes of connection time)\n", "left", shown(field(s, "volume_left")).c_str());
    else
        printf("%-14s %s (in powers of 1024: K = 1024 bytes, M = 1024 K, G = 1024 M)\n", "left",
               shown(field(s, "volume_left")).c_str());
    if (!c.enable) {
        printf("%-14s off (traffic_on is not \"true\")\n", "metering");
    }
    if (volumeLimit(c) || timeLimit(c)) {
        const char *unit = timeLimit(c) ? "hours" : "MB";
        printf("%-14s %s %s (%s)\n", "limit", number(limitValue(c)).c_str(), unit, limitKind(c));
        if (hasWarning(c))
            printf("%-14s at %s %s\n", "warning mark", number(warnValue(c)).c_str(), unit);
        else
            printf("%-14s none\n", "warning mark");
        if (timeLimit(c))
            printf("%-14s %s of %s hours\n", "used", shown(field(s, "connTimeUsed")).c_str(),
                   shown(field(s, "connTimeLimited")).c_str());
        else
            printf("%-14s %s of %s MB (whole MB)\n", "used", shown(field(s, "dataUsed")).c_str(),
                   shown(field(s, "dataLimited")).c_str());
    } else {
        printf("%-14s none\n", "limit");
    }
    auto code = statusCode(s.markStatus);
    printf("%-14s %s", "status", statusWords(s.markStatus).c_str());
    Text reached = code == 1 ? field(s, "warningTime") : (code == 3 || code == 4) ? field(s, "limitedTime") : std::nullopt;
    if (reached && !trimmed(*reached).empty()) printf(" since %s", localText(reached).value_or(shown(reached)).c_str());
    printf("\n");
}

Json numberOrNull(const std::optional<double> &v) { return v ? Json(*v) : Json(nullptr); }
Json numberOrNull(const std::optional<long long> &v) { return v ? Json(*v) : Json(nullptr); }
Json textOrNull(const Text &t) { return t ? Json(*t) : Json(nullptr); }

Json moment(const Text &t)
{
    if (!t || trimmed(*t).empty()) return nullptr;
    auto local = localText(t);
    return {{"text", *t}, {"local", local ? Json(*local) : Json(nullptr)}};
}

Json document(const Snapshot &s)
{
    const TmConfig &c = s.config;
    Json j;
    j["store"] = cmsStore_dir();
    Json periods = Json::object();
    for (const Period &p : kPeriods) {
        std::string k = p.key;
        Json e = {{"upload", numberOrNull(megabytes(field(s, k + "_upload")))},
                  {"download", numberOrNull(megabytes(field(s, k + "_download")))},
                  {"total", numberOrNull(megabytes(field(s, k + "_total")))},
                  {"connTime", textOrNull(field(s, k + "_conntime"))},
                  {"connMinutes", numberOrNull(hoursMinutes(field(s, k + "_conntime")))}};
        if (p.averages) {
            e["uploadAvg"] = numberOrNull(megabytes(field(s, k + "_uploadavg")));
            e["downloadAvg"] = numberOrNull(megabytes(field(s, k + "_downloadavg")));
            e["totalAvg"] = numberOrNull(megabytes(field(s, k + "_totalavg")));
        }
        periods[k] = e;
    }
    j["periods"] = periods;
    Text leftText = field(s, "volume_left");
    auto l = left(leftText);
    j["left"] = {{"text", textOrNull(leftText)}, {"kind", l ? Json(l->time ? "time" : "volume") : Json(nullptr)},
                 {"kib", l && !l->time ? Json(l->kib) : Json(nullptr)},
                 {"minutes", l && l->time ? Json(l->minutes) : Json(nullptr)}};
    j["start"] = moment(field(s, "start_data_time"));
    j["current"] = moment(field(s, "current_data_time"));
    j["passedDays"] = numberOrNull(wholeNumber(field(s, "passedDay")));
    j["periodDays"] = numberOrNull(wholeNumber(field(s, "periodDay")));
    auto next = nextReset(c, field(s, "current_data_time"));
    j["nextReset"] = next ? Json{{"local", localTime(*next)}, {"epoch", *next}} : Json(nullptr);
    j["reset"] = {{"day", c.resetDay}, {"hour", c.resetHour}, {"minute", c.resetMinute}};
    Json limit = {{"enabled", c.enable != 0}, {"type", limitKind(c)}, {"unit", nullptr}, {"limit", nullptr},
                  {"warning", nullptr}};
    if (volumeLimit(c) || timeLimit(c)) {
        limit["unit"] = timeLimit(c) ? "hours" : "MB";
        limit["limit"] = limitValue(c);
        if (hasWarning(c)) limit["warning"] = warnValue(c);
    }
    limit["usedMB"] = numberOrNull(wholeNumber(field(s, "dataUsed")));
    limit["limitMB"] = numberOrNull(wholeNumber(field(s, "dataLimited")));
    limit["usedMinutes"] = numberOrNull(hoursMinutes(field(s, "connTimeUsed")));
    limit["limitHours"] = numberOrNull(wholeNumber(field(s, "connTimeLimited")));
    j["limit"] = limit;
    auto code = statusCode(s.markStatus);
    j["status"] = {{"code", numberOrNull(code)}, {"text", textOrNull(s.markStatus)}, {"words", statusWords(s.markStatus)}};
    j["warningTime"] = moment(field(s, "warningTime"));
    j["limitedTime"] = moment(field(s, "limitedTime"));
    Json published = Json::object();
    for (const auto &[name, value] : s.stat) published[name] = textOrNull(value);
    j["published"] = published;
    return j;
}

void printOneline(const Snapshot &s)
{
    const TmConfig &c = s.config;
    std::string line = "this month ";
    auto l = left(field(s, "volume_left"));
    if (timeLimit(c)) {
        Text used = field(s, "thismonth_conntime");
        auto minutes = hoursMinutes(used);
        line += shown(used) + " h of " + number(limitValue(c)) + " h";
        if (minutes && c.limitTime > 0) {
            char pct[32];
            snprintf(pct, sizeof pct, " (%.1f%%)", *minutes * 60.0 / c.limitTime * 100.0);
            line += pct;
        }
    } else {
        Text used = field(s, c.limitType == 1 ? "thismonth_download" : "thismonth_total");
        line += shown(used) + " MB";
        if (volumeLimit(c)) {
            line += " of " + number(limitValue(c)) + " MB";
            auto mb = megabytes(used);
            if (mb && c.limitVol > 0) {
                char pct[32];
                snprintf(pct, sizeof pct, " (%.1f%%)", *mb / limitValue(c) * 100.0);
                line += pct;
            }
        }
    }
    if (c.limitType == 1) line += " downloaded";
    if (!c.enable)
        line += ", metering off";
    else if (!volumeLimit(c) && !timeLimit(c))
        line += ", no limit set";
    else if (l)
        line += ", " + leftWords(*l) + " left";
    line += ", " + statusWords(s.markStatus);
    printf("%s\n", line.c_str());
}

}  // namespace

int statsDocument(nlohmann::ordered_json *doc, std::string *error)
{
    Snapshot snap;
    int status = readSnapshot(&snap, error);
    if (status == kExitOk) *doc = document(snap);
    return status;
}

// bcm_dm_ReadConfig prints the settings on stdout, as the daemon's console
// line; here that line would mix with the output, so stdout is muted meanwhile.
int readConfigQuietly(TmConfig *config)
{
    fflush(stdout);
    int saved = dup(STDOUT_FILENO), devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved < 0 || devNull < 0 || dup2(devNull, STDOUT_FILENO) < 0) {
        if (saved >= 0) close(saved);
        if (devNull >= 0) close(devNull);
        return -1;
    }
    close(devNull);
    int ret = bcm_dm_ReadConfig("", config);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return ret;
}

int statsCommand(const std::vector<std::string> &args)
{
    enum { kJson = 1, kOneline, kAlert, kHelp, kVersion };
    static const struct option longOptions[] = {{"json", no_argument, nullptr, kJson},
                                                {"oneline", no_argument, nullptr, kOneline},
                                                {"alert", no_argument, nullptr, kAlert},
                                                {"help", no_argument, nullptr, kHelp},
                                                {"version", no_argument, nullptr, kVersion},
                                                {nullptr, 0, nullptr, 0}};
    std::vector<std::string> storage = {"tmctl stats"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : storage) argv.push_back(a.data());
    argv.push_back(nullptr);

    int format = 0;
    bool alert = false;
    opterr = 0;
    optind = 0;   // a fresh scan
    for (;;) {
        int c = getopt_long((int)storage.size(), argv.data(), ":h", longOptions, nullptr);
        if (c == -1) break;
        switch (c) {
        case kJson:
        case kOneline:
            if (format && format != c) return usage("stats: give one of --json and --oneline");
            format = c;
            break;
        case kAlert:
            alert = true;
            break;
        case 'h':
        case kHelp:
            fputs(kStatsHelp, stdout);
            return kExitOk;
        case kVersion:
            return printVersion();
        default:
            return usage(std::string("stats: unknown option ") + argv[optind - 1]);
        }
    }
    if (optind < (int)storage.size()) return usage(std::string("stats: unexpected argument '") + argv[optind] + "'");

    Snapshot snap;
    std::string error;
    if (int status = readSnapshot(&snap, &error); status != kExitOk) return error.empty() ? status : fail(error);
    if (format == kJson)
        printf("%s\n", document(snap).dump(2).c_str());
    else if (format == kOneline)
        printOneline(snap);
    else
        printTable(snap);
    if (fflush(stdout) != 0 || ferror(stdout)) return fail(std::string("cannot write the statistics: ") + strerror(errno));
    if (!alert) return kExitOk;
    switch (statusCode(snap.markStatus).value_or(-1)) {
    case 0: return kExitOk;
    case 1: return kAlertWarning;
    case 3: return kAlertLimit;
    case 4: return kAlertWanDown;
    }
    return fail("markStatus '" + snap.markStatus.value_or("(null)") + "' in object 2888 is no known limit state");
}

}  // namespace tmctl
