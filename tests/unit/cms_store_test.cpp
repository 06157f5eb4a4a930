// The store of the CMS stand-in: file format, round trips, escapes, kept
// lines, table walks, failures, and atomic replacement under concurrency.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "platform/cms/cms_store.h"
#include "tests/unit/cms_tempstore.h"

namespace {

const InstanceIdStack kSingle = EMPTY_INSTANCE_ID_STACK;

InstanceIdStack row(uint32_t n)
{
    InstanceIdStack s = EMPTY_INSTANCE_ID_STACK;
    s.currentDepth = 1;
    s.instance[0] = n;
    return s;
}

// The field names in object order, as the data model lists them, written out
// here rather than taken from the library's table.
const std::vector<std::string> kMeterNames = {
    "traffic_on", "volcontrl", "contrl_type", "volume_monthly_limit", "round_up_volume", "timecontrl",
    "conntime_monthly_limit", "day", "hour", "min", "ampm_sel", "counter", "mark", "led_on", "block_on",
    "markStatus"};
const std::vector<std::string> kStatNames = {
    "start_data_time", "current_data_time", "volume_left", "today_conntime", "today_upload", "today_download",
    "today_total", "yesterday_conntime", "yesterday_upload", "yesterday_download", "yesterday_total",
    "thisweek_conntime", "thisweek_upload", "thisweek_download", "thisweek_total", "thisweek_uploadavg",
    "thisweek_downloadavg", "thisweek_totalavg", "thismonth_conntime", "thismonth_upload", "thismonth_download",
    "thismonth_total", "thismonth_uploadavg", "thismonth_downloadavg", "thismonth_totalavg", "lastmonth_conntime",
    "lastmonth_upload", "lastmonth_download", "lastmonth_total", "lastmonth_uploadavg", "lastmonth_downloadavg",
    "lastmonth_totalavg", "passedDay", "periodDay", "dataUsed", "dataLimited", "connTimeUsed", "connTimeLimited",
    "warningTime", "limitedTime"};

template <typename T>
T *newObject(MdmObjectId oid)
{
    T *o = static_cast<T *>(calloc(1, sizeof(T)));
    o->_oid = oid;
    return o;
}

// The string fields of an object whose fields are all char* laid out one after
// another behind the header word: the struct's own layout, not the library's table.
template <typename T>
char **stringSlots(T *obj, size_t firstOffset)
{
    return reinterpret_cast<char **>(reinterpret_cast<char *>(obj) + firstOffset);
}

struct WholeObjectCase {
    MdmObjectId oid;
    size_t size;
    size_t firstOffset;
    const std::vector<std::string> *names;
};

class WholeObject : public ::testing::TestWithParam<WholeObjectCase> {};

TEST_P(WholeObject, every_field_is_written_in_object_order_and_read_back)
{
    TempStore store;
    const WholeObjectCase &c = GetParam();
    void *obj = calloc(1, c.size);
    *static_cast<MdmObjectId *>(obj) = c.oid;
    char **slots = stringSlots(obj, c.firstOffset);
    std::string expected;
    for (size_t i = 0; i < c.names->size(); i++) {
        std::string v = "v" + std::to_string(i) + " = " + (*c.names)[i];
        slots[i] = strdup(v.c_str());
        expected += (*c.names)[i] + "=" + v + "\n";
    }
    ASSERT_EQ(cmsObj_set(obj, &kSingle), CMSRET_SUCCESS);
    EXPECT_EQ(store.read(std::to_string(c.oid)), expected);

    void *back = nullptr;
    ASSERT_EQ(cmsObj_get(c.oid, &kSingle, 0, &back), CMSRET_SUCCESS);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(*static_cast<MdmObjectId *>(back), c.oid);
    char **got = stringSlots(back, c.firstOffset);
    for (size_t i = 0; i < c.names->size(); i++) {
        ASSERT_NE(got[i], nullptr) << (*c.names)[i];
        EXPECT_STREQ(got[i], slots[i]) << (*c.names)[i];
        EXPECT_NE(got[i], slots[i]) << "a copy, not the caller's string";
    }
    cmsObj_free(&back);
    cmsObj_free(&obj);
    EXPECT_EQ(obj, nullptr);
}

const std::vector<std::string> kTimeNames = {"status", "localTimeZone"};
const std::vector<std::string> kModeNames = {"operationMode"};
const std::vector<std::string> kWanNames = {"wanType"};

INSTANTIATE_TEST_SUITE_P(
    AllSingleObjects, WholeObject,
    ::testing::Values(
        WholeObjectCase{MDMOID_ORNA_TRAFFIC_METER, sizeof(OrnaTrafficMeterObject),
                        offsetof(OrnaTrafficMeterObject, traffic_on), &kMeterNames},
        WholeObjectCase{MDMOID_ORNA_TRAFFIC_METER_STATISTICS, sizeof(OrnaTrafficMeterStatisticsObject),
                        offsetof(OrnaTrafficMeterStatisticsObject, start_data_time), &kStatNames},
        WholeObjectCase{MDMOID_DEV2_TIME, sizeof(Dev2TimeObject), offsetof(Dev2TimeObject, status), &kTimeNames},
        WholeObjectCase{MDMOID_OPERATION_MODE, sizeof(OperationModeObject),
                        offsetof(OperationModeObject, operationMode), &kModeNames},
        WholeObjectCase{MDMOID_WAN_CONNECTION, sizeof(WanConnectionObject), offsetof(WanConnectionObject, wanType),
                        &kWanNames}),
    [](const ::testing::TestParamInfo<WholeObjectCase> &i) { return std::to_string(i.param.oid); });

TEST(Store, an_interface_row_keeps_its_name_and_its_upstream_byte)
{
    TempStore store;
    auto *ifc = newObject<InterfaceObject>(MDMOID_IFACE);
    ifc->ifName = strdup("eth4");
    ifc->isUpstream = 1;
    InstanceIdStack s = row(2);
    ASSERT_EQ(cmsObj_set(ifc, &s), CMSRET_SUCCESS);
    EXPECT_EQ(store.read("1152.2"), "ifName=eth4\nisUpstream=1\n");
    cmsObj_free(reinterpret_cast<void **>(&ifc));

    InterfaceObject *back = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_IFACE, &s, 0, reinterpret_cast<void **>(&back)), CMSRET_SUCCESS);
    EXPECT_STREQ(back->ifName, "eth4");
    EXPECT_EQ(back->isUpstream, 1);
    cmsObj_free(reinterpret_cast<void **>(&back));
}

