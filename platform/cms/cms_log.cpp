// Logging: one line per call on stderr, "<name>: <level>: <function>:<line>: <message>".
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/cms/cms.h"
#include "platform/cms/cms_private.h"

namespace {

const char kDefaultName[] = "cms";
const int32_t kDefaultLevel = 3;   // errors only until someone asks for more

char logName[64] = "cms";
int32_t logLevel = kDefaultLevel;

// Writes the line in one call, so lines of several processes don't interleave.
void emit(const char *prefix, const char *fmt, va_list ap)
{
    char small[512];
    va_list again;
    va_copy(again, ap);
    int plen = snprintf(small, sizeof small, "%s", prefix);
    int mlen = vsnprintf(small + plen, sizeof small - plen, fmt, ap);
    if (mlen < 0) mlen = 0;
    size_t total = static_cast<size_t>(plen) + static_cast<size_t>(mlen);
    char *line = small;
    if (total + 2 > sizeof small) {
        line = static_cast<char *>(malloc(total + 2));
        if (line != nullptr) {
            memcpy(line, prefix, plen);
            vsnprintf(line + plen, total + 1 - plen, fmt, again);
        } else {
            line = small;   // out of memory: the cut line is better than none
            total = sizeof small - 2;
        }
    }
    va_end(again);
    if (total == 0 || line[total - 1] != '\n') line[total++] = '\n';
    fwrite(line, 1, total, stderr);
    if (line != small) free(line);
}

}  // namespace

void cmsLog_initWithName(uint32_t /*eid*/, const char *name)
{
    snprintf(logName, sizeof logName, "%s", name != nullptr ? name : kDefaultName);
}

void cmsLog_setLevel(int32_t level)
{
    logLevel = level;
}

void cmsLog_cleanup(void)
{
    snprintf(logName, sizeof logName, "%s", kDefaultName);
    logLevel = kDefaultLevel;
}

void log_log(int32_t level, const char *func, int32_t line, const char *fmt, ...)
{
    if (level > logLevel) return;
    char prefix[160];
    snprintf(prefix, sizeof prefix, "%s: %d: %s:%d: ", logName, static_cast<int>(level),
             func != nullptr ? func : "?", static_cast<int>(line));
    va_list ap;
    va_start(ap, fmt);
    emit(prefix, fmt, ap);
    va_end(ap);
}

void cmsPriv_report(const char *fmt, ...)
{
    char prefix[80];
    snprintf(prefix, sizeof prefix, "%s: ", logName);
    va_list ap;
    va_start(ap, fmt);
    emit(prefix, fmt, ap);
    va_end(ap);
}
