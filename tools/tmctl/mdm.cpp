// "tmctl mdm get/set" (mdm.h). Everything between taking and releasing the
// store lock is one read and at most one write, as in the daemon.
#include "tools/tmctl/mdm.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_store.h"

namespace tmctl {

namespace {

struct Instance {
    const CmsObjectType *type = nullptr;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    std::string label;   // "2888" or "1152.3", as the store names its file
};

std::string knownObjects()
{
    int count = 0;
    const CmsObjectType *types = cmsFields_all(&count);
    std::string s;
    for (int i = 0; i < count; i++) s += (i ? ", " : "") + std::to_string(types[i].oid) + " " + types[i].name;
    return s;
}

// "2888", "0xB48", "MDMOID_ORNA_TRAFFIC_METER", each optionally followed by ".N" for row N.
bool parseInstance(const std::string &text, Instance *out)
{
    size_t dot = text.find('.');
    std::string obj = text.substr(0, dot);
    const CmsObjectType *type = cmsFields_findByName(obj.c_str());
    if (type == nullptr && !obj.empty()) {
        char *end = nullptr;
        errno = 0;
        bool hex = obj.size() > 2 && obj[0] == '0' && (obj[1] == 'x' || obj[1] == 'X');
        unsigned long oid = strtoul(obj.c_str(), &end, hex ? 16 : 10);
        if (*end == '\0' && errno == 0 && obj[0] != '-' && obj[0] != '+' && oid <= 0xFFFFFFFFul)
            type = cmsFields_find(static_cast<MdmObjectId>(oid));
    }
    if (type == nullptr) {
        fprintf(stderr, "tmctl: unknown object '%s' (known: %s)\n", obj.c_str(), knownObjects().c_str());
        return false;
    }
    out->type = type;
    out->label = std::to_string(type->oid);
    if (dot == std::string::npos) return true;
    std::string row = text.substr(dot + 1);
    bool digits = !row.empty() && row.size() <= 10 && row.find_first_not_of("0123456789") == std::string::npos;
    unsigned long long n = digits ? strtoull(row.c_str(), nullptr, 10) : 0;
    if (n == 0 || n > 0xFFFFFFFFull) {
        fprintf(stderr, "tmctl: bad row '%s' in '%s': a number from 1 up\n", row.c_str(), text.c_str());
        return false;
    }
    out->stack.currentDepth = 1;
    out->stack.instance[0] = static_cast<uint32_t>(n);
    out->label += "." + std::to_string(n);
    return true;
}

const CmsField *findField(const Instance &in, const std::string &name)
{
    const CmsField *f = cmsFields_field(in.type, name.data(), name.size());
    if (f == nullptr)
        fprintf(stderr, "tmctl: object %u (%s) has no field '%s'\n", static_cast<unsigned>(in.type->oid),
                in.type->name, name.c_str());
    return f;
}

// Takes the store lock; false (and one line on stderr) when it is not had.
bool lockStore(void)
{
    CmsRet ret = cmsLck_acquireLockWithTimeoutTraced("tmctl", kLockTimeoutMs);
    if (ret == CMSRET_TIMED_OUT) {
        unsigned waited = kLockTimeoutMs;
        const char *cap = getenv("KVARD_MDM_LOCK_MAX_MS");   // the library's cap on every wait
        if (cap != nullptr && *cap >= '0' && *cap <= '9' && strtoul(cap, nullptr, 10) < waited)
            waited = static_cast<unsigned>(strtoul(cap, nullptr, 10));
        fprintf(stderr, "tmctl: the store lock %s/.lock is held by another process (waited %u ms)\n", cmsStore_dir(),
                waited);
    }
    // Other failures were reported by the library, naming the lock file.
    return ret == CMSRET_SUCCESS;
}

struct Assignment {
    const CmsField *field;
    bool null;
    std::string value;   // unescaped
    uint8_t byte;
};

}  // namespace

int mdmGet(const std::string &instance)
{
    Instance in;
    if (!parseInstance(instance, &in)) return kExitUsage;
    if (!lockStore()) return kExitFailed;
    void *obj = nullptr;
    CmsRet ret = cmsObj_get(in.type->oid, &in.stack, 0, &obj);
    cmsLck_releaseLockTraced("tmctl");
    if (ret == CMSRET_OBJECT_NOT_FOUND) {
        fprintf(stderr, "tmctl: object %s (%s) is not in the store %s\n", in.label.c_str(), in.type->name,
                cmsStore_dir());
        return kExitFailed;
    }
    if (ret != CMSRET_SUCCESS) return kExitFailed;   // reported by the library, naming the file
    for (uint16_t i = 0; i < in.type->fieldCount; i++) {
        const CmsField *f = &in.type->fields[i];
        if (f->kind == CMS_FIELD_BYTE) {
            printf("%s=%u\n", f->name, static_cast<unsigned>(*cmsFields_byte(static_cast<const void *>(obj), f)));
            continue;
        }
        const char *value = *cmsFields_string(static_cast<const void *>(obj), f);
        if (value == nullptr) continue;
        char *esc = cmsStore_escape(value);
        printf("%s=%s\n", f->name, esc != nullptr ? esc : "");
        free(esc);
    }
    cmsObj_free(&obj);
    return fflush(stdout) == 0 ? kExitOk : kExitFailed;
}

int mdmSet(const std::string &instance, const std::vector<std::string> &assignments)
{
    Instance in;
    if (!parseInstance(instance, &in)) return kExitUsage;
    std::vector<Assignment> todo;
    for (const std::string &a : assignments) {
        size_t eq = a.find('=');
        Assignment as{findField(in, a.substr(0, eq)), eq == std::string::npos, "", 0};
        if (as.field == nullptr) return kExitUsage;
        if (!as.null) {
            std::string stored = a.substr(eq + 1);
            char *v = cmsStore_unescape(stored.data(), stored.size());
            as.value = v != nullptr ? v : "";
            free(v);
        }
        if (as.field->kind == CMS_FIELD_BYTE &&
            (as.null || cmsStore_parseByte(as.value.data(), as.value.size(), &as.byte) != 0)) {
            fprintf(stderr, "tmctl: field '%s' is a byte and takes a number from 0 to 255, not '%s'\n",
                    as.field->name, as.null ? "(null)" : as.value.c_str());
            return kExitUsage;
        }
        todo.push_back(as);
    }

    int32_t shm = 0;
    if (cmsMdm_initWithAcc(0, 0, nullptr, &shm) != CMSRET_SUCCESS) return kExitFailed;   // reported, naming the store
    if (!lockStore()) return kExitFailed;
    void *obj = nullptr;
    CmsRet ret = cmsObj_get(in.type->oid, &in.stack, 0, &obj);
    if (ret == CMSRET_OBJECT_NOT_FOUND) {
        obj = calloc(1, in.type->size);
        if (obj != nullptr) *static_cast<MdmObjectId *>(obj) = in.type->oid;
        ret = obj != nullptr ? CMSRET_SUCCESS : CMSRET_RESOURCE_EXCEEDED;
    }
    if (ret == CMSRET_SUCCESS) {
        for (const Assignment &as : todo) {
            if (as.field->kind == CMS_FIELD_BYTE) {
                *cmsFields_byte(obj, as.field) = as.byte;
                continue;
            }
            char **slot = cmsFields_string(obj, as.field);
            cmsMem_free(*slot);
            *slot = as.null ? nullptr : cmsMem_strdup(as.value.c_str());
        }
        ret = cmsObj_set(obj, &in.stack);
        cmsObj_free(&obj);
    }
    cmsLck_releaseLockTraced("tmctl");
    return ret == CMSRET_SUCCESS ? kExitOk : kExitFailed;   // failures were reported by the library
}

}  // namespace tmctl
