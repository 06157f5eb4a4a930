// The CMS stand-in's store and lock: file format, kept lines, atomic replacement, lock timeout.
#include <sys/wait.h>

#include <chrono>

#include "platform/cms/cms.h"
#include "tests/unit/cms_tempstore.h"

namespace {

const InstanceIdStack kSingle = EMPTY_INSTANCE_ID_STACK;
using Stats = OrnaTrafficMeterStatisticsObject;
// Every field but the interface byte is a char* behind the id, in object order.
const size_t kFirst = offsetof(Stats, start_data_time);
char **slots(void *obj) { return reinterpret_cast<char **>(static_cast<char *>(obj) + kFirst); }

TEST(Store, every_object_is_written_in_object_order_and_read_back)
{
    const struct { MdmObjectId oid; size_t size; const char *names; } cases[] = {
        {MDMOID_ORNA_TRAFFIC_METER, sizeof(OrnaTrafficMeterObject),
         "traffic_on volcontrl contrl_type volume_monthly_limit round_up_volume timecontrl conntime_monthly_limit "
         "day hour min ampm_sel counter mark led_on block_on markStatus"},
        {MDMOID_ORNA_TRAFFIC_METER_STATISTICS, sizeof(Stats),
         "start_data_time current_data_time volume_left today_conntime today_upload today_download today_total "
         "yesterday_conntime yesterday_upload yesterday_download yesterday_total thisweek_conntime thisweek_upload "
         "thisweek_download thisweek_total thisweek_uploadavg thisweek_downloadavg thisweek_totalavg "
         "thismonth_conntime thismonth_upload thismonth_download thismonth_total thismonth_uploadavg "
         "thismonth_downloadavg thismonth_totalavg lastmonth_conntime lastmonth_upload lastmonth_download "
         "lastmonth_total lastmonth_uploadavg lastmonth_downloadavg lastmonth_totalavg passedDay periodDay dataUsed "
         "dataLimited connTimeUsed connTimeLimited warningTime limitedTime"},
        {MDMOID_DEV2_TIME, sizeof(Dev2TimeObject), "status localTimeZone"},
        {MDMOID_OPERATION_MODE, sizeof(OperationModeObject), "operationMode"},
        {MDMOID_WAN_CONNECTION, sizeof(WanConnectionObject), "wanType"},
        {MDMOID_IFACE, sizeof(InterfaceObject), "ifName"}};
    for (const auto &c : cases) {
        TempStore store;
        void *obj = calloc(1, c.size), *back = nullptr;
        *static_cast<MdmObjectId *>(obj) = c.oid;
        std::istringstream names(c.names);
        std::string name, file;
        size_t n = 0;
        for (; names >> name; n++) file += name + "=" + (slots(obj)[n] = strdup(std::to_string(n).c_str())) + "\n";
        InstanceIdStack at = {c.oid == MDMOID_IFACE, {10}};   // row 10 of the interface table
        if (at.currentDepth == 1) static_cast<InterfaceObject *>(obj)->isUpstream = 1;
        ASSERT_EQ(cmsObj_set(obj, &at), CMSRET_SUCCESS);
        EXPECT_EQ(store.read(std::to_string(c.oid) + (at.currentDepth ? ".10" : "")),
                  file + (at.currentDepth ? "isUpstream=1\n" : ""));
        ASSERT_EQ(cmsObj_get(c.oid, &at, 0, &back), CMSRET_SUCCESS);
        for (size_t i = 0; i < n; i++) EXPECT_STREQ(slots(back)[i], slots(obj)[i]) << c.oid;
        EXPECT_TRUE(at.currentDepth == 0 || static_cast<InterfaceObject *>(back)->isUpstream == 1);
        cmsObj_free(&back);
        cmsObj_free(&obj);
    }
}

// Null (no line) and empty (name=) stay apart, "\n" and "\\" are escapes and
// other backslashes read as written, and lines the writer does not know stay.
TEST(Store, a_hand_written_file_is_read_and_rewritten_keeping_what_it_does_not_know)
{
    TempStore store;
    store.write("2889", "# by hand\nvolume_left= a=b \\\\n\\\\\nvendor_extra=42\nwarningTime=Thu Jan  1 1970\\n\n"
                        "no equals sign\nlimitedTime=a\\tb\\\ndataUsed=\n\npassedDay=5");
    Stats *s = nullptr;
    ASSERT_EQ(cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &kSingle, 0, reinterpret_cast<void **>(&s)), 0);
    EXPECT_STREQ(s->volume_left, " a=b \\n\\");
    EXPECT_STREQ(s->warningTime, "Thu Jan  1 1970\n");
    EXPECT_STREQ(s->limitedTime, "a\\tb\\");
    free(s->passedDay);
    s->passedDay = nullptr;
    ASSERT_EQ(cmsObj_set(s, &kSingle), CMSRET_SUCCESS);
    cmsObj_free(reinterpret_cast<void **>(&s));
    EXPECT_EQ(store.read("2889"), "volume_left= a=b \\\\n\\\\\ndataUsed=\nwarningTime=Thu Jan  1 1970\\n\n"
                                  "limitedTime=a\\\\tb\\\\\n# by hand\nvendor_extra=42\nno equals sign\n");
}

