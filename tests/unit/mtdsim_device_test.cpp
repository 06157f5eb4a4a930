// The emulated NAND through the device path with libmtdsim preloaded; the chip's geometry is set in mtdsim.cmake.
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <fstream>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kPage = 2048, kBlock = 4 * kPage, kSize = 8 * kBlock;
const Bytes kBlank(kPage, 0xFF), kData(kPage, 0x5A);

// The errno of an operation, 0 for success.
int Program(int fd, uint32_t at, const Bytes &b) { return pwrite(fd, b.data(), b.size(), at) < 0 ? errno : 0; }
int Erase(int fd, erase_info_user e) { return ioctl(fd, MEMERASE, &e) == 0 ? 0 : errno; }

class Nand : public ::testing::Test {
protected:
    char dir[32] = "/tmp/mtdsim-test-XXXXXX";
    int images = 0;
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(dir), nullptr);
        for (const char *v : {"MTDSIM_BADBLOCKS", "MTDSIM_FAIL_AFTER", "MTDSIM_CUT_AFTER"}) unsetenv(v);
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0); }
    // The device on a new image (so counts start over), with every page programmed to fill if given.
    int Open(int fill = -1)
    {
        setenv("MTDSIM_IMAGE", (dir + ("/" + std::to_string(images++))).c_str(), 1);
        if (fill >= 0) std::ofstream(getenv("MTDSIM_IMAGE")) << std::string(kSize, static_cast<char>(fill));
        return open("/dev/mtd0", O_RDWR);
    }
    static Bytes Image(off_t from = 0, size_t n = kSize)   // the image file itself, read past the library
    {
        Bytes b(n);
        std::ifstream(getenv("MTDSIM_IMAGE")).seekg(from).read(reinterpret_cast<char *>(b.data()), n);
        return b;
    }
};

// An erase takes one whole block at its start, a program one whole page at its
// start and only once until its block is erased again.
TEST_F(Nand, EraseAndProgramTakeExactlyOneAlignedUnit)
{
    const struct { bool erase; uint32_t at, length; int error; } cases[] = {
        {true, 0, kBlock, 0},         {true, 7 * kBlock, kBlock, 0},      {true, kPage, kBlock, EINVAL},
        {true, kBlock, kPage, EINVAL}, {true, kBlock, 2 * kBlock, EINVAL}, {true, kSize, kBlock, EINVAL},
        {false, 0, kPage, 0},         {false, kSize - kPage, kPage, 0},   {false, 1, kPage, EINVAL},
        {false, 0, kPage - 1, EINVAL}, {false, 0, kPage + 1, EINVAL},     {false, kSize, kPage, ENOSPC}};
    for (const auto &c : cases) {
        int fd = Open(c.erase ? 0x00 : -1);
        Bytes want(kSize, c.erase ? 0x00 : 0xFF), data(c.length, c.erase ? 0xFF : 0x5A);
        EXPECT_EQ(c.erase ? Erase(fd, {c.at, c.length}) : Program(fd, c.at, data), c.error) << c.at << "+" << c.length;
        if (c.error == 0) std::copy(data.begin(), data.end(), want.begin() + c.at);
        if (c.error == 0 && !c.erase) {
            EXPECT_EQ(Program(fd, c.at, kBlank), EIO) << "a second program, even of all ones";
            EXPECT_EQ(Erase(fd, {c.at / kBlock * kBlock, kBlock}), 0);
            EXPECT_EQ(Program(fd, c.at, data), 0) << "allowed again after the erase";
        }
        close(fd);
        EXPECT_EQ(Image(), want) << c.at << "+" << c.length;
    }
}

TEST_F(Nand, ProgrammingOnlyClearsBitsAndAPopenChildReadsTheResult)
{
    int fd = Open();
    int raw = open(getenv("MTDSIM_IMAGE"), O_WRONLY);   // cells cleared behind the chip's back
    ASSERT_EQ(pwrite(raw, "\x0F\x00\x5A", 3, kPage), 3);
    close(raw);
    ASSERT_EQ(Program(fd, kPage, Bytes(kPage, 0xF0)), 0);
    close(fd);
    EXPECT_EQ(Image(kPage, 4), (Bytes{0x00, 0x00, 0x50, 0xF0}));
#ifdef MTDSIM_TEST_POPEN   // children inherit the preload and the configuration
    FILE *p = popen("cat /dev/mtd0 | head -c 2052 | od -An -tx1 -j 2048", "r");
    char line[64] = {};
    EXPECT_NE(fgets(line, sizeof line, p), nullptr);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_STREQ(line, " 00 00 50 f0\n");
#endif
}

