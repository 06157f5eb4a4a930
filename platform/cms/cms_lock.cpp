// The data-model lock: flock(LOCK_EX) on <store>/.lock, polled with short
// sleeps until the caller's timeout. The descriptor stays open between calls
// (the daemon takes the lock several times a wake); it is reopened after a
// fork or when the store moves, since a descriptor inherited from the parent
// shares the parent's lock instead of competing for it. A fork is noticed by a
// handler that runs in the child, not by asking for the pid at every call: the
// lock is taken several times a wake.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "platform/cms/cms.h"
#include "platform/cms/cms_private.h"
#include "platform/cms/cms_store.h"

namespace {

struct LockState {
    int fd = -1;
    bool inherited = false;    // fd was opened by the parent of a fork
    char path[PATH_MAX] = "";  // the lock file fd belongs to
    bool held = false;
    uint64_t hold = 0;         // number of the current or last hold
    char holder[64] = "";      // traced function name of the current holder
};
LockState lk;
pid_t ownPid = 0;   // 0: not known yet

void forked(void)
{
    lk.inherited = true;
    ownPid = 0;
}

void watchForks(void)
{
    static bool watching = false;
    if (!watching) watching = pthread_atfork(nullptr, nullptr, forked) == 0;
}

bool ownsFd(void)
{
    return lk.fd >= 0 && !lk.inherited;
}

// Microseconds: a deadline in whole milliseconds would end a wait up to 1 ms early.
int64_t nowUs(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void sleepUs(int64_t us)
{
    struct timespec ts = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// KVARD_MDM_LOCK_MAX_MS caps every wait, so that tests of a lock timeout
// need not sit out the daemon's 30 s.
uint32_t cappedTimeout(uint32_t timeoutMs)
{
    const char *s = getenv("KVARD_MDM_LOCK_MAX_MS");
    if (s == nullptr || *s == '\0') return timeoutMs;
    char *end = nullptr;
    unsigned long cap = strtoul(s, &end, 10);
    if (*end != '\0' || *s == '-') return timeoutMs;
    return cap < timeoutMs ? static_cast<uint32_t>(cap) : timeoutMs;
}

int lockPath(char *buf, size_t size)
{
    const char *dir = cmsStore_dir();
    size_t n = strlen(dir);
    if (n + sizeof "/.lock" > size) return -1;
    memcpy(buf, dir, n);
    memcpy(buf + n, "/.lock", sizeof "/.lock");
    return 0;
}

// An open descriptor of this process for the current store's lock file; -1 (reported) when it cannot be opened.
int lockFd(void)
{
    char path[PATH_MAX];
    if (lockPath(path, sizeof path) != 0) {
        cmsPriv_report("lock file name too long for store %s", cmsStore_dir());
        return -1;
    }
    if (ownsFd() && strcmp(lk.path, path) == 0) return lk.fd;
    if (lk.fd >= 0) close(lk.fd);   // inherited or stale: never unlock through it
    lk.fd = -1;
    lk.inherited = false;
    lk.held = false;
    watchForks();
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && (errno == EACCES || errno == EROFS)) fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        cmsPriv_report("cannot open lock file %s: %s", path, strerror(errno));
        return -1;
    }
    lk.fd = fd;
    snprintf(lk.path, sizeof lk.path, "%s", path);
    return fd;
}

// The pid of another process that holds a flock on fd's file, from /proc/locks; 0 when unknown.
long otherHolder(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return 0;
    char key[64];
    snprintf(key, sizeof key, "%02x:%02x:%llu", major(st.st_dev), minor(st.st_dev),
             static_cast<unsigned long long>(st.st_ino));
    FILE *f = fopen("/proc/locks", "re");
    if (f == nullptr) return 0;
    char line[256];
    long pid = 0;
    while (pid == 0 && fgets(line, sizeof line, f) != nullptr) {
        char kind[16], mode[16], dev[64];
        long p = 0;
        // "1: FLOCK  ADVISORY  WRITE 5578 fe:00:10952737 0 EOF"; blocked waiters carry "->".
        if (strstr(line, "->") != nullptr) continue;
        if (sscanf(line, "%*s %15s %*s %15s %ld %63s", kind, mode, &p, dev) != 4) continue;
        if (strcmp(kind, "FLOCK") == 0 && strcmp(dev, key) == 0 && p != cmsPriv_pid()) pid = p;
    }
    fclose(f);
    return pid;
}

}  // namespace

pid_t cmsPriv_pid(void)
{
    if (ownPid == 0) {
        watchForks();
        ownPid = getpid();
    }
    return ownPid;
}

uint64_t cmsPriv_lockHold(void)
{
    return lk.held && ownsFd() ? lk.hold : 0;
}

CmsRet cmsLck_acquireLockWithTimeoutTraced(const char *callerFuncName, uint32_t timeoutMs)
{
    const char *caller = callerFuncName != nullptr ? callerFuncName : "?";
    int fd = lockFd();
    if (fd < 0) return CMSRET_INTERNAL_ERROR;
    if (lk.held) {
        // The platform's lock does not nest; taking it twice is a bug of the caller.
        cmsPriv_report("lock %s: %s asks for it while %s of this process holds it", lk.path, caller, lk.holder);
        return CMSRET_RESOURCE_EXCEEDED;
    }
    // The clock is read only once the lock turns out to be taken: the usual
    // case costs the one flock call.
    int64_t deadline = -1;
    int64_t pause = 1000;
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) break;
        if (errno != EWOULDBLOCK && errno != EINTR) {
            cmsPriv_report("cannot lock %s: %s", lk.path, strerror(errno));
            return CMSRET_INTERNAL_ERROR;
        }
        if (deadline < 0) deadline = nowUs() + static_cast<int64_t>(cappedTimeout(timeoutMs)) * 1000;
        int64_t left = deadline - nowUs();
        if (left <= 0) return CMSRET_TIMED_OUT;
        sleepUs(pause < left ? pause : left);
        if (pause < 10000) pause *= 2;   // 1, 2, 4, 8, 16 ms: cheap, and quick to notice a release
    }
    lk.held = true;
    lk.hold++;
    size_t n = strnlen(caller, sizeof lk.holder - 1);
    memcpy(lk.holder, caller, n);
    lk.holder[n] = '\0';
    return CMSRET_SUCCESS;
}

void cmsLck_releaseLockTraced(const char *callerFuncName)
{
    if (!lk.held || !ownsFd()) {
        cmsPriv_report("lock %s/.lock: %s releases a lock this process does not hold", cmsStore_dir(),
                       callerFuncName != nullptr ? callerFuncName : "?");
        return;
    }
    flock(lk.fd, LOCK_UN);
    lk.held = false;
    lk.holder[0] = '\0';
}

void cmsLck_dumpInfo(void)
{
    char path[PATH_MAX];
    if (lockPath(path, sizeof path) != 0) snprintf(path, sizeof path, "%s", cmsStore_dir());
    if (lk.held && ownsFd() && strcmp(lk.path, path) == 0) {
        cmsPriv_report("lock %s: held in this process by %s", path, lk.holder);
        return;
    }
    long other = ownsFd() ? otherHolder(lk.fd) : 0;
    if (other != 0)
        cmsPriv_report("lock %s: not held in this process; process %ld holds it", path, other);
    else
        cmsPriv_report("lock %s: not held in this process; holder unknown", path);
}
