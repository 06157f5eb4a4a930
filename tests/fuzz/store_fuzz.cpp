// Fuzz target: the store's reader of an object file. The input's first byte picks
// an object type, the rest is its file. Reading it, writing the object back and
// reading that again must give the same fields, and a second write-back must give
// the same file: the store's text form is stable after one rewrite.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_store.h"
#include "tests/fuzz/fuzz_host.h"

namespace {

std::string Slurp(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool SameFields(const CmsObjectType *type, void *a, void *b)
{
    for (uint16_t i = 0; i < type->fieldCount; i++) {
        const CmsField *f = &type->fields[i];
        if (f->kind == CMS_FIELD_BYTE) {
            if (*cmsFields_byte(a, f) != *cmsFields_byte(b, f)) return false;
            continue;
        }
        const char *x = *cmsFields_string(a, f), *y = *cmsFields_string(b, f);
        if ((x == nullptr) != (y == nullptr) || (x && strcmp(x, y) != 0)) return false;
    }
    return true;
}

// Reads the instance and writes it back; the object stays with the caller.
void *ReadAndWrite(MdmObjectId oid, const InstanceIdStack &stack)
{
    void *obj = nullptr;
    if (cmsLck_acquireLockWithTimeoutTraced("ReadAndWrite", 100) != CMSRET_SUCCESS) abort();
    if (cmsObj_get(oid, &stack, 0, &obj) != CMSRET_SUCCESS || cmsObj_set(obj, &stack) != CMSRET_SUCCESS) abort();
    cmsLck_releaseLockTraced("ReadAndWrite");
    return obj;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzReader in{data, size};
    int count = 0;
    const CmsObjectType *type = &cmsFields_all(&count)[in.u8() % count];
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    if (type->oid == MDMOID_IFACE) stack.currentDepth = 1, stack.instance[0] = 1;  // a table: its first row
    char name[32];
    if (cmsStore_instanceName(type->oid, &stack, name, sizeof name) != 0) abort();
    FuzzWriteFile("mdm/" + std::string(name), in.data, in.size);

    void *first = ReadAndWrite(type->oid, stack);
    std::string once = Slurp(FuzzPath("mdm/" + std::string(name)));
    void *second = ReadAndWrite(type->oid, stack);
    std::string twice = Slurp(FuzzPath("mdm/" + std::string(name)));
    if (!SameFields(type, first, second) || once != twice) {
        fprintf(stderr, "store: object %u changed on its way back:\n%s\n---\n%s\n", (unsigned)type->oid,
                once.c_str(), twice.c_str());
        abort();
    }
    cmsObj_free(&first);
    cmsObj_free(&second);
    return 0;
}
