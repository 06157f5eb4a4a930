// Number and text helpers that behave as the router's 32-bit C library does,
// so that a 64-bit host computes and prints exactly what the target does.
#ifndef KVARD_TMNUM_H
#define KVARD_TMNUM_H

#include <cstdint>
#include <cstdlib>

// atol of a 32-bit long: strtol clamps an out-of-range number to the 32-bit limits.
static inline int32_t TmAtol(const char *s)
{
    long long v = strtoll(s, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return (int32_t)v;
}

// atoll: 64 bits on every machine.
static inline int64_t TmAtoll(const char *s)
{
    return strtoll(s, nullptr, 10);
}

// What the C library prints for a null string with %s.
static inline const char *TmPrintable(const char *s)
{
    return s ? s : "(null)";
}

#endif
