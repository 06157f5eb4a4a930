// Messaging and data-model start-up. The messaging handle only has to exist;
// the data model is usable once its store directory is there.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/cms/cms.h"
#include "platform/cms/cms_private.h"
#include "platform/cms/cms_store.h"

namespace {

int msgToken;   // its address is the handle

// The fault injected by KVARD_MSG_FAIL=<n>: n when it is a non-zero integer, else 0.
CmsRet injectedMsgFault(void)
{
    const char *s = getenv("KVARD_MSG_FAIL");
    if (s == nullptr || *s == '\0') return CMSRET_SUCCESS;
    char *end = nullptr;
    long n = strtol(s, &end, 0);
    if (*end != '\0' || n < INT32_MIN || n > INT32_MAX) return CMSRET_SUCCESS;
    return static_cast<CmsRet>(n);
}

// mkdir -p: 0 when path is a directory afterwards.
int makeDirs(const char *path)
{
    char buf[PATH_MAX];
    size_t len = strlen(path);
    if (len == 0 || len >= sizeof buf) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(buf, path, len + 1);
    for (size_t i = 1; i <= len; i++) {
        if (buf[i] != '/' && buf[i] != '\0') continue;
        char keep = buf[i];
        buf[i] = '\0';
        if (mkdir(buf, 0755) != 0 && errno != EEXIST) return -1;
        buf[i] = keep;
    }
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

}  // namespace

CmsRet cmsMsg_initWithFlags(uint32_t /*eid*/, uint32_t /*flags*/, void **msgHandle)
{
    if (msgHandle == nullptr) return CMSRET_INVALID_ARGUMENTS;
    CmsRet fault = injectedMsgFault();
    if (fault != CMSRET_SUCCESS) {
        *msgHandle = nullptr;
        return fault;
    }
    *msgHandle = &msgToken;
    return CMSRET_SUCCESS;
}

void cmsMsg_cleanup(void **msgHandle)
{
    if (msgHandle != nullptr) *msgHandle = nullptr;
}

CmsRet cmsMdm_initWithAcc(uint32_t /*eid*/, uint32_t /*acc*/, void * /*msgHandle*/, int32_t * /*shmId*/)
{
    const char *dir = cmsStore_dir();
    if (makeDirs(dir) != 0) {
        cmsPriv_report("cannot create the data-model store %s: %s", dir, strerror(errno));
        return CMSRET_INTERNAL_ERROR;
    }
    if (access(dir, R_OK | W_OK | X_OK) != 0) {
        cmsPriv_report("cannot use the data-model store %s: %s", dir, strerror(errno));
        return CMSRET_INTERNAL_ERROR;
    }
    return CMSRET_SUCCESS;
}
