// The emulated NAND as a program sees it: the device path opened, ioctl,
// lseek, read and write, with libmtdsim preloaded. Most cases use a chip of
// 8 blocks of 4 pages of 2048 bytes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char *kDevice = "/dev/mtd0";
constexpr uint32_t kPage = 2048;
constexpr uint32_t kBlock = 4 * kPage;
constexpr uint32_t kSize = 8 * kBlock;

// A page of data with no 0xFF byte in it, different for each seed.
Bytes Pattern(int seed, size_t n = kPage)
{
    Bytes b(n);
    for (size_t i = 0; i < n; i++)
        b[i] = static_cast<uint8_t>((i * 7 + static_cast<size_t>(seed) * 13) % 0xFF);
    return b;
}

Bytes Erased(size_t n) { return Bytes(n, 0xFF); }

Bytes Slice(const Bytes &b, size_t at, size_t n) { return Bytes(b.begin() + at, b.begin() + at + n); }

// Whole file, read past the library (the image path is not intercepted).
Bytes FileBytes(const std::string &path)
{
    Bytes out;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return out;
    uint8_t buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        out.insert(out.end(), buf, buf + n);
    close(fd);
    return out;
}

void WriteFile(const std::string &path, const Bytes &b, off_t at = 0, int flags = O_WRONLY | O_CREAT)
{
    int fd = open(path.c_str(), flags, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(pwrite(fd, b.data(), b.size(), at), static_cast<ssize_t>(b.size())) << path;
    close(fd);
}

// errno of the call, 0 for success.
int Erase(int fd, uint32_t start, uint32_t length)
{
    erase_info_user e{start, length};
    return ioctl(fd, MEMERASE, &e) == 0 ? 0 : errno;
}

int Program(int fd, uint32_t offset, const Bytes &data)
{
    if (lseek(fd, offset, SEEK_SET) != static_cast<off_t>(offset))
        return errno;
    ssize_t n = write(fd, data.data(), data.size());
    return n == static_cast<ssize_t>(data.size()) ? 0 : errno;
}

Bytes ReadDevice(int fd, uint32_t offset, size_t n)
{
    Bytes b(n);
    EXPECT_EQ(lseek(fd, offset, SEEK_SET), static_cast<off_t>(offset));
    EXPECT_EQ(read(fd, b.data(), n), static_cast<ssize_t>(n));
    return b;
}

int IsBad(int fd, int64_t offset)
{
    loff_t at = offset;
    int r = ioctl(fd, MEMGETBADBLOCK, &at);
    return r < 0 ? -errno : r;
}

// Everything written to stderr between construction and Text().
class StderrCapture {
public:
    explicit StderrCapture(const std::string &path) : path_(path)
    {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        close(fd);
    }
    std::string Text()
    {
        if (saved_ >= 0) {
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
        }
        Bytes b = FileBytes(path_);
        return std::string(b.begin(), b.end());
    }
    ~StderrCapture() { Text(); }

private:
    std::string path_;
    int saved_ = -1;
};

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
        out.push_back(text.substr(at, nl - at));
    return out;
}

class Nand : public ::testing::Test {
protected:
    std::string dir;
    std::string image;

    void SetUp() override
    {
        char tmpl[] = "/tmp/mtdsim-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        image = dir + "/nand.img";
        for (const char *v : {"MTDSIM_DEVICE", "MTDSIM_BADBLOCKS", "MTDSIM_FAIL_AFTER", "MTDSIM_FAIL_COUNT",
                              "MTDSIM_CUT_AFTER", "MTDSIM_CUT_BYTES", "MTDSIM_LOG"})
            unsetenv(v);
        setenv("MTDSIM_IMAGE", image.c_str(), 1);
        UseSmallChip();
    }

