// Field descriptors of the data-model objects: for each object id its struct
// size and, in object order, each field's name, offset and kind. The store and
// the tools walk these tables instead of knowing the structs one by one.
#ifndef KVARD_CMS_FIELDS_H
#define KVARD_CMS_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "platform/cms/cms.h"

enum CmsFieldKind : uint8_t {
    CMS_FIELD_STRING,   // char *, heap string owned by the object, may be null
    CMS_FIELD_BYTE,     // uint8_t, stored as a decimal number, never null
};

struct CmsField {
    const char *name;
    uint16_t offset;
    CmsFieldKind kind;
    uint8_t nameLen;    // strlen(name)
};

struct CmsObjectType {
    MdmObjectId oid;
    const char *name;          // MDMOID_... name
    uint16_t size;             // sizeof the object struct
    const CmsField *fields;    // in object order
    uint16_t fieldCount;
};

// The known object types, ascending by id; *count receives their number.
const CmsObjectType *cmsFields_all(int *count);
// The type of an object id; null when the id is unknown.
const CmsObjectType *cmsFields_find(MdmObjectId oid);
// The type with this MDMOID_ name; null when none.
const CmsObjectType *cmsFields_findByName(const char *name);
// The field of this name (the first len bytes of name); null when the type has none.
const CmsField *cmsFields_field(const CmsObjectType *type, const char *name, size_t len);
// The same, trying first the field at *next and leaving in *next the index
// after the one found: a file written in object order finds each field at the
// first try.
const CmsField *cmsFields_fieldNext(const CmsObjectType *type, const char *name, size_t len, uint16_t *next);

// The string slot of a CMS_FIELD_STRING field inside an object.
inline char **cmsFields_string(void *obj, const CmsField *f)
{
    return reinterpret_cast<char **>(static_cast<char *>(obj) + f->offset);
}
inline char *const *cmsFields_string(const void *obj, const CmsField *f)
{
    return reinterpret_cast<char *const *>(static_cast<const char *>(obj) + f->offset);
}
// The byte of a CMS_FIELD_BYTE field inside an object.
inline uint8_t *cmsFields_byte(void *obj, const CmsField *f)
{
    return static_cast<uint8_t *>(obj) + f->offset;
}
inline const uint8_t *cmsFields_byte(const void *obj, const CmsField *f)
{
    return static_cast<const uint8_t *>(obj) + f->offset;
}

#endif
