// A program built with -O2 -D_FORTIFY_SOURCE=2 calls the checked entry points
// (__open_2, __open64_2, __openat_2) for opens whose flags the compiler cannot
// see; the device must be intercepted there as well as on the plain ones.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <mtd/mtd-user.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#if !defined(_FORTIFY_SOURCE) || !defined(__OPTIMIZE__)
#error "this test must be built with optimisation and _FORTIFY_SOURCE"
#endif

namespace {

// Flags the optimiser cannot fold, so the fortified open takes its checked path.
volatile int runtimeFlags = O_RDWR;

TEST(FortifiedProgram, EveryOpenVariantReachesTheDeviceAndNoneCutsTheImage)
{
    char tmpl[] = "/tmp/mtdsim-fortify-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, image = dir + "/nand.img", device = dir + "/mtd-fortified";
    setenv("MTDSIM_IMAGE", image.c_str(), 1);
    setenv("MTDSIM_DEVICE", device.c_str(), 1);
    setenv("MTDSIM_WRITESIZE", "512", 1);
    setenv("MTDSIM_ERASESIZE", "2048", 1);
    setenv("MTDSIM_SIZE", "16384", 1);
    const char *path = device.c_str();

    struct Case {
        const char *name;
        std::function<int()> open;
    };
    const Case cases[] = {
        {"__open_2", [&] { return open(path, runtimeFlags); }},
        {"__open64_2", [&] { return open64(path, runtimeFlags); }},
        {"__openat_2", [&] { return openat(AT_FDCWD, path, runtimeFlags); }},
        {"open with O_CREAT and a mode", [&] { return open(path, O_RDWR | O_CREAT | O_TRUNC, 0600); }},
        {"openat64 with O_CREAT and a mode", [&] { return openat64(AT_FDCWD, path, O_RDWR | O_CREAT, 0600); }},
    };
    int page = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        int fd = c.open();
        ASSERT_GE(fd, 0);
        mtd_info_user info{};
        EXPECT_EQ(ioctl(fd, MEMGETINFO, &info), 0);
        EXPECT_EQ(info.writesize, 512u);
        char data[512];
        memset(data, page + 1, sizeof data);
        EXPECT_EQ(pwrite(fd, data, sizeof data - 1, 0), -1) << "half a page is refused";
        EXPECT_EQ(pwrite(fd, data, sizeof data, page * 512), 512);
        close(fd);
        struct stat st;
        ASSERT_EQ(stat(image.c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 16384) << "the image keeps its size";
        page++;
    }
    // Every page written above is still there: no open truncated the image.
    int fd = open(path, runtimeFlags);
    ASSERT_GE(fd, 0);
    for (int p = 0; p < page; p++) {
        unsigned char b = 0;
        EXPECT_EQ(pread(fd, &b, 1, p * 512 + 100), 1);
        EXPECT_EQ(b, p + 1) << "page " << p;
    }
    close(fd);
    std::string cmd = "rm -rf '" + dir + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
}

}  // namespace