// Four processes write two versions that differ in every line and in length and check that each read is
// whole. None takes the lock: only the write's rename keeps them from a torn file.
TEST(Store, concurrent_readers_never_see_a_half_written_object)
{
    TempStore store;
    auto write = [](int v) {
        void *o = calloc(1, sizeof(Stats));
        *static_cast<MdmObjectId *>(o) = MDMOID_ORNA_TRAFFIC_METER_STATISTICS;
        for (int i = 0; i < 40; i++) slots(o)[i] = strdup(std::string(v ? 70 : 20, "AB"[v]).c_str());
        CmsRet ret = cmsObj_set(o, &kSingle);
        cmsObj_free(&o);
        return ret == CMSRET_SUCCESS;
    };
    pid_t kids[4];
    for (int k = 0; k < 4; k++) {
        if ((kids[k] = fork()) != 0) continue;
        int bad = 0;
        for (int i = 0; i < 300; i++) {
            void *o = nullptr;
            bad += !write((i + k) % 2) || cmsObj_get(MDMOID_ORNA_TRAFFIC_METER_STATISTICS, &kSingle, 0, &o) != 0;
            std::string first = o != nullptr && slots(o)[0] != nullptr ? slots(o)[0] : "";
            bad += first.size() != (first[0] == 'A' ? 20u : 70u);
            for (int f = 0; o != nullptr && f < 40; f++) bad += slots(o)[f] == nullptr || first != slots(o)[f];
            cmsObj_free(&o);
        }
        _exit(bad != 0);
    }
    for (pid_t pid : kids) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0) << "a writer failed or a reader saw a torn object";
    }
}

std::string WanType()
{
    WanConnectionObject *w = nullptr;
    if (cmsObj_get(MDMOID_WAN_CONNECTION, &kSingle, 0, reinterpret_cast<void **>(&w)) != CMSRET_SUCCESS) return "(none)";
    std::string type = w->wanType != nullptr ? w->wanType : "(null)";
    cmsObj_free(reinterpret_cast<void **>(&w));
    return type;
}

std::vector<uint32_t> Rows()
{
    std::vector<uint32_t> rows;
    InstanceIdStack at = EMPTY_INSTANCE_ID_STACK;
    InterfaceObject *row = nullptr;
    while (cmsObj_getNextFlags(MDMOID_IFACE, &at, 0, reinterpret_cast<void **>(&row)) == CMSRET_SUCCESS) {
        rows.push_back(at.instance[0]);
        cmsObj_free(reinterpret_cast<void **>(&row));
    }
    return rows;
}

// Reads are answered from memory while a file is unchanged; every way another
// writer can change it shows at the next read: a rewrite in place of the same
// size within the same tick of the file clock as the read before it, the same
// once the file had settled, a replacement by rename, a removal. Rows of a
// table come and go the same way.
TEST(Store, another_writers_change_is_seen_at_the_next_read)
{
    const struct { const char *how; bool settle; } cases[] = {
        {"in place, at once", false}, {"in place, after a pause", true}, {"rename", false}, {"rename", true},
        {"remove", true}};
    for (const auto &c : cases) {
        TempStore store;
        store.write("1400", "wanType=DHCP\n");
        if (c.settle) usleep(120 * 1000);
        ASSERT_EQ(WanType(), "DHCP");
        ASSERT_EQ(WanType(), "DHCP") << "read again unchanged";
        if (c.settle) usleep(120 * 1000);
        std::string how = c.how;
        if (how == "rename") {
            store.write(".new", "wanType=PPTP\n");
            ASSERT_EQ(rename(store.path(".new").c_str(), store.path("1400").c_str()), 0);
        } else if (how == "remove") {
            ASSERT_EQ(unlink(store.path("1400").c_str()), 0);
        } else {
            store.write("1400", "wanType=PPTP\n");
        }
        EXPECT_EQ(WanType(), how == "remove" ? "(none)" : "PPTP") << how << (c.settle ? ", settled" : "");
    }

    TempStore store;
    store.write("1152.2", "ifName=eth0\n");
    usleep(120 * 1000);
    EXPECT_EQ(Rows(), std::vector<uint32_t>({2}));
    EXPECT_EQ(Rows(), std::vector<uint32_t>({2}));
    store.write("1152.10", "ifName=eth4\n");
    EXPECT_EQ(Rows(), std::vector<uint32_t>({2, 10}));
    usleep(120 * 1000);
    EXPECT_EQ(Rows(), std::vector<uint32_t>({2, 10}));
    ASSERT_EQ(unlink(store.path("1152.2").c_str()), 0);
    EXPECT_EQ(Rows(), std::vector<uint32_t>({10}));
}

