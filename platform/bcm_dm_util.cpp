// Data-model operations of the traffic meter. Each one brackets its own work
// with the platform lock, frees every object it got before releasing, and
// falls back to a safe default when the model can't be read.
#include "platform/bcm_dm_util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/tmtrace.h"
#include "history/tmstat.h"
#include "history/tmwrap.h"
#include "platform/cms/cms.h"
#include "platform/tmtext.h"
#include "platform/tmnum.h"

#define TM_LOCK_TIMEOUT_MS 30000

int bcm_dm_lock(void)
{
    CmsRet ret = cmsLck_acquireLockWithTimeoutTraced("bcm_dm_lock", TM_LOCK_TIMEOUT_MS);
    if (ret != CMSRET_SUCCESS) {
        log_log(3, "bcm_dm_lock", __LINE__, "could not get lock, ret=%d ,%s %d %s %s %s\n", ret,
                "bcm_dm_lock", __LINE__, __DATE__, __TIME__, __FILE_NAME__);
        cmsLck_dumpInfo();
        return 1;
    }
    return 0;
}

int bcm_dm_release(void)
{
    cmsLck_releaseLockTraced("bcm_dm_release");
    return 0;
}

// A null field reads as the empty string everywhere in this file.
static const char *TmText(const char *s)
{
    return s ? s : "";
}

void bcm_dm_GetOperationMode(char *buffer, int size)
{
    if (bcm_dm_lock() == 0) {
        InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
        OperationModeObject *obj = nullptr;
        if (cmsObj_get(MDMOID_OPERATION_MODE, &stack, 0, (void **)&obj) == CMSRET_SUCCESS) {
            cmsUtl_strncpy(buffer, TmText(obj->operationMode), size);
            cmsObj_free((void **)&obj);
        }
        bcm_dm_release();
    }
    if (buffer[0] == '\0') cmsUtl_strncpy(buffer, "RT", size);
}

static uint32_t TmWanTypeCode(const char *wanType)
{
    if (cmsUtl_strcmp(wanType, "DHCP") == 0 || cmsUtl_strcmp(wanType, "Static") == 0) return TM_LINK_DHCP;
    if (cmsUtl_strcmp(wanType, "PPPoE") == 0 || cmsUtl_strcmp(wanType, "PPTP") == 0 ||
        cmsUtl_strcmp(wanType, "L2TP") == 0)
        return TM_LINK_PPP;
    return TM_LINK_NONE;
}

uint32_t bcm_dm_GetWanType(void)
{
    uint32_t code = TM_LINK_NONE;
    if (bcm_dm_lock() != 0) return code;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    WanConnectionObject *obj = nullptr;
    if (cmsObj_get(MDMOID_WAN_CONNECTION, &stack, 0, (void **)&obj) == CMSRET_SUCCESS) {
        code = TmWanTypeCode(obj->wanType);
        cmsObj_free((void **)&obj);
    }
    bcm_dm_release();
    return code;
}

uint32_t bcm_dm_GetWanIfName(char *buffer)
{
    if (bcm_dm_lock() != 0) return TM_LINK_NONE;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    WanConnectionObject *wan = nullptr;
    if (cmsObj_get(MDMOID_WAN_CONNECTION, &stack, 0, (void **)&wan) != CMSRET_SUCCESS) {
        bcm_dm_release();
        return TM_LINK_NONE;
    }
    uint32_t code = TM_LINK_NONE;
    if (cmsUtl_strcmp(wan->wanType, "DHCP") == 0 || cmsUtl_strcmp(wan->wanType, "Static") == 0) {
        InstanceIdStack rows = EMPTY_INSTANCE_ID_STACK;
        InterfaceObject *ifc = nullptr;
        while (cmsObj_getNextFlags(MDMOID_IFACE, &rows, OGF_NO_VALUE_UPDATE, (void **)&ifc) == CMSRET_SUCCESS) {
            int upstream = ifc->isUpstream == 1;
            // The buffer has room for a 13-character name and ".1"; a longer
            // name is cut rather than written past the buffer.
            if (upstream) {
                // "<name>.1", cut to 15 characters as snprintf(buffer, 16, ...) cuts it.
                const char *name = TmText(ifc->ifName);
                size_t n = strnlen(name, 15);
                memcpy(buffer, name, n);
                for (const char *s = ".1"; *s != '\0' && n < 15; s++) buffer[n++] = *s;
                buffer[n] = '\0';
            }
            cmsObj_free((void **)&ifc);
            if (upstream) break;
        }
        code = TM_LINK_DHCP;
    } else if (cmsUtl_strcmp(wan->wanType, "PPPoE") == 0) {
        cmsUtl_strcpy(buffer, "ppp0.2");
        code = TM_LINK_PPP;
    } else if (cmsUtl_strcmp(wan->wanType, "PPTP") == 0 || cmsUtl_strcmp(wan->wanType, "L2TP") == 0) {
        cmsUtl_strcpy(buffer, "ppp0");
        code = TM_LINK_PPP;
    }
    cmsObj_free((void **)&wan);
    bcm_dm_release();
    return code;
}

