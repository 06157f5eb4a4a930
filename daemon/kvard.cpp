// kvard: the traffic meter daemon. Start-up, signals and the one event loop.
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "daemon/tmmsg.h"
#include "platform/bcm_dm_util.h"
#include "platform/cms/cms.h"

static void *msgHandle;

// Signal numbers caught but not yet logged. The handler only records them (and
// toggles debugFlag); the loop writes the log lines once select has returned,
// so that no library call is ever re-entered from the handler.
#define TM_PENDING_SIGNALS 32
static volatile sig_atomic_t pendingSignal[TM_PENDING_SIGNALS];
static volatile sig_atomic_t pendingWritten;
static sig_atomic_t pendingLogged;

static void SigRoutine(int signalNumber)
{
    if (signalNumber == SIGUSR1 || signalNumber == SIGUSR2) debugFlag = debugFlag == 0 ? 1 : 0;
    if (pendingWritten - pendingLogged < TM_PENDING_SIGNALS) {
        pendingSignal[pendingWritten % TM_PENDING_SIGNALS] = signalNumber;
        pendingWritten = pendingWritten + 1;
    }
}

static void TmLogSignals(void)
{
    while (pendingLogged != pendingWritten) {
        int number = pendingSignal[pendingLogged % TM_PENDING_SIGNALS];
        pendingLogged++;
        const char *name = number == SIGHUP ? "SIGHUP" : number == SIGINT ? "SIGINT" : number == SIGQUIT ? "SIGQUIT" : "SIGUSR";
        log_log(5, "SigRoutine", __LINE__, "Get a signal --- %s \n", name);
    }
}

static int TmCheckRouterMode(void)
{
    char mode[8];
    memset(mode, 0, sizeof mode);
    bcm_dm_GetOperationMode(mode, sizeof mode);
    printf("operationMode = %s", mode);
    return strcmp(mode, "RT") == 0 ? 0 : -1;
}

int main(int argc, char **argv)
{
    signal(SIGUSR1, SigRoutine);
    signal(SIGUSR2, SigRoutine);
    signal(SIGHUP, SigRoutine);
    signal(SIGINT, SigRoutine);
    signal(SIGQUIT, SigRoutine);
    // Console lines, also those without a line end, must show at once and survive a kill.
    setvbuf(stdout, nullptr, _IONBF, 0);

    cmsLog_initWithName(TM_ENTITY_ID, argv[0]);
    cmsLog_setLevel(5);
    CmsRet ret = cmsMsg_initWithFlags(TM_ENTITY_ID, 0, &msgHandle);
    if (ret != CMSRET_SUCCESS) {
        log_log(3, __FUNCTION__, __LINE__, "cmsMsg_init failed, ret = %d", ret);
        cmsLog_cleanup();
        exit(1);
    }
    int32_t shmId = 0;
    ret = cmsMdm_initWithAcc(TM_ENTITY_ID, 0, msgHandle, &shmId);
    if (ret != CMSRET_SUCCESS) {
        log_log(3, __FUNCTION__, __LINE__, "cmsMdm_init failed, ret = %d", ret);
        cmsMsg_cleanup(&msgHandle);
        cmsLog_cleanup();
        exit(1);
    }
    if (TmCheckRouterMode() != 0) {
        log_log(3, __FUNCTION__, __LINE__, "Traffic meter is only running at router mode");
        cmsMsg_cleanup(&msgHandle);
        cmsLog_cleanup();
        exit(0);
    }
    if (TmInit(argc > 1 ? argv[1] : "/tmp/kvard.conf") != 0) {
        puts("KVARD: Fail to initialize core module!");
        exit(0);
    }

    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        perror("KVARD: Fail to create socket!\n");
        exit(1);
    }
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    address.sin_port = htons(TM_CONTROL_PORT);
    if (bind(sock, (struct sockaddr *)&address, sizeof address) < 0) {
        perror("KVARD: Fail to bind socket!\n");
        exit(1);
    }

    static uint8_t buffer[TM_MSG_BUFFER_SIZE];
    struct sockaddr_in sender;
    socklen_t senderLength = sizeof sender;
    uint32_t interval = TmNextWakeInterval();
    for (;;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(sock, &readSet);
        struct timeval timeout;
        timeout.tv_sec = interval / 1000000;
        timeout.tv_usec = interval % 1000000;
        if (debugFlag)
            printf("KVARD select wait for sec=%lu usec=%lu\n", (unsigned long)timeout.tv_sec,
                   (unsigned long)timeout.tv_usec);
        int result = select(sock + 1, &readSet, nullptr, nullptr, &timeout);
        TmLogSignals();
        if (debugFlag) printf("KVARD select retval=%d\n", result);
        if (result == 0) {
            TmHandleTimeWake(1, 0);
        } else if (result > 0 && FD_ISSET(sock, &readSet)) {
            ssize_t received = recvfrom(sock, buffer, TM_MSG_MAX_DATAGRAM, 0, (struct sockaddr *)&sender, &senderLength);
            if (received > 0) {
                int32_t reply = HandleMessage(buffer, (int32_t)received);
                memcpy(buffer, &reply, sizeof reply);
                sendto(sock, buffer, sizeof reply, 0, (struct sockaddr *)&sender, senderLength);
            }
        }
        interval = TmNextWakeInterval();
    }
}
