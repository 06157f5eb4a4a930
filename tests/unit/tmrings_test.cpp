// The page decoder and the ring rules as pure functions, without a device.
#include <gtest/gtest.h>

#include <cstring>

#include "history/tmpage.h"
#include "history/tmrings.h"

namespace {

TEST(TmRings, the_rings_are_three_minute_lists_then_two_half_day_lists_in_whole_blocks)
{
    const struct { uint32_t perBlock, minSize, hDaySize; } cases[] = {
        {64, 2304, 256},  // 2 KiB pages, 128 KiB blocks: pages 0-2303 and 2304-2559
        {4, 2160, 248},   // both lists are whole blocks already
        {720, 2160, 1440}, {1, 2160, 248}, {1000, 3000, 2000},
    };
    for (const auto &c : cases) {
        TmRings r;
        TmRingLayout(c.perBlock, &r);
        EXPECT_EQ(r.minStart, 0u) << c.perBlock;
        EXPECT_EQ(r.minSize, c.minSize) << c.perBlock;
        EXPECT_EQ(r.hDayStart, c.minSize) << c.perBlock;
        EXPECT_EQ(r.hDaySize, c.hDaySize) << c.perBlock;
    }
}

TEST(TmRings, a_geometry_carries_the_rings_only_with_40_byte_pages_and_whole_pages_per_block)
{
    const struct { uint32_t page, block; int32_t usable; } cases[] = {
        {2048, 131072, 1}, {40, 40, 1}, {39, 39 * 4, 0}, {0, 0, 0}, {512, 256, 0}, {512, 1000, 0}, {512, 0, 0},
    };
    for (const auto &c : cases) EXPECT_EQ(TmGeometryUsable(c.page, c.block), c.usable) << c.page << "/" << c.block;
}

TEST(TmPage, a_page_is_valid_blank_of_bad_length_or_of_bad_crc)
{
    TmCrcInit();
    const TmRecord rec = {1700000000, 1700000060, 5, 6, 60, 0xA5A5A5A5};
    uint8_t page[TM_FLASH_DATA_SIZE];
    TmEncodePage(&rec, page);
    TmRecord out;
    TmPageCheck check;
    page[2] = 0x12;  // the header's filler bytes are not covered
    ASSERT_EQ(TmDecodePage(page, &out, &check), TM_PAGE_VALID);
    EXPECT_EQ(memcmp(&out, &rec, sizeof rec), 0);
    EXPECT_EQ(check.storedCrc, check.computedCrc);

    struct { int at; uint8_t value; int32_t state; uint16_t length; } cases[] = {
        {0, 0xFF, TM_PAGE_BAD_LENGTH, 0x00FF}, {1, 0x01, TM_PAGE_BAD_LENGTH, 0x0120},
        {36, 0x5A, TM_PAGE_BAD_CRC, 32},  // the record's filler word is covered
        {4, 0x00, TM_PAGE_BAD_CRC, 32},
    };
    for (const auto &c : cases) {
        uint8_t bad[TM_FLASH_DATA_SIZE];
        memcpy(bad, page, sizeof bad);
        bad[c.at] = c.value;
        TmRecord untouched = {};
        EXPECT_EQ(TmDecodePage(bad, &untouched, &check), c.state) << c.at;
        EXPECT_EQ(check.length, c.length) << c.at;
        EXPECT_EQ(untouched.tStart, 0) << "no record copied out of a bad page";
    }
    uint8_t blank[TM_FLASH_DATA_SIZE];
    memset(blank, 0xFF, sizeof blank);
    EXPECT_EQ(TmDecodePage(blank, &out, nullptr), TM_PAGE_EMPTY);
    blank[2] = 0;  // only the length marks a page blank
    EXPECT_EQ(TmDecodePage(blank, &out, nullptr), TM_PAGE_EMPTY);
}

}  // namespace
