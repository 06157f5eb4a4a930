// The manual reset against a flash image laid out by hand: which pages are
// rewritten, which blocks are erased, what the records hold afterwards, the
// stored reset time and the figures published.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;

// The default partition: 8 MiB of 128 KiB blocks and 2 KiB pages; the minute
// ring is pages 0-2303, the half-day ring 2304-2559.
constexpr size_t kPageSize = 2048, kImageSize = 8 << 20;
constexpr uint32_t kHDayRing = 2304;

int32_t Utc(const std::string &text)
{
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) throw std::runtime_error("bad clock text " + text);
    return int32_t(timegm(&tm));
}

const int32_t L = Utc("2024-01-01 00:00:00");  // the period's start
const int32_t D = Utc("2024-01-15 00:00:00");  // today; the clock stands at 10:00
int32_t At(int hour, int minute) { return D + hour * 3600 + minute * 60; }

struct Record {
    int32_t tStart = 0, tEnd = 0;
    uint64_t tx = 0, rx = 0;
    int32_t tUsed = 0;
    bool operator==(const Record &o) const
    {
        return tStart == o.tStart && tEnd == o.tEnd && tx == o.tx && rx == o.rx && tUsed == o.tUsed;
    }
};
void PrintTo(const Record &r, std::ostream *out)
{
    *out << "{" << r.tStart << ".." << r.tEnd << " tx " << r.tx << " rx " << r.rx << " used " << r.tUsed << "}";
}
Record Zeroed(Record r)
{
    r.tx = r.rx = 0;
    r.tUsed = 0;
    return r;
}

uint32_t Crc32(const unsigned char *data, size_t size)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; i++) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// Little-endian on the host as on the router: the record is its memory image.
void PutRecord(std::string &image, uint32_t page, const Record &r)
{
    unsigned char body[32] = {};
    memcpy(body + 0, &r.tStart, 4);
    memcpy(body + 4, &r.tEnd, 4);
    memcpy(body + 8, &r.tx, 8);
    memcpy(body + 16, &r.rx, 8);
    memcpy(body + 24, &r.tUsed, 4);
    uint32_t crc = Crc32(body, 32);
    char *p = &image[page * kPageSize];
    p[0] = 32, p[1] = 0, p[2] = 0, p[3] = 0;
    memcpy(p + 4, &crc, 4);
    memcpy(p + 8, body, 32);
}

// What a page holds: a record, "blank" (all 0xFF) or "invalid".
struct Page {
    std::optional<Record> record;
    bool blank = false;
};
Page GetPage(const std::string &image, uint32_t page)
{
    Page result;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(image.data()) + page * kPageSize;
    result.blank = true;
    for (size_t i = 0; i < kPageSize; i++) result.blank = result.blank && p[i] == 0xFF;
    uint32_t crc;
    memcpy(&crc, p + 4, 4);
    if (p[0] == 32 && p[1] == 0 && crc == Crc32(p + 8, 32)) {
        Record r;
        memcpy(&r.tStart, p + 8, 4);
        memcpy(&r.tEnd, p + 12, 4);
        memcpy(&r.tx, p + 16, 8);
        memcpy(&r.rx, p + 24, 8);
        memcpy(&r.tUsed, p + 32, 4);
        bool tailBlank = true;
        for (size_t i = 40; i < kPageSize; i++) tailBlank = tailBlank && p[i] == 0xFF;
        if (tailBlank) result.record = r;
    }
    return result;
}

