// "tmctl config show/set" (config.h).
//
// kvard reads its settings with atol and atoll and compares texts exactly, so a
// value it cannot read is not refused by it but silently becomes 0 or "off":
// "unlimited" is a limit of 0 bytes, "50GB" is 50 MB, "TRUE" is off. set checks
// every field of the object as it will be stored, with the ranges in which that
// reading is exact, and writes nothing unless all of it passes. show prints the
// settings beside what kvard makes of them, read by kvard's own bcm_dm_ReadConfig.
#include "tools/tmctl/config.h"

#include <getopt.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/tmcore.h"
#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_store.h"
#include "tools/tmctl/cli.h"
#include "tools/tmctl/exchange.h"
#include "tools/tmctl/mdm.h"
#include "tools/tmctl/stats.h"
#include "tools/tmctl/wire.h"

namespace tmctl {

namespace {

using Json = nlohmann::ordered_json;
using Text = std::optional<std::string>;       // a store field; nullopt when null
using Settings = std::map<std::string, Text>;  // the settings object's string fields by name

const char kConfigHelp[] =
    "usage: tmctl config show [--json]\n"
    "       tmctl config set [--dry-run] [--no-notify] [--timeout MS] NAME=VALUE ...\n"
    "\n"
    "show prints every field of the settings object 2888 and what kvard makes of it.\n"
    "set checks every value, writes the object under the store lock (fields not named\n"
    "stay as they are) and tells kvard (TM_MSG_CONFIG_UPDATE to 127.0.0.1:22724).\n"
    "Nothing is written when any value is wrong; each wrong one is reported.\n"
    "\n"
    "fields:\n"
    "  traffic_on volcontrl timecontrl led_on block_on ampm_sel\n"
    "                          true or false (also on/off, yes/no, 1/0, any case)\n"
    "  contrl_type             \"No limit\" (none), \"Download only\" (download),\n"
    "                          \"Download & Upload\" (both)\n"
    "  volume_monthly_limit    megabytes of 1,000,000 bytes, 0 to 9223372036854\n"
    "  conntime_monthly_limit  hours, 0 to 596523\n"
    "  mark                    the warning's distance before the limit, in megabytes\n"
    "                          (volume) or hours (time); 0 for no warning; below the limit\n"
    "  round_up_volume         bytes a short PPP session is charged at least, 0 to 2147483647\n"
    "  day                     1 to 31 (29 to 31: the month's last day when it is shorter)\n"
    "  hour                    0 to 23; 0 to 11 with ampm_sel=true (0 is noon)\n"
    "  min                     0 to 59\n"
    "  counter                 not read by kvard: any text of one line, up to 64 bytes\n"
    "  markStatus              kvard's own output, not settable\n"
    "aliases:\n"
    "  limit=50GB | 1.5TB | 800MB     volume_monthly_limit (1 GB = 1000 MB)\n"
    "  time-limit=40h                 conntime_monthly_limit\n"
    "  warn=5GB | warn=2h             mark\n"
    "  reset=\"15 23:30\" | reset=15    day, and hour, min, ampm_sel=false\n"
    "  reset-day=15  reset-time=23:30\n"
    "options:\n"
    "  --json        show: one JSON document (schema in docs/tmctl.md)\n"
    "  --dry-run     set: check and print what would change, write nothing\n"
    "  --no-notify   set: write, but send kvard no datagram\n"
    "  --timeout MS  set: how long to wait for kvard's reply (default 2000)\n"
    "Exit status: 0 done (set: applied by kvard), 1 failed, 2 bad arguments or values,\n"
    "3 saved but not applied (kvard not running, or it answered 0).\n";

int usage(const std::string &message) { return usageError("config", message); }

int fail(const std::string &message)
{
    fprintf(stderr, "tmctl: %s\n", message.c_str());
    return kExitFailed;
}

// ---- numbers ----

// Largest values whose reading by kvard is exact: a volume in MB times 10^6
// within a signed 64-bit atoll result, hours times 3600 within 32 bits, and
// what atol keeps of a 32-bit long.
constexpr uint64_t kMaxMegabytes = INT64_MAX / 1000000;   // 9223372036854
constexpr uint64_t kMaxHours = INT32_MAX / 3600;          // 596523
constexpr uint64_t kMaxLong = INT32_MAX;

// A plain decimal number: digits only, no sign, no blank; nullopt otherwise or above 2^64 - 1.
std::optional<uint64_t> plainNumber(const std::string &t)
{
    if (t.empty() || t.size() > 20 || t.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    uint64_t v = 0;
    for (char ch : t) {
        unsigned d = static_cast<unsigned>(ch - '0');
        if (v > (UINT64_MAX - d) / 10) return std::nullopt;
        v = v * 10 + d;
    }
    return v;
}

// 50000000000 as "50,000,000,000".
std::string grouped(uint64_t v)
{
    std::string digits = std::to_string(v), out;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

// A byte count in the largest decimal unit that keeps it above 1: "50 GB", "1.5 MB".
std::string bytesWords(uint64_t bytes)
{
    static const char *const units[] = {"bytes", "kB", "MB", "GB", "TB", "PB", "EB"};
    int u = 0;
    double v = static_cast<double>(bytes);
    while (v >= 1000 && u < 6) v /= 1000, u++;
    char out[48];
    if (u == 0) {
        snprintf(out, sizeof out, "%llu bytes", static_cast<unsigned long long>(bytes));
        return out;
    }
    snprintf(out, sizeof out, "%.2f", v);   // at most two decimals, without trailing zeros
    std::string n = out;
    n.erase(n.find_last_not_of('0') + 1);
    if (n.back() == '.') n.pop_back();
    return n + " " + units[u];
}

// "50GB", "1.5 TB", "800mb": a size in decimal units as whole megabytes. On
// failure *why says what is wrong.
std::optional<uint64_t> sizeMegabytes(const std::string &text, std::string *why)
{
    size_t i = 0;
    while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) i++;
    std::string whole = text.substr(0, i), fraction;
    if (i < text.size() && text[i] == '.') {
        size_t f = ++i;
        while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) i++;
        fraction = text.substr(f, i - f);
    }
    while (i < text.size() && text[i] == ' ') i++;
    std::string unit;
    for (char ch : text.substr(i)) unit += static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    if (whole.empty() || (text.find('.') != std::string::npos && fraction.empty())) {
        *why = "is not a size such as 800MB, 50GB or 1.5TB";
        return std::nullopt;
    }
    if (unit == "MIB" || unit == "GIB" || unit == "TIB") {
        *why = "is in binary units; kvard counts decimal ones (1 GB = 1000 MB, 1 MB = 1,000,000 bytes)";
        return std::nullopt;
    }
    int zeros = unit == "MB" || unit.empty() ? 0 : unit == "GB" ? 3 : unit == "TB" ? 6 : -1;
    if (zeros < 0) {
        *why = "is not a size such as 800MB, 50GB or 1.5TB (units MB, GB, TB)";
        return std::nullopt;
    }
    // Shift the decimal point by the unit's zeros; what is left after it must be zeros.
    std::string digits = whole + fraction;
    int point = static_cast<int>(whole.size()) + zeros;
    while (static_cast<int>(digits.size()) < point) digits += '0';
    if (digits.find_first_not_of('0', point) != std::string::npos) {
        *why = "is not a whole number of megabytes";
        return std::nullopt;
    }
    auto mb = plainNumber(digits.substr(0, point).empty() ? "0" : digits.substr(0, point));
    if (!mb || *mb > kMaxMegabytes) {
        *why = "is more than kvard can count (" + grouped(kMaxMegabytes) + " MB)";
        return std::nullopt;
    }
    return mb;
}

// ---- the fields ----

enum class Kind { Switch, Type, Megabytes, Hours, Bytes, Day, Hour, Minute, Mark, Counter, Status };

struct FieldRule {
    const char *name;
    Kind kind;
};

// In object order.
const FieldRule kFields[] = {
    {"traffic_on", Kind::Switch},     {"volcontrl", Kind::Switch},   {"contrl_type", Kind::Type},
    {"volume_monthly_limit", Kind::Megabytes}, {"round_up_volume", Kind::Bytes}, {"timecontrl", Kind::Switch},
    {"conntime_monthly_limit", Kind::Hours}, {"day", Kind::Day},     {"hour", Kind::Hour},
    {"min", Kind::Minute},            {"ampm_sel", Kind::Switch},    {"counter", Kind::Counter},
    {"mark", Kind::Mark},             {"led_on", Kind::Switch},      {"block_on", Kind::Switch},
    {"markStatus", Kind::Status},
};

const FieldRule *findRule(const std::string &name)
{
    for (const FieldRule &f : kFields)
        if (name == f.name) return &f;
    return nullptr;
}

// The limit types: what kvard compares with, and what a person may type for it.
// Any text but the first two means both directions; tmctl writes the third.
const char *const kNoLimit = "No limit", *const kDownloadOnly = "Download only", *const kBoth = "Download & Upload";

std::string lower(std::string s)
{
    for (char &ch : s) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    return s;
}

std::optional<std::string> limitTypeText(const std::string &input)
{
    std::string s = lower(input);
    for (const char *a : {"no limit", "none", "no-limit", "off"})
        if (s == a) return kNoLimit;
    for (const char *a : {"download only", "download", "download-only", "rx"})
        if (s == a) return kDownloadOnly;
    for (const char *a : {"download & upload", "both", "download+upload", "download-upload", "tx+rx", "all"})
        if (s == a) return kBoth;
    return std::nullopt;
}

std::optional<std::string> switchText(const std::string &input)
{
    std::string s = lower(input);
    for (const char *a : {"true", "on", "yes", "1"})
        if (s == a) return "true";
    for (const char *a : {"false", "off", "no", "0"})
        if (s == a) return "false";
    return std::nullopt;
}

// A problem with one field, as reported: the field, the value given and what is accepted.
struct Problem {
    std::string field, value, message;
    bool stored = false;   // the value was already in the store, not given now
    bool bare = false;     // about the name alone: no value to show
    std::string via = {};  // the alias that set the field, as written, if any
};

std::string quoteValue(const Problem &p) { return "'" + p.value + "'" + (p.stored ? " (in the store)" : ""); }

std::string problemText(const Problem &p) { return (p.bare ? "" : quoteValue(p) + " ") + p.message; }

std::string shownField(const Problem &p) { return p.field + (p.via.empty() ? "" : " (from " + p.via + ")"); }

// What a number that is not plain looks like it meant, for the hint: "; for 50 GB write 50000, or use limit=50GB".
std::string sizeHint(const std::string &value, const char *alias)
{
    std::string why;
    auto mb = sizeMegabytes(value, &why);
    if (!mb || value.find_first_not_of("0123456789") == std::string::npos) return "";
    size_t unit = value.find_first_not_of("0123456789. ");
    std::string words = value.substr(0, value.find_last_not_of(' ', unit - 1) + 1) + " " + value.substr(unit);
    for (size_t i = words.find(' ') + 1; i < words.size(); i++)
        words[i] = static_cast<char>(toupper(static_cast<unsigned char>(words[i])));
    return "; for " + words + " write " + std::to_string(*mb) + ", or use " + alias + "=" + value;
}

// The value of one field by itself, in the form kvard reads (exact texts, plain numbers).
std::optional<std::string> checkAlone(const FieldRule &f, const std::string &value)
{
    auto n = plainNumber(value);
    switch (f.kind) {
    case Kind::Switch:
        if (value == "true" || value == "false") return std::nullopt;
        return std::string("is not a switch: true or false (kvard takes only the exact text \"true\" as on)");
    case Kind::Type:
        return std::nullopt;   // any text is a limit type to kvard: others mean both directions
    case Kind::Megabytes:
        if (n && *n <= kMaxMegabytes) return std::nullopt;
        if (n) return "is out of range: megabytes from 0 to " + std::to_string(kMaxMegabytes);
        if (auto hint = sizeHint(value, "limit"); !hint.empty()) return "is not a whole number of megabytes" + hint;
        return "is not a number of megabytes (0 to " + std::to_string(kMaxMegabytes) +
               "); to meter without a limit set contrl_type=\"No limit\" or volcontrl=false";
    case Kind::Hours:
        if (n && *n <= kMaxHours) return std::nullopt;
        if (n) return "is out of range: hours from 0 to " + std::to_string(kMaxHours) + " (the seconds must fit in 32 bits)";
        if (value.size() > 1 && (value.back() == 'h' || value.back() == 'H') &&
            plainNumber(value.substr(0, value.size() - 1)))
            return "is not a whole number of hours; for " + value + " write " + value.substr(0, value.size() - 1) +
                   ", or use time-limit=" + value;
        return "is not a number of hours (0 to " + std::to_string(kMaxHours) +
               "); to meter without a limit set timecontrl=false";
    case Kind::Bytes:
        if (n && *n <= kMaxLong) return std::nullopt;
        return "is not a number of bytes (0 to " + std::to_string(kMaxLong) + "; 0 charges no minimum)";
    case Kind::Day:
        if (n && *n >= 1 && *n <= 31) return std::nullopt;
        return std::string("is not a day of the month (1 to 31; 29 to 31 mean the month's last day when it is shorter)");
    case Kind::Hour:
        if (n && *n <= 23) return std::nullopt;
        return std::string("is not an hour (0 to 23; 0 to 11 with ampm_sel=true)");
    case Kind::Minute:
        if (n && *n <= 59) return std::nullopt;
        return std::string("is not a minute (0 to 59)");
    case Kind::Mark:
        if (value.empty() || (n && *n <= kMaxMegabytes)) return std::nullopt;
        if (auto hint = sizeHint(value, "warn"); !hint.empty()) return "is not a whole number of megabytes" + hint;
        return std::string("is not a number: megabytes (volume limit) or hours (time limit) before the limit, 0 for no "
                           "warning; or use warn=5GB or warn=2h");
    case Kind::Counter:
        if (value.size() > 64) return std::string("is longer than 64 bytes");
        for (char ch : value)
            if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F)
                return std::string("holds a control character; any text of one line is accepted");
        return std::nullopt;
    case Kind::Status:
        return std::nullopt;
    }
    return std::nullopt;
}

bool isTrue(const Settings &s, const char *name)
{
    auto it = s.find(name);
    return it != s.end() && it->second && *it->second == "true";
}

uint64_t numberOf(const Settings &s, const char *name)
{
    auto it = s.find(name);
    if (it == s.end() || !it->second) return 0;
    return plainNumber(*it->second).value_or(0);
}

// Every check of the object as it will be stored: each field alone, then the
// rules between fields. GIVEN names the fields set in this command.
std::vector<Problem> checkObject(const Settings &s, const std::map<std::string, std::string> &given)
{
    std::vector<Problem> problems;
    std::map<std::string, bool> bad;
    for (const FieldRule &f : kFields) {
        auto it = s.find(f.name);
        if (it == s.end() || !it->second) continue;   // null: kvard's default
        if (auto why = checkAlone(f, *it->second)) {
            bool stored = !given.count(f.name);
            problems.push_back({f.name, stored ? *it->second : given.at(f.name), *why, stored});
            bad[f.name] = true;
        }
    }
    auto add = [&](const char *field, const std::string &message) {
        auto it = s.find(field);
        std::string value = it != s.end() && it->second ? *it->second : "";
        bool stored = !given.count(field);
        problems.push_back({field, stored ? value : given.at(field), message, stored});
    };

    // hour with ampm_sel: kvard adds 12 and nothing else; past 23 the reset lands on the next day.
    Text hour = s.count("hour") ? s.at("hour") : std::nullopt;
    if (isTrue(s, "ampm_sel") && !bad.count("hour")) {
        if (!hour)
            add("ampm_sel", "needs an hour: with no hour kvard resets at 00:00, not 12:00; set hour=0 for noon");
        else if (numberOf(s, "hour") > 11)
            add("hour", "with ampm_sel=true is read as " + std::to_string(numberOf(s, "hour") + 12) +
                            ":00, past the day's end; take 0 to 11 with ampm_sel=true, or ampm_sel=false with 0 to 23");
    }

    // mark is a distance before each limit in force; at or past it the warning value wraps.
    Text mark = s.count("mark") ? s.at("mark") : std::nullopt;
    uint64_t m = numberOf(s, "mark");
    if (mark && m != 0 && !bad.count("mark")) {
        if (isTrue(s, "volcontrl") && !bad.count("volume_monthly_limit") && m >= numberOf(s, "volume_monthly_limit"))
            add("mark", "is not below the volume limit of " + std::to_string(numberOf(s, "volume_monthly_limit")) +
                            " MB (volume_monthly_limit): the warning comes that many MB before the limit; use a "
                            "smaller mark, or 0 for no warning");
        if (isTrue(s, "timecontrl") && !bad.count("conntime_monthly_limit") &&
            m >= numberOf(s, "conntime_monthly_limit"))
            add("mark", "is not below the connection-time limit of " +
                            std::to_string(numberOf(s, "conntime_monthly_limit")) +
                            " hours (conntime_monthly_limit): the warning comes that many hours before the limit; use "
                            "a smaller mark, or 0 for no warning");
    }
    return problems;
}

// ---- the command line of set: fields and aliases into field values ----

struct Change {
    std::map<std::string, std::string> values;   // field -> value to write, canonical
    std::map<std::string, std::string> given;    // field -> the value given for it
    std::map<std::string, std::string> via;      // field -> the alias that set it, as written (reset=15 23:30)
    std::map<std::string, std::string> notes;    // field -> how an alias was read
    std::vector<Problem> problems;
};

// Sets FIELD to VALUE (canonical) for what the user gave (GIVEN), through the alias VIA if not empty.
void assign(Change *c, const std::string &field, const std::string &value, const std::string &given,
            const std::string &via = "", const std::string &note = "")
{
    if (c->values.count(field)) {
        c->problems.push_back({field, given, "is a second value for " + field + " in this command (first '" +
                                                 c->given[field] + "'); give each field once"});
        return;
    }
    c->values[field] = value;
    c->given[field] = given;
    if (!via.empty()) c->via[field] = via;
    if (!note.empty()) c->notes[field] = note;
}

std::string megabytesNote(const std::string &input, uint64_t mb)
{
    return input + " = " + grouped(mb) + " MB";
}

// "HH:MM" of a 24-hour clock.
bool clockTime(const std::string &t, uint64_t *h, uint64_t *m)
{
    size_t colon = t.find(':');
    if (colon == std::string::npos) return false;
    auto hh = plainNumber(t.substr(0, colon)), mm = plainNumber(t.substr(colon + 1));
    if (!hh || !mm || *hh > 23 || *mm > 59 || colon > 2 || t.size() - colon - 1 != 2) return false;
    *h = *hh, *m = *mm;
    return true;
}

void takeAssignment(Change *c, const std::string &arg)
{
    size_t eq = arg.find('=');
    std::string name = arg.substr(0, eq), value = eq == std::string::npos ? "" : arg.substr(eq + 1);
    if (eq == std::string::npos) {
        c->problems.push_back({name, "", "needs a value: NAME=VALUE", false, true});
        return;
    }
    if (const FieldRule *f = findRule(name)) {
        switch (f->kind) {
        case Kind::Status:
            c->problems.push_back({name, value, "is kvard's own output (the limit state), not a setting"});
            return;
        case Kind::Switch:
            if (auto t = switchText(value)) return assign(c, name, *t, value);
            c->problems.push_back({name, value, "is not a switch: true or false (also on/off, yes/no, 1/0)"});
            return;
        case Kind::Type:
            if (auto t = limitTypeText(value)) return assign(c, name, *t, value);
            c->problems.push_back({name, value,
                                   "is not a limit type: \"No limit\" (none), \"Download only\" (download) or "
                                   "\"Download & Upload\" (both)"});
            return;
        default:
            return assign(c, name, value, value);   // checked with the whole object
        }
    }
    std::string why;
    if (name == "limit") {
        if (auto mb = sizeMegabytes(value, &why))
            return assign(c, "volume_monthly_limit", std::to_string(*mb), std::to_string(*mb), arg, megabytesNote(value, *mb));
        if (why.rfind("is not a size", 0) == 0) why += "; to meter without a limit set contrl_type=none or volcontrl=false";
        c->problems.push_back({name, value, why});
    } else if (name == "warn") {
        std::string hours = value.size() > 1 && (value.back() == 'h' || value.back() == 'H')
                                ? value.substr(0, value.size() - 1) : "";
        if (auto h = plainNumber(hours); h && *h <= kMaxHours)
            return assign(c, "mark", std::to_string(*h), std::to_string(*h), arg, value + " = " + std::to_string(*h) + " hours");
        if (auto mb = sizeMegabytes(value, &why))
            return assign(c, "mark", std::to_string(*mb), std::to_string(*mb), arg, megabytesNote(value, *mb));
        c->problems.push_back({name, value, "is not a size such as 5GB or a number of hours such as 2h"});
    } else if (name == "time-limit") {
        std::string hours = value.size() > 1 && (value.back() == 'h' || value.back() == 'H')
                                ? value.substr(0, value.size() - 1) : value;
        if (auto h = plainNumber(hours); h && *h <= kMaxHours)
            return assign(c, "conntime_monthly_limit", std::to_string(*h), std::to_string(*h), arg);
        c->problems.push_back({name, value, "is not a number of hours from 0 to " + std::to_string(kMaxHours) + " such as 40h"});
    } else if (name == "reset-day") {
        assign(c, "day", value, value, arg);
    } else if (name == "reset-time" || name == "reset") {
        std::string day, time = value;
        if (name == "reset") {
            size_t blank = value.find(' ');
            day = value.substr(0, blank);
            size_t from = blank == std::string::npos ? blank : value.find_first_not_of(' ', blank);
            time = from == std::string::npos ? "" : value.substr(from);
            assign(c, "day", day, day, arg);
            if (time.empty()) return;
        }
        uint64_t h = 0, m = 0;
        if (!clockTime(time, &h, &m)) {
            c->problems.push_back({name, value, name == "reset" ? "is not DAY or \"DAY HH:MM\" (24-hour clock)"
                                                                : "is not a time HH:MM of the 24-hour clock"});
            return;
        }
        assign(c, "hour", std::to_string(h), std::to_string(h), arg);
        assign(c, "min", std::to_string(m), std::to_string(m), arg);
        assign(c, "ampm_sel", "false", "false", arg, "a 24-hour time");
    } else {
        c->problems.push_back({name, value, "is no setting (tmctl config --help lists them)", false, true});
    }
}

// ---- the store ----

std::string notInStore()
{
    return std::string("object 2888 (MDMOID_ORNA_TRAFFIC_METER) is not in the store ") + cmsStore_dir();
}

// Failures other than a held lock are reported by the library on stderr,
// naming the lock file; *error stays empty then.
bool lockStore(std::string *error)
{
    CmsRet ret = cmsLck_acquireLockWithTimeoutTraced("tmctl", kLockTimeoutMs);
    if (ret == CMSRET_TIMED_OUT) *error = std::string("the store lock ") + cmsStore_dir() + "/.lock is held by another process";
    return ret == CMSRET_SUCCESS;
}

bool haveStore(std::string *error)
{
    struct stat st;
    if (stat(cmsStore_dir(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
    *error = std::string("no store at ") + cmsStore_dir() + " (is KVARD_MDM_DIR right?)";
    return false;
}

Settings fieldsOf(const void *obj)
{
    Settings s;
    const CmsObjectType *type = cmsFields_find(MDMOID_ORNA_TRAFFIC_METER);
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind != CMS_FIELD_STRING) continue;
        const char *v = *cmsFields_string(obj, f);
        s[f->name] = v ? Text(v) : std::nullopt;
    }
    return s;
}

// The settings object's fields, read under the lock; 0, or the exit status of the failure and *error.
int readSettings(Settings *out, std::string *error)
{
    if (!haveStore(error) || !lockStore(error)) return kExitFailed;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    void *obj = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &stack, 0, &obj);
    if (ret == CMSRET_SUCCESS) {
        *out = fieldsOf(obj);
        cmsObj_free(&obj);
    }
    cmsLck_releaseLockTraced("tmctl");
    if (ret == CMSRET_OBJECT_NOT_FOUND) *error = notInStore();
    return ret == CMSRET_SUCCESS ? kExitOk : kExitFailed;   // other failures were reported by the library
}

// The clock state kvard reads (object 1045 status); nullopt when unreadable.
Text clockStatus()
{
    std::string error;
    if (!lockStore(&error)) {
        if (!error.empty()) fprintf(stderr, "tmctl: %s\n", error.c_str());
        return std::nullopt;
    }
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    void *obj = nullptr;
    Text status;
    if (cmsObj_get(MDMOID_DEV2_TIME, &stack, 0, &obj) == CMSRET_SUCCESS) {
        const char *s = static_cast<Dev2TimeObject *>(obj)->status;
        status = s ? Text(s) : Text("");
        cmsObj_free(&obj);
    }
    cmsLck_releaseLockTraced("tmctl");
    return status;
}

// ---- show ----

std::string hhmm(uint32_t h, uint32_t m)
{
    char out[32];
    snprintf(out, sizeof out, "%02u:%02u", h, m);
    return out;
}

const char *limitTypeWords(uint32_t type)
{
    static const char *const words[] = {"no limit", "download only (rx)", "download and upload (tx+rx)",
                                        "connection time"};
    return type < 4 ? words[type] : "unknown";
}

// What kvard makes of each field, from the record its own reader filled.
std::string meaning(const std::string &name, const Settings &s, const TmConfig &c)
{
    bool vol = isTrue(s, "volcontrl"), time = isTrue(s, "timecontrl");
    if (name == "traffic_on") return c.enable ? "metering on" : "metering off (only \"true\" is on)";
    if (name == "volcontrl") return vol ? "volume limit on" : "volume limit off";
    if (name == "timecontrl") return time ? "connection-time limit on (it takes the place of the volume limit)"
                                          : "connection-time limit off";
    if (name == "contrl_type") {
        if (time) return "not used: timecontrl=true limits connection time";
        if (!vol) return "not used: volcontrl is not true";
        if (c.limitType == 0) return "no limit: the volume is metered, nothing is limited";
        return std::string("limits ") + limitTypeWords(c.limitType);
    }
    if (name == "volume_monthly_limit")
        return "limit " + grouped(c.limitVol) + " bytes (" + bytesWords(c.limitVol) + ")" +
               (vol && c.limitType != 0 && c.limitType != 3 ? "" : ", not in force");
    if (name == "round_up_volume")
        return c.roundOff ? "a PPP session is charged at least " + grouped(c.roundOff) + " bytes of download"
                          : "no minimum charge per PPP session";
    if (name == "conntime_monthly_limit")
        return "limit " + grouped(static_cast<uint64_t>(c.limitTime < 0 ? 0 : c.limitTime)) + " s (" +
               std::to_string(c.limitTime / 3600) + " h)" + (time ? "" : ", not in force");
    if (name == "day") {
        std::string w = "resets on day " + std::to_string(c.resetDay) + " of the month";
        if (c.resetDay > 28) w += " (the month's last day when it is shorter)";
        if (c.resetDay == 0) w += " (0 counts as 1)";
        return w;
    }
    if (name == "ampm_sel")
        return isTrue(s, "ampm_sel") ? "the hour counts from noon (hour + 12)" : "the hour is of the 24-hour clock";
    if (name == "min") return "minute of the reset";
    if (name == "hour")
        return "-> resets at " + hhmm(c.resetHour, c.resetMinute) +
               (c.resetHour > 23 ? " (past the day's end: the next day at " + hhmm(c.resetHour - 24, c.resetMinute) + ")"
                                 : "");
    if (name == "counter") return "not read by kvard";
    if (name == "mark") {
        std::string w;
        if (vol) w = c.warnVol ? "warning at " + grouped(c.warnVol) + " bytes (" + bytesWords(c.warnVol) + ")" : "no volume warning";
        if (time) w += std::string(w.empty() ? "" : "; ") +
                       (c.warnTime ? "warning at " + std::to_string(c.warnTime / 3600) + " h of connection time"
                                   : "no time warning");
        return w.empty() ? "not used: no limit is on" : w;
    }
    if (name == "led_on") return c.ledflashLimit ? "the LED flashes at the limit" : "no LED flashing at the limit";
    if (name == "block_on") return c.disconnectLimit ? "the WAN is taken down at the limit" : "the WAN stays up at the limit";
    if (name == "markStatus") {
        auto it = s.find("markStatus");
        std::string v = it != s.end() && it->second ? *it->second : "";
        if (v == "0") return "kvard's state: no limit reached";
        if (v == "1") return "kvard's state: warning";
        if (v == "3") return "kvard's state: limit reached";
        if (v == "4") return "kvard's state: limit reached, WAN down";
        return "kvard's state: unknown";
    }
    return "";
}

// The settings as stored, what kvard's own reader makes of them, and the problems of the stored object.
struct Shown {
    Settings s;
    TmConfig c{};
    std::vector<Problem> problems;
    std::map<std::string, std::string> problemOf;   // field -> its problems' messages, "; " between
};

int readShown(Shown *out, std::string *error)
{
    if (int status = readSettings(&out->s, error); status != kExitOk) return status;
    if (readConfigQuietly(&out->c) != 0) {
        *error = std::string("kvard's reader could not read object 2888 in ") + cmsStore_dir();
        return kExitFailed;
    }
    out->problems = checkObject(out->s, {});
    for (const Problem &p : out->problems)
        out->problemOf[p.field] += (out->problemOf[p.field].empty() ? "" : "; ") + p.message;
    return kExitOk;
}

Json showDocument(Shown &v)
{
    const TmConfig &c = v.c;
    Json j;
    j["store"] = cmsStore_dir();
    Json fields = Json::object();
    for (const FieldRule &f : kFields) {
        const Text &t = v.s[f.name];
        fields[f.name] = {{"value", t ? Json(*t) : Json(nullptr)},
                          {"meaning", meaning(f.name, v.s, c)},
                          {"problem", v.problemOf.count(f.name) ? Json(v.problemOf[f.name]) : Json(nullptr)}};
    }
    j["fields"] = fields;
    j["config"] = {{"enable", c.enable},
                   {"roundOff", c.roundOff},
                   {"resetDay", c.resetDay},
                   {"resetHour", c.resetHour},
                   {"resetMinute", c.resetMinute},
                   {"limitVol", c.limitVol},
                   {"limitTime", c.limitTime},
                   {"warnVol", c.warnVol},
                   {"warnTime", c.warnTime},
                   {"disconnectLimit", c.disconnectLimit},
                   {"ledflashLimit", c.ledflashLimit},
                   {"limitType", c.limitType},
                   {"limitTypeWords", limitTypeWords(c.limitType)}};
    j["reset"] = {{"day", c.resetDay}, {"time", hhmm(c.resetHour, c.resetMinute)}};
    j["problems"] = v.problems.size();
    return j;
}

int show(bool json)
{
    Shown v;
    std::string error;
    if (int status = readShown(&v, &error); status != kExitOk) return error.empty() ? status : fail(error);
    if (json) {
        printf("%s\n", showDocument(v).dump(2).c_str());
    } else {
        for (const FieldRule &f : kFields) {
            const Text &t = v.s[f.name];
            std::string left = std::string(f.name) + (t ? "=" + *t : " (absent)");
            printf("%-34s %s\n", left.c_str(), meaning(f.name, v.s, v.c).c_str());
            if (v.problemOf.count(f.name)) printf("%-34s ! %s\n", "", v.problemOf[f.name].c_str());
        }
        if (!v.problems.empty())
            printf("\n%zu problem%s: tmctl config set refuses to save until %s fixed.\n", v.problems.size(),
                   v.problems.size() == 1 ? "" : "s", v.problems.size() == 1 ? "it is" : "they are");
    }
    return fflush(stdout) == 0 ? kExitOk : kExitFailed;
}

// ---- set ----

std::string shownValue(const Text &t) { return t ? "'" + *t + "'" : "(absent)"; }

// Tells kvard and puts its answer, and the line that reports it, into *r.
void notify(const ConfigSetOptions &o, bool resetMoved, ConfigSetResult *r)
{
    const uint16_t kConfigUpdate = 2;   // TM_MSG_CONFIG_UPDATE
    Exchange ex = exchange(buildDatagram(kConfigUpdate, {}), o.port, o.timeoutMs);
    r->notified = true;
    r->status = kExitNotApplied;
    if (ex.outcome == Exchange::kRefused || ex.outcome == Exchange::kNoReply) {
        // Nothing listening means no kvard; a late reply may only mean a busy
        // one, which still reads the datagram and takes the settings then.
        r->message = "saved; kvard did not answer (" +
                     (ex.outcome == Exchange::kRefused ? std::string("nothing listens")
                                                       : "no reply within " + std::to_string(o.timeoutMs) + " ms") +
                     " on 127.0.0.1:" + std::to_string(o.port) + "): it reads the settings when it starts" +
                     (ex.outcome == Exchange::kNoReply ? ", or when it gets to the datagram" : "");
        return;
    }
    if (ex.outcome != Exchange::kReply || ex.reply.size() != 4) {
        r->status = kExitFailed;
        r->error = "saved, but kvard could not be told: " +
                   (ex.outcome == Exchange::kReply ? "a reply of " + std::to_string(ex.reply.size()) + " bytes" : ex.error);
        return;
    }
    int32_t word = replyWord(ex.reply.data());
    r->reply = word;
    if (word == 1) {
        r->status = kExitOk;
        r->applied = true;
        r->message = "applied: kvard took the new settings";
        return;
    }
    if (word != 0) {
        r->status = kExitFailed;
        r->error = "saved, but kvard answered " + std::to_string(word) + " to the update";
        return;
    }
    Text clock = clockStatus();
    if (resetMoved && clock && *clock != "Synchronized")
        r->message = "saved; kvard answered 0: the clock is not synchronised (object 1045 status '" + *clock +
                     "'). The new settings\nare in force; the period moves to the new reset moment once the clock is set.";
    else
        r->message = "saved; kvard answered 0: it could not read the settings (see its output)";
}

}  // namespace

