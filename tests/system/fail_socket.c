/* Preloaded into the daemon by a test: every socket fails as if refused. */
#include <errno.h>

int socket(int domain, int type, int protocol)
{
    (void)domain, (void)type, (void)protocol;
    errno = EACCES;
    return -1;
}
