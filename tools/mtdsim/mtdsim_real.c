#include "mtdsim_real.h"

#include <dlfcn.h>

static MtdsimRealCalls calls;
static int resolved;

/* Looked up lazily rather than in a constructor: the library must not run
 * code at load time, and the first call may come from another library's
 * constructor before ours would have run. Two threads racing here store the
 * same values. */
const MtdsimRealCalls *MtdsimReal(void)
{
    if (!__atomic_load_n(&resolved, __ATOMIC_ACQUIRE)) {
#define MTDSIM_RESOLVE(member, name) *(void **)&calls.member = dlsym(RTLD_NEXT, name)
        MTDSIM_RESOLVE(open, "open");
        MTDSIM_RESOLVE(open64, "open64");
        MTDSIM_RESOLVE(openat, "openat");
        MTDSIM_RESOLVE(openat64, "openat64");
        MTDSIM_RESOLVE(open_2, "__open_2");
        MTDSIM_RESOLVE(open64_2, "__open64_2");
        MTDSIM_RESOLVE(openat_2, "__openat_2");
        MTDSIM_RESOLVE(openat64_2, "__openat64_2");
        MTDSIM_RESOLVE(fopen, "fopen");
        MTDSIM_RESOLVE(fopen64, "fopen64");
        MTDSIM_RESOLVE(close, "close");
        MTDSIM_RESOLVE(dup, "dup");
        MTDSIM_RESOLVE(dup2, "dup2");
        MTDSIM_RESOLVE(dup3, "dup3");
        MTDSIM_RESOLVE(write, "write");
        MTDSIM_RESOLVE(pwrite, "pwrite");
        MTDSIM_RESOLVE(pwrite64, "pwrite64");
        MTDSIM_RESOLVE(ioctl, "ioctl");
#undef MTDSIM_RESOLVE
        __atomic_store_n(&resolved, 1, __ATOMIC_RELEASE);
    }
    return &calls;
}
