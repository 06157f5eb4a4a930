#include "platform/tmtext.h"

#include <cstdio>
#include <cstring>
#include <ctime>

// Appends the decimal digits of v, at least width of them (zeros in front).
static char *TmPutDigits(char *out, uint64_t v, int width)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v != 0 || n < width);
    while (n > 0) *out++ = digits[--n];
    return out;
}

// value as "%.2f" prints it, without printf's cost (a publication prints some
// thirty of them). value times 100 is exact in a double (24 bits of mantissa
// times 7), so rounding that to the nearest integer, a tie to the even one,
// is the rounding printf makes of the exact decimal expansion.
static char *TmTextHundredths(char *buffer, float value)
{
    double scaled = (double)value * 100.0;
    if (!(scaled >= 0.0 && scaled < 4e15)) {   // never for the meter's figures
        snprintf(buffer, TM_TEXT_SIZE, "%.2f", (double)value);
        return buffer;
    }
    uint64_t n = (uint64_t)scaled;
    double rest = scaled - (double)n;   // exact below 2^52
    if (rest > 0.5 || (rest == 0.5 && (n & 1) != 0)) n++;
    char *o = TmPutDigits(buffer, n / 100, 1);
    *o++ = '.';
    o = TmPutDigits(o, n % 100, 2);
    *o = '\0';
    return buffer;
}

char *TmTextDuration(char *buffer, int32_t seconds)
{
    int32_t hours = seconds / 3600;
    int32_t minutes = seconds % 3600 / 60;
    // "%2.2lu:%2.2lu" of a 32-bit long: the values' unsigned 32-bit readings, two digits at least.
    char *o = TmPutDigits(buffer, (uint32_t)hours, 2);
    *o++ = ':';
    o = TmPutDigits(o, (uint32_t)minutes, 2);
    *o = '\0';
    return buffer;
}

// Every step in binary32: the published digits depend on it.
char *TmTextMegabytes(char *buffer, uint64_t bytes)
{
    float value = (float)bytes;
    value = value / 1000000.0f;
    return TmTextHundredths(buffer, value);
}

char *TmTextAverage(char *buffer, uint64_t bytes, int64_t elapsed)
{
    float days = (float)elapsed;
    days = days / 86400.0f;
    if (days < 1.0f) days = 1.0f;
    float value = (float)bytes;
    value = value / days;
    value = value / 1000000.0f;
    return TmTextHundredths(buffer, value);
}

char *TmTextUnsigned(char *buffer, uint64_t value)
{
    *TmPutDigits(buffer, value, 1) = '\0';
    return buffer;
}

char *TmTextAsctime(char *buffer, int32_t time)
{
    static const char days[] = "SunMonTueWedThuFriSat", months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    memset(buffer, 0, TM_TEXT_SIZE);
    time_t t = time;
    struct tm local;
    if (!localtime_r(&t, &local)) return buffer;
    // asctime's "%.3s %.3s%3d %.2d:%.2d:%.2d %d\n" written directly for the
    // years a 32-bit time reaches; anything else goes to asctime_r itself.
    if (local.tm_year < 1000 - 1900 || local.tm_year > 9999 - 1900 || local.tm_wday < 0 || local.tm_wday > 6 ||
        local.tm_mon < 0 || local.tm_mon > 11 || local.tm_mday < 1 || local.tm_mday > 31 || local.tm_hour < 0 ||
        local.tm_hour > 99 || local.tm_min < 0 || local.tm_min > 99 || local.tm_sec < 0 || local.tm_sec > 99) {
        char text[26];  // asctime's fixed form: 24 characters, the line end, the NUL
        if (asctime_r(&local, text)) memcpy(buffer, text, sizeof text);
        return buffer;
    }
    memcpy(buffer, days + 3 * local.tm_wday, 3);
    buffer[3] = ' ';
    memcpy(buffer + 4, months + 3 * local.tm_mon, 3);
    char *p = buffer + 7;
    *p++ = ' ';
    *p++ = local.tm_mday < 10 ? ' ' : (char)('0' + local.tm_mday / 10);
    *p++ = (char)('0' + local.tm_mday % 10);
    *p++ = ' ';
    p = TmPutDigits(p, (uint64_t)local.tm_hour, 2);
    *p++ = ':';
    p = TmPutDigits(p, (uint64_t)local.tm_min, 2);
    *p++ = ':';
    p = TmPutDigits(p, (uint64_t)local.tm_sec, 2);
    *p++ = ' ';
    p = TmPutDigits(p, (uint64_t)(local.tm_year + 1900), 1);
    *p++ = '\n';
    *p = '\0';
    return buffer;
}

char *TmTextRemainder(char *buffer, uint64_t left, uint32_t timeLimit)
{
    char *o = buffer;
    if (timeLimit) {   // "%llu:%llu"
        o = TmPutDigits(o, left / 3600, 1);
        *o++ = ':';
        o = TmPutDigits(o, left % 3600 / 60, 1);
        *o = '\0';
        return buffer;
    }
    // Powers of 1024 here, unlike the megabyte texts: " %llu G %llu M %llu K ",
    // "%llu M %llu K " or "%llu K ", at most 29 characters.
    uint64_t giga = left >> 30;
    if (giga != 0) {
        *o++ = ' ';
        o = TmPutDigits(o, giga, 1);
        memcpy(o, " G ", 3);
        o = TmPutDigits(o + 3, (left >> 20) & 1023, 1);
        memcpy(o, " M ", 3);
        o += 3;
    } else if ((left >> 20) != 0) {
        o = TmPutDigits(o, left >> 20, 1);
        memcpy(o, " M ", 3);
        o += 3;
    }
    o = TmPutDigits(o, (left >> 10) & 1023, 1);
    memcpy(o, " K ", 4);
    return buffer;
}
