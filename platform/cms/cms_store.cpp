// Objects in the store: one text file per instance, one "name=value" line per
// non-null field (docs/store.md). Reads parse the whole file at once; writes
// build the new text in memory, write it to a hidden temporary file in the
// store and rename it over the old one, so a reader sees the old or the new
// file, never a part of one. No fsync: on the router the store lives in RAM.
//
// The daemon reads the same few objects every 3 s and they rarely change, so
// each file's text and parsed object are kept with the file's identity
// (device, inode, size, modification and change time). A read under the lock
// costs one stat while the identity is the same. A replacement by rename
// brings a new inode; an edit in place a new size or time, unless it lands in
// the same tick of the file system's clock as the read that filled the entry:
// an entry filled while the file's change time was that recent is not trusted
// and the next read reads the file again. Within one hold of the lock nothing
// can change, so the publication's write reuses the text its read just saw.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_private.h"
#include "platform/cms/cms_store.h"

namespace {

const char kDefaultStore[] = "/var/lib/kvard/mdm";

// Appends the decimal digits of v at p; the position after them.
char *putUnsigned(char *p, uint64_t v)
{
    char digits[24];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n > 0) *p++ = digits[--n];
    return p;
}

// Path of an instance file; -1 when the stack or the name does not fit.
int instancePath(MdmObjectId oid, const InstanceIdStack *stack, char *path, size_t size, char *name,
                 size_t nameSize)
{
    if (cmsStore_instanceName(oid, stack, name, nameSize) != 0) return -1;
    const char *dir = cmsStore_dir();
    size_t d = strlen(dir), n = strlen(name);
    if (d + 1 + n + 1 > size) return -1;
    memcpy(path, dir, d);
    path[d] = '/';
    memcpy(path + d + 1, name, n + 1);
    return 0;
}

// What tells one state of a file from another without reading it.
struct FileId {
    dev_t dev = 0;
    ino64_t ino = 0;
    off64_t size = -1;
    int64_t mtimeNs = 0, ctimeNs = 0;
};

