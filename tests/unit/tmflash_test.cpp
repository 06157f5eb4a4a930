// The page format and the rings, against the emulated NAND.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/tmcore.h"
#include "history/tmflash.h"
#include "tests/unit/fake_mtd.h"

#ifdef KVARD_HAVE_ZLIB
#include <zlib.h>
#endif

namespace {

// Bit-at-a-time reflected CRC-32, written from the definition: an oracle that
// shares nothing with the table-driven code under test.
uint32_t ReferenceCrc(const uint8_t *p, size_t n)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; i++) {
        crc ^= p[i];
        for (int b = 0; b < 8; b++) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return ~crc;
}

TEST(Crc, matches_the_check_values_and_independent_oracles)
{
    TmCrcInit();
    const uint8_t digits[] = "123456789";
    EXPECT_EQ(TmCrc32(digits, 9), 0xCBF43926u);
    const uint8_t zeros[32] = {};
    EXPECT_EQ(TmCrc32(zeros, 32), 0x190A55ADu);
    EXPECT_EQ(TmCrc32(zeros, 0), 0u);
    std::mt19937 rng(20261123);
    for (int round = 0; round < 500; round++) {
        std::vector<uint8_t> data(rng() % 300);
        for (auto &b : data) b = (uint8_t)rng();
        uint32_t got = TmCrc32(data.data(), (uint32_t)data.size());
        ASSERT_EQ(got, ReferenceCrc(data.data(), data.size())) << "round " << round;
#ifdef KVARD_HAVE_ZLIB
        ASSERT_EQ(got, (uint32_t)crc32(0, data.data(), (uInt)data.size())) << "round " << round;
#endif
    }
}

TEST(RecordCodec, fields_are_little_endian_with_the_low_half_of_64_bits_first)
{
    TmRecord r = {-2, 0x01020304, 0x1122334455667788ull, 0x99AABBCCDDEEFF00ull, 0x7FFFFFFF, 0xDEADBEEF};
    uint8_t b[32];
    TmRecordEncode(&r, b);
    const uint8_t expected[32] = {0xFE, 0xFF, 0xFF, 0xFF, 0x04, 0x03, 0x02, 0x01, 0x88, 0x77, 0x66,
                                  0x55, 0x44, 0x33, 0x22, 0x11, 0x00, 0xFF, 0xEE, 0xDD, 0xCC, 0xBB,
                                  0xAA, 0x99, 0xFF, 0xFF, 0xFF, 0x7F, 0xEF, 0xBE, 0xAD, 0xDE};
    EXPECT_EQ(0, memcmp(b, expected, 32));
    TmRecord back;
    TmRecordDecode(b, &back);
    EXPECT_EQ(0, memcmp(&back, &r, sizeof r));
}

class Flash : public FakeMtd {
protected:
    void Init()
    {
        ASSERT_EQ(TmFlashInit(), 0);
        debugFlag = 0;
    }
    // Raw page bytes from the image file, read apart from the code under test.
    std::string Page(uint32_t index, size_t length = 2048) { return ImageBytes().substr(index * 2048, length); }
    // Programs raw bytes into a page through the device, as a foreign writer would.
    void Poke(uint32_t index, const std::vector<uint8_t> &bytes)
    {
        std::vector<uint8_t> page(2048, 0xFF);
        std::copy(bytes.begin(), bytes.end(), page.begin());
        ASSERT_EQ(TmMtdWrite((int64_t)index * 2048, page.data(), 2048), 0);
    }
    std::vector<uint8_t> ValidPage(const TmRecord &r, uint8_t filler0 = 0, uint8_t filler1 = 0)
    {
        std::vector<uint8_t> page(40);
        page[0] = 0x20;
        page[1] = 0;
        page[2] = filler0;
        page[3] = filler1;
        TmRecordEncode(&r, &page[8]);
        uint32_t crc = ReferenceCrc(&page[8], 32);
        for (int i = 0; i < 4; i++) page[4 + i] = (uint8_t)(crc >> (8 * i));
        return page;
    }
};

