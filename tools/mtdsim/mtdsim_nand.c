#include "mtdsim_nand.h"

#include "mtdsim_real.h"
#include "mtdsim_report.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define CHUNK 4096
#define PAGE_BLANK '0'
#define PAGE_PROGRAMMED '1'

/* Erases and programs that passed the rules since the configuration last
 * changed, and the programs among them. */
static uint64_t operations;
static uint64_t programs;

void MtdsimNandResetCounts(void)
{
    operations = 0;
    programs = 0;
}

/* ---- What the last check or change of this process left: the image and the
 * sidecar as files. A device opens without the checks of MtdsimNandPrepare
 * while both are still these files, unchanged; every change made from outside
 * (another process, an edit, a replacement) shows in their inode, size or
 * times, the same times the sidecar's own freshness rule goes by. */

typedef struct {
    dev_t dev;
    ino64_t ino;
    off64_t size;
    struct timespec mtim, ctim;
} FileState;

static struct {
    int valid;
    uint64_t generation;   /* of the configuration they were checked under */
    uint64_t size;         /* of the chip */
    FileState image, sidecar;
    char sidecarPath[PATH_MAX + 8];
} known;

static void StateOf(const struct stat64 *st, FileState *out)
{
    memset(out, 0, sizeof *out);
    out->dev = st->st_dev;
    out->ino = st->st_ino;
    out->size = st->st_size;
    out->mtim = st->st_mtim;
    out->ctim = st->st_ctim;
}

static int SameState(const struct stat64 *st, const FileState *s)
{
    FileState now;
    StateOf(st, &now);
    return memcmp(&now, s, sizeof now) == 0;
}

static int ReadAll(int fd, void *buf, size_t n, uint64_t off)
{
    for (size_t done = 0; done < n;) {
        ssize_t r = pread64(fd, (char *)buf + done, n - done, (off64_t)(off + done));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == 0)
                errno = EIO;
            return -1;
        }
        done += (size_t)r;
    }
    return 0;
}

static int WriteAll(int fd, const void *buf, size_t n, uint64_t off)
{
    const MtdsimRealCalls *real = MtdsimReal();
    for (size_t done = 0; done < n;) {
        ssize_t r = real->pwrite64(fd, (const char *)buf + done, n - done, (off64_t)(off + done));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == 0)
                errno = EIO;
            return -1;
        }
        done += (size_t)r;
    }
    return 0;
}

static int Fill(int fd, uint64_t from, uint64_t to, unsigned char byte)
{
    unsigned char buf[CHUNK];
    memset(buf, byte, sizeof buf);
    for (uint64_t at = from; at < to;) {
        size_t n = to - at < CHUNK ? (size_t)(to - at) : CHUNK;
        if (WriteAll(fd, buf, n, at) != 0)
            return -1;
        at += n;
    }
    return 0;
}

/* ---- The sidecar: a header line naming the geometry, then one byte a page,
 * PAGE_BLANK or PAGE_PROGRAMMED. */

static void SidecarPath(const MtdsimDevice *dev, char *out, size_t cap)
{
    snprintf(out, cap, "%s.pages", dev->cfg->image);
}

/* Notes the image (descriptor image) and the sidecar (descriptor sidecar, or
 * its path when -1) as dev leaves them. */
static void Remember(const MtdsimDevice *dev, int image, int sidecar)
{
    known.valid = 0;
    struct stat64 si, ss;
    SidecarPath(dev, known.sidecarPath, sizeof known.sidecarPath);
    if (fstat64(image, &si) != 0)
        return;
    if ((sidecar >= 0 ? fstat64(sidecar, &ss) : stat64(known.sidecarPath, &ss)) != 0)
        return;
    StateOf(&si, &known.image);
    StateOf(&ss, &known.sidecar);
    known.size = dev->size;
    known.generation = dev->generation;
    known.valid = 1;
}

static size_t SidecarHeader(const MtdsimDevice *dev, char *out, size_t cap)
{
    int n = snprintf(out, cap, "mtdsim-pages %u %llu\n", dev->cfg->writesize,
                     (unsigned long long)(dev->size / dev->cfg->writesize));
    return (size_t)n;
}