int64_t nanoseconds(const struct timespec &t)
{
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

FileId idOf(const struct stat64 &st)
{
    FileId id;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
    id.size = st.st_size;
    id.mtimeNs = nanoseconds(st.st_mtim);
    id.ctimeNs = nanoseconds(st.st_ctim);
    return id;
}

bool sameId(const FileId &a, const FileId &b)
{
    return a.dev == b.dev && a.ino == b.ino && a.size == b.size && a.mtimeNs == b.mtimeNs && a.ctimeNs == b.ctimeNs;
}

// Timestamps come from a clock that moves in ticks of a few milliseconds; a
// change within the tick of the last one leaves them as they were. A file whose
// last change is further back than this cannot be changed again unnoticed.
const int64_t kSettledNs = 50 * 1000000;

// Whether the file of id changed long enough ago to be recognised by its id
// from now on. The kernel's coarse real-time clock (the one behind file
// timestamps) is asked directly: a faked clock in the process must not decide.
bool settled(const FileId &id)
{
    struct {
        long sec, nsec;   // the kernel's own timespec of this system call, on 32 and 64 bits
    } now = {0, 0};
    if (syscall(SYS_clock_gettime, CLOCK_REALTIME_COARSE, &now) != 0) return false;
    int64_t nowNs = static_cast<int64_t>(now.sec) * 1000000000 + now.nsec;
    int64_t last = id.ctimeNs > id.mtimeNs ? id.ctimeNs : id.mtimeNs;
    return nowNs - last > kSettledNs;
}

// The state of a file as last seen. An entry is the file's content when
// trusted and its id is unchanged, or when it was seen under the current
// hold of the lock.
struct Entry {
    char *path = nullptr;    // malloc'd; null: a free slot
    FileId id;
    bool trusted = false;
    uint64_t hold = 0;       // hold of the lock it was last seen under; 0 none
    char *text = nullptr;    // the whole file, NUL-terminated
    size_t len = 0;
    void *obj = nullptr;     // text parsed, or null until a read asks for it
    const CmsObjectType *type = nullptr;
};

// Each daemon reads half a dozen files; a slot is reused round the table.
const size_t kEntries = 16;
Entry entries[kEntries];
size_t nextVictim = 0;

void freeFields(void *obj, const CmsObjectType *type);

void forgetObject(Entry *e)
{
    if (e->obj != nullptr && e->type != nullptr) freeFields(e->obj, e->type);
    free(e->obj);
    e->obj = nullptr;
}

void dropEntry(Entry *e)
{
    forgetObject(e);
    free(e->text);
    free(e->path);
    *e = Entry();
}

Entry *findEntry(const char *path)
{
    for (Entry &e : entries)
        if (e.path != nullptr && strcmp(e.path, path) == 0) return &e;
    return nullptr;
}

// The entry of path, a new one when there is none; null when out of memory.
Entry *takeEntry(const char *path)
{
    if (Entry *e = findEntry(path)) return e;
    Entry *slot = nullptr;
    for (Entry &e : entries)
        if (e.path == nullptr) {
            slot = &e;
            break;
        }
    if (slot == nullptr) {
        slot = &entries[nextVictim];
        nextVictim = (nextVictim + 1) % kEntries;
        dropEntry(slot);
    }
    slot->path = strdup(path);
    return slot->path != nullptr ? slot : nullptr;
}

// Whole file in a malloc'd NUL-terminated buffer and the id of what was read.
// 0 ok; ENOENT when missing (silent); another errno when unreadable (reported,
// naming the file).
int readFile(const char *path, char **out, size_t *outLen, FileId *id)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        if (err != ENOENT) cmsPriv_report("cannot open %s: %s", path, strerror(err));
        return err;
    }
    struct stat64 st;
    if (fstat64(fd, &st) != 0) {
        int err = errno;
        cmsPriv_report("cannot read %s: %s", path, strerror(err));
        close(fd);
        return err;
    }
    *id = idOf(st);
    // One read more than the size, so that a file that grew meanwhile is read to its end.
    size_t cap = st.st_size > 0 ? static_cast<size_t>(st.st_size) + 2 : 256;
    char *data = static_cast<char *>(malloc(cap));
    size_t len = 0;
    int err = data == nullptr ? ENOMEM : 0;
    while (err == 0) {
        if (len + 1 == cap) {
            char *more = static_cast<char *>(realloc(data, cap * 2));
            if (more == nullptr) {
                err = ENOMEM;
                break;
            }
            data = more;
            cap *= 2;
        }
        ssize_t n = read(fd, data + len, cap - 1 - len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            cmsPriv_report("cannot read %s: %s", path, strerror(err));
            break;
        }
        len += static_cast<size_t>(n);
        if (n == 0 || (st.st_size > 0 && len == static_cast<size_t>(st.st_size))) break;
    }
    close(fd);
    if (err != 0) {
        if (err == ENOMEM) cmsPriv_report("cannot read %s: out of memory", path);
        free(data);
        return err;
    }
    data[len] = '\0';
    *out = data;
    *outLen = len;
    return 0;
}

// The entry holding the current content of path: kept when the file is as it
// was, else read anew. 0 ok; ENOENT when missing (silent, the entry gone);
// another errno when unreadable (reported).
int loadEntry(const char *path, Entry **out)
{
    const uint64_t hold = cmsPriv_lockHold();
    Entry *e = findEntry(path);
    if (e != nullptr && e->text != nullptr && hold != 0 && e->hold == hold) {
        *out = e;
        return 0;
    }
    if (e != nullptr && e->text != nullptr && e->trusted) {
        struct stat64 st;
        if (fstatat64(AT_FDCWD, path, &st, 0) == 0 && sameId(idOf(st), e->id)) {
            e->hold = hold;
            *out = e;
            return 0;
        }
    }
    char *text = nullptr;
    size_t len = 0;
    FileId id;
    int err = readFile(path, &text, &len, &id);
    if (err != 0) {
        if (e != nullptr) dropEntry(e);
        return err;
    }
    if (e == nullptr) e = takeEntry(path);
    if (e == nullptr) {
        free(text);
        cmsPriv_report("cannot read %s: out of memory", path);
        return ENOMEM;
    }
    forgetObject(e);
    free(e->text);
    e->text = text;
    e->len = len;
    e->id = id;
    e->trusted = settled(id);
    e->hold = hold;
    *out = e;
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
    uint16_t next = 0;
    while (p < end) {
        const char *eol = static_cast<const char *>(memchr(p, '\n', end - p));
        if (eol == nullptr) eol = end;
        const char *eq = static_cast<const char *>(memchr(p, '=', eol - p));
        const CmsField *f = eq != nullptr ? cmsFields_fieldNext(type, p, eq - p, &next) : nullptr;
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

// A copy of a parsed object that cmsObj_free can free; null when out of memory.
void *cloneObject(const void *proto, const CmsObjectType *type)
{
    void *o = malloc(type->size);
    if (o == nullptr) return nullptr;
    memcpy(o, proto, type->size);
    bool ok = true;
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind != CMS_FIELD_STRING) continue;
        char **slot = cmsFields_string(o, f);
        if (*slot == nullptr) continue;
        *slot = ok ? strdup(*slot) : nullptr;
        ok = *slot != nullptr;
    }
    if (!ok) {
        freeFields(o, type);
        free(o);
        return nullptr;
    }
    return o;
}