int configDocument(Json *doc, std::string *error)
{
    Shown v;
    int status = readShown(&v, error);
    if (status == kExitOk) *doc = showDocument(v);
    return status;
}

ConfigSetResult configSet(const std::vector<std::string> &assignments, const ConfigSetOptions &o)
{
    ConfigSetResult r;
    Change change;
    for (const std::string &a : assignments) takeAssignment(&change, a);
    if (!haveStore(&r.error)) return r;

    TmConfig before{};
    bool haveBefore = !o.dryRun && readConfigQuietly(&before) == 0;

    if (!lockStore(&r.error)) return r;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    void *obj = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &stack, 0, &obj);
    if (ret != CMSRET_SUCCESS) {
        cmsLck_releaseLockTraced("tmctl");
        if (ret == CMSRET_OBJECT_NOT_FOUND) r.error = notInStore();
        return r;   // otherwise reported by the library, naming the file
    }
    Settings old = fieldsOf(obj), next = old;
    for (const auto &[field, value] : change.values) next[field] = value;
    std::vector<Problem> problems = change.problems;
    for (Problem p : checkObject(next, change.given)) {
        if (!p.stored && change.via.count(p.field)) p.via = change.via[p.field];
        problems.push_back(p);
    }
    if (problems.empty() && !o.dryRun) {
        const CmsObjectType *type = cmsFields_find(MDMOID_ORNA_TRAFFIC_METER);
        for (const auto &[field, value] : change.values) {
            char **slot = cmsFields_string(obj, cmsFields_field(type, field.data(), field.size()));
            cmsMem_free(*slot);
            *slot = cmsMem_strdup(value.c_str());
        }
        ret = cmsObj_set(obj, &stack);
    }
    cmsObj_free(&obj);
    cmsLck_releaseLockTraced("tmctl");

    if (!problems.empty()) {
        r.status = kExitUsage;
        for (const Problem &p : problems) r.problems.push_back({p.field, shownField(p), p.value, problemText(p)});
        return r;
    }
    if (ret != CMSRET_SUCCESS) {
        r.error = "the settings were not written (see above); nothing changed";
        return r;
    }
    r.status = kExitOk;
    for (const FieldRule &f : kFields) {
        if (!change.values.count(f.name)) continue;
        const Text &was = old[f.name], &now = next[f.name];
        if (was == now) continue;
        r.changes.push_back({f.name, was, now, change.notes.count(f.name) ? change.notes[f.name] : ""});
    }
    if (o.dryRun) {
        r.message = "nothing written (--dry-run)";
        return r;
    }
    if (!o.notify) {
        r.message = "saved; kvard not told (--no-notify): it reads the settings at the next update or start";
        return r;
    }
    TmConfig after{};
    bool resetMoved = !haveBefore || readConfigQuietly(&after) != 0 || before.resetDay != after.resetDay ||
                      before.resetHour != after.resetHour || before.resetMinute != after.resetMinute;
    notify(o, resetMoved, &r);
    return r;
}