TEST(Store, a_hand_written_settings_file_is_read_field_by_field)
{
    TempStore store;
    store.write("2888", "traffic_on=true\nvolcontrl=true\ncontrl_type=Download only\nvolume_monthly_limit=1000\n"
                        "day=31\nhour=\nmarkStatus=0\n");
    OrnaTrafficMeterObject *o = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &kSingle, 0, reinterpret_cast<void **>(&o)), CMSRET_SUCCESS);
    EXPECT_STREQ(o->traffic_on, "true");
    EXPECT_STREQ(o->contrl_type, "Download only");
    EXPECT_STREQ(o->volume_monthly_limit, "1000");
    EXPECT_STREQ(o->day, "31");
    EXPECT_STREQ(o->hour, "");
    EXPECT_EQ(o->min, nullptr);
    EXPECT_EQ(o->round_up_volume, nullptr);
    EXPECT_STREQ(o->markStatus, "0");
    cmsObj_free(reinterpret_cast<void **>(&o));
}

TEST(Store, a_null_field_has_no_line_and_an_empty_field_has_an_empty_value)
{
    TempStore store;
    auto *t = newObject<Dev2TimeObject>(MDMOID_DEV2_TIME);
    t->status = nullptr;
    t->localTimeZone = strdup("");
    ASSERT_EQ(cmsObj_set(t, &kSingle), CMSRET_SUCCESS);
    EXPECT_EQ(store.read("1045"), "localTimeZone=\n");
    cmsObj_free(reinterpret_cast<void **>(&t));

    ASSERT_EQ(cmsObj_get(MDMOID_DEV2_TIME, &kSingle, 0, reinterpret_cast<void **>(&t)), CMSRET_SUCCESS);
    EXPECT_EQ(t->status, nullptr);
    ASSERT_NE(t->localTimeZone, nullptr);
    EXPECT_STREQ(t->localTimeZone, "");
    cmsObj_free(reinterpret_cast<void **>(&t));
}