CmsRet getInstance(MdmObjectId oid, const InstanceIdStack *stack, void **obj)
{
    if (obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    const CmsObjectType *type = nullptr;
    char path[PATH_MAX], name[64];
    CmsRet found = resolveObject("cmsObj_get", oid, stack, &type, path, sizeof path, name, sizeof name);
    if (found != CMSRET_SUCCESS) return found;
    Entry *e = nullptr;
    int err = loadEntry(path, &e);
    if (err == ENOENT) return CMSRET_OBJECT_NOT_FOUND;
    if (err != 0) return err == ENOMEM ? CMSRET_RESOURCE_EXCEEDED : CMSRET_INTERNAL_ERROR;
    if (e->obj == nullptr || e->type != type) {
        forgetObject(e);
        void *o = calloc(1, type->size);
        if (o != nullptr) *static_cast<MdmObjectId *>(o) = oid;
        if (o != nullptr && !parseObject(e->text, e->len, type, o)) {
            freeFields(o, type);
            free(o);
            o = nullptr;
        }
        if (o != nullptr && !e->trusted) {
            // The next read outside this hold reads the file again: no use keeping a copy.
            *obj = o;
            return CMSRET_SUCCESS;
        }
        e->obj = o;
        e->type = type;
    }
    void *copy = e->obj != nullptr ? cloneObject(e->obj, type) : nullptr;
    if (copy == nullptr) {
        cmsPriv_report("cannot read %s: out of memory", path);
        return CMSRET_RESOURCE_EXCEEDED;
    }
    *obj = copy;
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
    char text[32];
    char *p = putUnsigned(text, oid);
    if (stack != nullptr && stack->currentDepth != 0) {
        if (stack->currentDepth != 1 || stack->instance[0] == 0) return -1;
        *p++ = '.';
        p = putUnsigned(p, stack->instance[0]);
    }
    size_t n = static_cast<size_t>(p - text);
    if (n >= size) return -1;
    memcpy(buf, text, n);
    buf[n] = '\0';
    return 0;
}

CmsRet cmsObj_get(MdmObjectId oid, const InstanceIdStack *iidStack, uint32_t /*getFlags*/, void **obj)
{
    return getInstance(oid, iidStack, obj);
}

namespace {

// The rows of a table as the store directory last listed them, kept like the
// entries of files: by the directory's id, or for the hold of the lock.
struct Listing {
    char *dir = nullptr;    // malloc'd; null: never listed
    MdmObjectId oid = 0;
    FileId id;
    bool trusted = false;
    uint64_t hold = 0;
    uint32_t *rows = nullptr;   // ascending
    size_t count = 0;
};
Listing listings[4];

int ascending(const void *a, const void *b)
{
    uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
    return x < y ? -1 : x > y;
}

// Lists the rows of oid in dir into l. CMSRET_SUCCESS or CMSRET_INTERNAL_ERROR (reported).
CmsRet listRows(Listing *l, const char *dir, MdmObjectId oid, uint64_t hold)
{
    char prefix[16];
    size_t prefixLen = static_cast<size_t>(putUnsigned(prefix, oid) - prefix);
    prefix[prefixLen++] = '.';
    prefix[prefixLen] = '\0';
    DIR *d = opendir(dir);
    if (d == nullptr) {
        cmsPriv_report("cannot list the store %s: %s", dir, strerror(errno));
        return CMSRET_INTERNAL_ERROR;
    }
    struct stat64 st;
    bool known = fstat64(dirfd(d), &st) == 0;
    uint32_t *rows = nullptr;
    size_t count = 0, cap = 0;
    bool fits = true;
    // readdir64: the 32-bit readdir fails with EOVERFLOW on file systems
    // with 64-bit directory cookies (ext4 seen from a 32-bit process).
    errno = 0;
    while (struct dirent64 *e = readdir64(d)) {
        uint32_t n = rowOf(e->d_name, prefix, prefixLen);
        if (n == 0 || !fits) continue;
        if (count == cap) {
            size_t want = cap ? cap * 2 : 8;
            uint32_t *more = static_cast<uint32_t *>(realloc(rows, want * sizeof *rows));
            if (more == nullptr) {
                fits = false;
                continue;
            }
            rows = more;
            cap = want;
        }
        rows[count++] = n;
    }
    int err = errno;
    closedir(d);
    if (err == 0 && !fits) err = ENOMEM;
    char *name = err == 0 ? strdup(dir) : nullptr;
    if (err == 0 && name == nullptr) err = ENOMEM;
    if (err != 0) {
        free(rows);
        cmsPriv_report("cannot list the store %s: %s", dir, strerror(err));
        return CMSRET_INTERNAL_ERROR;
    }
    qsort(rows, count, sizeof *rows, ascending);
    free(l->dir);
    free(l->rows);
    l->dir = name;
    l->oid = oid;
    l->rows = rows;
    l->count = count;
    l->id = known ? idOf(st) : FileId();
    l->trusted = known && settled(l->id);
    l->hold = hold;
    return CMSRET_SUCCESS;
}

// The listing of oid's rows as the directory holds them now.
CmsRet currentRows(MdmObjectId oid, Listing **out)
{
    const char *dir = cmsStore_dir();
    const uint64_t hold = cmsPriv_lockHold();
    Listing *l = nullptr;
    for (Listing &x : listings)
        if (x.dir == nullptr || x.oid == oid) {
            l = &x;
            break;
        }
    if (l == nullptr) l = &listings[0];   // more tables than slots: the first is listed again
    *out = l;
    bool same = l->dir != nullptr && l->oid == oid && strcmp(l->dir, dir) == 0;
    if (same && hold != 0 && l->hold == hold) return CMSRET_SUCCESS;
    struct stat64 st;
    if (same && l->trusted && fstatat64(AT_FDCWD, dir, &st, 0) == 0 && sameId(idOf(st), l->id)) {
        l->hold = hold;
        return CMSRET_SUCCESS;
    }
    return listRows(l, dir, oid, hold);
}

}  // namespace

CmsRet cmsObj_getNextFlags(MdmObjectId oid, InstanceIdStack *iidStack, uint32_t /*getFlags*/, void **obj)
{
    if (iidStack == nullptr || obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    if (cmsFields_find(oid) == nullptr) {
        cmsPriv_report("cmsObj_getNextFlags: unknown object id %u", static_cast<unsigned>(oid));
        return CMSRET_INVALID_ARGUMENTS;
    }
    for (;;) {
        uint32_t after = iidStack->currentDepth == 0 ? 0 : iidStack->instance[0];
        Listing *l = nullptr;
        CmsRet listed = currentRows(oid, &l);
        if (listed != CMSRET_SUCCESS) return listed;
        uint32_t next = 0;
        for (size_t i = 0; i < l->count && next == 0; i++)
            if (l->rows[i] > after) next = l->rows[i];
        if (next == 0) return CMSRET_NO_MORE_INSTANCES;
        *iidStack = EMPTY_INSTANCE_ID_STACK;
        iidStack->currentDepth = 1;
        iidStack->instance[0] = next;
        CmsRet ret = getInstance(oid, iidStack, obj);
        if (ret != CMSRET_OBJECT_NOT_FOUND) return ret;
        // A row deleted meanwhile is passed over, after listing the directory again.
        l->trusted = false;
        l->hold = 0;
    }
}

namespace {

// Length of value in its stored form.
size_t escapedLength(const char *value)
{
    size_t n = 0;
    for (const char *p = value; *p; p++) n += (*p == '\n' || *p == '\\') ? 2 : 1;
    return n;
}

char *putEscaped(char *o, const char *value)
{
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
    return o;
}

// The new text of a file: the known fields in object order, then the lines of
// other programs in old (oldLen bytes) as they stood. Malloc'd; null when out of memory.
char *formatObject(const void *obj, const CmsObjectType *type, const char *old, size_t oldLen, size_t *outLen)
{
    size_t size = oldLen + 1;   // the kept lines, each with its line end, fit in this
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind == CMS_FIELD_STRING) {
            const char *value = *cmsFields_string(obj, f);
            if (value != nullptr) size += f->nameLen + 2 + escapedLength(value);
        } else {
            size += f->nameLen + 2 + 3;
        }
    }
    char *text = static_cast<char *>(malloc(size + 1));
    if (text == nullptr) return nullptr;
    char *o = text;
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        const char *value = nullptr;
        if (f->kind == CMS_FIELD_STRING && (value = *cmsFields_string(obj, f)) == nullptr) continue;
        memcpy(o, f->name, f->nameLen);
        o += f->nameLen;
        *o++ = '=';
        o = f->kind == CMS_FIELD_STRING ? putEscaped(o, value) : putUnsigned(o, *cmsFields_byte(obj, f));
        *o++ = '\n';
    }
    uint16_t next = 0;
    for (const char *p = old, *end = old + oldLen; p != nullptr && p < end;) {
        const char *eol = static_cast<const char *>(memchr(p, '\n', end - p));
        if (eol == nullptr) eol = end;
        const char *eq = static_cast<const char *>(memchr(p, '=', eol - p));
        bool known = eq != nullptr && cmsFields_fieldNext(type, p, eq - p, &next) != nullptr;
        if (eol > p && !known) {
            memcpy(o, p, eol - p);
            o += eol - p;
            *o++ = '\n';
        }
        p = eol + 1;
    }
    *o = '\0';
    *outLen = static_cast<size_t>(o - text);
    return text;
}

}  // namespace