namespace {

int set(const std::vector<std::string> &assignments, const ConfigSetOptions &o)
{
    if (assignments.empty()) return usage("config set: which NAME=VALUE?");
    ConfigSetResult r = configSet(assignments, o);
    if (r.status == kExitUsage) {
        for (const ConfigProblem &p : r.problems) fprintf(stderr, "tmctl: %s: %s\n", p.shownField.c_str(), p.text.c_str());
        fprintf(stderr, "tmctl: nothing written (%zu problem%s)\n", r.problems.size(), r.problems.size() == 1 ? "" : "s");
        return kExitUsage;
    }
    // An empty error: the store library has said what failed.
    if (!r.notified && r.status == kExitFailed) return r.error.empty() ? kExitFailed : fail(r.error);
    for (const ConfigChange &c : r.changes)
        printf("%s: %s -> %s%s\n", c.field.c_str(), shownValue(c.old).c_str(), shownValue(c.now).c_str(),
               c.note.empty() ? "" : ("  (" + c.note + ")").c_str());
    if (r.changes.empty()) printf("no field changes\n");
    if (!r.error.empty()) return fail(r.error);
    printf("%s\n", r.message.c_str());
    return r.status;
}

bool parseTimeout(const std::string &text, int *ms)
{
    if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *ms = atoi(text.c_str());
    return true;
}

}  // namespace

