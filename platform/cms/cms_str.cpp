// Memory and string helpers. Null strings are tolerated everywhere: the
// objects' fields may be null, and callers pass them on unchecked.
#include <cstdlib>
#include <cstring>

#include "platform/cms/cms.h"

char *cmsMem_strdup(const char *str)
{
    return str != nullptr ? strdup(str) : nullptr;
}

void cmsMem_free(void *buf)
{
    free(buf);
}

int32_t cmsUtl_strcmp(const char *s1, const char *s2)
{
    return strcmp(s1 != nullptr ? s1 : "", s2 != nullptr ? s2 : "");
}

void cmsUtl_strcpy(char *dest, const char *src)
{
    if (dest == nullptr) return;
    strcpy(dest, src != nullptr ? src : "");
}

void cmsUtl_strncpy(char *dest, const char *src, int32_t dlen)
{
    if (dest == nullptr || dlen <= 0) return;
    size_t room = static_cast<size_t>(dlen) - 1;
    size_t n = src != nullptr ? strnlen(src, room) : 0;
    if (n > 0) memcpy(dest, src, n);
    dest[n] = '\0';
}

int32_t cmsUtl_strlen(const char *src)
{
    return src != nullptr ? static_cast<int32_t>(strlen(src)) : 0;
}