// The records of the hand-made image, by page.
const Record kPrevMinute1 = {L - 3600, L - 3540, 1, 10000000, 0};  // earlier period
const Record kPrevMinute2 = {L - 3540, L - 3480, 2, 20000000, 0};
const Record kMinute0900 = {At(9, 0), At(9, 1), 3, 500000, 0};  // this period, running half-day
const Record kPrevMinute3 = {L - 7200, L - 7140, 0, 5000000, 0};
const Record kZeroMinute0800 = {At(8, 0), At(8, 1), 0, 0, 0};  // zeroed by an earlier reset
const Record kMinute0930 = {At(9, 30), At(9, 31), 7, 700000, 0};
const Record kMinute0931 = {At(9, 31), At(9, 32), 8, 800000, 0};
const Record kPrevHalfDay = {L - 43200, L, 10, 1000000, 0};
const Record kSecondBefore = {L - 1, L + 43199, 20, 2000000, 0};  // starts a second before the period
const Record kAtStart = {L, L + 43200, 30, 3000000, 0};            // starts at the period's first second
const Record kYesterdayPm = {D - 43200, D, 40, 4000000, 0};
const Record kZeroHalfDay = {L + 86400, L + 129600, 0, 0, 0};

std::string Image(const std::vector<std::pair<uint32_t, Record>> &pages)
{
    std::string image(kImageSize, '\xFF');
    for (const auto &[page, record] : pages) PutRecord(image, page, record);
    return image;
}

// Block 0: an earlier period's records, a blank page, then the period's
// record; block 1 an earlier period only; block 2 a zeroed record; block 3 the
// period's records around a blank page. The half-day ring's first block holds
// all kinds. No minute record lies before the running half-day and after the
// newest half-day record, so the start writes nothing.
const std::vector<std::pair<uint32_t, Record>> kFullImage = {
    {0, kPrevMinute1},
    {2, kPrevMinute2},
    {3, kMinute0900},
    {64, kPrevMinute3},
    {128, kZeroMinute0800},
    {192, kMinute0930},
    {194, kMinute0931},
    {kHDayRing + 0, kPrevHalfDay},
    {kHDayRing + 1, kSecondBefore},
    {kHDayRing + 2, kAtStart},
    {kHDayRing + 3, kYesterdayPm},
    {kHDayRing + 4, kZeroHalfDay},
};

std::string Le32(int32_t value)
{
    std::string bytes(4, '\0');
    memcpy(&bytes[0], &value, 4);
    return bytes;
}

std::string Field(const Sandbox &box, const char *object, const char *field)
{
    auto o = box.ReadObject(object);
    if (!o) return "<no object>";
    auto it = o->find(field);
    return it == o->end() ? "<absent>" : it->second;
}

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The NAND operations logged since OFFSET.
std::vector<std::string> NandOps(const Sandbox &box, size_t offset)
{
    std::string log = box.ReadFile("sandbox/nand.log").value_or("");
    return Lines(log.size() > offset ? log.substr(offset) : "");
}
size_t NandLogSize(const Sandbox &box) { return box.ReadFile("sandbox/nand.log").value_or("").size(); }

const char *kNandLog = "MTDSIM_LOG=/.sandbox/nand.log";

void Reset(Sandbox &box, const std::string &clock, int expected)
{
    box.SetTime(clock);
    auto reply = box.Send(kResetCounter);
    if (reply != expected) throw std::runtime_error("TM_MSG_RESET_COUNTER at " + clock + ": unexpected reply");
}

void WakeAt(Sandbox &box, const std::string &clock)
{
    box.SetTime(clock);
    if (box.Send(kTimeWake) != 1) throw std::runtime_error("TM_MSG_TIME_WAKE at " + clock + " not answered with 1");
}

TEST(Reset, a_reset_with_no_figures_of_the_period_on_flash_writes_and_erases_nothing)
{
    struct Case {
        const char *claim;
        std::vector<std::pair<uint32_t, Record>> pages;  // empty: no image before the start
        bool synchronised;
    } cases[] = {
        {"an empty flash", {}, true},
        {"records of an earlier period only",
         {{0, kPrevMinute1}, {2, kPrevMinute2}, {64, kPrevMinute3}, {kHDayRing, kPrevHalfDay}},
         true},
        {"records of the period already zeroed", {{128, kZeroMinute0800}, {kHDayRing, kZeroHalfDay}}, true},
        {"records of the period, the clock not synchronised", kFullImage, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.claim);
        Sandbox box;
        if (!c.pages.empty()) box.WriteFile("sandbox/mtd.img", Image(c.pages));
        if (!c.synchronised) box.UpdateObject("1045", {{"status", "Unsynchronized"}});
        box.Start({kNandLog});
        ASSERT_TRUE(box.WaitReady());
        auto before = box.ReadFile("sandbox/mtd.img");
        ASSERT_TRUE(before);
        size_t logged = NandLogSize(box);
        Reset(box, "2024-01-15 10:00:20", 1);
        EXPECT_TRUE(NandOps(box, logged).empty());
        EXPECT_TRUE(box.ReadFile("sandbox/mtd.img") == before) << "the image changed";
        EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:00:20")));
    }
}