struct EscapeCase {
    const char *value;
    const char *stored;
};

class Escapes : public ::testing::TestWithParam<EscapeCase> {};

TEST_P(Escapes, a_value_is_stored_escaped_and_read_back_unchanged)
{
    TempStore store;
    auto *s = newObject<OrnaTrafficMeterStatisticsObject>(MDMOID_ORNA_TRAFFIC_METER_STATISTICS);
    s->warningTime = strdup(GetParam().value);
    ASSERT_EQ(cmsObj_set(s, &kSingle), CMSRET_SUCCESS);
    EXPECT_EQ(store.read("2889"), std::string("warningTime=") + GetParam().stored + "\n");
    cmsObj_free(reinterpret_cast<void **>(&s));
    ASSERT_EQ(cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &kSingle, 0, reinterpret_cast<void **>(&s)),
              CMSRET_SUCCESS);
    EXPECT_STREQ(s->warningTime, GetParam().value);
    cmsObj_free(reinterpret_cast<void **>(&s));
}

INSTANTIATE_TEST_SUITE_P(
    Values, Escapes,
    ::testing::Values(EscapeCase{"Thu Jan  1 00:00:00 1970\n", "Thu Jan  1 00:00:00 1970\\n"},
                      EscapeCase{"two\nlines\n\n", "two\\nlines\\n\\n"},
                      EscapeCase{"C:\\dir", "C:\\\\dir"},
                      EscapeCase{"\\n is not a line feed", "\\\\n is not a line feed"},
                      EscapeCase{"trailing\\", "trailing\\\\"},
                      EscapeCase{"a=b=c", "a=b=c"},
                      EscapeCase{"Größe 5 € ✓", "Größe 5 € ✓"},
                      EscapeCase{" 4 G 672 M 380 K ", " 4 G 672 M 380 K "}));

struct ReadCase {
    const char *line;
    const char *value;
};

class HandWrittenValues : public ::testing::TestWithParam<ReadCase> {};

TEST_P(HandWrittenValues, odd_backslashes_read_as_written)
{
    TempStore store;
    store.write("2700", std::string("operationMode=") + GetParam().line);
    OperationModeObject *o = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_OPERATION_MODE, &kSingle, 0, reinterpret_cast<void **>(&o)), CMSRET_SUCCESS);
    EXPECT_STREQ(o->operationMode, GetParam().value);
    cmsObj_free(reinterpret_cast<void **>(&o));
}

INSTANTIATE_TEST_SUITE_P(Values, HandWrittenValues,
                         ::testing::Values(ReadCase{"RT\\", "RT\\"},            // lone trailing backslash
                                           ReadCase{"RT\\\n", "RT\\"},          // same, before the line end
                                           ReadCase{"a\\tb", "a\\tb"},          // unknown escape kept
                                           ReadCase{"\\\\\\n", "\\\n"},         // "\\" then "\n"
                                           ReadCase{"\\\\n", "\\n"},            // "\\" then a plain n
                                           ReadCase{"RT", "RT"},                // no line end at all
                                           ReadCase{"R\\T\\\\", "R\\T\\"}));

TEST(Store, of_two_lines_for_one_field_the_later_wins)
{
    TempStore store;
    store.write("1400", "wanType=PPPoE\nwanType=DHCP\n");
    WanConnectionObject *w = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_WAN_CONNECTION, &kSingle, 0, reinterpret_cast<void **>(&w)), CMSRET_SUCCESS);
    EXPECT_STREQ(w->wanType, "DHCP");
    cmsObj_free(reinterpret_cast<void **>(&w));
}

struct ByteCase {
    const char *text;
    uint8_t value;
};

class UpstreamByte : public ::testing::TestWithParam<ByteCase> {};

TEST_P(UpstreamByte, only_a_decimal_number_up_to_255_is_taken)
{
    TempStore store;
    store.write("1152.1", std::string("ifName=eth0\n") + GetParam().text);
    InstanceIdStack s = row(1);
    InterfaceObject *o = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_IFACE, &s, 0, reinterpret_cast<void **>(&o)), CMSRET_SUCCESS);
    EXPECT_EQ(o->isUpstream, GetParam().value) << GetParam().text;
    cmsObj_free(reinterpret_cast<void **>(&o));
}

