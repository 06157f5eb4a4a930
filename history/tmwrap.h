// Arithmetic on time values and connection seconds as the 32-bit router does
// it: two's complement, wrapping modulo 2^32. A clock near 2038, a period
// start before 1902 or a corrupt but CRC-valid record can carry a sum or a
// difference out of the signed 32-bit range; the router's registers then
// wrap, and so does every build of this code, instead of leaving the result
// to a compiler that may assume the overflow never happens. Comparisons of
// the results stay signed.
#ifndef KVARD_TMWRAP_H
#define KVARD_TMWRAP_H

#include <cstdint>

// a + b, wrapped to 32 bits.
inline int32_t TmWrapAdd(int32_t a, int32_t b)
{
    return (int32_t)((uint32_t)a + (uint32_t)b);
}

// a - b, wrapped to 32 bits.
inline int32_t TmWrapSub(int32_t a, int32_t b)
{
    return (int32_t)((uint32_t)a - (uint32_t)b);
}

#endif
