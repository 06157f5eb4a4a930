/* The calls a program makes that this library answers for the device path:
 * every open variant, close, dup, write, pwrite and ioctl. An opened device
 * is a real descriptor of the image, so read and lseek need no help; this
 * file remembers which descriptors are devices. */
#include "mtdsim_config.h"
#include "mtdsim_nand.h"
#include "mtdsim_real.h"
#include "mtdsim_report.h"

#include <errno.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))
#define MAX_DEVICES 16

/* The fortified entry points have no declaration without _FORTIFY_SOURCE. */
EXPORT int __open_2(const char *path, int flags);
EXPORT int __open64_2(const char *path, int flags);
EXPORT int __openat_2(int dirfd, const char *path, int flags);
EXPORT int __openat64_2(int dirfd, const char *path, int flags);

typedef struct {
    int used;
    int fd;
    int accmode;       /* as the program asked: O_RDONLY, O_WRONLY or O_RDWR */
    MtdsimDevice dev;
} Tracked;

/* The programs this serves are single-threaded; the table has no lock. */
static Tracked tracked[MAX_DEVICES];
static int trackedCount;
static uint64_t lastGeneration;

static Tracked *Find(int fd)
{
    if (trackedCount == 0 || fd < 0)
        return NULL;
    for (int i = 0; i < MAX_DEVICES; i++)
        if (tracked[i].used && tracked[i].fd == fd)
            return &tracked[i];
    return NULL;
}

static void Forget(int fd)
{
    Tracked *t = Find(fd);
    if (t != NULL) {
        t->used = 0;
        trackedCount--;
    }
}

static Tracked *FreeSlot(void)
{
    for (int i = 0; i < MAX_DEVICES; i++)
        if (!tracked[i].used)
            return &tracked[i];
    return NULL;
}

/* Result of a real open of something else: its number may have belonged to a
 * device descriptor that was closed behind this library's back (fclose,
 * close_range), so that number is no longer a device. */
static int Plain(int fd)
{
    if (fd >= 0)
        Forget(fd);
    return fd;
}

static int NeedsMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/* Opens the device: a descriptor of the image with the caller's access mode
 * (read-write underneath, since the flash operations go through it). Flags
 * that would create or cut a file mean nothing to a device node. */
static int OpenDevice(int flags)
{
    if ((flags & O_CREAT) && (flags & O_EXCL)) {
        errno = EEXIST;
        return -1;
    }
    uint64_t generation = 0;
    const MtdsimConfig *cfg = MtdsimConfigCurrent(&generation);
    if (cfg == NULL) {
        errno = EINVAL;
        return -1;
    }
    if (generation != lastGeneration) {
        lastGeneration = generation;
        MtdsimNandResetCounts();
    }
    Tracked *slot = FreeSlot();
    if (slot == NULL) {
        MtdsimReportProblem(cfg->device, "too many descriptors of the device open at once");
        errno = EMFILE;
        return -1;
    }
    int keep = flags & (O_CLOEXEC | O_NONBLOCK | O_SYNC | O_DSYNC | O_NOCTTY);
    int fd = MtdsimNandOpen(cfg, generation, &slot->dev, keep);
    if (fd < 0)
        return -1;
    Forget(fd);
    slot->used = 1;
    slot->fd = fd;
    slot->accmode = flags & O_ACCMODE;
    trackedCount++;
    return fd;
}

#define OPEN_MODE(flags, last)                 \
    mode_t mode = 0;                           \
    if (NeedsMode(flags)) {                    \
        va_list ap;                            \
        va_start(ap, last);                    \
        mode = (mode_t)va_arg(ap, unsigned);   \
        va_end(ap);                            \
    }

static int Missing(void)
{
    errno = ENOSYS;
    return -1;
}

