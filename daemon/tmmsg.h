// The control datagram: an 8-byte header in host byte order, then the body.
#ifndef KVARD_TMMSG_H
#define KVARD_TMMSG_H

#include <cstdint>

#define TM_MSG_MAGIC 0xA52D
#define TM_MSG_HEADER_SIZE 8
#define TM_MSG_MAX_DATAGRAM 101   // bytes taken per datagram
#define TM_MSG_BUFFER_SIZE 104

#define TM_MSG_HEARTBEAT 1
#define TM_MSG_CONFIG_UPDATE 2
#define TM_MSG_LINK_UPDATE 3
#define TM_MSG_TIME_UPDATE 4
#define TM_MSG_RESET_COUNTER 5
#define TM_MSG_WRITE_STATISTIC 6
#define TM_MSG_TIME_WAKE 7
#define TM_MSG_DUMP_STATE 100
#define TM_MSG_DUMP_STATE_LISTS 101
#define TM_MSG_DUMP_MIN_FLASH 102
#define TM_MSG_DUMP_HDAY_FLASH 103
#define TM_MSG_DUMP_RAW_FLASH 104
#define TM_MSG_SET_DEBUG 4436
#define TM_MSG_SIM_WAKE 5640
#define TM_MSG_SIM_INPUT 7254

struct TmMessageHeader {
    uint16_t magic;
    uint16_t code;
    uint16_t length;   // body bytes behind the header
    uint16_t reserved;
};
static_assert(sizeof(TmMessageHeader) == TM_MSG_HEADER_SIZE, "the header is 8 bytes");

// Tests and dispatches one datagram of length > 0; returns the reply word (-1 malformed).
int32_t HandleMessage(uint8_t *buffer, int32_t received);

#endif