int configCommand(const std::vector<std::string> &args)
{
    enum { kJson = 256, kDryRun, kNoNotify, kTimeout, kVersion };
    static const struct option longOptions[] = {
        {"json", no_argument, nullptr, kJson},           {"dry-run", no_argument, nullptr, kDryRun},
        {"no-notify", no_argument, nullptr, kNoNotify},  {"timeout", required_argument, nullptr, kTimeout},
        {"help", no_argument, nullptr, 'h'},             {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0}};
    OptionArgs words("config", args);
    bool json = false, dryRun = false, notifyDaemon = true, setOnly = false;
    int timeoutMs = 2000;
    startOptions();
    for (int c; (c = getopt_long(words.argc(), words.argv(), ":h", longOptions, nullptr)) != -1;) {
        switch (c) {
        case kJson: json = true; break;
        case kDryRun: dryRun = setOnly = true; break;
        case kNoNotify: notifyDaemon = false, setOnly = true; break;
        case kTimeout:
            if (!parseTimeout(optarg, &timeoutMs))
                return usage("config: --timeout needs milliseconds, not '" + std::string(optarg) + "'");
            setOnly = true;
            break;
        case 'h': fputs(kConfigHelp, stdout); return kExitOk;
        case kVersion: return printVersion();
        default: return optionError("config", words, c);
        }
    }
    std::vector<std::string> operands = words.operands();
    if (operands.empty()) return usage("config: show or set?");
    if (operands[0] == "show") {
        if (setOnly) return usage("config show takes only --json");
        if (operands.size() > 1) return usage("config show: unexpected argument '" + operands[1] + "'");
        return show(json);
    }
    if (operands[0] == "set") {
        if (json) return usage("config set does not take --json");
        return set(std::vector<std::string>(operands.begin() + 1, operands.end()), {dryRun, notifyDaemon, timeoutMs, kPort});
    }
    return usage("config: unknown command '" + operands[0] + "' (show or set)");
}

}  // namespace tmctl
