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

char *TmTextAsctime(char *buffer, int32_t time)
{
    memset(buffer, 0, TM_TEXT_SIZE);
    time_t t = time;
    struct tm local;
    if (localtime_r(&t, &local)) {
        char text[26];  // asctime's fixed form: 24 characters, the line end, the NUL
        if (asctime_r(&local, text)) memcpy(buffer, text, sizeof text);
    }
    return buffer;
}

char *TmTextRemainder(char *buffer, uint64_t left, uint32_t timeLimit)
{
    if (timeLimit) {
        snprintf(buffer, TM_TEXT_SIZE, "%llu:%llu", (unsigned long long)(left / 3600),
                 (unsigned long long)(left % 3600 / 60));
        return buffer;
    }
    // Powers of 1024 here, unlike the megabyte texts.
    char part[TM_TEXT_SIZE];
    buffer[0] = '\0';
    uint64_t giga = left >> 30;
    if (giga != 0) {
        snprintf(buffer, TM_TEXT_SIZE, " %llu G ", (unsigned long long)giga);
        snprintf(part, sizeof part, "%llu M ", (unsigned long long)((left >> 20) & 1023));
        strncat(buffer, part, TM_TEXT_SIZE - strlen(buffer) - 1);
    } else if ((left >> 20) != 0) {
        snprintf(buffer, TM_TEXT_SIZE, "%llu M ", (unsigned long long)(left >> 20));
    }
    snprintf(part, sizeof part, "%llu K ", (unsigned long long)((left >> 10) & 1023));
    strncat(buffer, part, TM_TEXT_SIZE - strlen(buffer) - 1);
    return buffer;
}