TEST(Reset, a_reset_zeroes_the_records_of_the_period_and_rewrites_only_their_blocks)
{
    Sandbox box;
    box.WriteFile("sandbox/mtd.img", Image(kFullImage));
    box.UpdateObject("2888", {{"contrl_type", "Download only"}, {"volume_monthly_limit", "5"}});
    box.SetNetDev({{"eth0.1", 0, 0}});
    box.Start({kNandLog});
    ASSERT_TRUE(box.WaitReady());
    ASSERT_TRUE(NandOps(box, 0).empty()) << "the start wrote to flash";
    EXPECT_NE(Field(box, "2889", "thismonth_download"), "0.00");
    WakeAt(box, "2024-01-15 10:00:10");
    ASSERT_EQ(Field(box, "2888", "markStatus"), "3") << "the restored month is over 5 MB";

    box.SetNetDev({{"eth0.1", 3000000, 0}});  // pending in the running minute: gone with the reset
    Reset(box, "2024-01-15 10:00:20", 1);
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:00:20")));
    EXPECT_EQ(NandOps(box, 0), (std::vector<std::string>{
                                   "erase 0 131072 ok",  // block 0: the period's record is its last page
                                   "program 0 2048 ok",
                                   "program 2048 2048 ok",  // the blank page before it
                                   "program 4096 2048 ok",
                                   "program 6144 2048 ok",
                                   "erase 393216 131072 ok",  // block 3: the blank page between stays blank
                                   "program 393216 2048 ok",
                                   "program 397312 2048 ok",
                                   "erase 4718592 131072 ok",  // the half-day ring's first block
                                   "program 4718592 2048 ok",
                                   "program 4720640 2048 ok",
                                   "program 4722688 2048 ok",
                                   "program 4724736 2048 ok",
                                   "program 4726784 2048 ok",
                               }));
    std::string image = box.ReadFile("sandbox/mtd.img").value_or("");
    ASSERT_EQ(image.size(), kImageSize);
    struct Expected {
        uint32_t page;
        std::optional<Record> record;  // nullopt: blank
    } pages[] = {
        {0, kPrevMinute1},
        {1, Record{}},  // an all-zero record where the page was blank
        {2, kPrevMinute2},
        {3, Zeroed(kMinute0900)},
        {4, std::nullopt},
        {63, std::nullopt},
        {64, kPrevMinute3},
        {128, kZeroMinute0800},
        {192, Zeroed(kMinute0930)},
        {193, std::nullopt},
        {194, Zeroed(kMinute0931)},
        {195, std::nullopt},
        {kHDayRing + 0, kPrevHalfDay},
        {kHDayRing + 1, kSecondBefore},
        {kHDayRing + 2, Zeroed(kAtStart)},
        {kHDayRing + 3, Zeroed(kYesterdayPm)},
        {kHDayRing + 4, kZeroHalfDay},
        {kHDayRing + 5, std::nullopt},
    };
    for (const Expected &e : pages) {
        SCOPED_TRACE("page " + std::to_string(e.page));
        Page p = GetPage(image, e.page);
        EXPECT_EQ(p.record, e.record);
        EXPECT_EQ(p.blank, !e.record.has_value());
    }
    for (const char *field : {"thismonth_download", "thismonth_upload", "today_download", "thisweek_download"})
        EXPECT_EQ(Field(box, "2889", field), "0.00") << field;
    EXPECT_EQ(Field(box, "2889", "lastmonth_download"), "1.00") << "the period before keeps its figures";
    EXPECT_EQ(Field(box, "2889", "start_data_time"), "Mon Jan 15 10:00:20 2024\n");
    WakeAt(box, "2024-01-15 10:00:30");
    EXPECT_EQ(Field(box, "2888", "markStatus"), "0");

    // A new minute of traffic after the reset lands in block 3; a second
    // reset rewrites that block alone, and its blank page now becomes a record.
    box.SetNetDev({{"eth0.1", 4000000, 0}});
    WakeAt(box, "2024-01-15 10:01:00");
    EXPECT_EQ(GetPage(box.ReadFile("sandbox/mtd.img").value_or(image), 195).record,
              (Record{At(10, 0), At(10, 1), 0, 1000000, 0}));
    size_t logged = NandLogSize(box);
    Reset(box, "2024-01-15 10:01:10", 1);
    EXPECT_EQ(NandOps(box, logged), (std::vector<std::string>{
                                        "erase 393216 131072 ok",
                                        "program 393216 2048 ok",
                                        "program 395264 2048 ok",
                                        "program 397312 2048 ok",
                                        "program 399360 2048 ok",
                                    }));
    image = box.ReadFile("sandbox/mtd.img").value_or("");
    EXPECT_EQ(GetPage(image, 193).record, Record{});
    EXPECT_EQ(GetPage(image, 195).record, (Record{At(10, 0), At(10, 1), 0, 0, 0}));
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:01:10")));
    EXPECT_EQ(Field(box, "2889", "thismonth_download"), "0.00");

    // The reset outlives a restart: the records say nothing, the file says when.
    box.Stop();
    box.SetTime("2024-01-15 10:02:00");
    box.Start({kNandLog});
    ASSERT_TRUE(box.WaitReady());
    EXPECT_EQ(Field(box, "2889", "thismonth_download"), "0.00");
    EXPECT_EQ(Field(box, "2889", "lastmonth_download"), "1.00");
    EXPECT_EQ(Field(box, "2889", "start_data_time"), "Mon Jan 15 10:01:10 2024\n");
}

