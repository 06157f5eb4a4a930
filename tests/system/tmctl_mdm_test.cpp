// tmctl mdm get/set against a temporary store, checked through the store's
// files (the format of docs/store.md) and the tool's output.
#include <fcntl.h>
#include <ftw.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/system/tmctl_run.h"

namespace {

class TmctlMdm : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/kvard-tmctl-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        top_ = tmpl;
        store_ = top_ + "/mdm";
        ASSERT_EQ(mkdir(store_.c_str(), 0755), 0);
    }
    void TearDown() override
    {
        nftw(top_.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
    }
    ToolRun tmctl(const std::vector<std::string> &args, std::vector<std::string> env = {})
    {
        env.push_back("KVARD_MDM_DIR=" + store_);
        return runTmctl(args, env);
    }
    void write(const std::string &name, const std::string &text) { std::ofstream(store_ + "/" + name) << text; }
    std::string read(const std::string &name)
    {
        std::ifstream in(store_ + "/" + name);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string top_, store_;
};

TEST_F(TmctlMdm, set_creates_the_object_and_get_prints_it_in_object_order)
{
    ToolRun set = tmctl({"mdm", "set", "MDMOID_ORNA_TRAFFIC_METER", "markStatus=0", "day=31", "traffic_on=true",
                         "counter=", "contrl_type=Download only"});
    ASSERT_EQ(set.exit, 0) << set.err;
    EXPECT_EQ(set.out, "");
    EXPECT_EQ(read("2888"), "traffic_on=true\ncontrl_type=Download only\nday=31\ncounter=\nmarkStatus=0\n");
    ToolRun get = tmctl({"mdm", "get", "2888"});
    EXPECT_EQ(get.exit, 0) << get.err;
    EXPECT_EQ(get.out, "traffic_on=true\ncontrl_type=Download only\nday=31\ncounter=\nmarkStatus=0\n");
}

TEST_F(TmctlMdm, values_travel_in_the_stores_escaped_form)
{
    ToolRun set = tmctl({"mdm", "set", "2889", "warningTime=Thu Jan  1 00:00:00 1970\\n", "volume_left= 4 G 0 M 1 K ",
                         "limitedTime=C:\\\\x"});
    ASSERT_EQ(set.exit, 0) << set.err;
    EXPECT_EQ(read("2889"), "volume_left= 4 G 0 M 1 K \nwarningTime=Thu Jan  1 00:00:00 1970\\n\nlimitedTime=C:\\\\x\n");
    ToolRun get = tmctl({"mdm", "get", "0xB49"});
    EXPECT_EQ(get.out, read("2889"));
}

TEST_F(TmctlMdm, a_bare_name_makes_the_field_null_and_other_lines_stay)
{
    write("2888", "vendor=1\ntraffic_on=true\nmark=5\n");
    ToolRun set = tmctl({"mdm", "set", "2888", "mark", "led_on=false"});
    ASSERT_EQ(set.exit, 0) << set.err;
    EXPECT_EQ(read("2888"), "traffic_on=true\nled_on=false\nvendor=1\n");
}

TEST_F(TmctlMdm, table_rows_are_addressed_by_number_and_the_byte_is_decimal)
{
    ToolRun set = tmctl({"mdm", "set", "MDMOID_IFACE.10", "ifName=eth0", "isUpstream=1"});
    ASSERT_EQ(set.exit, 0) << set.err;
    EXPECT_EQ(read("1152.10"), "ifName=eth0\nisUpstream=1\n");
    ToolRun get = tmctl({"mdm", "get", "1152.10"});
    EXPECT_EQ(get.out, "ifName=eth0\nisUpstream=1\n");
}

TEST_F(TmctlMdm, set_creates_a_missing_store_directory)
{
    std::string deeper = top_ + "/new/mdm";
    ToolRun set = runTmctl({"mdm", "set", "2700", "operationMode=RT"}, {"KVARD_MDM_DIR=" + deeper});
    ASSERT_EQ(set.exit, 0) << set.err;
    std::ifstream in(deeper + "/2700");
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "operationMode=RT");
}

struct ErrorCase {
    std::vector<std::string> args;
    int exit;
    const char *named;   // what the one error line must name
};

class TmctlMdmError : public TmctlMdm, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(TmctlMdmError, fails_with_one_line_naming_the_culprit_and_changes_nothing)
{
    write("2888", "traffic_on=true\n");
    ToolRun r = tmctl(GetParam().args);
    EXPECT_EQ(r.exit, GetParam().exit) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lineCount(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(GetParam().named), std::string::npos) << r.err;
    EXPECT_EQ(read("2888"), "traffic_on=true\n");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TmctlMdmError,
    ::testing::Values(ErrorCase{{"mdm", "get", "9999"}, 2, "9999"},
                      ErrorCase{{"mdm", "get", "MDMOID_NOTHING"}, 2, "MDMOID_NOTHING"},
                      ErrorCase{{"mdm", "set", "2888", "traffic_on=false", "volume=5"}, 2, "volume"},
                      ErrorCase{{"mdm", "set", "1152.1", "isUpstream=yes"}, 2, "isUpstream"},
                      ErrorCase{{"mdm", "set", "1152.1", "isUpstream"}, 2, "isUpstream"},
                      ErrorCase{{"mdm", "get", "1152.0"}, 2, "1152.0"},
                      ErrorCase{{"mdm", "get", "1152.x"}, 2, "1152.x"},
                      ErrorCase{{"mdm", "get", "2889"}, 1, "2889"},
                      ErrorCase{{"mdm", "get"}, 2, "OID"},
                      ErrorCase{{"mdm", "drop", "2888"}, 2, "drop"}));

TEST_F(TmctlMdm, a_held_store_lock_makes_it_wait_then_fail)
{
    write("2888", "traffic_on=true\n");
    int fd = open((store_ + "/.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    ToolRun get = tmctl({"mdm", "get", "2888"}, {"KVARD_MDM_LOCK_MAX_MS=200"});
    ToolRun set = tmctl({"mdm", "set", "2888", "traffic_on=false"}, {"KVARD_MDM_LOCK_MAX_MS=200"});
    flock(fd, LOCK_UN);
    close(fd);
    for (const ToolRun &r : {get, set}) {
        EXPECT_EQ(r.exit, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(lineCount(r.err), 1) << r.err;
        EXPECT_NE(r.err.find(store_ + "/.lock"), std::string::npos) << r.err;
        EXPECT_GE(r.ms, 200);
    }
    EXPECT_EQ(read("2888"), "traffic_on=true\n");
    ToolRun after = tmctl({"mdm", "set", "2888", "traffic_on=false"});
    EXPECT_EQ(after.exit, 0) << after.err;
    EXPECT_EQ(read("2888"), "traffic_on=false\n");
}

}  // namespace
