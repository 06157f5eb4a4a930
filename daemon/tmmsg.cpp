// Validity tests and dispatch of one control datagram.
#include "daemon/tmmsg.h"

#include <cstdio>
#include <cstring>

#include "core/tmcore.h"
#include "core/tmhandlers.h"
#include "core/tmtrace.h"
#include "platform/bcm_dm_util.h"
#include "platform/tmdump.h"

int32_t HandleMessage(uint8_t *buffer, int32_t received)
{
    if (received <= 7) return -1;
    TmMessageHeader header;
    memcpy(&header, buffer, sizeof header);
    if (header.magic != TM_MSG_MAGIC) return -1;
    if ((int32_t)header.length != received - TM_MSG_HEADER_SIZE) return -1;
    uint8_t *body = buffer + TM_MSG_HEADER_SIZE;

    switch (header.code) {
    case TM_MSG_HEARTBEAT:
        // The text ends at its first NUL or with the body; nothing is added to the buffer.
        printf("Heart Beat: %.*s\n", (int)header.length, (const char *)body);
        return 0;
    case TM_MSG_CONFIG_UPDATE:
        TM_TRACE_NAMED("HandleMessage");
        return TmHandleConfigUpdate();
    case TM_MSG_LINK_UPDATE:
        return TmHandleLinkUpdate();
    case TM_MSG_TIME_UPDATE:
        return TmHandleTimeUpdate();
    case TM_MSG_RESET_COUNTER:
        TM_TRACE_NAMED("HandleMessage");
        return TmHandleResetCounter2();
    case TM_MSG_WRITE_STATISTIC:
        // The one place where a 0-for-success result becomes a 1-for-success reply.
        return bcm_dm_WriteStatistic() == 0 ? 1 : 0;
    case TM_MSG_TIME_WAKE:
        TmHandleTimeWake(1, 0);
        return 1;
    case TM_MSG_DUMP_STATE:
        TmDumpAll(0);
        return 0;
    case TM_MSG_DUMP_STATE_LISTS:
        TmDumpAll(1);
        return 0;
    case TM_MSG_DUMP_MIN_FLASH:
        TmDumpFlash(0);
        return 1;
    case TM_MSG_DUMP_HDAY_FLASH:
        TmDumpFlash(1);
        return 1;
    case TM_MSG_DUMP_RAW_FLASH:
        TmDumpFlash(2);
        return 1;
    case TM_MSG_SET_DEBUG:
        if (header.length >= 5) {
            uint32_t word;
            memcpy(&word, body, sizeof word);
            TmSetDebug(word);
        }
        return 1;
    case TM_MSG_SIM_WAKE:
        return (int32_t)TmHandleTimeWake(2, 0);
    case TM_MSG_SIM_INPUT:
        return TmSetSimInput(body);
    default:
        return 0;
    }
}
