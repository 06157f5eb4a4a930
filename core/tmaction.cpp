#include "core/tmaction.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/tmcore.h"
#include "platform/bcm_dm_util.h"

#define TM_WAN_PORTS_FILE "/tmp/WanPorts"
#define TM_REDIRECT_PID_FILE "/var/dnsmasq_tmRedirecHttpHttps.pid"
#define TM_LEDFLASH_PID_FILE "/tmp/tmledflash.pid"

// Opens /tmp/WanPorts and reads the port name: one fgets of at most 7
// characters with the last one (the line end) cut off. Returns the open file
// (or null), which the action closes when it is done; port is "" without a name.
static FILE *TmReadWanPort(char *port)
{
    port[0] = '\0';
    FILE *file = fopen(TM_WAN_PORTS_FILE, "r");
    if (!file) return nullptr;
    char line[8];
    memset(line, 0, sizeof line);
    if (fgets(line, sizeof line, file) && line[0] != '\0') {
        line[strlen(line) - 1] = '\0';
        memcpy(port, line, sizeof line);
    }
    return file;
}

static void TmRun(const char *format, const char *argument)
{
    char command[64];
    memset(command, 0, sizeof command);
    snprintf(command, sizeof command, format, argument);
    system(command);
}

void TmShutdownWan(void)
{
    char port[8];
    FILE *file = TmReadWanPort(port);
    if (port[0] != '\0') {
        char name[16];
        memset(name, 0, sizeof name);
        bcm_dm_GetWanIfName(name);
        // PPPoE runs over the port's ".2" sub-interface, everything else over ".1".
        if (strcmp(name, "ppp0.2") == 0) TmRun("ifconfig %s.2 down > /dev/null 2>&1", port);
        else TmRun("ifconfig %s.1 down > /dev/null 2>&1", port);
    }
    if (file) fclose(file);
    system("dnsmasq -C /etc/traffic_meter/dnsmasq_tmRedirecHttpHttps.conf -p 38053 -x " TM_REDIRECT_PID_FILE
           " > /dev/null 2>&1");
    if (debugFlag) puts("KVARD: Shutdown WAN Interface!");
}

void TmRestoreWan(void)
{
    system("kill -9 `cat " TM_REDIRECT_PID_FILE "` > /dev/null 2>&1");
    char port[8];
    FILE *file = TmReadWanPort(port);
    if (port[0] != '\0') {
        TmRun("ifconfig %s down > /dev/null 2>&1", port);
        TmRun("ifconfig %s up > /dev/null 2>&1", port);
    }
    if (file) fclose(file);
    sleep(3);
    if (debugFlag) puts("KVARD: Start WAN Interface!");
}

void TmStartLedFlash(void)
{
    system("tmledflashd &");
    if (debugFlag) puts("LED start flash !");
}

void TmStopLedFlash(void)
{
    if (access(TM_LEDFLASH_PID_FILE, F_OK) == 0) TmRun("rm %s", TM_LEDFLASH_PID_FILE);
    if (debugFlag) puts("LED stop flash !");
}
