#include "platform/tmtext.h"

#include <cstdio>
#include <cstring>
#include <ctime>

char *TmTextDuration(char *buffer, int32_t seconds)
{
    int32_t hours = seconds / 3600;
    int32_t minutes = seconds % 3600 / 60;
    // %lu of a 32-bit long: the value's unsigned 32-bit reading.
    snprintf(buffer, TM_TEXT_SIZE, "%2.2lu:%2.2lu", (unsigned long)(uint32_t)hours, (unsigned long)(uint32_t)minutes);
    return buffer;
}

// Every step in binary32: the published digits depend on it.
char *TmTextMegabytes(char *buffer, uint64_t bytes)
{
    float value = (float)bytes;
    value = value / 1000000.0f;
    snprintf(buffer, TM_TEXT_SIZE, "%.2f", (double)value);
    return buffer;
}

char *TmTextAverage(char *buffer, uint64_t bytes, int64_t elapsed)
{
    float days = (float)elapsed;
    days = days / 86400.0f;
    if (days < 1.0f) days = 1.0f;
    float value = (float)bytes;
    value = value / days;
    value = value / 1000000.0f;
    snprintf(buffer, TM_TEXT_SIZE, "%.2f", (double)value);
    return buffer;
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
