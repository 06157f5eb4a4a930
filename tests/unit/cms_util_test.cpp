// Logging, messaging, data-model start-up and the string helpers of the CMS stand-in.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/cms/cms.h"
#include "tests/unit/cms_tempstore.h"

namespace {

// ---- Logging

struct LogCase {
    const char *name;       // given to cmsLog_initWithName; null: never initialised
    int32_t setLevel;       // -1: level never set
    int32_t level;
    const char *message;
    const char *expected;   // the whole stderr output
};

class LogLine : public ::testing::TestWithParam<LogCase> {};

TEST_P(LogLine, is_one_line_with_name_level_function_and_line_or_nothing)
{
    const LogCase &c = GetParam();
    if (c.name != nullptr) cmsLog_initWithName(8802, c.name);
    if (c.setLevel >= 0) cmsLog_setLevel(c.setLevel);
    StderrCapture err;
    log_log(c.level, "bcm_dm_lock", 27, "%s", c.message);
    std::string text = err.text();
    cmsLog_cleanup();
    EXPECT_EQ(text, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LogLine,
    ::testing::Values(
        LogCase{"kvard", 5, 3, "could not get lock, ret=9007", "kvard: 3: bcm_dm_lock:27: could not get lock, ret=9007\n"},
        LogCase{"/usr/sbin/kvard", 5, 5, "ends in a line feed\n",
                "/usr/sbin/kvard: 5: bcm_dm_lock:27: ends in a line feed\n"},
        LogCase{"kvard", 5, 6, "above the level", ""},
        LogCase{"kvard", 3, 5, "debug while only errors are wanted", ""},
        LogCase{nullptr, -1, 3, "before any set-up", "cms: 3: bcm_dm_lock:27: before any set-up\n"},
        LogCase{nullptr, -1, 5, "default level is 3", ""},
        LogCase{"kvard", 5, 3, "", "kvard: 3: bcm_dm_lock:27: \n"}));

TEST(Log, formats_its_arguments_and_keeps_a_long_message_whole)
{
    cmsLog_initWithName(8802, "kvard");
    cmsLog_setLevel(5);
    std::string big(3000, 'x');
    StderrCapture err;
    log_log(3, "main", 9, "could not get lock, ret=%d ,%s %d\n", -1, "bcm_dm_lock", 31);
    log_log(5, "f", 1, "%s|", big.c_str());
    std::string text = err.text();
    cmsLog_cleanup();
    EXPECT_EQ(text, "kvard: 3: main:9: could not get lock, ret=-1 ,bcm_dm_lock 31\n"
                    "kvard: 5: f:1: " + big + "|\n");
}

TEST(Log, cleanup_returns_to_the_default_name_and_level)
{
    cmsLog_initWithName(8802, "kvard");
    cmsLog_setLevel(7);
    cmsLog_cleanup();
    StderrCapture err;
    log_log(5, "f", 1, "dropped");
    log_log(3, "f", 2, "kept");
    EXPECT_EQ(err.text(), "cms: 3: f:2: kept\n");
}

// ---- Messaging

TEST(Msg, hands_out_a_handle_and_cleanup_takes_it_back)
{
    unsetenv("KVARD_MSG_FAIL");
    void *handle = nullptr;
    EXPECT_EQ(cmsMsg_initWithFlags(8802, 0, &handle), CMSRET_SUCCESS);
    EXPECT_NE(handle, nullptr);
    cmsMsg_cleanup(&handle);
    EXPECT_EQ(handle, nullptr);
}

struct FaultCase {
    const char *env;
    CmsRet result;
};

class MsgFault : public ::testing::TestWithParam<FaultCase> {};

TEST_P(MsgFault, the_injected_result_comes_back_with_no_handle)
{
    setenv("KVARD_MSG_FAIL", GetParam().env, 1);
    int marker = 0;
    void *handle = &marker;
    CmsRet ret = cmsMsg_initWithFlags(8802, 0, &handle);
    unsetenv("KVARD_MSG_FAIL");
    EXPECT_EQ(ret, GetParam().result);
    if (ret == CMSRET_SUCCESS)
        EXPECT_NE(handle, nullptr);
    else
        EXPECT_EQ(handle, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Values, MsgFault,
                         ::testing::Values(FaultCase{"9002", 9002}, FaultCase{"1", 1}, FaultCase{"-3", -3},
                                           FaultCase{"0", CMSRET_SUCCESS}, FaultCase{"", CMSRET_SUCCESS},
                                           FaultCase{"junk", CMSRET_SUCCESS}));

// ---- Data-model start-up

TEST(Mdm, creates_a_missing_store_with_its_parents)
{
    TempStore store;
    std::string deep = store.path("a/b/mdm");
    setenv("KVARD_MDM_DIR", deep.c_str(), 1);
    int32_t shm = 0;
    EXPECT_EQ(cmsMdm_initWithAcc(8802, 0, nullptr, &shm), CMSRET_SUCCESS);
    struct stat st;
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(cmsMdm_initWithAcc(8802, 0, nullptr, &shm), CMSRET_SUCCESS) << "an existing store is fine";
}

TEST(Mdm, fails_with_a_line_naming_a_store_that_cannot_be_created)
{
    TempStore store;
    store.write("plainfile", "not a directory\n");
    for (std::string bad : {store.path("plainfile"), store.path("plainfile/mdm")}) {
        setenv("KVARD_MDM_DIR", bad.c_str(), 1);
        StderrCapture err;
        int32_t shm = 0;
        EXPECT_NE(cmsMdm_initWithAcc(8802, 0, nullptr, &shm), CMSRET_SUCCESS) << bad;
        std::string text = err.text();
        EXPECT_EQ(countLines(text), 1) << text;
        EXPECT_NE(text.find(bad), std::string::npos) << text;
    }
}

TEST(Mdm, uses_the_default_store_when_the_variable_is_empty)
{
    // Only the name is checked: the default directory may not be writable here.
    TempStore store;
    setenv("KVARD_MDM_DIR", "", 1);
    StderrCapture err;
    cmsLck_dumpInfo();
    EXPECT_NE(err.text().find("/var/lib/kvard/mdm/.lock"), std::string::npos);
}

// ---- Strings

struct NcpyCase {
    const char *src;
    int32_t dlen;
    const char *expected;
};

class Strncpy : public ::testing::TestWithParam<NcpyCase> {};

TEST_P(Strncpy, always_ends_within_the_buffer)
{
    char buf[16];
    memset(buf, '#', sizeof buf);
    const NcpyCase &c = GetParam();
    cmsUtl_strncpy(buf, c.src, c.dlen);
    EXPECT_STREQ(buf, c.expected);
    for (int i = c.dlen; i < static_cast<int>(sizeof buf); i++) EXPECT_EQ(buf[i], '#') << "byte " << i;
}

INSTANTIATE_TEST_SUITE_P(Cases, Strncpy,
                         ::testing::Values(NcpyCase{"RT", 16, "RT"}, NcpyCase{"hello", 6, "hello"},
                                           NcpyCase{"hello", 5, "hell"}, NcpyCase{"hello", 1, ""},
                                           NcpyCase{"", 4, ""}, NcpyCase{nullptr, 4, ""}));

TEST(Strncpy, a_buffer_of_no_size_is_left_alone)
{
    char buf[4] = {'a', 'b', 'c', '\0'};
    cmsUtl_strncpy(buf, "xyz", 0);
    cmsUtl_strncpy(buf, "xyz", -1);
    EXPECT_STREQ(buf, "abc");
}

TEST(Strings, null_compares_as_the_empty_string)
{
    EXPECT_EQ(cmsUtl_strcmp(nullptr, ""), 0);
    EXPECT_EQ(cmsUtl_strcmp("", nullptr), 0);
    EXPECT_EQ(cmsUtl_strcmp(nullptr, nullptr), 0);
    EXPECT_LT(cmsUtl_strcmp(nullptr, "RT"), 0);
    EXPECT_GT(cmsUtl_strcmp("RT", nullptr), 0);
    EXPECT_EQ(cmsUtl_strcmp("DHCP", "DHCP"), 0);
    EXPECT_NE(cmsUtl_strcmp("dhcp", "DHCP"), 0);
    EXPECT_EQ(cmsUtl_strlen(nullptr), 0);
    EXPECT_EQ(cmsUtl_strlen("ppp0.2"), 6);
}

TEST(Strings, strdup_copies_and_passes_null_through)
{
    EXPECT_EQ(cmsMem_strdup(nullptr), nullptr);
    const char text[] = "Thu Jan  1 00:00:00 1970\n";
    char *copy = cmsMem_strdup(text);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    cmsMem_free(copy);
    cmsMem_free(nullptr);
    char buf[8];
    cmsUtl_strcpy(buf, "ppp0");
    EXPECT_STREQ(buf, "ppp0");
}

}  // namespace