CmsRet cmsObj_set(const void *obj, const InstanceIdStack *iidStack)
{
    if (obj == nullptr) return CMSRET_INVALID_ARGUMENTS;
    MdmObjectId oid = *static_cast<const MdmObjectId *>(obj);
    const CmsObjectType *type = nullptr;
    char path[PATH_MAX], name[64];
    CmsRet found = resolveObject("cmsObj_set", oid, iidStack, &type, path, sizeof path, name, sizeof name);
    if (found != CMSRET_SUCCESS) return found;

    Entry *e = nullptr;
    int err = loadEntry(path, &e);
    if (err != 0 && err != ENOENT) return CMSRET_INTERNAL_ERROR;   // its lines would be lost
    size_t len = 0;
    char *text = formatObject(obj, type, e != nullptr ? e->text : nullptr, e != nullptr ? e->len : 0, &len);
    if (text == nullptr) {
        cmsPriv_report("cannot write %s: out of memory", path);
        return CMSRET_RESOURCE_EXCEEDED;
    }

    char tmp[PATH_MAX];
    const char *dir = cmsStore_dir();
    size_t dirLen = strlen(dir), nameLen = strlen(name);
    if (dirLen + nameLen + 40 > sizeof tmp) {
        free(text);
        cmsPriv_report("cannot write %s: name too long", path);
        return CMSRET_INTERNAL_ERROR;
    }
    char *t = tmp;
    memcpy(t, dir, dirLen);
    t += dirLen;
    memcpy(t, "/.", 2);
    t += 2;
    memcpy(t, name, nameLen);
    t += nameLen;
    *t++ = '.';
    t = putUnsigned(t, static_cast<uint64_t>(cmsPriv_pid()));
    memcpy(t, ".tmp", sizeof ".tmp");
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        free(text);
        cmsPriv_report("cannot create %s: %s", tmp, strerror(errno));
        return CMSRET_INTERNAL_ERROR;
    }
    bool written = writeAll(fd, text, len) == 0;
    written = close(fd) == 0 && written;
    if (!written) {
        int e2 = errno;
        free(text);
        unlink(tmp);
        cmsPriv_report("cannot write %s: %s", tmp, strerror(e2));
        return CMSRET_INTERNAL_ERROR;
    }
    if (rename(tmp, path) != 0) {
        int e2 = errno;
        free(text);
        unlink(tmp);
        cmsPriv_report("cannot rename %s to %s: %s", tmp, path, strerror(e2));
        return CMSRET_INTERNAL_ERROR;
    }
    // The text is the file now. Its id is not asked for: a file written this
    // moment is too fresh to be known by it, so only the rest of this hold of
    // the lock may use the text without reading the file.
    Entry *mine = takeEntry(path);
    if (mine == nullptr) {
        free(text);
        return CMSRET_SUCCESS;
    }
    forgetObject(mine);
    free(mine->text);
    mine->text = text;
    mine->len = len;
    mine->id = FileId();
    mine->trusted = false;
    mine->hold = cmsPriv_lockHold();
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