static int OpenSidecar(const MtdsimDevice *dev, int flags)
{
    char path[PATH_MAX + 8];
    SidecarPath(dev, path, sizeof path);
    int fd = MtdsimReal()->open(path, O_RDWR | O_CLOEXEC | flags, 0644);
    if (fd < 0) {
        int e = errno;
        MtdsimReportFile(path, "cannot open the page state file", e);
        errno = e;
    }
    return fd;
}

static int Later(const struct timespec *a, const struct timespec *b)
{
    return a->tv_sec > b->tv_sec || (a->tv_sec == b->tv_sec && a->tv_nsec > b->tv_nsec);
}

/* Writes the sidecar afresh from the image: a page that holds anything but
 * 0xFF counts as programmed. */
static int DeriveSidecar(const MtdsimDevice *dev, int image, int sidecar)
{
    char header[64];
    size_t hlen = SidecarHeader(dev, header, sizeof header);
    if (WriteAll(sidecar, header, hlen, 0) != 0)
        return -1;
    const uint32_t ws = dev->cfg->writesize;
    const uint64_t pages = dev->size / ws;
    unsigned char data[CHUNK], erased[CHUNK];
    memset(erased, 0xFF, sizeof erased);
    char states[CHUNK];
    size_t pending = 0;
    uint64_t flushedTo = 0;
    for (uint64_t page = 0; page < pages; page++) {
        char state = PAGE_BLANK;
        for (uint32_t done = 0; done < ws && state == PAGE_BLANK;) {
            size_t n = ws - done < CHUNK ? ws - done : CHUNK;
            if (ReadAll(image, data, n, page * ws + done) != 0)
                return -1;
            if (memcmp(data, erased, n) != 0)
                state = PAGE_PROGRAMMED;
            done += (uint32_t)n;
        }
        states[pending++] = state;
        if (pending == CHUNK || page + 1 == pages) {
            if (WriteAll(sidecar, states, pending, hlen + flushedTo) != 0)
                return -1;
            flushedTo += pending;
            pending = 0;
        }
    }
    return ftruncate64(sidecar, (off64_t)(hlen + pages));
}

/* Keeps a sidecar that matches the geometry and is not older than the image
 * (every change writes the image first, then the sidecar); otherwise derives
 * it from the image. */
static int SyncSidecar(const MtdsimDevice *dev, int image, int force)
{
    int sidecar = OpenSidecar(dev, O_CREAT);
    if (sidecar < 0)
        return -1;
    char header[64], found[64];
    size_t hlen = SidecarHeader(dev, header, sizeof header);
    struct stat64 si, ss;
    int keep = !force && fstat64(image, &si) == 0 && fstat64(sidecar, &ss) == 0 &&
               (uint64_t)ss.st_size == hlen + dev->size / dev->cfg->writesize &&
               ReadAll(sidecar, found, hlen, 0) == 0 && memcmp(found, header, hlen) == 0 &&
               !Later(&si.st_mtim, &ss.st_mtim);
    int r = keep ? 0 : DeriveSidecar(dev, image, sidecar);
    int e = errno;
    MtdsimReal()->close(sidecar);
    if (r != 0) {
        char path[PATH_MAX + 8];
        SidecarPath(dev, path, sizeof path);
        MtdsimReportFile(path, "cannot write the page state file", e);
        errno = e;
    }
    return r;
}

static int Refused(const MtdsimDevice *dev, const char *why)
{
    MtdsimReportProblem(dev->cfg->image, why);
    errno = EINVAL;
    return -1;
}