// Bad blocks and, after the given count of erases and programs that pass the rules, injected faults fail with EIO.
// P programs the next page, Q the first page of block 7, E erases block 7, M is a misaligned program, B asks
// whether block 7 is bad. Results: . done, F EIO, M EINVAL, B bad.
TEST_F(Nand, BadBlocksAndInjectedFailuresRefuseOperationsAndChangeNothing)
{
    const struct { const char *bad, *after, *count, *ops, *results; } cases[] = {
        {"7", "", "", "BEQP", "BFF."},     {"6", "", "", "BEQ", "..."},        {"", "2", "", "PPPP", "..F."},
        {"", "1", "", "EPEP", ".F.."},     {"", "0", "3", "PPPPP", "FFF.."},   {"", "2", "0", "PPEPP", "..FFF"},
        {"", "1", "", "MPMPP", "M.MF."},   {"7", "1", "", "EQPP", "FF.F"}};
    for (const auto &c : cases) {
        setenv("MTDSIM_BADBLOCKS", c.bad, 1);
        setenv("MTDSIM_FAIL_AFTER", c.after, 1);
        setenv("MTDSIM_FAIL_COUNT", c.count, 1);
        int fd = Open();
        std::string got;
        uint32_t page = 0;
        for (const char *op = c.ops; *op != '\0'; op++) {
            loff_t at = *op == 'P' ? page++ * kPage : 7 * kBlock;
            int r = *op == 'E' ? Erase(fd, {uint32_t(at), kBlock}) : *op == 'M' ? Program(fd, 1, kBlank) : 0;
            if (*op == 'P' || *op == 'Q') {
                r = Program(fd, at, kData);
                EXPECT_EQ(Image(at, kPage), r == 0 ? kData : kBlank) << c.ops;
            } else if (*op == 'B') {
                r = ioctl(fd, MEMGETBADBLOCK, &at) == 1 ? -2 : 0;
            }
            got += r == 0 ? '.' : r == EIO ? 'F' : r == EINVAL ? 'M' : 'B';
        }
        EXPECT_EQ(got, c.results) << c.bad << "/" << c.after << "/" << c.count << " " << c.ops;
        close(fd);
    }
}

// The image and its page states are checked at an open only when they are not
// as this process left them, and the configuration read only when the
// environment changed; every change made between two opens is still seen.
// Letters: R reopen, D delete the page state file, Z erase the whole image
// from outside, U set an unrelated variable, B make block 0 bad; 0 and 1
// program pages 0 and 1. Results: . done, F EIO, B bad block.
TEST_F(Nand, ChangesBetweenOpensAreSeenAtTheNextOpen)
{
    const struct { const char *failAfter, *ops, *results; } cases[] = {
        {"", "0R0", ".F"},           // the page state outlives the descriptor
        {"", "0DR01", ".F."},        // a lost state file is derived again from the content
        {"", "0ZR0", ".."},          // an image erased from outside: its pages are blank again
        {"", "0D0", ".F"},           // lost under an open descriptor: derived at the program
        {"2", "0R1R0", "..F"},       // the same configuration goes on counting
        {"2", "0U1UR0", "..F"},      // also when some other variable changed
        {"", "0BR1", ".B"},          // a changed configuration applies from the next open
    };
    for (const auto &c : cases) {
        setenv("MTDSIM_FAIL_AFTER", c.failAfter, 1);
        int fd = Open();
        std::string got, pages = std::string(getenv("MTDSIM_IMAGE")) + ".pages";
        for (const char *op = c.ops; *op != '\0'; op++) {
            if (*op == 'R') {
                close(fd);
                fd = open("/dev/mtd0", O_RDWR);
                ASSERT_GE(fd, 0) << c.ops;
            } else if (*op == 'D') {
                ASSERT_EQ(unlink(pages.c_str()), 0);
            } else if (*op == 'Z') {
                usleep(20 * 1000);   // a later tick of the file clock than the last program
                std::ofstream(getenv("MTDSIM_IMAGE"), std::ios::in | std::ios::out) << std::string(kSize, '\xFF');
            } else if (*op == 'U') {
                setenv("MTDSIM_TEST_UNRELATED", std::to_string(got.size()).c_str(), 1);
            } else if (*op == 'B') {
                setenv("MTDSIM_BADBLOCKS", "0", 1);
            } else {
                int r = Program(fd, (*op - '0') * kPage, kData);
                got += r == 0 ? '.' : r == EIO && getenv("MTDSIM_BADBLOCKS") != nullptr ? 'B' : r == EIO ? 'F' : '?';
            }
        }
        close(fd);
        unsetenv("MTDSIM_BADBLOCKS");
        EXPECT_EQ(got, c.results) << c.failAfter << " " << c.ops;
        EXPECT_EQ(access(pages.c_str(), F_OK), 0) << c.ops;
    }
}

TEST_F(Nand, APowerCutLeavesAPrefixOfThePageAndKillsTheProcess)
{
    for (const char *bytes : {"", "40"}) {
        setenv("MTDSIM_CUT_AFTER", "1", 1);
        setenv("MTDSIM_CUT_BYTES", bytes, 1);
        int fd = Open();
        pid_t child = fork();
        if (child == 0) _exit(Program(fd, 0, kData) != 0 ? 1 : 2 + Program(fd, kPage, kData));
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        Bytes want = kData;
        std::fill(want.begin() + (*bytes != '\0' ? 40 : kPage / 2), want.end(), 0xFF);
        EXPECT_EQ(Image(kPage, kPage), want) << bytes;
        close(fd);
    }
}

}  // namespace
