// The daemon's debug trace lines: function, source line, build date and time,
// source file. Printed only while debugFlag is set.
#ifndef KVARD_TMTRACE_H
#define KVARD_TMTRACE_H

#include <cstdio>

#include "core/tmcore.h"

#define TM_TRACE_FMT "%s %d %s %s %s\n"
#define TM_TRACE_ARGS __FUNCTION__, __LINE__, __DATE__, __TIME__, __FILE_NAME__

#define TM_TRACE()                                        \
    do {                                                  \
        if (debugFlag) printf(TM_TRACE_FMT, TM_TRACE_ARGS); \
    } while (0)

#define TM_TRACE_NAMED(name)                                                              \
    do {                                                                                  \
        if (debugFlag) printf(TM_TRACE_FMT, name, __LINE__, __DATE__, __TIME__, __FILE_NAME__); \
    } while (0)

#define TM_TRACE_U(value)                                                                         \
    do {                                                                                          \
        if (debugFlag) printf("%s %d %s %s %s (%u)\n", TM_TRACE_ARGS, (unsigned)(value));        \
    } while (0)

#define TM_TRACE_S(text)                                                           \
    do {                                                                           \
        if (debugFlag) printf("%s %d %s %s %s (%s)\n", TM_TRACE_ARGS, (text));     \
    } while (0)

#endif