int MtdsimNandPrepare(const MtdsimConfig *cfg, MtdsimDevice *dev)
{
    const MtdsimRealCalls *real = MtdsimReal();
    dev->cfg = cfg;
    dev->size = 0;
    int fd = real->open(cfg->image, O_RDWR | O_CLOEXEC);
    if (fd < 0 && errno != ENOENT) {
        int e = errno;
        MtdsimReportFile(cfg->image, "cannot open the flash image", e);
        errno = e;
        return -1;
    }
    off64_t end = fd >= 0 ? lseek64(fd, 0, SEEK_END) : 0;
    uint64_t have = end > 0 ? (uint64_t)end : 0;
    uint64_t want = cfg->size != 0 ? cfg->size : have != 0 ? have : MTDSIM_DEFAULT_NEW_SIZE;
    int r = 0;
    if (have > want)
        r = Refused(dev, "the image is larger than MTDSIM_SIZE");
    else if (want % cfg->erasesize != 0)
        r = Refused(dev, "the image size is not a whole number of erase blocks");
    else if (want > UINT32_MAX)
        r = Refused(dev, "the image is larger than a chip can be (4 GiB less one byte)");
    for (uint32_t i = 0; r == 0 && i < cfg->badCount; i++)
        if (cfg->bad[i] >= want / cfg->erasesize)
            r = Refused(dev, "MTDSIM_BADBLOCKS lists a block past the end of the chip");
    /* Only a chip that passed the checks gets an image made for it. */
    if (r == 0 && fd < 0) {
        fd = real->open(cfg->image, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            int e = errno;
            MtdsimReportFile(cfg->image, "cannot create the flash image", e);
            errno = e;
            return -1;
        }
    }
    if (r == 0) {
        dev->size = want;
        if (have < want && Fill(fd, have, want, 0xFF) != 0) {
            int e = errno;
            MtdsimReportFile(cfg->image, "cannot write erased blocks", e);
            errno = e;
            r = -1;
        }
    }
    if (r == 0)
        r = SyncSidecar(dev, fd, have != want);
    int e = errno;
    if (fd >= 0)
        real->close(fd);
    errno = e;
    return r;
}

int MtdsimNandOpen(const MtdsimConfig *cfg, uint64_t generation, MtdsimDevice *dev, int keep)
{
    const MtdsimRealCalls *real = MtdsimReal();
    if (known.valid && known.generation == generation) {
        int fd = real->open(cfg->image, O_RDWR | keep);
        struct stat64 si;
        if (fd >= 0 && fstat64(fd, &si) == 0 && SameState(&si, &known.image)) {
            dev->cfg = cfg;
            dev->generation = generation;
            dev->size = known.size;
            return fd;
        }
        if (fd >= 0)
            real->close(fd);
        known.valid = 0;
    }
    if (MtdsimNandPrepare(cfg, dev) != 0)
        return -1;
    dev->generation = generation;
    int fd = real->open(cfg->image, O_RDWR | keep);
    if (fd < 0) {
        int e = errno;
        MtdsimReportFile(cfg->image, "cannot open the flash image", e);
        errno = e;
        return -1;
    }
    Remember(dev, fd, -1);
    return fd;
}

void MtdsimNandInfo(const MtdsimDevice *dev, struct mtd_info_user *info)
{
    memset(info, 0, sizeof *info);
    info->type = MTD_NANDFLASH;
    info->flags = MTD_CAP_NANDFLASH;
    info->size = (uint32_t)dev->size;
    info->erasesize = dev->cfg->erasesize;
    info->writesize = dev->cfg->writesize;
    /* large-page chips carry 64 spare bytes per 2048 */
    info->oobsize = dev->cfg->writesize >= 32 ? dev->cfg->writesize / 32 : 1;
}

int MtdsimNandIsBad(const MtdsimDevice *dev, int64_t offset)
{
    if (offset < 0 || (uint64_t)offset >= dev->size) {
        errno = EINVAL;
        return -1;
    }
    return MtdsimConfigIsBadBlock(dev->cfg, (uint32_t)((uint64_t)offset / dev->cfg->erasesize));
}

/* A refusal without misuse (bad block, injected fault): only the log hears of it. */
static int Failed(const MtdsimDevice *dev, const char *op, uint64_t off, uint64_t len, int err,
                  const char *detail)
{
    MtdsimLogOperation(dev->cfg->log, op, off, len, strerrorname_np(err), detail);
    errno = err;
    return -1;
}

