#include "tests/fuzz/fuzz_host.h"

#include <dlfcn.h>
#include <ftw.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/tmcore.h"
#include "history/tmflash.h"
#include "platform/cms/cms_fields.h"

namespace {

std::string scratch;     // the scratch directory
std::string self;        // argv[0]
pthread_t fuzzThread;    // the thread that runs the inputs
int32_t clockNow;
char uptimeText[24];
std::string netDev;
FILE *uptimePipe;

const int32_t kDefaultClock = 1711846800;  // 2024-03-31 01:00:00 UTC, the spring change in Europe

const char *const kZones[] = {
    "CET-1CEST,M3.5.0,M10.5.0/3", "UTC0", "AEST-10AEDT,M10.1.0,M4.1.0/3",
    "<+0530>-5:30", "NST3:30NDT,M3.2.0,M11.1.0", "<-03>3",
};

// The router as the box seeds it: router mode, DHCP over eth0, a synchronised clock, metering on.
const struct {
    const char *name, *text;
} kSeed[] = {
    {"2700", "operationMode=RT\n"},
    {"1400", "wanType=DHCP\n"},
    {"1152.1", "ifName=eth0\nisUpstream=1\n"},
    {"1152.2", "ifName=eth1\nisUpstream=0\n"},
    {"1045", "status=Synchronized\nlocalTimeZone=CET-1CEST,M3.5.0,M10.5.0/3\n"},
    {"2888", "traffic_on=true\nvolcontrl=true\ncontrl_type=No limit\nvolume_monthly_limit=0\nround_up_volume=0\n"
             "timecontrl=false\nconntime_monthly_limit=0\nday=1\nhour=0\nmin=0\nampm_sel=false\ncounter=0\n"
             "mark=0\nled_on=false\nblock_on=false\nmarkStatus=0\n"},
    {"2889", ""},
};

// The daemon's fixed paths and where they are kept here.
const char *const kSideFiles[] = {"/data/tmrestarttime.data", "/tmp/tmwarn.data", "/tmp/tmlimit.data",
                                  "/tmp/WanPorts"};

template <class F> F Next(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool Ours(const char *command)
{
    return !self.empty() && strncmp(command, self.c_str(), self.size()) == 0;
}

void RemoveScratch(void)
{
    nftw(scratch.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16,
         FTW_DEPTH | FTW_PHYS);
}

}  // namespace

// The daemon's shell commands (ifconfig, dnsmasq, kill, logger, rm, tmledflashd) go nowhere.
extern "C" int system(const char *command)
{
    if (command && Ours(command)) return Next<int (*)(const char *)>("system")(command);
    if (command) (void)strlen(command);  // it must at least be a string
    return 0;
}

extern "C" FILE *popen(const char *command, const char *mode)
{
    if (Ours(command)) return Next<FILE *(*)(const char *, const char *)>("popen")(command, mode);
    if (strstr(command, "/proc/uptime") == nullptr || uptimePipe) {
        fprintf(stderr, "fuzz host: unexpected pipeline: %s\n", command);
        abort();
    }
    uptimePipe = fmemopen(uptimeText, strlen(uptimeText), "r");
    return uptimePipe;
}

extern "C" int pclose(FILE *stream)
{
    if (stream != uptimePipe) return Next<int (*)(FILE *)>("pclose")(stream);
    uptimePipe = nullptr;
    fclose(stream);
    return 0;
}

// The WAN restore waits 3 s for the interface; libFuzzer's own threads still sleep.
extern "C" unsigned int sleep(unsigned int seconds)
{
    if (pthread_equal(pthread_self(), fuzzThread)) return 0;
    return Next<unsigned int (*)(unsigned int)>("sleep")(seconds);
}

extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (strcmp(path, "/proc/net/dev") == 0) return fmemopen(netDev.data(), netDev.size(), "r");
    for (const char *side : kSideFiles)
        if (strcmp(path, side) == 0) return __real_fopen((scratch + strrchr(side, '/')).c_str(), mode);
    return __real_fopen(path, mode);
}

extern "C" time_t __wrap_time(time_t *out)
{
    if (out) *out = clockNow;
    return clockNow;
}