    void TearDown() override
    {
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    static void UseSmallChip()
    {
        setenv("MTDSIM_WRITESIZE", std::to_string(kPage).c_str(), 1);
        setenv("MTDSIM_ERASESIZE", std::to_string(kBlock).c_str(), 1);
        setenv("MTDSIM_SIZE", std::to_string(kSize).c_str(), 1);
    }

    static int OpenDevice(int flags = O_RDWR) { return open(kDevice, flags); }

    // A chip whose pages all hold zeros, without a page state file, so that
    // every page counts as programmed.
    void FillProgrammed()
    {
        WriteFile(image, Bytes(kSize, 0x00));
        unlink((image + ".pages").c_str());
    }
};

TEST_F(Nand, GeometryComesFromTheConfigurationOrTheImageAndNewImagesAreErased)
{
    struct Case {
        const char *name;
        std::function<void()> setup;
        Bytes before;  // image content before the first open; empty: no file
        uint32_t size, erasesize, writesize, oobsize;
    };
    const Case cases[] = {
        {"defaults, new image", [] {
             for (const char *v : {"MTDSIM_WRITESIZE", "MTDSIM_ERASESIZE", "MTDSIM_SIZE"}) unsetenv(v);
         }, {}, 8u << 20, 131072, 2048, 64},
        {"configured small pages", [] {
             setenv("MTDSIM_WRITESIZE", "512", 1);
             setenv("MTDSIM_ERASESIZE", "16384", 1);
             setenv("MTDSIM_SIZE", "65536", 1);
         }, {}, 65536, 16384, 512, 16},
        {"size taken from the image", [] { unsetenv("MTDSIM_SIZE"); }, Pattern(1, 3 * kBlock),
         3 * kBlock, kBlock, kPage, 64},
        {"image grown to the configured size", [] {}, Pattern(2, 2 * kBlock), kSize, kBlock, kPage, 64},
        {"empty image filled", [] {}, Bytes{}, kSize, kBlock, kPage, 64},
    };
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        image = dir + "/geometry" + std::to_string(n++) + ".img";
        setenv("MTDSIM_IMAGE", image.c_str(), 1);
        UseSmallChip();
        c.setup();
        if (!c.before.empty() || std::string(c.name) == "empty image filled")
            WriteFile(image, c.before);
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        mtd_info_user info;
        memset(&info, 0x5A, sizeof info);
        ASSERT_EQ(ioctl(fd, MEMGETINFO, &info), 0);
        close(fd);
        EXPECT_EQ(info.type, MTD_NANDFLASH);
        EXPECT_EQ(info.flags, static_cast<uint32_t>(MTD_CAP_NANDFLASH));
        EXPECT_EQ(info.size, c.size);
        EXPECT_EQ(info.erasesize, c.erasesize);
        EXPECT_EQ(info.writesize, c.writesize);
        EXPECT_EQ(info.oobsize, c.oobsize);
        Bytes now = FileBytes(image);
        ASSERT_EQ(now.size(), c.size);
        EXPECT_EQ(Slice(now, 0, c.before.size()), c.before);
        EXPECT_EQ(Slice(now, c.before.size(), c.size - c.before.size()), Erased(c.size - c.before.size()));
    }
}

TEST_F(Nand, ConfigurationsThatDescribeNoChipAreRefusedAtOpen)
{
    struct Case {
        const char *variable, *value;
    };
    const Case cases[] = {
        {"MTDSIM_WRITESIZE", "0"},         {"MTDSIM_WRITESIZE", "2k"},
        {"MTDSIM_ERASESIZE", "3000"},      {"MTDSIM_SIZE", "10000"},
        {"MTDSIM_SIZE", "4294967296"},     {"MTDSIM_BADBLOCKS", "1,,2"},
        {"MTDSIM_BADBLOCKS", "8"},         {"MTDSIM_FAIL_AFTER", "-1"},
        {"MTDSIM_CUT_BYTES", "2049"},      {"MTDSIM_SIZE", "8192"},  // smaller than the image
    };
    WriteFile(image, Erased(2 * kBlock));
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.variable) + "=" + c.value);
        UseSmallChip();
        setenv(c.variable, c.value, 1);
        StderrCapture err(dir + "/stderr");
        errno = 0;
        EXPECT_EQ(OpenDevice(), -1);
        EXPECT_EQ(errno, EINVAL);
        std::vector<std::string> said = Lines(err.Text());
        ASSERT_EQ(said.size(), 1u);
        EXPECT_EQ(said[0].rfind("mtdsim: ", 0), 0u) << said[0];
        unsetenv(c.variable);
    }
    EXPECT_EQ(FileBytes(image), Erased(2 * kBlock)) << "a refused open left the image alone";
    unlink(image.c_str());
    UseSmallChip();
    setenv("MTDSIM_BADBLOCKS", "8", 1);
    EXPECT_EQ(OpenDevice(), -1);
    EXPECT_NE(access(image.c_str(), F_OK), 0) << "no image is made for a chip that was refused";
}

