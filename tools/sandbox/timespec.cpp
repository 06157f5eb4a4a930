#include "tools/sandbox/timespec.h"

#include <cctype>
#include <cstdlib>
#include <ctime>

#include "tools/sandbox/layout.h"
#include "tools/sandbox/util.h"

namespace sandbox {

namespace {

// TZ set to a zone for the life of the object, the caller's TZ restored after,
// so that localtime_r and mktime work in the box's zone and not the host's.
class ZoneScope {
public:
    explicit ZoneScope(const std::string &zone) {
        const char *old = getenv("TZ");
        hadZone_ = old != nullptr;
        if (old) saved_ = old;
        setenv("TZ", zone.c_str(), 1);
        tzset();
    }
    ~ZoneScope() {
        if (hadZone_)
            setenv("TZ", saved_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    ZoneScope(const ZoneScope &) = delete;
    ZoneScope &operator=(const ZoneScope &) = delete;

private:
    bool hadZone_ = false;
    std::string saved_;
};

// The largest epoch the clock file can show: 9999-12-31 23:59:59 UTC.
constexpr int64_t kMaxEpoch = 253402300799LL;

[[noreturn]] void BadTime(const std::string &text, const std::string &why = "") {
    throw Error("bad time '" + text + "'" + (why.empty() ? "" : " (" + why + ")") +
                ": expected \"YYYY-MM-DD hh:mm:ss\", now, @EPOCH, +DURATION or -DURATION "
                "(DURATION such as 90s, 15m, 1h30m, 2d, 1w)");
}

}  // namespace

std::optional<int64_t> ParseDuration(const std::string &text) {
    if (text.empty()) return std::nullopt;
    int64_t total = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t start = pos;
        int64_t number = 0;
        while (pos < text.size() && isdigit(static_cast<unsigned char>(text[pos]))) {
            number = number * 10 + (text[pos] - '0');
            if (number > kMaxDurationSeconds) return std::nullopt;  // also keeps the sum from overflowing
            ++pos;
        }
        if (pos == start) return std::nullopt;  // a unit without a number, or a stray character
        int64_t unit = 1;
        if (pos == text.size()) {
            // A bare number counts seconds, but only as the whole text: "1h30" is more likely a typo.
            if (start != 0) return std::nullopt;
        } else {
            switch (text[pos++]) {
            case 's': unit = 1; break;
            case 'm': unit = 60; break;
            case 'h': unit = 3600; break;
            case 'd': unit = 86400; break;
            case 'w': unit = 7 * 86400; break;
            default: return std::nullopt;
            }
        }
        if (number > kMaxDurationSeconds / unit) return std::nullopt;
        total += number * unit;
        if (total > kMaxDurationSeconds) return std::nullopt;
    }
    return total;
}

int64_t ParseClock(const std::string &text, const std::string &zone) {
    if (!ValidClockText(text)) BadTime(text);
    struct tm fields = {};
    const char *end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
    if (!end || *end != '\0') BadTime(text);
    // A day past the month's end (2023-02-30) would roll into the next month.
    struct tm check = fields;
    check.tm_hour = 12;
    check.tm_min = check.tm_sec = 0;
    time_t noon = timegm(&check);
    struct tm normal;
    gmtime_r(&noon, &normal);
    if (normal.tm_mday != fields.tm_mday) BadTime(text, "no such day");
    ZoneScope scope(zone);
    fields.tm_isdst = -1;
    time_t t = mktime(&fields);
    if (t == static_cast<time_t>(-1)) BadTime(text, "not representable");
    return static_cast<int64_t>(t);
}

int64_t ParseTimeArgument(const std::string &text, const std::string &zone, int64_t base) {
    if (text == "now") return static_cast<int64_t>(time(nullptr));
    if (!text.empty() && text[0] == '@') {
        std::string digits = text.substr(1);
        if (digits.empty() || digits.size() > 12 || digits.find_first_not_of("0123456789") != std::string::npos)
            BadTime(text);
        int64_t t = strtoll(digits.c_str(), nullptr, 10);
        if (t > kMaxEpoch) BadTime(text, "after the year 9999");
        return t;
    }
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        auto seconds = ParseDuration(text.substr(1));
        if (!seconds) BadTime(text, "a duration is a sum of numbers with s, m, h, d or w, at most ten years");
        int64_t t = text[0] == '+' ? base + *seconds : base - *seconds;
        if (t < 0) BadTime(text, "before 1970");
        if (t > kMaxEpoch) BadTime(text, "after the year 9999");
        return t;
    }
    return ParseClock(text, zone);
}

std::string FormatClock(int64_t t, const std::string &zone) {
    ZoneScope scope(zone);
    time_t value = static_cast<time_t>(t);
    struct tm local;
    if (!localtime_r(&value, &local)) throw Error("time " + std::to_string(t) + " cannot be shown in zone " + zone);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace sandbox