/* A broken rule: stderr and the log. */
static int Misuse(const MtdsimDevice *dev, const char *op, uint64_t off, uint64_t len, int err,
                  const char *detail, const char *why)
{
    MtdsimReportMisuse(dev->cfg->device, op, off, why);
    return Failed(dev, op, off, len, err, detail);
}

static int InjectedFault(const MtdsimConfig *cfg)
{
    if (cfg->failAfter < 0 || operations <= (uint64_t)cfg->failAfter)
        return 0;
    return cfg->failCount == 0 || operations - (uint64_t)cfg->failAfter <= cfg->failCount;
}

/* An I/O failure on the image or the sidecar: the flash answers EIO. */
static int Broken(const MtdsimDevice *dev, const char *op, uint64_t off, uint64_t len)
{
    MtdsimReportFile(dev->cfg->image, op, errno);
    return Failed(dev, op, off, len, EIO, "io");
}

/* The sidecar for an erase or program through the image descriptor image.
 * An open of the device checks only the image (reads need no page states),
 * so the sidecar is checked here: when it is not the file this process last
 * left, missing or changed from outside, it is brought in line with the image
 * first, as an open would have done. -1 (reported) when it cannot be opened. */
static int OpenCheckedSidecar(const MtdsimDevice *dev, int image)
{
    if (known.valid && known.generation == dev->generation) {
        char path[PATH_MAX + 8];
        SidecarPath(dev, path, sizeof path);
        int fd = MtdsimReal()->open(path, O_RDWR | O_CLOEXEC);
        struct stat64 ss;
        if (fd >= 0 && fstat64(fd, &ss) == 0 && SameState(&ss, &known.sidecar))
            return fd;
        if (fd >= 0)
            MtdsimReal()->close(fd);
    }
    if (SyncSidecar(dev, image, 0) != 0)
        return -1;
    return OpenSidecar(dev, 0);
}

int MtdsimNandErase(const MtdsimDevice *dev, int fd, uint64_t start, uint64_t length)
{
    const MtdsimConfig *cfg = dev->cfg;
    static const char op[] = "erase";
    if (start >= dev->size || length > dev->size - start)
        return Misuse(dev, op, start, length, EINVAL, "past-end", "the range is not inside the chip");
    if (start % cfg->erasesize != 0)
        return Misuse(dev, op, start, length, EINVAL, "unaligned", "the offset is not the start of an erase block");
    if (length != cfg->erasesize)
        return Misuse(dev, op, start, length, EINVAL, "not-whole-block", "the length is not one erase block");
    if (MtdsimConfigIsBadBlock(cfg, (uint32_t)(start / cfg->erasesize)))
        return Failed(dev, op, start, length, EIO, "bad-block");
    operations++;
    if (InjectedFault(cfg))
        return Failed(dev, op, start, length, EIO, "injected");

    char header[64];
    size_t hlen = SidecarHeader(dev, header, sizeof header);
    char states[CHUNK];
    memset(states, PAGE_BLANK, sizeof states);
    int sidecar = OpenCheckedSidecar(dev, fd);
    if (sidecar < 0)
        return Failed(dev, op, start, length, EIO, "io");
    known.valid = 0;
    int r = Fill(fd, start, start + length, 0xFF);
    uint64_t first = start / cfg->writesize, count = length / cfg->writesize;
    for (uint64_t done = 0; r == 0 && done < count;) {
        size_t n = count - done < CHUNK ? (size_t)(count - done) : CHUNK;
        r = WriteAll(sidecar, states, n, hlen + first + done);
        done += n;
    }
    int e = errno;
    if (r == 0)
        Remember(dev, fd, sidecar);
    MtdsimReal()->close(sidecar);
    errno = e;
    if (r != 0)
        return Broken(dev, op, start, length);
    MtdsimLogOperation(cfg->log, op, start, length, "ok", "");
    return 0;
}

