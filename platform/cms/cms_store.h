// Text form of the store (docs/store.md), shared by the object code and the
// tools that read and write store files by hand.
#ifndef KVARD_CMS_STORE_H
#define KVARD_CMS_STORE_H

#include <cstddef>
#include <cstdint>

#include "platform/cms/cms.h"

// The store directory: $KVARD_MDM_DIR, or /var/lib/kvard/mdm when unset or empty.
const char *cmsStore_dir(void);
// A value in its stored form, line feed as "\n" and backslash as "\\"; malloc'd, null when out of memory.
char *cmsStore_escape(const char *value);
// The value of len bytes of stored text ("\n", "\\" decoded, other backslashes kept); malloc'd, null when out of memory.
char *cmsStore_unescape(const char *text, size_t len);
// 0 and the byte when text (len bytes) is a decimal number 0..255; -1 otherwise, *out untouched.
int cmsStore_parseByte(const char *text, size_t len, uint8_t *out);
// 0 and the instance's file name ("2888", "1152.3") in buf; -1 when the stack is not depth 0,
// or depth 1 with a row above 0, or buf is too small.
int cmsStore_instanceName(MdmObjectId oid, const InstanceIdStack *stack, char *buf, size_t size);

#endif