TEST_F(Flash, an_all_zero_record_is_stored_as_length_filler_crc_record_and_blank)
{
    Init();
    TmRecord zero = {};
    ASSERT_EQ(TmWriteFlash(0, &zero), 0);
    std::string page = Page(0);
    const uint8_t head[8] = {0x20, 0x00, 0, 0, 0xAD, 0x55, 0x0A, 0x19};
    for (int i = 0; i < 8; i++) {
        if (i == 2 || i == 3) continue;  // filler: any value
        EXPECT_EQ((uint8_t)page[i], head[i]) << "byte " << i;
    }
    for (int i = 8; i < 40; i++) EXPECT_EQ((uint8_t)page[i], 0) << "byte " << i;
    for (int i = 40; i < 2048; i++) ASSERT_EQ((uint8_t)page[i], 0xFF) << "byte " << i;
    TmRecord back = {1, 1, 1, 1, 1, 1};
    ASSERT_EQ(TmReadFlash(0, &back), 0);
    EXPECT_EQ(0, memcmp(&back, &zero, sizeof zero));
}

TEST_F(Flash, reading_accepts_only_length_32_with_a_matching_crc)
{
    Init();
    TmRecord r = {100, 160, 5, 6, 7, 0};
    std::vector<uint8_t> good = ValidPage(r);
    std::vector<uint8_t> anyFiller = ValidPage(r, 0xA5, 0x5A);
    std::vector<uint8_t> flippedFillerWord = good;
    flippedFillerWord[8 + 28] ^= 0x01;
    std::vector<uint8_t> flippedCrc = good;
    flippedCrc[4] ^= 0x80;
    std::vector<uint8_t> wrongLength = good;
    wrongLength[0] = 0x1F;
    std::vector<uint8_t> nonsenseTimes = ValidPage({-5, -500, 0, 0, -1, 7});
    struct Case {
        const char *what;
        const std::vector<uint8_t> *bytes;
        int32_t result;
    } cases[] = {
        {"a valid record", &good, 0},
        {"any value in the header's filler bytes", &anyFiller, 0},
        {"a flipped bit in the record's filler word", &flippedFillerWord, -1},
        {"a flipped CRC bit", &flippedCrc, -1},
        {"length 31", &wrongLength, -1},
        {"times that make no sense", &nonsenseTimes, 0},
        {"a blank page", nullptr, -1},
    };
    uint32_t index = 1;
    for (const Case &c : cases) {
        if (c.bytes) Poke(index, *c.bytes);
        TmRecord out = {};
        EXPECT_EQ(TmReadFlash(index, &out), c.result) << c.what;
        index++;
    }
    TmRecord out;
    ASSERT_EQ(TmReadFlash(1, &out), 0);
    EXPECT_EQ(out.tStart, 100);
    EXPECT_EQ(out.tEnd, 160);
    EXPECT_EQ(out.tx, 5u);
    EXPECT_EQ(out.rx, 6u);
    EXPECT_EQ(out.tUsed, 7);
}

TEST_F(Flash, a_blocks_first_page_is_written_over_a_full_block_which_is_erased)
{
    Init();
    TmRecord r = {1, 2, 3, 4, 5, 0};
    for (uint32_t p = 64; p < 128; p++) ASSERT_EQ(TmWriteFlash(p, &r), 0) << p;
    r.tx = 99;
    ASSERT_EQ(TmWriteFlash(64, &r), 0);
    TmRecord out;
    ASSERT_EQ(TmReadFlash(64, &out), 0);
    EXPECT_EQ(out.tx, 99u);
    for (uint32_t p = 65; p < 128; p++) ASSERT_EQ(TmReadFlash(p, &out), -1) << "page " << p << " should be empty";
}

TEST_F(Flash, writing_refuses_a_page_that_is_not_empty_and_leaves_it_alone)
{
    Init();
    TmRecord r = {1, 2, 3, 4, 5, 0};
    ASSERT_EQ(TmWriteFlash(1, &r), 0);
    std::string before = Page(1);
    TmRecord other = {7, 8, 9, 10, 11, 0};
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmWriteFlash(1, &other), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TmWriteFlash fail at 2048(1). The page is not empty.\n");
    EXPECT_EQ(Page(1), before);
}