/* Programs n bytes at off: a bit that is already 0 stays 0. */
static int ProgramBytes(int fd, uint64_t off, const unsigned char *data, size_t n)
{
    unsigned char cells[CHUNK];
    for (size_t done = 0; done < n;) {
        size_t k = n - done < CHUNK ? n - done : CHUNK;
        if (ReadAll(fd, cells, k, off + done) != 0)
            return -1;
        size_t i = 0;
        for (; i + sizeof(uint64_t) <= k; i += sizeof(uint64_t)) { /* a word at a time */
            uint64_t have, give;
            memcpy(&have, cells + i, sizeof have);
            memcpy(&give, data + done + i, sizeof give);
            have &= give;
            memcpy(cells + i, &have, sizeof have);
        }
        for (; i < k; i++)
            cells[i] &= data[done + i];
        if (WriteAll(fd, cells, k, off + done) != 0)
            return -1;
        done += k;
    }
    return 0;
}

int MtdsimNandProgram(const MtdsimDevice *dev, int fd, int64_t offset, const void *data, size_t length)
{
    const MtdsimConfig *cfg = dev->cfg;
    static const char op[] = "program";
    if (offset < 0) {
        errno = EINVAL;
        return -1;
    }
    uint64_t off = (uint64_t)offset;
    if (off >= dev->size)
        return Misuse(dev, op, off, length, ENOSPC, "past-end", "the offset is at or past the end of the chip");
    if (off % cfg->writesize != 0)
        return Misuse(dev, op, off, length, EINVAL, "unaligned", "the offset is not the start of a page");
    if (length != cfg->writesize)
        return Misuse(dev, op, off, length, EINVAL, "not-whole-page", "the length is not one page");
    if (MtdsimConfigIsBadBlock(cfg, (uint32_t)(off / cfg->erasesize)))
        return Failed(dev, op, off, length, EIO, "bad-block");

    char header[64];
    size_t hlen = SidecarHeader(dev, header, sizeof header);
    uint64_t state = hlen + off / cfg->writesize;
    int sidecar = OpenCheckedSidecar(dev, fd);
    if (sidecar < 0)
        return Failed(dev, op, off, length, EIO, "io");
    char was;
    if (ReadAll(sidecar, &was, 1, state) != 0) {
        int e = errno;
        MtdsimReal()->close(sidecar);
        errno = e;
        return Broken(dev, op, off, length);
    }
    if (was != PAGE_BLANK) {
        MtdsimReal()->close(sidecar);
        return Misuse(dev, op, off, length, EIO, "programmed",
                      "the page was programmed before and its block not erased since");
    }
    operations++;
    programs++;
    const char programmed = PAGE_PROGRAMMED;
    if (cfg->cutAfter >= 0 && programs == (uint64_t)cfg->cutAfter + 1) {
        /* Power fails mid-program: the first bytes reach the cells, the chip
         * counts the page as programmed, and the process dies on the spot. */
        size_t torn = cfg->cutBytes < 0 ? cfg->writesize / 2 : (size_t)cfg->cutBytes;
        char detail[24];
        snprintf(detail, sizeof detail, "%zu", torn);
        if (ProgramBytes(fd, off, data, torn) != 0 || WriteAll(sidecar, &programmed, 1, state) != 0)
            MtdsimReportFile(cfg->image, "cannot write the torn page", errno);
        MtdsimLogOperation(cfg->log, op, off, length, "cut", detail);
        kill(getpid(), SIGKILL);
        _exit(128 + SIGKILL);
    }
    if (InjectedFault(cfg)) {
        MtdsimReal()->close(sidecar);
        return Failed(dev, op, off, length, EIO, "injected");
    }
    known.valid = 0;
    int r = ProgramBytes(fd, off, data, length);
    if (r == 0)
        r = WriteAll(sidecar, &programmed, 1, state);
    int e = errno;
    if (r == 0)
        Remember(dev, fd, sidecar);
    MtdsimReal()->close(sidecar);
    errno = e;
    if (r != 0)
        return Broken(dev, op, off, length);
    MtdsimLogOperation(cfg->log, op, off, length, "ok", "");
    return 0;
}
