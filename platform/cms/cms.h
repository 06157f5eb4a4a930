// Stand-in for the router platform's CMS libraries: logging, messaging, the
// data model and its lock, memory and string helpers. The calls keep the
// platform's names, arguments and results so that the daemon reads as it does
// on the router. The data model is a directory of small text files (the store,
// docs/store.md); objects are C structs of a header word and string fields.
#ifndef KVARD_CMS_H
#define KVARD_CMS_H

#include <cstdint>

typedef int32_t CmsRet;
enum : CmsRet {
    CMSRET_SUCCESS = 0,
    CMSRET_METHOD_NOT_SUPPORTED = 9001,
    CMSRET_INTERNAL_ERROR = 9002,
    CMSRET_INVALID_ARGUMENTS = 9003,
    CMSRET_RESOURCE_EXCEEDED = 9004,
    CMSRET_OBJECT_NOT_FOUND = 9005,
    CMSRET_NO_MORE_INSTANCES = 9006,
    CMSRET_TIMED_OUT = 9007,
};

typedef uint32_t MdmObjectId;

enum : MdmObjectId {
    MDMOID_IFACE = 1152,                           // interface table, walked
    MDMOID_WAN_CONNECTION = 1400,
    MDMOID_DEV2_TIME = 1045,
    MDMOID_OPERATION_MODE = 2700,
    MDMOID_ORNA_TRAFFIC_METER = 2888,
    MDMOID_ORNA_TRAFFIC_METER_STATISTICS = 2889,
};

// Position of an object instance: depth 0 is a single object; depth 1 with
// instance[0] = n is row n of a table. 28 bytes, as the platform's.
#define MAX_MDM_INSTANCE_DEPTH 6
typedef struct {
    uint8_t currentDepth;
    uint32_t instance[MAX_MDM_INSTANCE_DEPTH];
} InstanceIdStack;
static_assert(sizeof(InstanceIdStack) == 28, "instance stack is 28 bytes");

#define EMPTY_INSTANCE_ID_STACK {0, {0, 0, 0, 0, 0, 0}}

// cmsObj_getNextFlags: the only flag the daemon passes.
#define OGF_NO_VALUE_UPDATE 2

// ---- Objects. Every object begins with its id; every field is a heap string
// owned by the object (null when absent), except InterfaceObject.isUpstream.

typedef struct {
    MdmObjectId _oid;
    char *traffic_on;
    char *volcontrl;
    char *contrl_type;
    char *volume_monthly_limit;
    char *round_up_volume;
    char *timecontrl;
    char *conntime_monthly_limit;
    char *day;
    char *hour;
    char *min;
    char *ampm_sel;
    char *counter;
    char *mark;
    char *led_on;
    char *block_on;
    char *markStatus;
} OrnaTrafficMeterObject;

typedef struct {
    MdmObjectId _oid;
    char *start_data_time;
    char *current_data_time;
    char *volume_left;
    char *today_conntime;
    char *today_upload;
    char *today_download;
    char *today_total;
    char *yesterday_conntime;
    char *yesterday_upload;
    char *yesterday_download;
    char *yesterday_total;
    char *thisweek_conntime;
    char *thisweek_upload;
    char *thisweek_download;
    char *thisweek_total;
    char *thisweek_uploadavg;
    char *thisweek_downloadavg;
    char *thisweek_totalavg;
    char *thismonth_conntime;
    char *thismonth_upload;
    char *thismonth_download;
    char *thismonth_total;
    char *thismonth_uploadavg;
    char *thismonth_downloadavg;
    char *thismonth_totalavg;
    char *lastmonth_conntime;
    char *lastmonth_upload;
    char *lastmonth_download;
    char *lastmonth_total;
    char *lastmonth_uploadavg;
    char *lastmonth_downloadavg;
    char *lastmonth_totalavg;
    char *passedDay;
    char *periodDay;
    char *dataUsed;
    char *dataLimited;
    char *connTimeUsed;
    char *connTimeLimited;
    char *warningTime;
    char *limitedTime;
} OrnaTrafficMeterStatisticsObject;

typedef struct {
    MdmObjectId _oid;
    char *status;          // "Synchronized" once the clock is set
    char *localTimeZone;   // zone name
} Dev2TimeObject;

typedef struct {
    MdmObjectId _oid;
    char *operationMode;   // "RT" in router mode
} OperationModeObject;

typedef struct {
    MdmObjectId _oid;
    char *wanType;         // "DHCP", "Static", "PPPoE", "PPTP", "L2TP"
} WanConnectionObject;

typedef struct {
    MdmObjectId _oid;
    char *ifName;
    uint8_t isUpstream;    // 1 for the WAN-side port
} InterfaceObject;

// The platform's libraries are C libraries: C linkage, so that the names are
// the platform's in the object files too (tests wrap them at link time).
extern "C" {

// ---- Logging. Lines go to stderr as "<name>: <level>: <function>:<line>: <message>".
void cmsLog_initWithName(uint32_t eid, const char *name);
void cmsLog_setLevel(int32_t level);
void cmsLog_cleanup(void);
void log_log(int32_t level, const char *func, int32_t line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// ---- Messaging: only hands out a handle. 0 and a handle on success.
CmsRet cmsMsg_initWithFlags(uint32_t eid, uint32_t flags, void **msgHandle);
void cmsMsg_cleanup(void **msgHandle);

// ---- Data model. 0 when the store can be used (created if missing).
CmsRet cmsMdm_initWithAcc(uint32_t eid, uint32_t acc, void *msgHandle, int32_t *shmId);

// ---- Lock. 0 when held; non-zero after timeoutMs milliseconds of waiting.
CmsRet cmsLck_acquireLockWithTimeoutTraced(const char *callerFuncName, uint32_t timeoutMs);
void cmsLck_releaseLockTraced(const char *callerFuncName);
void cmsLck_dumpInfo(void);

// ---- Objects. get: 0 and a heap copy in *obj, non-zero and no object on
// failure. getNextFlags: 0 and the next instance after the one in iidStack
// (which it updates), non-zero when none is left. set: 0 when stored.
CmsRet cmsObj_get(MdmObjectId oid, const InstanceIdStack *iidStack, uint32_t getFlags, void **obj);
CmsRet cmsObj_getNextFlags(MdmObjectId oid, InstanceIdStack *iidStack, uint32_t getFlags, void **obj);
CmsRet cmsObj_set(const void *obj, const InstanceIdStack *iidStack);
void cmsObj_free(void **obj);

// ---- Memory and strings.
char *cmsMem_strdup(const char *str);
void cmsMem_free(void *buf);
int32_t cmsUtl_strcmp(const char *s1, const char *s2);      // null compares as ""
void cmsUtl_strcpy(char *dest, const char *src);
void cmsUtl_strncpy(char *dest, const char *src, int32_t dlen);  // always NUL-terminated
int32_t cmsUtl_strlen(const char *src);

}  // extern "C"

#endif
