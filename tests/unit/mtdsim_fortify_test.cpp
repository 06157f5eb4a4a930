// Built with -O2 -D_FORTIFY_SOURCE=2, opens whose flags the compiler cannot see
// go to the checked entry points (__open_2, __open64_2, __openat_2): the device
// must be intercepted there too, and an O_TRUNC open must not cut the image.
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

volatile int runtimeFlags = O_RDWR;

TEST(FortifiedProgram, EveryOpenVariantReachesTheDeviceWithItsGeometry)
{
    char dir[] = "/tmp/mtdsim-fortify-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string image = dir + std::string("/nand.img"), device = dir + std::string("/mtd");
    setenv("MTDSIM_IMAGE", image.c_str(), 1);
    setenv("MTDSIM_DEVICE", device.c_str(), 1);
    const char *path = device.c_str();
    for (int fd : {open(path, runtimeFlags), open64(path, runtimeFlags), openat(AT_FDCWD, path, runtimeFlags),
                   open(path, O_RDWR | O_CREAT | O_TRUNC, 0600)}) {
        mtd_info_user i{};
        EXPECT_EQ(ioctl(fd, MEMGETINFO, &i), 0) << fd;
        EXPECT_EQ((std::vector<uint32_t>{i.type, i.flags, i.size, i.erasesize, i.writesize, i.oobsize}),
                  (std::vector<uint32_t>{MTD_NANDFLASH, MTD_CAP_NANDFLASH, 16384, 2048, 512, 16}));
        close(fd);
    }
    struct stat st = {};
    EXPECT_EQ(stat(image.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 16384) << "the image keeps its size";
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
}