INSTANTIATE_TEST_SUITE_P(Values, UpstreamByte,
                         ::testing::Values(ByteCase{"isUpstream=1\n", 1}, ByteCase{"isUpstream=0\n", 0},
                                           ByteCase{"isUpstream=255\n", 255}, ByteCase{"isUpstream=256\n", 0},
                                           ByteCase{"isUpstream=x\n", 0}, ByteCase{"isUpstream= 1\n", 0},
                                           ByteCase{"isUpstream=-1\n", 0}, ByteCase{"isUpstream=\n", 0},
                                           ByteCase{"", 0}));

TEST(Store, a_write_keeps_lines_it_does_not_know_after_the_known_fields)
{
    TempStore store;
    store.write("2888", "# set up by hand\nvendor_extra=42\ntraffic_on=false\n\nmark=5\nno equals sign\n"
                        "led_on=true");
    OrnaTrafficMeterObject *o = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &kSingle, 0, reinterpret_cast<void **>(&o)), CMSRET_SUCCESS);
    free(o->traffic_on);
    o->traffic_on = strdup("true");
    free(o->mark);
    o->mark = nullptr;   // a known field set to null loses its line
    o->markStatus = strdup("3");
    ASSERT_EQ(cmsObj_set(o, &kSingle), CMSRET_SUCCESS);
    cmsObj_free(reinterpret_cast<void **>(&o));
    EXPECT_EQ(store.read("2888"),
              "traffic_on=true\nled_on=true\nmarkStatus=3\n# set up by hand\nvendor_extra=42\nno equals sign\n");
}

TEST(Store, a_write_creates_a_missing_object)
{
    TempStore store;
    auto *m = newObject<OperationModeObject>(MDMOID_OPERATION_MODE);
    m->operationMode = strdup("AP");
    EXPECT_FALSE(store.exists("2700"));
    ASSERT_EQ(cmsObj_set(m, nullptr), CMSRET_SUCCESS);
    EXPECT_EQ(store.read("2700"), "operationMode=AP\n");
    cmsObj_free(reinterpret_cast<void **>(&m));
}

TEST(Store, a_write_leaves_no_temporary_file_behind)
{
    TempStore store;
    auto *m = newObject<OperationModeObject>(MDMOID_OPERATION_MODE);
    m->operationMode = strdup("RT");
    for (int i = 0; i < 3; i++) ASSERT_EQ(cmsObj_set(m, &kSingle), CMSRET_SUCCESS);
    cmsObj_free(reinterpret_cast<void **>(&m));
    std::vector<std::string> names;
    DIR *d = opendir(store.dir().c_str());
    while (struct dirent64 *e = readdir64(d))   // 64: the 32-bit call fails on ext4 under qemu
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
    EXPECT_EQ(names, std::vector<std::string>{"2700"});
}

TEST(Store, a_missing_object_fails_silently_and_hands_out_nothing)
{
    TempStore store;
    StderrCapture err;
    void *obj = nullptr;
    EXPECT_EQ(cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &kSingle, 0, &obj), CMSRET_OBJECT_NOT_FOUND);
    EXPECT_EQ(obj, nullptr);
    int marker = 0;
    void *untouched = &marker;
    InstanceIdStack s = row(7);
    EXPECT_EQ(cmsObj_get(MDMOID_IFACE, &s, 0, &untouched), CMSRET_OBJECT_NOT_FOUND);
    EXPECT_EQ(untouched, &marker);
    EXPECT_EQ(err.text(), "");
}

TEST(Store, an_unreadable_object_fails_with_one_line_naming_the_file)
{
    TempStore store;
    ASSERT_EQ(mkdir(store.path("2888").c_str(), 0755), 0);   // a directory where the file should be
    StderrCapture err;
    void *obj = nullptr;
    CmsRet ret = cmsObj_get(MDMOID_ORNA_TRAFFIC_METER, &kSingle, 0, &obj);
    std::string text = err.text();
    EXPECT_NE(ret, CMSRET_SUCCESS);
    EXPECT_NE(ret, CMSRET_OBJECT_NOT_FOUND);
    EXPECT_EQ(obj, nullptr);
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find(store.path("2888")), std::string::npos) << text;
}