TEST_F(Nand, OnlyTheConfiguredPathIsInterceptedAndOnlyWithAnImage)
{
    std::string node = dir + "/mtd-node";
    WriteFile(node, Bytes{'p', 'l', 'a', 'i', 'n'});
    setenv("MTDSIM_DEVICE", node.c_str(), 1);
    unsetenv("MTDSIM_IMAGE");
    int fd = open(node.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadDevice(fd, 0, 5), (Bytes{'p', 'l', 'a', 'i', 'n'}));
    close(fd);

    setenv("MTDSIM_IMAGE", image.c_str(), 1);
    fd = open(node.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadDevice(fd, 0, 5), Erased(5));
    close(fd);
    errno = 0;
    EXPECT_EQ(open(kDevice, O_RDWR), -1) << "the default path is no longer the device";
}

TEST_F(Nand, EraseTakesExactlyOneBlockAtItsStart)
{
    struct Case {
        uint32_t start, length;
        int error;
    };
    const Case cases[] = {
        {0, kBlock, 0},           {7 * kBlock, kBlock, 0},       {kPage, kBlock, EINVAL},
        {kBlock + 1, kBlock, EINVAL}, {kBlock, kPage, EINVAL},   {kBlock, 2 * kBlock, EINVAL},
        {kBlock, 0, EINVAL},      {kSize, kBlock, EINVAL},       {7 * kBlock, kBlock + kPage, EINVAL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + "+" + std::to_string(c.length));
        FillProgrammed();
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(Erase(fd, c.start, c.length), c.error);
        close(fd);
        Bytes want(kSize, 0x00);
        if (c.error == 0)
            std::fill(want.begin() + c.start, want.begin() + c.start + c.length, 0xFF);
        EXPECT_EQ(FileBytes(image), want);
    }
}

TEST_F(Nand, ProgramTakesExactlyOnePageAtItsStart)
{
    struct Case {
        uint32_t offset;
        size_t length;
        int error;
    };
    const Case cases[] = {
        {0, kPage, 0},         {kSize - kPage, kPage, 0},  {1, kPage, EINVAL},
        {kPage / 2, kPage, EINVAL}, {0, 40, EINVAL},       {0, kPage - 1, EINVAL},
        {0, 2 * kPage, EINVAL}, {kSize - kPage, kPage + 1, EINVAL},
        {kSize, kPage, ENOSPC}, {0, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.length));
        unlink(image.c_str());
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        Bytes data = Pattern(3, c.length);
        EXPECT_EQ(Program(fd, c.offset, data), c.error);
        close(fd);
        Bytes want = Erased(kSize);
        if (c.error == 0)
            std::copy(data.begin(), data.end(), want.begin() + c.offset);
        EXPECT_EQ(FileBytes(image), want);
    }
}

TEST_F(Nand, WriteMovesThePositionByOnePageAndPwriteLeavesIt)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, Pattern(1).data(), kPage), static_cast<ssize_t>(kPage));
    ASSERT_EQ(write(fd, Pattern(2).data(), kPage), static_cast<ssize_t>(kPage));
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), static_cast<off_t>(2 * kPage));
    ASSERT_EQ(pwrite(fd, Pattern(3).data(), kPage, 5 * kPage), static_cast<ssize_t>(kPage));
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), static_cast<off_t>(2 * kPage));
    EXPECT_EQ(pwrite(fd, Pattern(3).data(), kPage, 5 * kPage + 8), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ReadDevice(fd, 0, kPage), Pattern(1));
    EXPECT_EQ(ReadDevice(fd, kPage, kPage), Pattern(2));
    EXPECT_EQ(ReadDevice(fd, 5 * kPage, kPage), Pattern(3));
    close(fd);
}

TEST_F(Nand, ASecondProgramIsRefusedUntilTheBlockIsErased)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Program(fd, kBlock + kPage, Pattern(1)), 0);
    EXPECT_EQ(Program(fd, kBlock + kPage, Pattern(2)), EIO);
    EXPECT_EQ(Program(fd, kBlock + kPage, Erased(kPage)), EIO) << "even data that changes no bit";
    EXPECT_EQ(ReadDevice(fd, kBlock + kPage, kPage), Pattern(1));
    EXPECT_EQ(Program(fd, kBlock + 2 * kPage, Pattern(3)), 0) << "the next page is still blank";
    EXPECT_EQ(Erase(fd, 0, kBlock), 0);
    EXPECT_EQ(Program(fd, kBlock + kPage, Pattern(2)), EIO) << "erasing another block does not help";
    EXPECT_EQ(Erase(fd, kBlock, kBlock), 0);
    EXPECT_EQ(Program(fd, kBlock + kPage, Pattern(2)), 0);
    EXPECT_EQ(ReadDevice(fd, kBlock + kPage, kPage), Pattern(2));
    EXPECT_EQ(ReadDevice(fd, kBlock + 2 * kPage, kPage), Erased(kPage));
    close(fd);
}