// Takes the lock and reads the time object. 0: the object is in *obj and the
// lock is held; otherwise nothing is held: 1 for the lock, or the read's code.
static int TmGetTimeObject(Dev2TimeObject **obj)
{
    if (bcm_dm_lock() != 0) return 1;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    CmsRet ret = cmsObj_get(MDMOID_DEV2_TIME, &stack, 0, (void **)obj);
    if (ret != CMSRET_SUCCESS) {
        printf("Failed to get MDMOID_DEV2_TIME, ret=%d", ret);
        bcm_dm_release();
    }
    return ret;
}

static void TmPutTimeObject(Dev2TimeObject **obj)
{
    cmsObj_free((void **)obj);
    bcm_dm_release();
}

int bcm_dm_CheckTimeSync(uint32_t *synced)
{
    *synced = 0;
    Dev2TimeObject *obj = nullptr;
    int ret = TmGetTimeObject(&obj);
    if (ret != 0) return ret;
    if (cmsUtl_strcmp(obj->status, "Synchronized") == 0) *synced = 1;
    TmPutTimeObject(&obj);
    return 0;
}

int bcm_dm_GetTimeZone(char *buffer, int size)
{
    Dev2TimeObject *obj = nullptr;
    int ret = TmGetTimeObject(&obj);
    if (ret != 0) return ret;
    memset(buffer, 0, size);
    // Bounded copy: a zone name longer than the caller's buffer is cut.
    cmsUtl_strncpy(buffer, TmText(obj->localTimeZone), size);
    TmPutTimeObject(&obj);
    return 0;
}

// Replaces a string field of an object: old string freed, a copy stored.
static void TmReplaceField(char **field, const char *text)
{
    if (*field) cmsMem_free(*field);
    *field = cmsMem_strdup(text);
}

int bcm_dm_WriteMarkStatus(int status, int32_t time)
{
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    if (bcm_dm_lock() != 0) return 1;
    OrnaTrafficMeterObject *meter = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &stack, 0, (void **)&meter);
    if (ret != CMSRET_SUCCESS) {
        printf("Failed to get MDMOID_ORNA_TRAFFIC_METER, ret=%d", ret);
        bcm_dm_release();
        return 1;
    }
    if (debugFlag) printf("markStatus =%s\n", TmText(meter->markStatus));
    char digits[16];
    snprintf(digits, sizeof digits, "%d", status);
    TmReplaceField(&meter->markStatus, digits);
    cmsObj_set(meter, &stack);
    cmsObj_free((void **)&meter);
    bcm_dm_release();

    if (bcm_dm_lock() != 0) return 1;
    OrnaTrafficMeterStatisticsObject *stat = nullptr;
    ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &stack, 0, (void **)&stat);
    if (ret != CMSRET_SUCCESS) {
        printf("Failed to get MDMOID_ORNA_TRAFFIC_METER_STATISTICS, ret=%d", ret);
        bcm_dm_release();
        return 1;
    }
    char text[32];
    memset(text, 0, sizeof text);
    time_t t = time;
    struct tm *local = localtime(&t);
    if (local) strncpy(text, asctime(local), sizeof text - 1);
    if (debugFlag) {
        printf("reached time = %s\n", text);
        printf("reached mode = %d\n", status);
    }
    if (status == 1) TmReplaceField(&stat->warningTime, text);
    else if (status == 3 || status == 4) TmReplaceField(&stat->limitedTime, text);
    ret = cmsObj_set(stat, &stack);
    cmsObj_free((void **)&stat);
    bcm_dm_release();
    return ret;
}

