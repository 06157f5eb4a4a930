// The lowest layer of the history, the only code that talks to the MTD device.
// Every operation opens the device anew and closes it again; the kernel is
// asked about bad blocks at each operation.
#include "history/tmmtd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "history/tmflash.h"

// The grep token carries the quotes of /proc/mtd's name column, so that a
// partition whose name merely begins with "tm" is not taken for it.
#define TM_MTD_TOKEN "\"tm\""

static struct mtd_info_user mtdInfoRaw;
static char mtdDevicePath[26];

int32_t TmMtdFind(struct mtd_info_user *out)
{
    memset(&mtdInfoRaw, 0, sizeof mtdInfoRaw);
    char command[100];
    snprintf(command, sizeof command, "cat /proc/mtd | grep '%s' | awk -F ':' '{printf $1}'", TM_MTD_TOKEN);
    FILE *pipe = popen(command, "r");
    if (!pipe) return -1;
    char name[21];
    if (!fgets(name, sizeof name, pipe)) {
        pclose(pipe);
        return -1;
    }
    snprintf(mtdDevicePath, sizeof mtdDevicePath, "/dev/%s", name);
    // A device that is listed but won't open leaves the geometry all zero.
    int fd = open(mtdDevicePath, O_RDWR);
    if (fd >= 0) {
        ioctl(fd, MEMGETINFO, &mtdInfoRaw);
        close(fd);
    }
    pclose(pipe);
    memcpy(out, &mtdInfoRaw, sizeof mtdInfoRaw);
    return 0;
}

static int TmMtdOpen(void)
{
    int fd = open(mtdDevicePath, O_RDWR);
    if (fd < 0) perror(mtdDevicePath);
    return fd;
}

static int32_t TmMtdBadBlockRequest(int fd, int64_t offset)
{
    loff_t at = offset;
    return ioctl(fd, MEMGETBADBLOCK, &at);
}

// The router's lseek takes a 32-bit offset: only the low 32 bits are passed,
// and the position that comes back is widened with its sign. Offsets of 2^31
// and beyond therefore fail here, as they do on the router.
static int TmMtdSeek(int fd, int64_t offset)
{
    int32_t low = (int32_t)(uint32_t)(uint64_t)offset;
    off_t pos = lseek(fd, (off_t)low, SEEK_SET);
    return (int64_t)(int32_t)pos == offset ? 0 : -1;
}

static int TmMtdInRange(int64_t offset, uint32_t length)
{
    return offset + (int64_t)length <= (int64_t)mtdInfoRaw.size;
}

int32_t TmMtdIsBadBlock(int64_t offset)
{
    if (mtdInfoRaw.erasesize == 0) return -1;
    int fd = TmMtdOpen();
    if (fd < 0) return -1;
    int32_t result = TmMtdBadBlockRequest(fd, offset);
    close(fd);
    return result;
}

int32_t TmMtdEraseBlock(int64_t offset)
{
    if (mtdInfoRaw.erasesize == 0) return -1;
    int fd = TmMtdOpen();
    if (fd < 0) return -1;
    int32_t result = TmMtdBadBlockRequest(fd, offset);
    if (result == 0) {
        struct erase_info_user erase;
        erase.start = (uint32_t)(uint64_t)offset;
        erase.length = mtdInfoRaw.erasesize;
        result = ioctl(fd, MEMERASE, &erase);
    }
    close(fd);
    return result;
}

int32_t TmMtdRead(int64_t offset, uint8_t *buffer, uint32_t length)
{
    if (mtdInfoRaw.erasesize == 0) return -1;
    if (!TmMtdInRange(offset, length)) return -1;
    if (TmMtdIsBadBlock(offset) != 0) return -1;
    int64_t blockStart = offset - offset % (int64_t)mtdInfoRaw.erasesize;
    int fd = TmMtdOpen();
    if (fd < 0) return -1;
    int32_t result = TmMtdBadBlockRequest(fd, blockStart);
    if (result != 0) {
        close(fd);
        return result;
    }
    if (TmMtdSeek(fd, offset) != 0) {
        close(fd);
        return -1;
    }
    ssize_t got = read(fd, buffer, length);
    result = (length > 0 && got == (ssize_t)length) ? 0 : 1;
    close(fd);
    return result;
}

int32_t TmMtdWrite(int64_t offset, const uint8_t *data, uint32_t length)
{
    if (mtdInfoRaw.erasesize == 0) return -1;
    if (!TmMtdInRange(offset, length)) return -1;
    if (length > mtdInfoRaw.writesize) return -1;
    if (TmMtdIsBadBlock(offset) != 0) return -1;
    int fd = TmMtdOpen();
    if (fd < 0) return -1;
    // The first page of a block is never programmed without erasing the whole
    // block just before: this is where the history is erased in normal running.
    if (offset % (int64_t)mtdInfoRaw.erasesize == 0) {
        int32_t erased = TmMtdEraseBlock(offset);
        if (erased != 0) {
            close(fd);
            return erased;
        }
    }
    if (TmMtdSeek(fd, offset) != 0) {
        close(fd);
        return -1;
    }
    uint8_t *page = (uint8_t *)malloc(mtdInfoRaw.writesize);
    if (!page) {
        close(fd);
        return -1;
    }
    memset(page, 0xFF, mtdInfoRaw.writesize);
    memcpy(page, data, length);
    int32_t result = 0;
    ssize_t put = write(fd, page, mtdInfoRaw.writesize);
    if (put <= 0 || put != (ssize_t)mtdInfoRaw.writesize) {
        result = 1;
    } else if (TmMtdSeek(fd, offset) != 0) {
        result = -1;
    } else {
        // The read-back checks the count only; the bytes are not compared.
        memset(page, 0xFF, length);
        if (read(fd, page, length) != (ssize_t)length) result = -1;
    }
    free(page);
    close(fd);
    return result;
}