TEST_F(Nand, ProgrammingOnlyClearsBits)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    // Cells already at 0 (changed behind the chip's back): a program can't set them to 1.
    WriteFile(image, Bytes{0x0F, 0x00, 0x5A, 0xFF}, 3 * kPage);
    Bytes data = Erased(kPage);
    data[0] = 0xF0;
    data[1] = 0xFF;
    data[2] = 0xA5;
    data[3] = 0x3C;
    data[4] = 0x81;
    EXPECT_EQ(Program(fd, 3 * kPage, data), 0);
    Bytes want = data;
    want[0] = 0x00;
    want[1] = 0x00;
    want[2] = 0x00;
    EXPECT_EQ(ReadDevice(fd, 3 * kPage, kPage), want);
    close(fd);
}

TEST_F(Nand, TheProgrammedStateOutlivesTheProcess)
{
    struct Case {
        const char *name;
        std::function<void(const std::string &image)> between;
        uint32_t refused, allowed;  // page indices
    };
    const Case cases[] = {
        {"state file kept", [](const std::string &) {}, 2, 3},
        {"state file lost: taken from the content", [](const std::string &img) { unlink((img + ".pages").c_str()); },
         2, 3},
        {"state file of another geometry",
         [](const std::string &img) { WriteFile(img + ".pages", Bytes{'m', 't', 'd', 's', 'i', 'm', ' ', '5'}, 0,
                                                O_WRONLY | O_TRUNC); },
         2, 3},
        {"image changed after the state file",
         [](const std::string &img) {
             WriteFile(img, Bytes{0x20, 0x00}, 3 * kPage);
             const timespec later[2] = {{0, UTIME_OMIT}, {time(nullptr) + 10, 0}};
             ASSERT_EQ(utimensat(AT_FDCWD, img.c_str(), later, 0), 0);
         },
         3, 4},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        unlink(image.c_str());
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            int fd = OpenDevice();
            _exit(fd >= 0 && Program(fd, 2 * kPage, Pattern(1)) == 0 ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        c.between(image);
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(Program(fd, c.refused * kPage, Pattern(2)), EIO);
        EXPECT_EQ(Program(fd, c.allowed * kPage, Pattern(3)), 0);
        EXPECT_EQ(ReadDevice(fd, 2 * kPage, kPage), Pattern(1));
        close(fd);
    }
}

TEST_F(Nand, BadBlocksAnswerOneAndRefuseEraseAndProgram)
{
    setenv("MTDSIM_BADBLOCKS", "1, 6", 1);
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    for (uint32_t block = 0; block < 8; block++) {
        SCOPED_TRACE(block);
        bool bad = block == 1 || block == 6;
        uint32_t start = block * kBlock;
        EXPECT_EQ(IsBad(fd, start), bad ? 1 : 0);
        EXPECT_EQ(IsBad(fd, start + kBlock - 1), bad ? 1 : 0);
        EXPECT_EQ(Erase(fd, start, kBlock), bad ? EIO : 0);
        EXPECT_EQ(Program(fd, start + kPage, Pattern(static_cast<int>(block))), bad ? EIO : 0);
        EXPECT_EQ(ReadDevice(fd, start + kPage, kPage), bad ? Erased(kPage) : Pattern(static_cast<int>(block)));
    }
    EXPECT_EQ(IsBad(fd, kSize), -EINVAL);
    EXPECT_EQ(IsBad(fd, -1), -EINVAL);
    close(fd);
}

// Operations: P programs the next page, E erases the last block, M is a
// misaligned program (refused, not counted), R reopens with the same
// configuration, C reopens with a changed one. Results: . done, F EIO,
// M EINVAL, - no operation.
TEST_F(Nand, TheInjectedFailureHitsExactlyTheOperationsAfterTheCount)
{
    struct Case {
        const char *failAfter, *failCount, *ops, *results;
    };
    const Case cases[] = {
        {"2", nullptr, "PPPP", "..F."},    {"1", nullptr, "EPEP", ".F.."},  {"0", "3", "PPPPP", "FFF.."},
        {"2", "0", "PPEPP", "..FFF"},      {"1", nullptr, "MPMPP", "M.MF."}, {"1", nullptr, "PRP", ".-F"},
        {"1", nullptr, "PCPP", ".-.F"},
    };
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.failAfter) + "/" + (c.failCount ? c.failCount : "-") + " " + c.ops);
        // A new image is a new configuration, so each case counts from zero.
        image = dir + "/inject" + std::to_string(n++) + ".img";
        setenv("MTDSIM_IMAGE", image.c_str(), 1);
        unsetenv("MTDSIM_LOG");
        setenv("MTDSIM_FAIL_AFTER", c.failAfter, 1);
        if (c.failCount)
            setenv("MTDSIM_FAIL_COUNT", c.failCount, 1);
        else
            unsetenv("MTDSIM_FAIL_COUNT");
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        std::string got;
        uint32_t page = 0;
        for (const char *op = c.ops; *op; op++) {
            int r = 0;
            switch (*op) {
            case 'P': {
                uint32_t at = page++ * kPage;
                r = Program(fd, at, Pattern(1));
                EXPECT_EQ(ReadDevice(fd, at, kPage), r == 0 ? Pattern(1) : Erased(kPage)) << "page " << at / kPage;
                break;
            }
            case 'E': r = Erase(fd, 7 * kBlock, kBlock); break;
            case 'M': r = Program(fd, 1, Pattern(1)); break;
            case 'C': setenv("MTDSIM_LOG", (dir + "/log").c_str(), 1); [[fallthrough]];
            case 'R':
                close(fd);
                fd = OpenDevice();
                ASSERT_GE(fd, 0);
                got += '-';
                continue;
            }
            got += r == 0 ? '.' : r == EIO ? 'F' : r == EINVAL ? 'M' : '?';
        }
        EXPECT_EQ(got, c.results);
        close(fd);
    }
}