TEST_F(Flash, each_write_failure_has_its_own_message)
{
    setenv("MTDSIM_BADBLOCKS", "3", 1);
    Init();
    TmRecord r = {1, 2, 3, 4, 5, 0};
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmWriteFlash(3 * 64 + 1, &r), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TmWriteFlash fail at 395264(193). Page can be read!\n");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmWriteFlash(3 * 64, &r), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TmWriteFlash fail at 393216(192). Write returns error!\n");
    setenv("MTDSIM_FAIL_AFTER", "0", 1);  // the next program fails
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmWriteFlash(5, &r), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TmWriteFlash fail at 10240(5). Write returns error!\n");
}

TEST_F(Flash, nothing_is_read_or_written_without_a_geometry)
{
    TmRecord r = {};
    TmFlashCleanup();
    EXPECT_EQ(TmReadFlash(0, &r), -1);
    EXPECT_EQ(TmWriteFlash(0, &r), -1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmFlashPrintRecord(0, &r), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Index:   0 |  MTD not initialized\n");
}

TEST_F(Flash, the_ring_cursor_wraps_and_walks_past_failed_pages)
{
    Init();
    TmRecord r = {1, 2, 3, 4, 5, 0};
    // Ring of two blocks starting at page 64.
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 127, &r), 64u) << "the last page wraps to the ring's start";
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 10, &r), 64u + 11);
    // A page holding a record where an empty one was expected is walked past.
    EXPECT_EQ(WriteToFlash(64, 128, 64 + 10, &r), 64u + 12);
    TmRecord out;
    EXPECT_EQ(TmReadFlash(64 + 11, &out), 0);
}

TEST_F(Flash, a_ring_where_every_page_fails_tries_each_once_and_moves_on_by_one)
{
    setenv("MTDSIM_BADBLOCKS", "1,2", 1);
    Init();
    debugFlag = 1;
    TmRecord r = {1, 2, 3, 4, 5, 0};
    ::testing::internal::CaptureStdout();
    uint32_t next = WriteToFlash(64, 128, 64 + 100, &r);
    std::string out = ::testing::internal::GetCapturedStdout();
    debugFlag = 0;
    EXPECT_EQ(next, 64u + 101);
    for (uint32_t k = 0; k < 128; k++) {
        uint32_t page = 64 + (100 + k) % 128;
        std::string line = "WriteToFlash error index=" + std::to_string(page) + "\n";
        size_t first = out.find(line);
        ASSERT_NE(first, std::string::npos) << "page " << page << " not tried";
        ASSERT_EQ(out.find(line, first + 1), std::string::npos) << "page " << page << " tried twice";
    }
}

TEST_F(Flash, pages_past_the_end_of_a_small_partition_fail_like_bad_pages)
{
    Geometry(2048, 131072, 2 * 131072);
    Init();
    TmRecord r = {1, 2, 3, 4, 5, 0};
    EXPECT_EQ(TmReadFlash(128, &r), -1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmWriteFlash(129, &r), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "TmWriteFlash fail at 264192(129). Page can be read!\n");
    // A ring reaching past the end: its tail fails page by page and the write
    // lands at the ring's start.
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(WriteToFlash(64, 128, 128, &r), 65u);
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(TmReadFlash(64, &r), 0);
}

TEST_F(Flash, the_print_twin_names_each_kind_of_failure)
{
    Init();
    TmRecord r = {0, 0, 12, 34, 56, 0};
    ASSERT_EQ(TmWriteFlash(0, &r), 0);
    std::vector<uint8_t> bad = ValidPage(r);
    bad[8] ^= 1;
    Poke(2, bad);
    setenv("TZ", "UTC", 1);
    tzset();
    TmRecord out;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmFlashPrintRecord(0, &out), 0);
    EXPECT_EQ(TmFlashPrintRecord(1, &out), -1);
    EXPECT_EQ(TmFlashPrintRecord(2, &out), -1);
    std::string text = ::testing::internal::GetCapturedStdout();
    char crcLine[80];
    uint32_t computed = ReferenceCrc(&bad[8], 32);
    uint32_t stored = (uint32_t)bad[4] | bad[5] << 8 | bad[6] << 16 | (uint32_t)bad[7] << 24;
    snprintf(crcLine, sizeof crcLine, "READ FAIL: CRC FAIL (f:%8.8x c:%8.8x)\n", stored, computed);
    EXPECT_EQ(text,
              "Index:   0 | of: 0 tx:12 rx:34 used:56 tStart:1970/01/01 00:00:00 d:0 tEnd:1970/01/01 00:00:00 d:0\n"
              "Index:   1 | of: 2048 READ FAIL: Length Mismatch\n"
              "Index:   2 | of: 4096 " +
                  std::string(crcLine));
}