// Under one hold of the lock a write is read back as written, and the lines it
// kept are those of the file as it stood when the hold began.
TEST(Store, within_one_hold_a_read_sees_the_write_before_it)
{
    TempStore store;
    store.write("1400", "wanType=DHCP\nvendor=1\n");
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("test", 1000), CMSRET_SUCCESS);
    ASSERT_EQ(WanType(), "DHCP");
    WanConnectionObject w = {MDMOID_WAN_CONNECTION, const_cast<char *>("Static")};
    ASSERT_EQ(cmsObj_set(&w, &kSingle), CMSRET_SUCCESS);
    EXPECT_EQ(WanType(), "Static");
    w.wanType = const_cast<char *>("PPPoE");
    ASSERT_EQ(cmsObj_set(&w, &kSingle), CMSRET_SUCCESS);
    cmsLck_releaseLockTraced("test");
    EXPECT_EQ(store.read("1400"), "wanType=PPPoE\nvendor=1\n");
    EXPECT_EQ(WanType(), "PPPoE");
}

// A child of a fork does not share its parent's hold: it competes for the lock
// like any other process, and cannot release the parent's.
TEST(Lock, a_forked_child_does_not_share_its_parents_hold)
{
    TempStore store;
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("parent", 1000), CMSRET_SUCCESS);
    pid_t child = fork();
    if (child == 0) {
        bool timedOut = cmsLck_acquireLockWithTimeoutTraced("child", 50) == CMSRET_TIMED_OUT;
        _exit(timedOut ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the child got the lock its parent holds";
    cmsLck_releaseLockTraced("parent");
    child = fork();
    if (child == 0) _exit(cmsLck_acquireLockWithTimeoutTraced("child", 1000) == CMSRET_SUCCESS ? 0 : 1);
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the child did not get the lock its parent released";
}

TEST(Lock, a_lock_held_by_another_process_times_out_after_the_given_milliseconds)
{
    TempStore store;
    int up[2];
    ASSERT_EQ(pipe(up), 0);
    pid_t holder = fork();
    if (holder == 0) {   // holds the lock for 1.5 s
        char held = cmsLck_acquireLockWithTimeoutTraced("holder", 0) == CMSRET_SUCCESS;
        if (write(up[1], &held, 1) == 1 && held) usleep(1500 * 1000);
        _exit(0);
    }
    char held = 0;
    ASSERT_TRUE(read(up[0], &held, 1) == 1 && held);
    // The cap from KVARD_MDM_LOCK_MAX_MS shortens a wait but never lengthens it.
    const struct { uint32_t timeoutMs; const char *cap; long expectMs; } cases[] = {
        {0, "", 0}, {150, "", 150}, {30000, "100", 100}, {50, "5000", 50}};
    for (const auto &c : cases) {
        setenv("KVARD_MDM_LOCK_MAX_MS", c.cap, 1);
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(cmsLck_acquireLockWithTimeoutTraced("waiter", c.timeoutMs), CMSRET_TIMED_OUT) << c.timeoutMs;
        long took = (std::chrono::steady_clock::now() - t0) / std::chrono::milliseconds(1);
        EXPECT_GE(took, c.expectMs);
        EXPECT_LT(took, c.expectMs + 250);
    }
    ASSERT_EQ(cmsLck_acquireLockWithTimeoutTraced("waiter", 5000), CMSRET_SUCCESS);
    cmsLck_releaseLockTraced("waiter");
    waitpid(holder, nullptr, 0);
}

}  // namespace
