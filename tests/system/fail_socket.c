/* Preloaded into the daemon by a test: every socket() fails as if refused; only the name matters. */
#include <errno.h>

int socket(void)
{
    errno = EACCES;
    return -1;
}