TEST(Store, a_write_into_a_missing_store_fails_with_a_line_naming_the_file)
{
    TempStore store;
    std::string gone = store.path("gone");
    setenv("KVARD_MDM_DIR", gone.c_str(), 1);
    auto *m = newObject<OperationModeObject>(MDMOID_OPERATION_MODE);
    m->operationMode = strdup("RT");
    StderrCapture err;
    EXPECT_NE(cmsObj_set(m, &kSingle), CMSRET_SUCCESS);
    std::string text = err.text();
    EXPECT_EQ(countLines(text), 1) << text;
    EXPECT_NE(text.find(gone + "/"), std::string::npos) << text;
    cmsObj_free(reinterpret_cast<void **>(&m));
}

TEST(Store, unknown_object_ids_and_deep_stacks_are_refused)
{
    TempStore store;
    StderrCapture err;
    void *obj = nullptr;
    EXPECT_EQ(cmsObj_get(4242, &kSingle, 0, &obj), CMSRET_INVALID_ARGUMENTS);
    InstanceIdStack deep = row(1);
    deep.currentDepth = 2;
    EXPECT_EQ(cmsObj_get(MDMOID_IFACE, &deep, 0, &obj), CMSRET_INVALID_ARGUMENTS);
    InstanceIdStack zeroRow = row(0);
    EXPECT_EQ(cmsObj_get(MDMOID_IFACE, &zeroRow, 0, &obj), CMSRET_INVALID_ARGUMENTS);
    EXPECT_EQ(obj, nullptr);
    MdmObjectId bogus[2] = {4242, 0};
    EXPECT_EQ(cmsObj_set(bogus, &kSingle), CMSRET_INVALID_ARGUMENTS);
    InstanceIdStack s = EMPTY_INSTANCE_ID_STACK;
    EXPECT_EQ(cmsObj_getNextFlags(4242, &s, OGF_NO_VALUE_UPDATE, &obj), CMSRET_INVALID_ARGUMENTS);
}

TEST(Store, freeing_nothing_is_harmless)
{
    void *obj = nullptr;
    cmsObj_free(&obj);
    cmsObj_free(nullptr);
    EXPECT_EQ(obj, nullptr);
}

// ---- Table walk

TEST(Walk, rows_come_in_numeric_order_skipping_gaps_and_foreign_files)
{
    TempStore store;
    for (int n : {10, 2, 9, 1, 3}) store.write("1152." + std::to_string(n), "ifName=eth" + std::to_string(n) + "\n");
    for (const char *other : {"1152", "11520.1", "115.1", "1152.01", "1152.0", "1152.x", "1152.4294967296",
                              ".1152.5.99.tmp", "1152.-4"})
        store.write(other, "ifName=foreign\n");

    std::vector<std::string> names;
    std::vector<uint32_t> rows;
    InstanceIdStack s = EMPTY_INSTANCE_ID_STACK;
    InterfaceObject *o = nullptr;
    CmsRet ret;
    while ((ret = cmsObj_getNextFlags(MDMOID_IFACE, &s, OGF_NO_VALUE_UPDATE, reinterpret_cast<void **>(&o))) ==
           CMSRET_SUCCESS) {
        EXPECT_EQ(s.currentDepth, 1);
        rows.push_back(s.instance[0]);
        names.push_back(o->ifName);
        cmsObj_free(reinterpret_cast<void **>(&o));
        ASSERT_LT(rows.size(), 10u);
    }
    EXPECT_EQ(ret, CMSRET_NO_MORE_INSTANCES);
    EXPECT_EQ(o, nullptr);
    EXPECT_EQ(rows, (std::vector<uint32_t>{1, 2, 3, 9, 10}));
    EXPECT_EQ(names, (std::vector<std::string>{"eth1", "eth2", "eth3", "eth9", "eth10"}));
    EXPECT_EQ(cmsObj_getNextFlags(MDMOID_IFACE, &s, OGF_NO_VALUE_UPDATE, reinterpret_cast<void **>(&o)),
              CMSRET_NO_MORE_INSTANCES);
}