TEST_F(Flash, the_raw_dump_shows_the_first_ten_bytes_of_readable_pages)
{
    Geometry(2048, 8192, 2 * 8192);
    setenv("MTDSIM_BADBLOCKS", "1", 1);
    Init();
    TmRecord r = {};
    ASSERT_EQ(TmWriteFlash(1, &r), 0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(TmFlashDumpPages(), 0);
    std::string text = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(text,
              "Index 0: ff ff ff ff ff ff ff ff ff ff \n"
              "Index 1: 20 00 00 00 ad 55 0a 19 00 00 \n"
              "Index 2: ff ff ff ff ff ff ff ff ff ff \n"
              "Index 3: ff ff ff ff ff ff ff ff ff ff \n");
}

}  // namespace

namespace {

// A small partition written by the code and kept under tests/fixtures: the
// stored format must never change, so the image is decoded here byte by byte
// and the code must still write exactly these bytes.
const TmRecord kGolden[] = {
    {1700000000, 1700000060, 123456789, 987654321, 60, 0},
    {1700043200, 1700086400, 0x0102030405060708ull, 0xF0E0D0C0B0A09080ull, 43200, 0},
    {-1, 0x7FFFFFFF, 0, ~0ull, -7, 0},
    {0, 0, 0, 0, 0, 0},
};

class Golden : public FakeMtd {};

TEST_F(Golden, the_stored_image_decodes_field_by_field_and_the_code_writes_it_unchanged)
{
    Geometry(512, 2048, 4 * 2048);
    ASSERT_EQ(TmFlashInit(), 0);
    // Pages 0, 1, 5 and 8: in three blocks, one of them a block's first page.
    const uint32_t pages[] = {0, 1, 5, 8};
    for (int i = 0; i < 4; i++) ASSERT_EQ(TmWriteFlash(pages[i], &kGolden[i]), 0);
    std::string written = ImageBytes();
    const std::string fixture = std::string(KVARD_FIXTURES) + "/golden-tm.img";
    if (getenv("KVARD_UPDATE_GOLDEN")) std::ofstream(fixture, std::ios::binary) << written;
    std::string golden = FakeMtdReadAll(fixture);
    ASSERT_EQ(golden.size(), 4u * 2048);
    EXPECT_TRUE(written == golden) << "the code no longer writes the stored format";

    auto u = [&](size_t at, int bytes) {
        uint64_t v = 0;
        for (int i = bytes - 1; i >= 0; i--) v = v << 8 | (uint8_t)golden[at + i];
        return v;
    };
    for (int i = 0; i < 4; i++) {
        size_t at = pages[i] * 512;
        SCOPED_TRACE("page " + std::to_string(pages[i]));
        EXPECT_EQ(u(at, 2), 32u);
        EXPECT_EQ((int32_t)u(at + 8, 4), kGolden[i].tStart);
        EXPECT_EQ((int32_t)u(at + 12, 4), kGolden[i].tEnd);
        EXPECT_EQ(u(at + 16, 8), kGolden[i].tx);
        EXPECT_EQ(u(at + 24, 8), kGolden[i].rx);
        EXPECT_EQ((int32_t)u(at + 32, 4), kGolden[i].tUsed);
        EXPECT_EQ(u(at + 4, 4), ReferenceCrc((const uint8_t *)golden.data() + at + 8, 32));
        for (size_t b = at + 40; b < at + 512; b++) ASSERT_EQ((uint8_t)golden[b], 0xFF);
        TmRecord back;
        ASSERT_EQ(TmReadFlash(pages[i], &back), 0);
        EXPECT_EQ(0, memcmp(&back, &kGolden[i], sizeof back));
    }
    for (uint32_t p : {2u, 3u, 4u, 6u, 7u, 9u, 15u}) EXPECT_EQ(u(p * 512, 2), 0xFFFFu) << "page " << p << " empty";
}

}  // namespace
