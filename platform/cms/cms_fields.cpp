// Field tables of the data-model objects, in object order (cms_fields.h).
#include "platform/cms/cms_fields.h"

#include <cstring>

namespace {

#define STR(type, field) {#field, static_cast<uint16_t>(offsetof(type, field)), CMS_FIELD_STRING, sizeof(#field) - 1}
#define BYTE(type, field) {#field, static_cast<uint16_t>(offsetof(type, field)), CMS_FIELD_BYTE, sizeof(#field) - 1}
#define COUNT(a) static_cast<uint16_t>(sizeof(a) / sizeof((a)[0]))

const CmsField ifaceFields[] = {
    STR(InterfaceObject, ifName),
    BYTE(InterfaceObject, isUpstream),
};

const CmsField timeFields[] = {
    STR(Dev2TimeObject, status),
    STR(Dev2TimeObject, localTimeZone),
};

const CmsField wanFields[] = {
    STR(WanConnectionObject, wanType),
};

const CmsField modeFields[] = {
    STR(OperationModeObject, operationMode),
};

const CmsField meterFields[] = {
    STR(OrnaTrafficMeterObject, traffic_on),
    STR(OrnaTrafficMeterObject, volcontrl),
    STR(OrnaTrafficMeterObject, contrl_type),
    STR(OrnaTrafficMeterObject, volume_monthly_limit),
    STR(OrnaTrafficMeterObject, round_up_volume),
    STR(OrnaTrafficMeterObject, timecontrl),
    STR(OrnaTrafficMeterObject, conntime_monthly_limit),
    STR(OrnaTrafficMeterObject, day),
    STR(OrnaTrafficMeterObject, hour),
    STR(OrnaTrafficMeterObject, min),
    STR(OrnaTrafficMeterObject, ampm_sel),
    STR(OrnaTrafficMeterObject, counter),
    STR(OrnaTrafficMeterObject, mark),
    STR(OrnaTrafficMeterObject, led_on),
    STR(OrnaTrafficMeterObject, block_on),
    STR(OrnaTrafficMeterObject, markStatus),
};

const CmsField statFields[] = {
    STR(OrnaTrafficMeterStatisticsObject, start_data_time),
    STR(OrnaTrafficMeterStatisticsObject, current_data_time),
    STR(OrnaTrafficMeterStatisticsObject, volume_left),
    STR(OrnaTrafficMeterStatisticsObject, today_conntime),
    STR(OrnaTrafficMeterStatisticsObject, today_upload),
    STR(OrnaTrafficMeterStatisticsObject, today_download),
    STR(OrnaTrafficMeterStatisticsObject, today_total),
    STR(OrnaTrafficMeterStatisticsObject, yesterday_conntime),
    STR(OrnaTrafficMeterStatisticsObject, yesterday_upload),
    STR(OrnaTrafficMeterStatisticsObject, yesterday_download),
    STR(OrnaTrafficMeterStatisticsObject, yesterday_total),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_conntime),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_upload),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_download),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_total),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_uploadavg),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_downloadavg),
    STR(OrnaTrafficMeterStatisticsObject, thisweek_totalavg),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_conntime),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_upload),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_download),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_total),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_uploadavg),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_downloadavg),
    STR(OrnaTrafficMeterStatisticsObject, thismonth_totalavg),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_conntime),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_upload),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_download),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_total),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_uploadavg),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_downloadavg),
    STR(OrnaTrafficMeterStatisticsObject, lastmonth_totalavg),
    STR(OrnaTrafficMeterStatisticsObject, passedDay),
    STR(OrnaTrafficMeterStatisticsObject, periodDay),
    STR(OrnaTrafficMeterStatisticsObject, dataUsed),
    STR(OrnaTrafficMeterStatisticsObject, dataLimited),
    STR(OrnaTrafficMeterStatisticsObject, connTimeUsed),
    STR(OrnaTrafficMeterStatisticsObject, connTimeLimited),
    STR(OrnaTrafficMeterStatisticsObject, warningTime),
    STR(OrnaTrafficMeterStatisticsObject, limitedTime),
};

static_assert(COUNT(meterFields) == 16, "the settings object has sixteen fields");
static_assert(COUNT(statFields) == 40, "the statistics object has forty fields");

const CmsObjectType types[] = {
    {MDMOID_DEV2_TIME, "MDMOID_DEV2_TIME", sizeof(Dev2TimeObject), timeFields, COUNT(timeFields)},
    {MDMOID_IFACE, "MDMOID_IFACE", sizeof(InterfaceObject), ifaceFields, COUNT(ifaceFields)},
    {MDMOID_WAN_CONNECTION, "MDMOID_WAN_CONNECTION", sizeof(WanConnectionObject), wanFields, COUNT(wanFields)},
    {MDMOID_OPERATION_MODE, "MDMOID_OPERATION_MODE", sizeof(OperationModeObject), modeFields, COUNT(modeFields)},
    {MDMOID_ORNA_TRAFFIC_METER, "MDMOID_ORNA_TRAFFIC_METER", sizeof(OrnaTrafficMeterObject), meterFields,
     COUNT(meterFields)},
    {MDMOID_ORNA_TRAFFIC_METER_STATISTICS, "MDMOID_ORNA_TRAFFIC_METER_STATISTICS",
     sizeof(OrnaTrafficMeterStatisticsObject), statFields, COUNT(statFields)},
};

}  // namespace

const CmsObjectType *cmsFields_all(int *count)
{
    *count = COUNT(types);
    return types;
}

const CmsObjectType *cmsFields_find(MdmObjectId oid)
{
    for (const CmsObjectType &t : types)
        if (t.oid == oid) return &t;
    return nullptr;
}

const CmsObjectType *cmsFields_findByName(const char *name)
{
    if (name == nullptr) return nullptr;
    for (const CmsObjectType &t : types)
        if (strcmp(t.name, name) == 0) return &t;
    return nullptr;
}

const CmsField *cmsFields_fieldNext(const CmsObjectType *type, const char *name, size_t len, uint16_t *next)
{
    for (uint16_t k = 0; k < type->fieldCount; k++) {
        uint16_t i = static_cast<uint16_t>((*next + k) % type->fieldCount);
        const CmsField *f = &type->fields[i];
        if (f->nameLen == len && memcmp(f->name, name, len) == 0) {
            *next = static_cast<uint16_t>(i + 1);
            return f;
        }
    }
    return nullptr;
}

const CmsField *cmsFields_field(const CmsObjectType *type, const char *name, size_t len)
{
    uint16_t first = 0;
    return cmsFields_fieldNext(type, name, len, &first);
}
