// Objects in the store: one text file per instance, one "name=value" line per
// non-null field (docs/store.md). Reads parse the whole file at once; writes
// build the new text in memory, write it to a hidden temporary file in the
// store and rename it over the old one, so a reader sees the old or the new
// file, never a part of one. No fsync: on the router the store lives in RAM.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_private.h"
#include "platform/cms/cms_store.h"

namespace {

const char kDefaultStore[] = "/var/lib/kvard/mdm";

// A growable byte buffer on malloc; ok turns false on the first failed allocation.
struct Text {
    char *data = nullptr;
    size_t len = 0;
    size_t cap = 0;
    bool ok = true;

    ~Text() { free(data); }
    void add(const char *s, size_t n)
    {
        if (!ok) return;
        if (len + n + 1 > cap) {
            size_t want = cap ? cap : 256;
            while (want < len + n + 1) want *= 2;
            char *p = static_cast<char *>(realloc(data, want));
            if (p == nullptr) {
                ok = false;
                return;
            }
            data = p;
            cap = want;
        }
        memcpy(data + len, s, n);
        len += n;
        data[len] = '\0';
    }
    void add(const char *s) { add(s, strlen(s)); }
};

// Path of an instance file; -1 when the stack or the name does not fit.
int instancePath(MdmObjectId oid, const InstanceIdStack *stack, char *path, size_t size, char *name,
                 size_t nameSize)
{
    if (cmsStore_instanceName(oid, stack, name, nameSize) != 0) return -1;
    int n = snprintf(path, size, "%s/%s", cmsStore_dir(), name);
    return n > 0 && static_cast<size_t>(n) < size ? 0 : -1;
}

// Whole file in a malloc'd NUL-terminated buffer. 0 ok; ENOENT when missing
// (silent); another errno when unreadable (reported, naming the file).
int readFile(const char *path, char **out, size_t *outLen)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        if (err != ENOENT) cmsPriv_report("cannot open %s: %s", path, strerror(err));
        return err;
    }
    Text t;
    char chunk[4096];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int err = errno;
            cmsPriv_report("cannot read %s: %s", path, strerror(err));
            close(fd);
            return err;
        }
        if (n == 0) break;
        t.add(chunk, static_cast<size_t>(n));
    }
    close(fd);
    if (!t.ok) {
        cmsPriv_report("cannot read %s: out of memory", path);
        return ENOMEM;
    }
    t.add("", 0);   // an empty file still gets a buffer
    *out = t.data;
    *outLen = t.len;
    t.data = nullptr;
    return 0;
}

void freeFields(void *obj, const CmsObjectType *type)
{
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind != CMS_FIELD_STRING) continue;
        char **slot = cmsFields_string(obj, f);
        free(*slot);
        *slot = nullptr;
    }
}

// Fills obj from the file text. Unknown lines and lines without '=' are
// skipped; of two lines for one field the later wins. false when out of memory.
bool parseObject(const char *text, size_t len, const CmsObjectType *type, void *obj)
{
    const char *p = text;
    const char *end = text + len;
    while (p < end) {
        const char *eol = static_cast<const char *>(memchr(p, '\n', end - p));
        if (eol == nullptr) eol = end;
        const char *eq = static_cast<const char *>(memchr(p, '=', eol - p));
        const CmsField *f = eq != nullptr ? cmsFields_field(type, p, eq - p) : nullptr;
        if (f != nullptr && f->kind == CMS_FIELD_STRING) {
            char *value = cmsStore_unescape(eq + 1, eol - eq - 1);
            if (value == nullptr) return false;
            char **slot = cmsFields_string(obj, f);
            free(*slot);
            *slot = value;
        } else if (f != nullptr) {
            uint8_t b = 0;
            cmsStore_parseByte(eq + 1, eol - eq - 1, &b);   // anything but 0..255 reads as 0
            *cmsFields_byte(obj, f) = b;
        }
        p = eol + 1;
    }
    return true;
}

// The field table and the file of an object instance; reports an unknown id or
// a stack that names no file in the caller's name.
static CmsRet resolveObject(const char *caller, MdmObjectId oid, const InstanceIdStack *stack,
                            const CmsObjectType **type, char *path, size_t pathSize, char *name, size_t nameSize)
{
    *type = cmsFields_find(oid);
    if (*type == nullptr) {
        cmsPriv_report("%s: unknown object id %u", caller, static_cast<unsigned>(oid));
        return CMSRET_INVALID_ARGUMENTS;
    }
    if (instancePath(oid, stack, path, pathSize, name, nameSize) != 0) {
        cmsPriv_report("%s: object %u has no file for this instance stack", caller, static_cast<unsigned>(oid));
        return CMSRET_INVALID_ARGUMENTS;
    }
    return CMSRET_SUCCESS;
}

