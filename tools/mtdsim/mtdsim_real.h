/* The C library's own versions of the calls this library replaces. Code in
 * this library calls them through here: a plain call to open or write from
 * inside the library would land in its own replacement. */
#ifndef KVARD_MTDSIM_REAL_H
#define KVARD_MTDSIM_REAL_H

#include <stdio.h>
#include <sys/types.h>

typedef struct {
    int (*open)(const char *, int, ...);
    int (*open64)(const char *, int, ...);
    int (*openat)(int, const char *, int, ...);
    int (*openat64)(int, const char *, int, ...);
    int (*open_2)(const char *, int);
    int (*open64_2)(const char *, int);
    int (*openat_2)(int, const char *, int);
    int (*openat64_2)(int, const char *, int);
    FILE *(*fopen)(const char *, const char *);
    FILE *(*fopen64)(const char *, const char *);
    int (*close)(int);
    int (*dup)(int);
    int (*dup2)(int, int);
    int (*dup3)(int, int, int);
    ssize_t (*write)(int, const void *, size_t);
    ssize_t (*pwrite)(int, const void *, size_t, off_t);
    ssize_t (*pwrite64)(int, const void *, size_t, off64_t);
    int (*ioctl)(int, unsigned long, ...);
} MtdsimRealCalls;

/* The next definitions after this library (normally the C library's), looked
 * up once on first use; a member is NULL if the C library lacks the call. */
const MtdsimRealCalls *MtdsimReal(void);

#endif
