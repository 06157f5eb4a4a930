// The side files, byte for byte. Their fixed paths are redirected into a
// temporary directory at link time (fopen is wrapped).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "core/tmcore.h"
#include "history/tmsidefile.h"

namespace {
std::string sideDir;
}

extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode)
{
    const char *name = strrchr(path, '/');
    if (!sideDir.empty() && name && (strncmp(path, "/data/", 6) == 0 || strncmp(path, "/tmp/tm", 7) == 0))
        return __real_fopen((sideDir + name).c_str(), mode);
    return __real_fopen(path, mode);
}

namespace {

class SideFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/kvard-side-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        sideDir = tmpl;
        memset(&tmCore, 0, sizeof tmCore);
        debugFlag = 0;
    }
    void TearDown() override
    {
        std::string dir = sideDir;
        sideDir.clear();
        ASSERT_EQ(system(("rm -rf " + dir).c_str()), 0);
    }
    std::string Path(const char *name) { return sideDir + "/" + name; }
    std::string Read(const char *name)
    {
        std::ifstream in(Path(name), std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    void Write(const char *name, const std::string &bytes) { std::ofstream(Path(name), std::ios::binary) << bytes; }
};

TEST_F(SideFiles, the_manual_reset_time_is_four_little_endian_bytes)
{
    struct Case {
        int32_t value;
        std::string bytes;
    } cases[] = {
        {0, std::string(4, '\0')},
        {1700000000, std::string("\x00\xF1\x53\x65", 4)},
        {-2, std::string("\xFE\xFF\xFF\xFF", 4)},
    };
    for (const Case &c : cases) {
        tmCore.exportData.manualResetTime = c.value;
        EXPECT_EQ(WriteManualResetTimeToFile(), 0);
        EXPECT_EQ(Read("tmrestarttime.data"), c.bytes);
        EXPECT_EQ(tmCore.manualResetTime.time, c.value);
        tmCore.manualResetTime.time = 12345;
        EXPECT_EQ(GetManualResetTimeFromFile(), 1);
        EXPECT_EQ(tmCore.manualResetTime.time, c.value);
    }
}

TEST_F(SideFiles, a_missing_or_short_reset_file_reads_as_nothing_and_says_so)
{
    for (const char *content : {(const char *)nullptr, "", "\x01\x02\x03"}) {
        unlink(Path("tmrestarttime.data").c_str());
        if (content) Write("tmrestarttime.data", content);
        tmCore.manualResetTime.time = 777;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(GetManualResetTimeFromFile(), 0);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Read File fail.\n");
        EXPECT_EQ(tmCore.manualResetTime.time, 777) << "the value stays as it was";
    }
}

TEST_F(SideFiles, an_unwritable_reset_file_keeps_the_old_value)
{
    sideDir += "/missing-dir";
    tmCore.manualResetTime.time = 5;
    tmCore.exportData.manualResetTime = 9;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(WriteManualResetTimeToFile(), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Write to File fail.\n");
    EXPECT_EQ(tmCore.manualResetTime.time, 5);
    sideDir.resize(sideDir.size() - strlen("/missing-dir"));
}

TEST_F(SideFiles, the_warn_file_holds_disconnect_limit_warning_digits)
{
    struct Case {
        int32_t d, l, w;
        const char *bytes;
    } cases[] = {{0, 0, 0, "000"}, {0, 1, 1, "011"}, {1, 1, 1, "111"}, {0, 0, 1, "001"}, {1, 0, 1, "101"}};
    for (const Case &c : cases) {
        TmWriteWarnFile(c.d, c.l, c.w);
        EXPECT_EQ(Read("tmwarn.data"), c.bytes);
        int32_t d = 9, l = 9, w = 9;
        EXPECT_EQ(TmReadWarnFile(&d, &l, &w), 1);
        EXPECT_EQ(d, c.d);
        EXPECT_EQ(l, c.l);
        EXPECT_EQ(w, c.w);
    }
}

TEST_F(SideFiles, reading_the_warn_file_edge_cases)
{
    struct Case {
        const char *content;  // nullptr: no file
        int result;
        int32_t d, l, w;      // from outputs that start at 7
    } cases[] = {
        {nullptr, 0, 0, 0, 0},
        {"", 1, 7, 7, 7},
        {"01", 1, 7, 7, 7},
        {"010", 1, 0, 1, 0},
        {"0109", 1, 0, 1, 0},
        {"a0 ", 1, 'a' - '0', 0, ' ' - '0'},
    };
    for (const Case &c : cases) {
        unlink(Path("tmwarn.data").c_str());
        if (c.content) Write("tmwarn.data", c.content);
        int32_t d = 7, l = 7, w = 7;
        EXPECT_EQ(TmReadWarnFile(&d, &l, &w), c.result) << (c.content ? c.content : "(none)");
        EXPECT_EQ(d, c.d);
        EXPECT_EQ(l, c.l);
        EXPECT_EQ(w, c.w);
    }
}

TEST_F(SideFiles, the_limit_file_has_flags_time_and_elapsed_on_three_lines)
{
    struct Case {
        uint32_t l, w, d;
        int32_t time, elapsed;
        const char *text;
    } cases[] = {
        {1, 1, 0, 1700000000, 86400, "lw\n1700000000\n86400\n"},
        {1, 1, 1, 1700000060, 86460, "lwd\n1700000060\n86460\n"},
        {0, 1, 0, 5, 0, "w\n5\n0\n"},
        {1, 0, 1, -1, -1, "ld\n4294967295\n4294967295\n"},
        {0, 0, 0, 0, 0, "\n0\n0\n"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(TmWriteLimitFile(c.l, c.w, c.d, c.time, c.elapsed), 0);
        EXPECT_EQ(Read("tmlimit.data"), c.text);
    }
}

}  // namespace