CmsRet getInstance(MdmObjectId oid, const InstanceIdStack *stack, void **obj)
{
    if (obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    const CmsObjectType *type = nullptr;
    char path[PATH_MAX], name[64];
    CmsRet found = resolveObject("cmsObj_get", oid, stack, &type, path, sizeof path, name, sizeof name);
    if (found != CMSRET_SUCCESS) return found;
    char *text = nullptr;
    size_t len = 0;
    int err = readFile(path, &text, &len);
    if (err == ENOENT) return CMSRET_OBJECT_NOT_FOUND;
    if (err != 0) return err == ENOMEM ? CMSRET_RESOURCE_EXCEEDED : CMSRET_INTERNAL_ERROR;
    void *o = calloc(1, type->size);
    if (o != nullptr) *static_cast<MdmObjectId *>(o) = oid;
    bool ok = o != nullptr && parseObject(text, len, type, o);
    free(text);
    if (!ok) {
        if (o != nullptr) freeFields(o, type);
        free(o);
        cmsPriv_report("cannot read %s: out of memory", path);
        return CMSRET_RESOURCE_EXCEEDED;
    }
    *obj = o;
    return CMSRET_SUCCESS;
}

// n when name is "<oid>.<n>" with n a canonical decimal above 0 (no sign, no leading zero); 0 otherwise.
uint32_t rowOf(const char *name, const char *prefix, size_t prefixLen)
{
    if (strncmp(name, prefix, prefixLen) != 0) return 0;
    const char *d = name + prefixLen;
    if (*d < '1' || *d > '9') return 0;
    uint64_t n = 0;
    for (; *d != '\0'; d++) {
        if (*d < '0' || *d > '9') return 0;
        n = n * 10 + static_cast<uint64_t>(*d - '0');
        if (n > UINT32_MAX) return 0;
    }
    return static_cast<uint32_t>(n);
}

// 0 when all of buf went to fd.
int writeAll(int fd, const char *buf, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

const char *cmsStore_dir(void)
{
    const char *dir = getenv("KVARD_MDM_DIR");
    return dir != nullptr && *dir != '\0' ? dir : kDefaultStore;
}

char *cmsStore_escape(const char *value)
{
    if (value == nullptr) value = "";
    size_t extra = 0;
    for (const char *p = value; *p; p++)
        if (*p == '\n' || *p == '\\') extra++;
    char *out = static_cast<char *>(malloc(strlen(value) + extra + 1));
    if (out == nullptr) return nullptr;
    char *o = out;
    for (const char *p = value; *p; p++) {
        if (*p == '\n') {
            *o++ = '\\';
            *o++ = 'n';
        } else if (*p == '\\') {
            *o++ = '\\';
            *o++ = '\\';
        } else {
            *o++ = *p;
        }
    }
    *o = '\0';
    return out;
}

char *cmsStore_unescape(const char *text, size_t len)
{
    char *out = static_cast<char *>(malloc(len + 1));
    if (out == nullptr) return nullptr;
    char *o = out;
    for (size_t i = 0; i < len; i++) {
        if (text[i] == '\\' && i + 1 < len && text[i + 1] == 'n') {
            *o++ = '\n';
            i++;
        } else if (text[i] == '\\' && i + 1 < len && text[i + 1] == '\\') {
            *o++ = '\\';
            i++;
        } else {
            *o++ = text[i];   // a lone or unknown escape stays as written
        }
    }
    *o = '\0';
    return out;
}

int cmsStore_parseByte(const char *text, size_t len, uint8_t *out)
{
    if (len == 0 || len > 3) return -1;
    unsigned v = 0;
    for (size_t i = 0; i < len; i++) {
        if (text[i] < '0' || text[i] > '9') return -1;
        v = v * 10 + static_cast<unsigned>(text[i] - '0');
    }
    if (v > 255) return -1;
    *out = static_cast<uint8_t>(v);
    return 0;
}

int cmsStore_instanceName(MdmObjectId oid, const InstanceIdStack *stack, char *buf, size_t size)
{
    int n;
    if (stack == nullptr || stack->currentDepth == 0)
        n = snprintf(buf, size, "%u", static_cast<unsigned>(oid));
    else if (stack->currentDepth == 1 && stack->instance[0] > 0)
        n = snprintf(buf, size, "%u.%u", static_cast<unsigned>(oid), static_cast<unsigned>(stack->instance[0]));
    else
        return -1;
    return n > 0 && static_cast<size_t>(n) < size ? 0 : -1;
}

CmsRet cmsObj_get(MdmObjectId oid, const InstanceIdStack *iidStack, uint32_t /*getFlags*/, void **obj)
{
    return getInstance(oid, iidStack, obj);
}

CmsRet cmsObj_getNextFlags(MdmObjectId oid, InstanceIdStack *iidStack, uint32_t /*getFlags*/, void **obj)
{
    if (iidStack == nullptr || obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    if (cmsFields_find(oid) == nullptr) {
        cmsPriv_report("cmsObj_getNextFlags: unknown object id %u", static_cast<unsigned>(oid));
        return CMSRET_INVALID_ARGUMENTS;
    }
    char prefix[16];
    size_t prefixLen = static_cast<size_t>(snprintf(prefix, sizeof prefix, "%u.", static_cast<unsigned>(oid)));
    for (;;) {
        uint32_t after = iidStack->currentDepth == 0 ? 0 : iidStack->instance[0];
        DIR *d = opendir(cmsStore_dir());
        if (d == nullptr) {
            cmsPriv_report("cannot list the store %s: %s", cmsStore_dir(), strerror(errno));
            return CMSRET_INTERNAL_ERROR;
        }
        uint32_t next = 0;
        // readdir64: the 32-bit readdir fails with EOVERFLOW on file systems
        // with 64-bit directory cookies (ext4 seen from a 32-bit process).
        errno = 0;
        while (struct dirent64 *e = readdir64(d)) {
            uint32_t n = rowOf(e->d_name, prefix, prefixLen);
            if (n > after && (next == 0 || n < next)) next = n;
        }
        int err = errno;
        closedir(d);
        if (err != 0) {
            cmsPriv_report("cannot list the store %s: %s", cmsStore_dir(), strerror(err));
            return CMSRET_INTERNAL_ERROR;
        }
        if (next == 0) return CMSRET_NO_MORE_INSTANCES;
        *iidStack = EMPTY_INSTANCE_ID_STACK;
        iidStack->currentDepth = 1;
        iidStack->instance[0] = next;
        CmsRet ret = getInstance(oid, iidStack, obj);
        if (ret != CMSRET_OBJECT_NOT_FOUND) return ret;   // a row deleted meanwhile is passed over
    }
}

CmsRet cmsObj_set(const void *obj, const InstanceIdStack *iidStack)
{
    if (obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    MdmObjectId oid = *static_cast<const MdmObjectId *>(obj);
    const CmsObjectType *type = nullptr;
    char path[PATH_MAX], name[64];
    CmsRet found = resolveObject("cmsObj_set", oid, iidStack, &type, path, sizeof path, name, sizeof name);
    if (found != CMSRET_SUCCESS) return found;

    char *old = nullptr;
    size_t oldLen = 0;
    int err = readFile(path, &old, &oldLen);
    if (err != 0 && err != ENOENT) return CMSRET_INTERNAL_ERROR;   // its lines would be lost

    // Known fields in object order, then the lines of other programs as they stood.
    Text t;
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind == CMS_FIELD_STRING) {
            const char *value = *cmsFields_string(obj, f);
            if (value == nullptr) continue;
            char *esc = cmsStore_escape(value);
            if (esc == nullptr) t.ok = false;
            t.add(f->name);
            t.add("=");
            if (esc != nullptr) t.add(esc);
            t.add("\n");
            free(esc);
        } else {
            char num[8];
            snprintf(num, sizeof num, "%u", static_cast<unsigned>(*cmsFields_byte(obj, f)));
            t.add(f->name);
            t.add("=");
            t.add(num);
            t.add("\n");
        }
    }
    for (const char *p = old, *end = old + oldLen; p != nullptr && p < end;) {
        const char *eol = static_cast<const char *>(memchr(p, '\n', end - p));
        if (eol == nullptr) eol = end;
        const char *eq = static_cast<const char *>(memchr(p, '=', eol - p));
        bool known = eq != nullptr && cmsFields_field(type, p, eq - p) != nullptr;
        if (eol > p && !known) {
            t.add(p, eol - p);
            t.add("\n");
        }
        p = eol + 1;
    }
    free(old);
    if (!t.ok) {
        cmsPriv_report("cannot write %s: out of memory", path);
        return CMSRET_RESOURCE_EXCEEDED;
    }

    char tmp[PATH_MAX];
    int n = snprintf(tmp, sizeof tmp, "%s/.%s.%ld.tmp", cmsStore_dir(), name, static_cast<long>(getpid()));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof tmp) {
        cmsPriv_report("cannot write %s: name too long", path);
        return CMSRET_INTERNAL_ERROR;
    }
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        cmsPriv_report("cannot create %s: %s", tmp, strerror(errno));
        return CMSRET_INTERNAL_ERROR;
    }
    bool written = writeAll(fd, t.data != nullptr ? t.data : "", t.len) == 0;
    written = close(fd) == 0 && written;
    if (!written) {
        int e = errno;
        unlink(tmp);
        cmsPriv_report("cannot write %s: %s", tmp, strerror(e));
        return CMSRET_INTERNAL_ERROR;
    }
    if (rename(tmp, path) != 0) {
        int e = errno;
        unlink(tmp);
        cmsPriv_report("cannot rename %s to %s: %s", tmp, path, strerror(e));
        return CMSRET_INTERNAL_ERROR;
    }
    return CMSRET_SUCCESS;
}

void cmsObj_free(void **obj)
{
    if (obj == nullptr || *obj == nullptr) return;
    const CmsObjectType *type = cmsFields_find(*static_cast<MdmObjectId *>(*obj));
    if (type != nullptr) freeFields(*obj, type);
    free(*obj);
    *obj = nullptr;
}