EXPORT int open(const char *path, int flags, ...)
{
    OPEN_MODE(flags, flags);
    if (MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->open ? Plain(real->open(path, flags, mode)) : Missing();
}

EXPORT int open64(const char *path, int flags, ...)
{
    OPEN_MODE(flags, flags);
    if (MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->open64 ? Plain(real->open64(path, flags, mode)) : Missing();
}

/* The device path is recognised by its text alone, whatever dirfd is. */
EXPORT int openat(int dirfd, const char *path, int flags, ...)
{
    OPEN_MODE(flags, flags);
    if (MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->openat ? Plain(real->openat(dirfd, path, flags, mode)) : Missing();
}

EXPORT int openat64(int dirfd, const char *path, int flags, ...)
{
    OPEN_MODE(flags, flags);
    if (MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->openat64 ? Plain(real->openat64(dirfd, path, flags, mode)) : Missing();
}

/* The checked two-argument forms abort on a flag that needs a mode; the C
 * library's own versions do that, so such calls go to them. */
EXPORT int __open_2(const char *path, int flags)
{
    if (!NeedsMode(flags) && MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->open_2 ? Plain(real->open_2(path, flags)) : Missing();
}

EXPORT int __open64_2(const char *path, int flags)
{
    if (!NeedsMode(flags) && MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->open64_2 ? Plain(real->open64_2(path, flags)) : Missing();
}

EXPORT int __openat_2(int dirfd, const char *path, int flags)
{
    if (!NeedsMode(flags) && MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->openat_2 ? Plain(real->openat_2(dirfd, path, flags)) : Missing();
}

EXPORT int __openat64_2(int dirfd, const char *path, int flags)
{
    if (!NeedsMode(flags) && MtdsimConfigMatches(path))
        return OpenDevice(flags);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->openat64_2 ? Plain(real->openat64_2(dirfd, path, flags)) : Missing();
}

/* A stream reads the device like cat would. Writing through stdio would
 * reach the image without passing the flash's rules, so it is refused. */
static FILE *OpenDeviceStream(const char *mode)
{
    if (strpbrk(mode, "wa+") != NULL) {
        MtdsimReportMisuse(MtdsimConfigDevice(), "fopen", 0,
                           "a stream can only read the device; open it and write whole pages");
        errno = EINVAL;
        return NULL;
    }
    int fd = OpenDevice(O_RDONLY | (strchr(mode, 'e') ? O_CLOEXEC : 0));
    if (fd < 0)
        return NULL;
    /* Reads need no tracking, and fclose would close the descriptor unseen. */
    Forget(fd);
    FILE *f = fdopen(fd, mode);
    if (f == NULL) {
        int e = errno;
        MtdsimReal()->close(fd);
        errno = e;
    }
    return f;
}

static FILE *PlainStream(FILE *f)
{
    if (f != NULL)
        Forget(fileno(f));
    return f;
}

EXPORT FILE *fopen(const char *path, const char *mode)
{
    if (MtdsimConfigMatches(path))
        return OpenDeviceStream(mode);
    const MtdsimRealCalls *real = MtdsimReal();
    if (real->fopen == NULL) {
        errno = ENOSYS;
        return NULL;
    }
    return PlainStream(real->fopen(path, mode));
}

EXPORT FILE *fopen64(const char *path, const char *mode)
{
    if (MtdsimConfigMatches(path))
        return OpenDeviceStream(mode);
    const MtdsimRealCalls *real = MtdsimReal();
    if (real->fopen64 == NULL) {
        errno = ENOSYS;
        return NULL;
    }
    return PlainStream(real->fopen64(path, mode));
}

EXPORT int close(int fd)
{
    Forget(fd);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->close ? real->close(fd) : Missing();
}

/* A duplicate of a device descriptor is the device too. */
static int Duplicated(int from, int to)
{
    if (to < 0)
        return to;
    Forget(to);
    Tracked *t = Find(from);
    Tracked *slot = FreeSlot();
    if (t != NULL && slot != NULL) {
        memcpy(slot, t, sizeof *slot);
        slot->fd = to;
        trackedCount++;
    } else if (t != NULL) {
        MtdsimReportProblem(t->dev.cfg->device, "too many descriptors of the device open at once");
        MtdsimReal()->close(to);
        errno = EMFILE;
        return -1;
    }
    return to;
}

EXPORT int dup(int fd)
{
    const MtdsimRealCalls *real = MtdsimReal();
    return real->dup ? Duplicated(fd, real->dup(fd)) : Missing();
}

EXPORT int dup2(int fd, int to)
{
    const MtdsimRealCalls *real = MtdsimReal();
    if (real->dup2 == NULL)
        return Missing();
    if (fd == to)
        return real->dup2(fd, to);
    return Duplicated(fd, real->dup2(fd, to));
}

EXPORT int dup3(int fd, int to, int flags)
{
    const MtdsimRealCalls *real = MtdsimReal();
    return real->dup3 ? Duplicated(fd, real->dup3(fd, to, flags)) : Missing();
}

/* A program of one page at offset, or at the descriptor's position when
 * offset is -1 (which then moves past the page, as on a device). */
static ssize_t Program(Tracked *t, const void *buf, size_t n, int64_t offset)
{
    if (t->accmode == O_RDONLY) {
        errno = EBADF;
        return -1;
    }
    if (n == 0)
        return 0;
    int64_t at = offset >= 0 ? offset : (int64_t)lseek64(t->fd, 0, SEEK_CUR);
    if (at < 0)
        return -1;
    if (MtdsimNandProgram(&t->dev, t->fd, at, buf, n) != 0)
        return -1;
    if (offset < 0)
        lseek64(t->fd, (off64_t)(at + (int64_t)n), SEEK_SET);
    return (ssize_t)n;
}

EXPORT ssize_t write(int fd, const void *buf, size_t n)
{
    Tracked *t = Find(fd);
    if (t != NULL)
        return Program(t, buf, n, -1);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->write ? real->write(fd, buf, n) : Missing();
}

static ssize_t PositionedProgram(Tracked *t, const void *buf, size_t n, int64_t offset)
{
    if (offset < 0) {
        errno = EINVAL;
        return -1;
    }
    return Program(t, buf, n, offset);
}

EXPORT ssize_t pwrite(int fd, const void *buf, size_t n, off_t offset)
{
    Tracked *t = Find(fd);
    if (t != NULL)
        return PositionedProgram(t, buf, n, (int64_t)offset);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->pwrite ? real->pwrite(fd, buf, n, offset) : Missing();
}

EXPORT ssize_t pwrite64(int fd, const void *buf, size_t n, off64_t offset)
{
    Tracked *t = Find(fd);
    if (t != NULL)
        return PositionedProgram(t, buf, n, (int64_t)offset);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->pwrite64 ? real->pwrite64(fd, buf, n, offset) : Missing();
}

static int DeviceIoctl(Tracked *t, unsigned long request, void *arg)
{
    int ours = request == MEMGETINFO || request == MEMGETBADBLOCK || request == MEMERASE;
    if (ours && arg == NULL) {
        errno = EFAULT;
        return -1;
    }
    switch (request) {
    case MEMGETINFO:
        MtdsimNandInfo(&t->dev, (struct mtd_info_user *)arg);
        return 0;
    case MEMGETBADBLOCK: {
        int64_t offset;
        memcpy(&offset, arg, sizeof offset);
        return MtdsimNandIsBad(&t->dev, offset);
    }
    case MEMERASE: {
        if (t->accmode == O_RDONLY) {
            errno = EPERM;
            return -1;
        }
        struct erase_info_user e;
        memcpy(&e, arg, sizeof e);
        return MtdsimNandErase(&t->dev, t->fd, e.start, e.length);
    }
    default:
        /* Requests that any descriptor answers (FIOCLEX, ...) still work;
         * other flash requests find a plain file and fail with ENOTTY. */
        return MtdsimReal()->ioctl(t->fd, request, arg);
    }
}

EXPORT int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    Tracked *t = Find(fd);
    if (t != NULL)
        return DeviceIoctl(t, request, arg);
    const MtdsimRealCalls *real = MtdsimReal();
    return real->ioctl ? real->ioctl(fd, request, arg) : Missing();
}