TEST(Walk, a_walk_resumes_after_the_row_in_the_stack)
{
    TempStore store;
    for (int n : {1, 4, 12}) store.write("1152." + std::to_string(n), "ifName=e\nisUpstream=1\n");
    InstanceIdStack s = row(4);
    InterfaceObject *o = nullptr;
    ASSERT_EQ(cmsObj_getNextFlags(MDMOID_IFACE, &s, 0, reinterpret_cast<void **>(&o)), CMSRET_SUCCESS);
    EXPECT_EQ(s.instance[0], 12u);
    EXPECT_EQ(o->isUpstream, 1);
    cmsObj_free(reinterpret_cast<void **>(&o));
}

TEST(Walk, a_table_without_rows_has_no_instances)
{
    TempStore store;
    store.write("1400", "wanType=DHCP\n");
    InstanceIdStack s = EMPTY_INSTANCE_ID_STACK;
    void *o = nullptr;
    EXPECT_EQ(cmsObj_getNextFlags(MDMOID_IFACE, &s, OGF_NO_VALUE_UPDATE, &o), CMSRET_NO_MORE_INSTANCES);
    EXPECT_EQ(o, nullptr);
    EXPECT_EQ(s.currentDepth, 0);
}

// ---- Atomic replacement

// Two versions of the statistics object whose files differ in every field and
// in length, so that any mix or cut of the two is told apart from both.
void fill(OrnaTrafficMeterStatisticsObject *o, char tag, size_t width)
{
    char **slots = stringSlots(o, offsetof(OrnaTrafficMeterStatisticsObject, start_data_time));
    for (size_t i = 0; i < kStatNames.size(); i++) {
        free(slots[i]);
        std::string v(width, tag);
        v += std::to_string(i) + "\n";
        slots[i] = strdup(v.c_str());
    }
}

// 0 when obj is entirely version tag/width.
int checkVersion(OrnaTrafficMeterStatisticsObject *o)
{
    char **slots = stringSlots(o, offsetof(OrnaTrafficMeterStatisticsObject, start_data_time));
    if (slots[0] == nullptr) return 1;
    char tag = slots[0][0];
    size_t width = tag == 'A' ? 20 : 70;
    for (size_t i = 0; i < kStatNames.size(); i++) {
        std::string v(width, tag);
        v += std::to_string(i) + "\n";
        if (slots[i] == nullptr || v != slots[i]) return 1;
    }
    return 0;
}

TEST(Atomic, concurrent_readers_never_see_a_half_written_object)
{
    TempStore store;
    auto *o = newObject<OrnaTrafficMeterStatisticsObject>(MDMOID_ORNA_TRAFFIC_METER_STATISTICS);
    fill(o, 'A', 20);
    ASSERT_EQ(cmsObj_set(o, &kSingle), CMSRET_SUCCESS);
    cmsObj_free(reinterpret_cast<void **>(&o));

    // Readers and writers deliberately skip the lock: with it, a torn write
    // could never be seen, and the rename is what is under test here.
    const int kRounds = 300;
    std::vector<pid_t> kids;
    for (int w = 0; w < 2; w++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            auto *x = newObject<OrnaTrafficMeterStatisticsObject>(MDMOID_ORNA_TRAFFIC_METER_STATISTICS);
            int bad = 0;
            for (int i = 0; i < kRounds; i++) {
                bool a = (i + w) % 2 == 0;
                fill(x, a ? 'A' : 'B', a ? 20 : 70);
                bad += cmsObj_set(x, &kSingle) != CMSRET_SUCCESS;
            }
            _exit(bad != 0 ? 1 : 0);
        }
        kids.push_back(pid);
    }
    for (int r = 0; r < 2; r++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int bad = 0;
            for (int i = 0; i < kRounds; i++) {
                OrnaTrafficMeterStatisticsObject *x = nullptr;
                if (cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &kSingle, 0, reinterpret_cast<void **>(&x)) !=
                    CMSRET_SUCCESS) {
                    bad++;
                    continue;
                }
                bad += checkVersion(x);
                cmsObj_free(reinterpret_cast<void **>(&x));
            }
            _exit(bad != 0 ? 2 : 0);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "child " << pid << " status " << status << " (1: a write failed, 2: a read saw a torn object)";
    }
}

}  // namespace