TEST_F(Nand, APowerCutTearsThePageAndKillsTheProcess)
{
    struct Case {
        const char *cutBytes;
        size_t torn;
    };
    const Case cases[] = {{nullptr, kPage / 2}, {"40", 40}, {"0", 0}, {"2048", kPage}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.cutBytes ? c.cutBytes : "default");
        unlink(image.c_str());
        setenv("MTDSIM_CUT_AFTER", "1", 1);
        if (c.cutBytes)
            setenv("MTDSIM_CUT_BYTES", c.cutBytes, 1);
        else
            unsetenv("MTDSIM_CUT_BYTES");
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            int fd = OpenDevice();
            if (fd < 0 || Program(fd, 0, Pattern(1)) != 0)
                _exit(1);
            Program(fd, kPage, Pattern(2));
            _exit(2);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
        EXPECT_EQ(WTERMSIG(status), SIGKILL);

        unsetenv("MTDSIM_CUT_AFTER");
        int fd = OpenDevice();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(ReadDevice(fd, 0, kPage), Pattern(1));
        Bytes want = Erased(kPage);
        std::copy_n(Pattern(2).begin(), c.torn, want.begin());
        EXPECT_EQ(ReadDevice(fd, kPage, kPage), want);
        EXPECT_EQ(Program(fd, kPage, Pattern(3)), EIO) << "the torn page counts as programmed";
        EXPECT_EQ(Program(fd, 2 * kPage, Pattern(3)), 0);
        close(fd);
    }
}