int bcm_dm_ReadConfig(const char *path, TmConfig *config)
{
    (void)path;  // accepted for the caller's sake, never opened
    if (bcm_dm_lock() != 0) return 1;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    OrnaTrafficMeterObject *o = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &stack, 0, (void **)&o);
    if (ret != CMSRET_SUCCESS) {
        printf("Could not get MDMOID_ORNA_TRAFFIC_METER, ret=%d", ret);
        bcm_dm_release();
        return 1;
    }
    printf("traffic_on =%s ", TmPrintable(o->traffic_on));
    printf("volcontrl =%s ", TmPrintable(o->volcontrl));
    printf("contrl_type =%s ", TmPrintable(o->contrl_type));
    printf("volume_monthly_limit =%s ", TmPrintable(o->volume_monthly_limit));
    printf("round_up_volume =%s ", TmPrintable(o->round_up_volume));
    printf("timecontrl =%s ", TmPrintable(o->timecontrl));
    printf("conntime_monthly_limit =%s ", TmPrintable(o->conntime_monthly_limit));
    printf("day =%s ", TmPrintable(o->day));
    printf("hour  =%s ", TmPrintable(o->hour));
    printf("min =%s ", TmPrintable(o->min));
    printf("ampm_sel =%s ", TmPrintable(o->ampm_sel));
    printf("counter =%s ", TmPrintable(o->counter));
    printf("mark =%s ", TmPrintable(o->mark));
    printf("led_on =%s ", TmPrintable(o->led_on));
    printf("block_on =%s\n", TmPrintable(o->block_on));

    config->enable = cmsUtl_strcmp(o->traffic_on, "true") == 0;
    // atol gives a 32-bit long on the router; widened with its sign.
    config->roundOff = o->round_up_volume ? (uint64_t)(int64_t)TmAtol(o->round_up_volume) : 0;
    config->resetDay = o->day ? (uint32_t)TmAtol(o->day) : 1;
    if (o->hour) {
        config->resetHour = (uint32_t)TmAtol(o->hour);
        if (cmsUtl_strcmp(o->ampm_sel, "true") == 0) config->resetHour += 12;
    }
    if (o->min) config->resetMinute = (uint32_t)TmAtol(o->min);
    int noMark = cmsUtl_strcmp(o->mark, "") == 0 || cmsUtl_strcmp(o->mark, "0") == 0;
    if (cmsUtl_strcmp(o->volcontrl, "true") == 0) {
        if (cmsUtl_strcmp(o->contrl_type, "No limit") == 0) config->limitType = 0;
        else if (cmsUtl_strcmp(o->contrl_type, "Download only") == 0) config->limitType = 1;
        else config->limitType = 2;
        if (o->volume_monthly_limit) config->limitVol = (uint64_t)TmAtoll(o->volume_monthly_limit) * 1000000u;
        // Unsigned: a mark beyond the limit wraps to a huge value, as it always has.
        config->warnVol = noMark ? 0 : config->limitVol - (uint64_t)TmAtoll(o->mark) * 1000000u;
    }
    if (cmsUtl_strcmp(o->timecontrl, "true") == 0) {
        config->limitType = 3;
        // 32-bit arithmetic that wraps instead of overflowing.
        if (o->conntime_monthly_limit)
            config->limitTime = (int32_t)((uint32_t)TmAtol(o->conntime_monthly_limit) * 3600u);
        config->warnTime =
            noMark ? 0 : (int32_t)((uint32_t)config->limitTime - 3600u * (uint32_t)TmAtol(o->mark));
    }
    config->disconnectLimit = cmsUtl_strcmp(o->block_on, "true") == 0;
    config->ledflashLimit = cmsUtl_strcmp(o->led_on, "true") == 0;
    cmsObj_free((void **)&o);
    bcm_dm_release();
    return 0;
}

