// The flash partition layer against the emulated NAND.
#include <vector>

#include "history/tmmtd.h"
#include "tests/unit/fake_mtd.h"

namespace {

using MtdLayer = FakeMtd;

TEST_F(MtdLayer, the_partition_is_found_only_by_its_quoted_name)
{
    struct Case {
        const char *table;
        int32_t result;
    } cases[] = {
        {"dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"tm\"\n", 0},
        {"dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"tmx\"\n", -1},
        {"dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"xtm\"\n", -1},
        {"dev:    size   erasesize  name\nmtd0: 00100000 00020000 tm\n", -1},
        {"dev:    size   erasesize  name\n", -1},
        {"dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"boot\"\nmtd0: 00100000 00020000 \"tm\"\n", 0},
    };
    for (const Case &c : cases) {
        ProcMtd(c.table);
        struct mtd_info_user info;
        EXPECT_EQ(TmMtdFind(&info), c.result) << c.table;
        EXPECT_EQ(TmFlashInit(), c.result) << c.table;
        TmFlashCleanup();
    }
}

TEST_F(MtdLayer, the_device_name_comes_from_the_pipeline_without_a_line_end)
{
    setenv("MTDSIM_DEVICE", "/dev/mtd7", 1);
    ProcMtd("dev:    size   erasesize  name\nmtd7: 00100000 00020000 \"tm\"\n");
    struct mtd_info_user info = {};
    ASSERT_EQ(TmMtdFind(&info), 0);
    EXPECT_EQ(info.size, 8u * 131072);
    EXPECT_EQ(info.erasesize, 131072u);
    EXPECT_EQ(info.writesize, 2048u);
}

TEST_F(MtdLayer, a_listed_device_that_does_not_open_leaves_no_geometry_and_init_refuses_it)
{
    ProcMtd("dev:    size   erasesize  name\nmtd3: 00100000 00020000 \"tm\"\n");
    struct mtd_info_user info;
    ASSERT_EQ(TmMtdFind(&info), 0);
    EXPECT_EQ(info.erasesize, 0u);
    EXPECT_EQ(info.writesize, 0u);
    EXPECT_EQ(TmFlashInit(), -1);
    uint8_t byte;
    EXPECT_EQ(TmMtdRead(0, &byte, 1), -1);
}

TEST_F(MtdLayer, init_refuses_a_geometry_the_rings_cannot_use)
{
    struct Case {
        unsigned page, block;
        int32_t result;
    } cases[] = {
        {2048, 131072, 0}, {512, 16384, 0}, {40, 40 * 4, 0},
        {32, 32 * 64, -1},           // page too small for a record with its header
        {4096, 2048, -1},            // block smaller than a page
        {2048, 2048 * 3 + 512, -1},  // block not a whole number of pages
    };
    for (const Case &c : cases) {
        Geometry(c.page, c.block, c.block * 4);
        EXPECT_EQ(TmFlashInit(), c.result) << c.page << "/" << c.block;
        TmFlashCleanup();
    }
}

TEST_F(MtdLayer, alignment_rounds_up_to_whole_blocks)
{
    struct Case {
        unsigned page, block, pages, aligned;
    } cases[] = {
        {2048, 131072, 720, 768}, {2048, 131072, 124, 128}, {2048, 131072, 768, 768},
        {2048, 2048 * 720, 720, 720}, {2048, 2048 * 720, 124, 720}, {2048, 2048 * 720, 721, 1440},
        {2048, 131072, 0, 0},
    };
    for (const Case &c : cases) {
        Geometry(c.page, c.block, c.block * 4);
        ASSERT_EQ(TmFlashInit(), 0);
        EXPECT_EQ(TmFlashAlignToBlock(c.pages), c.aligned) << c.pages << " pages, block " << c.block;
        TmFlashCleanup();
    }
}

TEST_F(MtdLayer, the_rings_of_a_2k_page_128k_block_partition)
{
    ASSERT_EQ(TmFlashInit(), 0);
    EXPECT_EQ(TmFlashPagesPerBlock(), 64u);
    EXPECT_EQ(3 * TmFlashAlignToBlock(720), 2304u);
    EXPECT_EQ(2 * TmFlashAlignToBlock(124), 256u);
}

TEST_F(MtdLayer, range_checks_fail_before_the_device_is_opened)
{
    ASSERT_EQ(TmFlashInit(), 0);
    const int64_t size = 8 * 131072;
    std::vector<uint8_t> buf(4096, 0);
    EXPECT_EQ(TmMtdRead(size - 40, buf.data(), 40), 0);  // ends exactly at the end
    // From here on the device can't be opened: a check that fails "before any
    // open" gives -1 without the open's error line.
    setenv("MTDSIM_DEVICE", "/dev/mtd9", 1);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(TmMtdRead(size - 39, buf.data(), 40), -1);
    EXPECT_EQ(TmMtdWrite(size - 39, buf.data(), 40), -1);
    EXPECT_EQ(TmMtdWrite(0, buf.data(), 2049), -1);  // longer than a page
    std::string quiet = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(quiet.find("/dev/mtd0"), std::string::npos) << quiet;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(TmMtdRead(0, buf.data(), 40), -1);
    std::string loud = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(loud.find("/dev/mtd0"), std::string::npos) << loud;
}

TEST_F(MtdLayer, a_block_is_erased_only_when_its_first_page_is_written)
{
    ASSERT_EQ(TmFlashInit(), 0);
    uint8_t data[40];
    for (int i = 0; i < 40; i++) data[i] = (uint8_t)i;
    ASSERT_EQ(TmMtdWrite(131072 + 2048, data, 40), 0);  // second page of block 1: no erase
    EXPECT_EQ(CountLines("erase"), 0) << Log();
    ASSERT_EQ(TmMtdWrite(131072, data, 40), 0);  // first page of block 1: erases it
    EXPECT_EQ(CountLines("erase"), 1) << Log();
    uint8_t back[2048];
    ASSERT_EQ(TmMtdRead(131072 + 2048, back, 2048), 0);
    for (int i = 0; i < 2048; i++) ASSERT_EQ(back[i], 0xFF) << "byte " << i << " survived the erase";
    ASSERT_EQ(TmMtdRead(131072, back, 2048), 0);
    for (int i = 0; i < 40; i++) ASSERT_EQ(back[i], i);
    for (int i = 40; i < 2048; i++) ASSERT_EQ(back[i], 0xFF) << "the page behind the data is blank";
    ASSERT_EQ(TmMtdWrite(131072 + 4096, data, 40), 0);
    EXPECT_EQ(CountLines("erase"), 1) << Log();
}

TEST_F(MtdLayer, a_bad_block_refuses_reads_writes_and_erases)
{
    setenv("MTDSIM_BADBLOCKS", "2", 1);
    ASSERT_EQ(TmFlashInit(), 0);
    uint8_t data[40] = {1, 2, 3};
    const int64_t bad = 2 * 131072;
    EXPECT_GT(TmMtdIsBadBlock(bad + 4096), 0);
    EXPECT_EQ(TmMtdIsBadBlock(bad - 2048), 0);
    EXPECT_EQ(TmMtdWrite(bad, data, 40), -1);
    EXPECT_EQ(TmMtdWrite(bad + 2048, data, 40), -1);
    EXPECT_EQ(TmMtdRead(bad + 2048, data, 40), -1);
    EXPECT_GT(TmMtdEraseBlock(bad), 0);
    EXPECT_EQ(CountLines("erase"), 0) << "a bad block is never sent an erase: " << Log();
}

TEST_F(MtdLayer, a_zero_length_read_is_a_short_transfer)
{
    ASSERT_EQ(TmFlashInit(), 0);
    uint8_t byte;
    EXPECT_EQ(TmMtdRead(0, &byte, 0), 1);
}

TEST_F(MtdLayer, cleanup_stops_the_page_layer_and_frees_the_buffer)
{
    ASSERT_EQ(TmFlashInit(), 0);
    EXPECT_NE(pageBuffer, nullptr);
    EXPECT_EQ(TmFlashCleanup(), 0);
    EXPECT_EQ(pageBuffer, nullptr);
    EXPECT_EQ(mtdGeometry.erasesize, 0u);
}

}  // namespace