TEST_F(Nand, MisuseIsToldOnStderrAndEveryEraseAndProgramIsLogged)
{
    std::string log = dir + "/ops.log";
    setenv("MTDSIM_LOG", log.c_str(), 1);
    setenv("MTDSIM_BADBLOCKS", "3", 1);
    setenv("MTDSIM_FAIL_AFTER", "2", 1);
    StderrCapture err(dir + "/stderr");
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Erase(fd, 0, kBlock), 0);
    EXPECT_EQ(Program(fd, 0, Pattern(1)), 0);
    EXPECT_EQ(Program(fd, 0, Pattern(1)), EIO);
    EXPECT_EQ(Program(fd, 1, Pattern(1)), EINVAL);
    EXPECT_EQ(Erase(fd, 3 * kBlock, kBlock), EIO);
    EXPECT_EQ(Program(fd, kPage, Pattern(1)), EIO);
    EXPECT_EQ(Program(fd, 2 * kPage, Bytes(100, 0)), EINVAL);
    EXPECT_EQ(Erase(fd, kBlock, kPage), EINVAL);
    EXPECT_EQ(Program(fd, 2 * kPage, Pattern(1)), 0);
    close(fd);

    Bytes logged = FileBytes(log);
    EXPECT_EQ(Lines(std::string(logged.begin(), logged.end())),
              (std::vector<std::string>{
                  "erase 0 8192 ok",
                  "program 0 2048 ok",
                  "program 0 2048 EIO programmed",
                  "program 1 2048 EINVAL unaligned",
                  "erase 24576 8192 EIO bad-block",
                  "program 2048 2048 EIO injected",
                  "program 4096 100 EINVAL not-whole-page",
                  "erase 8192 2048 EINVAL not-whole-block",
                  "program 4096 2048 ok",
              }));
    std::vector<std::string> said = Lines(err.Text());
    ASSERT_EQ(said.size(), 4u) << "misuse only; bad blocks and injected faults are silent";
    const char *expected[][2] = {{"program", "offset 0 "}, {"program", "offset 1 "},
                                 {"program", "offset 4096 "}, {"erase", "offset 8192 "}};
    for (size_t i = 0; i < said.size(); i++) {
        EXPECT_NE(said[i].find(kDevice), std::string::npos) << said[i];
        EXPECT_NE(said[i].find(std::string(": ") + expected[i][0] + " at " + expected[i][1]), std::string::npos)
            << said[i];
    }
}

TEST_F(Nand, DescriptorsFollowDupCloseAndTheAccessMode)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    int copy = dup(fd);
    ASSERT_GE(copy, 0);
    EXPECT_EQ(Program(copy, 8, Pattern(1)), EINVAL) << "a duplicate is the device too";
    EXPECT_EQ(Program(copy, 0, Pattern(1)), 0);
    close(copy);
    close(fd);
    // The numbers now belong to plain files, which write as usual.
    std::string plain = dir + "/plain";
    int file = open(plain.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(file, fd);
    EXPECT_EQ(write(file, "abc", 3), 3);
    close(file);
    EXPECT_EQ(FileBytes(plain), (Bytes{'a', 'b', 'c'}));

    int ro = OpenDevice(O_RDONLY);
    ASSERT_GE(ro, 0);
    mtd_info_user info{};
    EXPECT_EQ(ioctl(ro, MEMGETINFO, &info), 0);
    EXPECT_EQ(info.writesize, kPage);
    EXPECT_EQ(ReadDevice(ro, 0, kPage), Pattern(1));
    EXPECT_EQ(Program(ro, kPage, Pattern(2)), EBADF);
    EXPECT_EQ(Erase(ro, 0, kBlock), EPERM);
    close(ro);
    errno = 0;
    EXPECT_EQ(open(kDevice, O_RDWR | O_CREAT | O_EXCL, 0644), -1);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(Nand, StreamsReadTheDeviceAndCannotWriteIt)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(Program(fd, 0, Pattern(4)), 0);
    close(fd);
    FILE *in = fopen(kDevice, "rb");
    ASSERT_NE(in, nullptr);
    Bytes got(kPage + 1);
    EXPECT_EQ(fread(got.data(), 1, got.size(), in), got.size());
    fclose(in);
    Bytes want = Pattern(4);
    want.push_back(0xFF);
    EXPECT_EQ(got, want);
    for (const char *mode : {"w", "r+", "a"}) {
        StderrCapture err(dir + "/stderr");
        errno = 0;
        EXPECT_EQ(fopen(kDevice, mode), nullptr) << mode;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(FileBytes(image).size(), kSize);
}

#ifdef MTDSIM_TEST_POPEN
// Child processes inherit the preload and the configuration. Host programs
// only: the 32-bit ARM build runs under qemu-user and cannot start them.
TEST_F(Nand, AShellPipelineStartedByPopenReadsTheImage)
{
    int fd = OpenDevice();
    ASSERT_GE(fd, 0);
    Bytes data = Erased(kPage);
    for (int i = 0; i < 16; i++)
        data[i] = static_cast<uint8_t>(i * 17);
    ASSERT_EQ(Program(fd, 0, data), 0);
    close(fd);
    FILE *p = popen("cat /dev/mtd0 | head -c 16 | od -An -tx1", "r");
    ASSERT_NE(p, nullptr);
    char line[128] = {};
    ASSERT_NE(fgets(line, sizeof line, p), nullptr);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_STREQ(line, " 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff\n");
}
#endif

}  // namespace
