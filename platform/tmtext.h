// The text forms of the published figures. Each writes a NUL-terminated text
// into a buffer of at least 32 bytes and returns it.
#ifndef KVARD_TMTEXT_H
#define KVARD_TMTEXT_H

#include <cstdint>

#define TM_TEXT_SIZE 32

// Hours and minutes of signed seconds, "%2.2lu:%2.2lu": 100 h 5 min is "100:05".
char *TmTextDuration(char *buffer, int32_t seconds);
// Bytes as megabytes of 1,000,000, single precision, "%.2f".
char *TmTextMegabytes(char *buffer, uint64_t bytes);
// Megabytes a day over elapsed seconds (at least one day), single precision, "%.2f".
char *TmTextAverage(char *buffer, uint64_t bytes, int64_t elapsed);
// asctime of the local time, line end included; empty when the time has no local form.
char *TmTextAsctime(char *buffer, int32_t time);
// "%llu" of value.
char *TmTextUnsigned(char *buffer, uint64_t value);
// What is left of the limit: "h:m" of seconds for a time limit, else " G M K " parts in powers of 1024.
char *TmTextRemainder(char *buffer, uint64_t left, uint32_t timeLimit);

#endif
