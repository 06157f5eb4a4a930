// The flash partition, its page format and the rings, against the emulated NAND (libmtdsim is preloaded).
// /proc/mtd is read through a shell pipeline, so a `cat` first in PATH serves the test's own partition table.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sys/stat.h>

#include "core/tmcore.h"
#include "history/tmflash.h"
#include "history/tmmtd.h"
#include "tests/unit/cms_tempstore.h"

#ifdef KVARD_HAVE_ZLIB
#include <zlib.h>
#endif

std::string ReadAll(const std::string &path)
{
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}

// Bit-at-a-time reflected CRC-32 from its definition: shares nothing with the table-driven code.
uint32_t RefCrc(const std::string &data)
{
    uint32_t crc = ~0u;
    for (unsigned char byte : data) {
        crc ^= byte;
        for (int b = 0; b < 8; b++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}

template <class F> std::string Stdout(F run)
{
    ::testing::internal::CaptureStdout();
    run();
    return ::testing::internal::GetCapturedStdout();
}

class Nand : public ::testing::Test {
protected:
    TempStore dir;  // a fresh directory for the partition table, the images and the log
    TmRecord r = {1, 2, 3, 4, 5, 0};

    void SetUp() override
    {
        static const std::string path = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
        dir.write("cat", "#!/bin/sh\n[ \"$1\" = /proc/mtd ] && exec /bin/cat " + dir.path("mtd") + "\nexec /bin/cat \"$@\"\n");
        chmod(dir.path("cat").c_str(), 0755);
        setenv("PATH", (dir.path("") + ":" + path).c_str(), 1);
        for (const char *v : {"MTDSIM_BADBLOCKS", "MTDSIM_FAIL_AFTER", "MTDSIM_FAIL_COUNT", "MTDSIM_DEVICE"})
            unsetenv(v);
        setenv("MTDSIM_LOG", dir.path("nand.log").c_str(), 1);
        Geometry(2048, 131072, 8 * 131072);
        ProcMtd("mtd0: 00100000 00020000 \"tm\"\n");
        debugFlag = 0;
    }
    void TearDown() override { TmFlashCleanup(); }
    void Geometry(unsigned page, unsigned block, unsigned size)  // each on an image of its own
    {
        setenv("MTDSIM_WRITESIZE", std::to_string(page).c_str(), 1);
        setenv("MTDSIM_ERASESIZE", std::to_string(block).c_str(), 1);
        setenv("MTDSIM_SIZE", std::to_string(size).c_str(), 1);
        setenv("MTDSIM_IMAGE", dir.path(std::to_string(page) + "x" + std::to_string(size)).c_str(), 1);
    }
    void ProcMtd(const std::string &rows) { dir.write("mtd", "dev:    size   erasesize  name\n" + rows); }
    std::string Page(uint32_t index) { return ReadAll(getenv("MTDSIM_IMAGE")).substr(index * 2048, 2048); }
};

TEST_F(Nand, the_partition_is_found_by_its_quoted_name_and_its_geometry_decides_the_rings)
{
    setenv("MTDSIM_DEVICE", "/dev/mtd7", 1);  // the pipeline's line end must not reach the device name
    const struct { const char *rows; int32_t find, init; } cases[] = {
        {"mtd3: 00100000 00020000 \"tm\"\n", 0, -1},  // listed, but no such device: no geometry
        {"mtd7: 00100000 00020000 \"tmx\"\n", -1, -1}, {"mtd7: 00100000 00020000 \"xtm\"\n", -1, -1},
        {"mtd7: 00100000 00020000 tm\n", -1, -1}, {"", -1, -1}, {"mtd7: 00100000 00020000 \"tm\"\n", 0, 0},
        {"mtd1: 00100000 00020000 \"boot\"\nmtd7: 00100000 00020000 \"tm\"\n", 0, 0},  // stays for the geometries
    };
    for (const auto &c : cases) {
        ProcMtd(c.rows);
        struct mtd_info_user info = {};
        EXPECT_EQ(TmMtdFind(&info), c.find) << c.rows;
        EXPECT_EQ(TmFlashInit(), c.init) << c.rows;
        TmFlashCleanup();
    }
    // The rings of a 2 KiB page, 128 KiB block partition: 3 x 768 = 2304 pages of minutes, then 2 x 128 of half-days.
    const struct { unsigned page, block; int32_t init; uint32_t pages, aligned; } geometries[] = {
        {2048, 131072, 0, TM_MIN_LIST_SIZE, 768}, {2048, 131072, 0, TM_HDAY_LIST_SIZE, 128}, {40, 160, 0, 5, 8},
        {2048, 2048 * 720, 0, 720, 720}, {2048, 2048 * 720, 0, 124, 720}, {2048, 2048 * 720, 0, 721, 1440},
        // Refused: a page too small for a record behind its header, a block below a page, not whole pages.
        {32, 32 * 64, -1, 0, 0}, {4096, 2048, -1, 0, 0}, {2048, 2048 * 3 + 512, -1, 0, 0},
    };
    for (const auto &c : geometries) {
        Geometry(c.page, c.block, c.block * 4);
        EXPECT_EQ(TmFlashInit(), c.init) << c.page << "/" << c.block;
        EXPECT_EQ(c.init ? 0 : TmFlashAlignToBlock(c.pages), c.aligned) << c.pages << " in " << c.block;
        TmFlashCleanup();
    }
}

TEST_F(Nand, range_checks_erases_and_bad_blocks)
{
    setenv("MTDSIM_BADBLOCKS", "2", 1);
    ASSERT_EQ(TmFlashInit(), 0);
    uint8_t data[2049] = {1, 2, 3}, back[2048];
    const int64_t end = 8 * 131072, bad = 2 * 131072;
    EXPECT_EQ(TmMtdRead(end - 40, back, 40), 0);
    for (int64_t at : {131072 + 2048, 131072, 131072 + 4096}) ASSERT_EQ(TmMtdWrite(at, data, 40), 0);
    EXPECT_EQ(TmMtdWrite(bad, data, 40), -1);
    EXPECT_EQ(TmMtdWrite(bad + 2048, data, 40), -1);
    EXPECT_EQ(TmMtdRead(bad + 2048, back, 40), -1);
    // Only a block's first page erases it; a bad block is never sent anything.
    EXPECT_EQ(dir.read("nand.log"),
              "program 133120 2048 ok\nerase 131072 131072 ok\nprogram 131072 2048 ok\nprogram 135168 2048 ok\n");
    // With the device gone every open complains: the one complaint must be the last read's, so none before it opened.
    setenv("MTDSIM_DEVICE", "/dev/mtd9", 1);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(TmMtdRead(end - 39, back, 40), -1);
    EXPECT_EQ(TmMtdWrite(end - 39, data, 40), -1);
    EXPECT_EQ(TmMtdWrite(0, data, 2049), -1);
    EXPECT_EQ(TmMtdRead(0, back, 40), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr().rfind("/dev/mtd0"), 0u);
}

TEST_F(Nand, the_page_format_reading_and_writing)
{
    ASSERT_EQ(TmFlashInit(), 0);
    ASSERT_EQ(TmWriteFlash(1, &r), 0);
    TmRecord out;
    EXPECT_EQ(TmReadFlash(2, &out), -1) << "a blank page";
    // Bits flipped in a copy: the header's filler bytes may hold anything, the record's own filler word is covered.
    const struct { int at, flip; int32_t result; } cases[] = {{2, 0xA5, 0}, {3, 0x5A, 0}, {36, 1, -1}, {4, 0x80, -1}, {0, 0x3F, -1}};
    for (uint32_t i = 0; i < 5; i++) {
        std::string copy = Page(1);
        copy[cases[i].at] ^= (char)cases[i].flip;
        ASSERT_EQ(TmMtdWrite((i + 3) * 2048, (const uint8_t *)copy.data(), 2048), 0);
        out = {};
        EXPECT_EQ(TmReadFlash(i + 3, &out), cases[i].result) << "byte " << cases[i].at;
        EXPECT_TRUE(cases[i].result != 0 || memcmp(&out, &r, sizeof r) == 0);
    }
    // A full block is erased when its first page is written again.
    for (uint32_t p = 64; p < 128; p++) ASSERT_EQ(TmWriteFlash(p, &r), 0) << p;
    r.tx = 99;
    ASSERT_EQ(TmWriteFlash(64, &r), 0);
    EXPECT_TRUE(TmReadFlash(64, &out) == 0 && out.tx == 99);
    for (uint32_t p = 65; p < 128; p++) ASSERT_EQ(TmReadFlash(p, &out), -1) << p;
    ASSERT_EQ(TmWriteFlash(65, &r), 0);
    std::string before = Page(65);
    r.tx = 7;
    EXPECT_EQ(Stdout([&] { EXPECT_EQ(TmWriteFlash(65, &r), -1); }), "TmWriteFlash fail at 133120(65). The page is not empty.\n");
    EXPECT_EQ(Page(65), before);
}

TEST_F(Nand, the_ring_cursor_wraps_and_walks_past_failed_pages)
{
    setenv("MTDSIM_BADBLOCKS", "3,4", 1);  // the ring from page 192: every page fails
    ASSERT_EQ(TmFlashInit(), 0);
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 127, &r), 64u) << "the last page wraps to the ring's start";
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 10, &r), 64u + 11);
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 10, &r), 64u + 12) << "a used page is walked past";
    debugFlag = 1;
    uint32_t next = 0;
    std::string out = Stdout([&] { next = WriteToFlash(192, 128, 192 + 100, &r); });
    EXPECT_EQ(next, 192u + 101) << "the page after the index";
    for (uint32_t k = 0; k < 128; k++) {
        std::string line = "WriteToFlash error index=" + std::to_string(192 + (100 + k) % 128) + "\n";
        size_t first = out.find(line);
        EXPECT_TRUE(first != std::string::npos && out.find(line, first + 1) == std::string::npos) << "once: " << line;
    }
}