// The four or seven fields of one period, in the object's writing order.
static void TmPutPeriod(char **conntime, char **upload, char **uploadavg, char **download, char **downloadavg,
                        char **total, char **totalavg, const TmPeriodFigures &p)
{
    char text[TM_TEXT_SIZE];
    uint64_t sum = p.upload + p.download;  // added as an integer first, converted afterwards
    TmReplaceField(conntime, TmTextDuration(text, p.conntime));
    TmReplaceField(upload, TmTextMegabytes(text, p.upload));
    if (uploadavg) TmReplaceField(uploadavg, TmTextAverage(text, p.upload, p.elapsed));
    TmReplaceField(download, TmTextMegabytes(text, p.download));
    if (downloadavg) TmReplaceField(downloadavg, TmTextAverage(text, p.download, p.elapsed));
    TmReplaceField(total, TmTextMegabytes(text, sum));
    if (totalavg) TmReplaceField(totalavg, TmTextAverage(text, sum, p.elapsed));
}

// The moment shown as the start of counting: a manual reset once the clock is set.
static int32_t TmShownStart(const TmStatistic &s)
{
    return (s.manualTime != 0 && tmCore.exportData.timeSync == 1) ? s.manualTime : s.start_data_time;
}

// Days of the period, counting a last day of 22 hours or more (a day lost to
// daylight saving) as whole. Without a period (clock not synchronised) 0.
static uint64_t TmPeriodDays(const TmStatistic &s)
{
    if (s.next_data_time == 0) return 0;
    int32_t span = TmWrapSub(s.next_data_time, s.start_data_time);
    return (uint64_t)(int64_t)(span / 86400 + (span % 86400 >= 79200 ? 1 : 0));
}

static void TmPrintPeriod(const char *name, const TmPeriodFigures &p, int averages)
{
    char text[TM_TEXT_SIZE];
    uint64_t sum = p.upload + p.download;
    // The first line of the set is the only one with an equals sign.
    printf("%s_conntime%s%s\n", name, strcmp(name, "today") == 0 ? " = " : " ", TmTextDuration(text, p.conntime));
    printf("%s_upload %s\n", name, TmTextMegabytes(text, p.upload));
    if (averages) printf("%s_uploadavg %s\n", name, TmTextAverage(text, p.upload, p.elapsed));
    printf("%s_download %s\n", name, TmTextMegabytes(text, p.download));
    if (averages) printf("%s_downloadavg %s\n", name, TmTextAverage(text, p.download, p.elapsed));
    printf("%s_total %s\n", name, TmTextMegabytes(text, sum));
    if (averages) printf("%s_totalavg %s\n", name, TmTextAverage(text, sum, p.elapsed));
}

// The whole set once more on stdout, for the debug printing.
static void TmPrintStatistic(const TmStatistic &s)
{
    char text[TM_TEXT_SIZE];
    TmPrintPeriod("today", s.today, 0);
    TmPrintPeriod("yesterday", s.yesterday, 0);
    TmPrintPeriod("thisweek", s.thisweek, 1);
    TmPrintPeriod("thismonth", s.thismonth, 1);
    TmPrintPeriod("lastmonth", s.lastmonth, 1);
    printf("manualTime %lu %s", (unsigned long)(uint32_t)s.manualTime, TmTextAsctime(text, s.manualTime));
    printf("start_data_time %lu %s", (unsigned long)(uint32_t)s.start_data_time,
           TmTextAsctime(text, s.start_data_time));
    printf("current_data_time %lu %s", (unsigned long)(uint32_t)s.current_data_time,
           TmTextAsctime(text, s.current_data_time));
    printf("volume_left %s\n", TmTextRemainder(text, s.volume_left, s.timeLimit));
    printf("passedDay %llu\n", (unsigned long long)(uint32_t)(TmWrapSub(s.current_data_time, s.start_data_time) / 86400));
    printf("periodDay %llu\n", (unsigned long long)TmPeriodDays(s));
    printf("dataUsed %llu\n", (unsigned long long)s.dataUsed);
    printf("dataLimited %llu\n", (unsigned long long)s.dataLimited);
}