TEST(Reset, a_page_that_cannot_be_rewritten_gives_0_and_the_other_blocks_are_still_reset)
{
    // The first erase of the run fails: block 0 keeps its records, figures and
    // all, except that its blank page takes the all-zero record.
    Sandbox box;
    box.WriteFile("sandbox/mtd.img", Image(kFullImage));
    box.Start({kNandLog, "MTDSIM_FAIL_AFTER=0"});
    ASSERT_TRUE(box.WaitReady());
    Reset(box, "2024-01-15 10:00:20", 0);
    EXPECT_TRUE(box.WaitStdout("TmWriteFlash fail at 0(0). Write returns error!\n"));
    EXPECT_TRUE(box.WaitStdout("TmWriteFlash fail at 4096(2). The page is not empty.\n"));
    EXPECT_TRUE(box.WaitStdout("TmWriteFlash fail at 6144(3). The page is not empty.\n"));
    std::string image = box.ReadFile("sandbox/mtd.img").value_or("");
    ASSERT_EQ(image.size(), kImageSize);
    EXPECT_EQ(GetPage(image, 0).record, kPrevMinute1);
    EXPECT_EQ(GetPage(image, 1).record, Record{});
    EXPECT_EQ(GetPage(image, 3).record, kMinute0900);
    EXPECT_EQ(GetPage(image, 192).record, Zeroed(kMinute0930));
    EXPECT_EQ(GetPage(image, 194).record, Zeroed(kMinute0931));
    EXPECT_EQ(GetPage(image, kHDayRing + 2).record, Zeroed(kAtStart));
    EXPECT_EQ(GetPage(image, kHDayRing + 3).record, Zeroed(kYesterdayPm));
    EXPECT_EQ(box.ReadFile("data/tmrestarttime.data"), Le32(Utc("2024-01-15 10:00:20")));
    EXPECT_EQ(Field(box, "2889", "thismonth_download"), "0.50") << "the minute that kept its figures counts again";
}

}  // namespace