void FuzzHostStart(const char *argv0)
{
    self = argv0;
    fuzzThread = pthread_self();
    const char *tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kvard-fuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) abort();
    scratch = pattern;
    atexit(RemoveScratch);
    setenv("KVARD_MDM_DIR", FuzzPath("mdm").c_str(), 1);
    setenv("KVARD_MDM_LOCK_MAX_MS", "100", 1);
    cmsLog_initWithName(TM_ENTITY_ID, "kvard");
    int32_t shm = 0;
    if (cmsMdm_initWithAcc(TM_ENTITY_ID, 0, nullptr, &shm) != CMSRET_SUCCESS) abort();
    FuzzWriteFile("WanPorts", "eth0\n", 5);
    FuzzHostReset();
}

void FuzzHostReset(void)
{
    for (const auto &object : kSeed) FuzzWriteFile("mdm/" + std::string(object.name), object.text, strlen(object.text));
    for (const char *side : {"tmrestarttime.data", "tmwarn.data", "tmlimit.data"}) unlink(FuzzPath(side).c_str());
    FuzzSetClock(kDefaultClock);
    FuzzSetUptime(1000);
    FuzzSetWanCounters(1000, 2000);
    FuzzSetZone(0);
}

std::string FuzzPath(const std::string &name)
{
    return scratch + "/" + name;
}

void FuzzWriteFile(const std::string &name, const void *data, size_t size)
{
    FILE *file = __real_fopen(FuzzPath(name).c_str(), "wb");
    if (!file || fwrite(data, 1, size, file) != size || fclose(file) != 0) abort();
}

void FuzzStoreSet(MdmObjectId oid, uint32_t row, uint32_t field, const std::string &value)
{
    const CmsObjectType *type = cmsFields_find(oid);
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    if (row) stack.currentDepth = 1, stack.instance[0] = row;
    void *obj = nullptr;
    if (!type || cmsLck_acquireLockWithTimeoutTraced("FuzzStoreSet", 100) != CMSRET_SUCCESS) abort();
    if (cmsObj_get(oid, &stack, 0, &obj) == CMSRET_SUCCESS) {
        const CmsField *f = &type->fields[field % type->fieldCount];
        if (f->kind == CMS_FIELD_STRING) {
            free(*cmsFields_string(obj, f));
            *cmsFields_string(obj, f) = strdup(value.c_str());
        } else {
            *cmsFields_byte(obj, f) = value.empty() ? 0 : (uint8_t)value[0];
        }
        cmsObj_set(obj, &stack);
        cmsObj_free(&obj);
    }
    cmsLck_releaseLockTraced("FuzzStoreSet");
}

void FuzzSetClock(int32_t seconds)
{
    clockNow = seconds;
}

void FuzzSetUptime(uint32_t seconds)
{
    snprintf(uptimeText, sizeof uptimeText, "%u.42\n", seconds);
}

void FuzzSetNetDev(const void *data, size_t size)
{
    netDev.assign((const char *)data, size);
}

void FuzzSetWanCounters(uint64_t tx, uint64_t rx)
{
    char text[512];
    int n = snprintf(text, sizeof text,
                     "Inter-|   Receive                                                |  Transmit\n"
                     " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
                     "drop fifo colls carrier compressed\n"
                     "    lo: 100 1 0 0 0 0 0 0 100 1 0 0 0 0 0 0\n"
                     "eth0.1: %llu 10 0 0 0 0 0 0 %llu 10 0 0 0 0 0 0\n"
                     "ppp0.2: %llu 10 0 0 0 0 0 0 %llu 10 0 0 0 0 0 0\n"
                     "  ppp0: %llu 10 0 0 0 0 0 0 %llu 10 0 0 0 0 0 0\n",
                     (unsigned long long)rx, (unsigned long long)tx, (unsigned long long)rx, (unsigned long long)tx,
                     (unsigned long long)rx, (unsigned long long)tx);
    FuzzSetNetDev(text, (size_t)n);
}

void FuzzSetZone(uint32_t choice)
{
    setenv("TZ", kZones[choice % (sizeof kZones / sizeof kZones[0])], 1);
    tzset();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    FuzzHostStart((*argv)[0]);
    TmCrcInit();
    return 0;
}