int bcm_dm_WriteStatistic(void)
{
    TmStatistic s;
    memset(&s, 0, sizeof s);
    // The figures (and the WAN counters behind them) are read outside the lock.
    if (TmCollectStatistic(&s) == 0) puts("Statistc error");
    if (bcm_dm_lock() != 0) return 1;
    InstanceIdStack stack = EMPTY_INSTANCE_ID_STACK;
    OrnaTrafficMeterStatisticsObject *o = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &stack, 0, (void **)&o);
    if (ret != CMSRET_SUCCESS) {
        printf("Failed to get MDMOID_ORNA_TRAFFIC_METER_STATISTICS, ret=%d", ret);
        bcm_dm_release();
        return 1;
    }
    TmPutPeriod(&o->today_conntime, &o->today_upload, nullptr, &o->today_download, nullptr, &o->today_total, nullptr,
                s.today);
    TmPutPeriod(&o->yesterday_conntime, &o->yesterday_upload, nullptr, &o->yesterday_download, nullptr,
                &o->yesterday_total, nullptr, s.yesterday);
    TmPutPeriod(&o->thisweek_conntime, &o->thisweek_upload, &o->thisweek_uploadavg, &o->thisweek_download,
                &o->thisweek_downloadavg, &o->thisweek_total, &o->thisweek_totalavg, s.thisweek);
    TmPutPeriod(&o->thismonth_conntime, &o->thismonth_upload, &o->thismonth_uploadavg, &o->thismonth_download,
                &o->thismonth_downloadavg, &o->thismonth_total, &o->thismonth_totalavg, s.thismonth);
    TmPutPeriod(&o->lastmonth_conntime, &o->lastmonth_upload, &o->lastmonth_uploadavg, &o->lastmonth_download,
                &o->lastmonth_downloadavg, &o->lastmonth_total, &o->lastmonth_totalavg, s.lastmonth);
    char text[TM_TEXT_SIZE];
    TmReplaceField(&o->start_data_time, TmTextAsctime(text, TmShownStart(s)));
    TmReplaceField(&o->current_data_time, TmTextAsctime(text, s.current_data_time));
    TmReplaceField(&o->volume_left, TmTextRemainder(text, s.volume_left, s.timeLimit));
    // Whole days since the period's start; a manual reset does not move it.
    TmReplaceField(&o->passedDay,
                   TmTextUnsigned(text, (uint32_t)(TmWrapSub(s.current_data_time, s.start_data_time) / 86400)));
    TmReplaceField(&o->periodDay, TmTextUnsigned(text, (unsigned long long)TmPeriodDays(s)));
    if (s.timeLimit == 0) {
        TmReplaceField(&o->dataUsed, TmTextUnsigned(text, (unsigned long long)(s.dataUsed / 1000000)));
        TmReplaceField(&o->dataLimited, TmTextUnsigned(text, (unsigned long long)(s.dataLimited / 1000000)));
    } else {
        // "%llu:%2.2llu": hours, then the minutes in two digits
        char *end = TmTextUnsigned(text, (unsigned long long)(s.dataUsed / 3600));
        end += strlen(end);
        unsigned minutes = (unsigned)((unsigned long long)s.dataUsed % 3600 / 60);
        end[0] = ':';
        end[1] = (char)('0' + minutes / 10);
        end[2] = (char)('0' + minutes % 10);
        end[3] = '\0';
        TmReplaceField(&o->connTimeUsed, text);
        TmReplaceField(&o->connTimeLimited, TmTextUnsigned(text, (unsigned long long)(s.dataLimited / 3600)));
    }
    if (debugFlag) {
        printf("tfmtCfgStat->limitedTime %s ", TmPrintable(o->limitedTime));
        printf("tfmtCfgStat->warningTime %s ", TmPrintable(o->warningTime));
    }
    cmsObj_set(o, &stack);
    cmsObj_free((void **)&o);
    bcm_dm_release();
    if (debugFlag) TmPrintStatistic(s);
    return 0;
}