TEST_F(Nand, a_partition_too_small_for_a_ring_fails_its_tail_page_by_page_and_wraps_to_the_start)
{
    Geometry(2048, 131072, 2 * 131072);
    ASSERT_EQ(TmFlashInit(), 0);
    EXPECT_EQ(TmReadFlash(128, &r), -1);
    EXPECT_EQ(Stdout([&] { TmWriteFlash(129, &r); }), "TmWriteFlash fail at 264192(129). Page can be read!\n");
    Stdout([&] { EXPECT_EQ(WriteToFlash(64, 128, 128, &r), 65u); });
}

// The stored format never changes: the CRC against oracles, the kept image decoded field by field and rewritten.
TEST_F(Nand, the_crc_and_the_golden_image_decoded_field_by_field_and_written_unchanged)
{
    TmCrcInit();
    EXPECT_EQ(TmCrc32((const uint8_t *)"123456789", 9), 0xCBF43926u);
    std::mt19937 rng(20261123);
    std::string data;
    for (int round = 0; round < 500; round++) {
        data += (char)rng();  // every length from 1 to 500
        uint32_t got = TmCrc32((const uint8_t *)data.data(), (uint32_t)data.size());
        ASSERT_EQ(got, RefCrc(data)) << round;
#ifdef KVARD_HAVE_ZLIB
        ASSERT_EQ(got, (uint32_t)crc32(0, (const Bytef *)data.data(), (uInt)data.size())) << round;
#endif
    }
    const TmRecord golden[] = {
        {1700000000, 1700000060, 123456789, 987654321, 60, 0},
        {1700043200, 1700086400, 0x0102030405060708ull, 0xF0E0D0C0B0A09080ull, 43200, 0},
        {-1, 0x7FFFFFFF, 0, ~0ull, -7, 0}, {0, 0, 0, 0, 0, 0}};
    const uint32_t pages[] = {0, 1, 5, 8};  // in three blocks, one at a block's first page
    Geometry(512, 2048, 4 * 2048);
    ASSERT_EQ(TmFlashInit(), 0);
    for (int i = 0; i < 4; i++) ASSERT_EQ(TmWriteFlash(pages[i], &golden[i]), 0);
    const std::string img = ReadAll(std::string(KVARD_FIXTURES) + "/golden-tm.img");
    EXPECT_TRUE(ReadAll(getenv("MTDSIM_IMAGE")) == img) << "the code no longer writes the stored format";
    auto le = [](uint64_t v, int n) { std::string s; for (; n > 0; n--, v >>= 8) s += (char)(v & 0xFF); return s; };
    std::string expect(4 * 2048, '\xFF');
    for (int i = 0; i < 4; i++) {
        const TmRecord &g = golden[i];
        std::string rec = le((uint32_t)g.tStart, 4) + le((uint32_t)g.tEnd, 4) + le(g.tx, 8) + le(g.rx, 8) +
                          le((uint32_t)g.tUsed, 4) + le(0, 4);
        expect.replace(pages[i] * 512, 40, le(32, 2) + img.substr(pages[i] * 512 + 2, 2) + le(RefCrc(rec), 4) + rec);
    }
    EXPECT_TRUE(img == expect);
    EXPECT_EQ(img.substr(8 * 512 + 4, 4), "\xAD\x55\x0A\x19") << "the CRC of the all-zero record";
}
