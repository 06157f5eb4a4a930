#include "history/tmsidefile.h"

#include <cstdio>
#include <cstring>

#include "core/tmcore.h"

int WriteManualResetTimeToFile(void)
{
    FILE *file = fopen(TM_RESTART_TIME_FILE, "wb");
    if (!file) {
        puts("Write to File fail.");
        return -1;
    }
    tmCore.manualResetTime.time = tmCore.exportData.manualResetTime;
    // Host order, 4 bytes: little-endian on the router and on every host we build for.
    fwrite(&tmCore.manualResetTime.time, 4, 1, file);
    if (debugFlag)
        printf("\033[35m%s startTime=%lu\033[0m\n", "WriteManualResetTimeToFile",
               (unsigned long)(uint32_t)tmCore.manualResetTime.time);
    fclose(file);
    return 0;
}

int GetManualResetTimeFromFile(void)
{
    FILE *file = fopen(TM_RESTART_TIME_FILE, "rb");
    int32_t value = 0;
    int got = file && fread(&value, 1, 4, file) == 4;
    if (file) fclose(file);
    if (!got) {
        puts("Read File fail.");
        return 0;
    }
    tmCore.manualResetTime.time = value;
    return 1;
}

int TmReadWarnFile(int32_t *disconnect, int32_t *limit, int32_t *warn)
{
    FILE *file = fopen(TM_WARN_FILE, "rb");
    if (!file) {
        *disconnect = *limit = *warn = 0;
        return 0;
    }
    unsigned char bytes[3];
    // Any byte counts, digit or not: what isn't '0' is a state that is set.
    if (fread(bytes, 1, 3, file) == 3) {
        *disconnect = bytes[0] - '0';
        *limit = bytes[1] - '0';
        *warn = bytes[2] - '0';
    }
    fclose(file);
    return 1;
}

void TmWriteWarnFile(int32_t disconnect, int32_t limit, int32_t warn)
{
    FILE *file = fopen(TM_WARN_FILE, "wb");
    if (!file) return;
    char bytes[3] = {(char)('0' + disconnect), (char)('0' + limit), (char)('0' + warn)};
    fwrite(bytes, 1, 3, file);
    fclose(file);
}

int TmWriteLimitFile(uint32_t limit, uint32_t warn, uint32_t disconnect, int32_t time, int32_t elapsed)
{
    FILE *file = fopen(TM_LIMIT_FILE, "wb");
    if (!file) {
        puts("Write to File fail.");
        return 1;
    }
    char flags[4];
    memset(flags, 0, sizeof flags);
    size_t n = 0;
    if (limit) flags[n++] = 'l';
    if (warn) flags[n++] = 'w';
    if (disconnect) flags[n++] = 'd';
    fputs(flags, file);
    fprintf(file, "\n%lu\n%lu\n", (unsigned long)(uint32_t)time, (unsigned long)(uint32_t)elapsed);
    fclose(file);
    return 0;
}
