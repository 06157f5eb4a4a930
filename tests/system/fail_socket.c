/* Test shim, preloaded into the daemon in the sandbox: every IPv4 socket
 * fails as if the system refused it, so that the start-up's socket failure
 * can be seen from outside. */
#include <errno.h>
#include <sys/socket.h>

int socket(int domain, int type, int protocol)
{
    (void)type;
    (void)protocol;
    (void)domain;
    errno = EACCES;
    return -1;
}
