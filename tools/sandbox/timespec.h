// Time arguments of the runner: absolute clock texts in the box's zone, the
// host's now, epoch seconds, and durations relative to a base time.
#ifndef KVARD_SANDBOX_TIMESPEC_H
#define KVARD_SANDBOX_TIMESPEC_H

#include <cstdint>
#include <optional>
#include <string>

namespace sandbox {

// The longest duration taken: ten years of the longest kind (3653 days).
inline constexpr int64_t kMaxDurationSeconds = 3653LL * 86400;

// Seconds of a duration: "90", "90s", "15m", "2h", "2d", "1w" and sums such as "1h30m"; nullopt when malformed or above ten years.
std::optional<int64_t> ParseDuration(const std::string &text);
// A time argument as epoch seconds: "YYYY-MM-DD hh:mm:ss" read in ZONE (mktime with tm_isdst -1), "now" (the host clock), "@EPOCH",
// or "+DURATION" / "-DURATION" from BASE. Throws sandbox::Error naming the text and the accepted forms.
int64_t ParseTimeArgument(const std::string &text, const std::string &zone, int64_t base);
// "YYYY-MM-DD hh:mm:ss" of epoch seconds in ZONE.
std::string FormatClock(int64_t t, const std::string &zone);

// Epoch seconds of clock text (exactly "YYYY-MM-DD hh:mm:ss") read in ZONE;
// throws sandbox::Error when the text is malformed or names no calendar day.
int64_t ParseClock(const std::string &text, const std::string &zone);

}  // namespace sandbox

#endif
