// tmctl flash decode, the installed tool as a user runs it. Expected values are
// worked out here by hand from the byte format and the kept image's contents,
// and crafted pages are encoded here, with a CRC computed bit by bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

std::string ReadAll(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const std::string &path, const std::string &data) { std::ofstream(path, std::ios::binary) << data; }

struct Outcome {
    int status;
    std::string out, err;
};

class FlashDecode : public ::testing::Test {
protected:
    std::string dir, tmctl, golden;

    void SetUp() override
    {
        const char *prefix = getenv("KVARD_PREFIX");
        ASSERT_TRUE(prefix && getenv("KVARD_FIXTURES")) << "run through ctest";
        tmctl = std::string(prefix) + "/bin/tmctl";
        golden = std::string(getenv("KVARD_FIXTURES")) + "/golden-tm.img";
        char tmpl[] = "/tmp/tmctl-flash-XXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

    // `tmctl flash decode ARGS` with ENV assignments in front, TZ=UTC unless ENV sets another.
    Outcome Tmctl(const std::string &args, const std::string &env = "")
    {
        std::string cmd = "env TZ=UTC " + env + " '" + tmctl + "' flash decode " + args + " >'" + dir + "/out' 2>'" + dir + "/err'";
        int raw = std::system(cmd.c_str());
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadAll(dir + "/out"), ReadAll(dir + "/err")};
    }
    json Json(const std::string &args, const std::string &env = "")
    {
        Outcome r = Tmctl(args + " --json", env);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        return json::parse(r.out);
    }
};

// The four records the kept image holds (512-byte pages, 2048-byte blocks, 16 pages), in page order.
struct Known {
    unsigned page;
    long long start, end;
    const char *startUtc, *endUtc;
    unsigned long long tx, rx;
    long long seconds;
};
const Known kGolden[] = {
    {0, 1700000000, 1700000060, "2023-11-14 22:13:20", "2023-11-14 22:14:20", 123456789, 987654321, 60},
    {1, 1700043200, 1700086400, "2023-11-15 10:13:20", "2023-11-15 22:13:20", 0x0102030405060708ull,
     0xF0E0D0C0B0A09080ull, 43200},
    {5, -1, 0x7FFFFFFF, "1969-12-31 23:59:59", "2038-01-19 03:14:07", 0, ~0ull, -7},
    {8, 0, 0, "1970-01-01 00:00:00", "1970-01-01 00:00:00", 0, 0, 0},
};
const char kGoldenGeometry[] = " --page-size 512 --block-size 2048";

void ExpectRecord(const json &r, const Known &k, const char *ring = "minute")
{
    EXPECT_EQ(r.at("ring"), ring);
    EXPECT_EQ(r.at("page"), k.page);
    EXPECT_EQ(r.at("start"), k.start);
    EXPECT_EQ(r.at("startLocal"), k.startUtc);
    EXPECT_EQ(r.at("end"), k.end);
    EXPECT_EQ(r.at("endLocal"), k.endUtc);
    EXPECT_EQ(r.at("tx").get<unsigned long long>(), k.tx);
    EXPECT_EQ(r.at("rx").get<unsigned long long>(), k.rx);
    EXPECT_EQ(r.at("seconds"), k.seconds);
}

TEST_F(FlashDecode, the_kept_image_decodes_field_by_field_with_the_daemons_cursors)
{
    json j = Json(golden + kGoldenGeometry);
    EXPECT_EQ(j["source"], json::parse(R"({"path":")" + golden + R"(","kind":"image","size":8192,"pageSize":512,
        "blockSize":2048,"pages":16,"pagesOutsideRings":0})"));
    ASSERT_EQ(j["records"].size(), 4u);
    for (int i = 0; i < 4; i++) ExpectRecord(j["records"][i], kGolden[i]);
    // 4 pages a block: 3 x 720 minute pages, then 2 x 124 half-day pages, nearly all past the 16-page image.
    const json &m = j["rings"]["minute"], &h = j["rings"]["half-day"];
    EXPECT_EQ(m, json::parse(R"({"firstPage":0,"pages":2160,"records":4,"blank":12,"badLength":0,"badCrc":0,
        "unreadable":0,"pastEnd":2144,"nextPage":6,"followedPage":5,"followedEnd":2147483647})"));
    EXPECT_EQ(h, json::parse(R"({"firstPage":2160,"pages":248,"records":0,"blank":0,"badLength":0,"badCrc":0,
        "unreadable":0,"pastEnd":248,"nextPage":2160,"followedPage":null,"followedEnd":null})"));
    ExpectRecord(j["oldest"], kGolden[2]);  // starts a second before the epoch
    ExpectRecord(j["newest"], kGolden[2]);  // ends at the last second of 32-bit time
    EXPECT_FALSE(j.contains("badPages")) << "listed with --verbose only";

    // CSV: a header, then the same fields in the same order, one line per record.
    Outcome csv = Tmctl(golden + kGoldenGeometry + " --csv");
    ASSERT_EQ(csv.status, 0) << csv.err;
    std::istringstream lines(csv.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "ring,page,start,startLocal,end,endLocal,tx,rx,seconds");
    for (const Known &k : kGolden) {
        std::getline(lines, line);
        std::ostringstream want;
        want << "minute," << k.page << ',' << k.start << ',' << k.startUtc << ',' << k.end << ',' << k.endUtc << ','
             << k.tx << ',' << k.rx << ',' << k.seconds;
        EXPECT_EQ(line, want.str());
    }
    EXPECT_FALSE(std::getline(lines, line));

    // Local time is the process's zone: India is 5:30 ahead all year.
    j = Json(golden + kGoldenGeometry, "TZ=Asia/Kolkata");
    EXPECT_EQ(j["records"][0]["startLocal"], "2023-11-15 03:43:20");
    EXPECT_EQ(j["records"][0]["start"], 1700000000);

    // The text for people carries every record's figures and the summary.
    Outcome text = Tmctl(golden + kGoldenGeometry);
    ASSERT_EQ(text.status, 0) << text.err;
    for (const char *figure : {"1700000060", "72623859790382856", "17357102489901502592", "18446744073709551615",
                               "2038-01-19 03:14:07", "(bytes)"})
        EXPECT_NE(text.out.find(figure), std::string::npos) << figure;
}

// One page as stored: length 32, two filler bytes, the CRC, the record, all little-endian.
uint32_t BitCrc(const std::string &data)
{
    uint32_t crc = ~0u;
    for (unsigned char byte : data) {
        crc ^= byte;
        for (int b = 0; b < 8; b++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}
std::string Le(uint64_t v, int n)
{
    std::string s;
    for (; n > 0; n--, v >>= 8) s += (char)(v & 0xFF);
    return s;
}
std::string Page(int32_t start, int32_t end, uint64_t tx = 7, uint64_t rx = 9, int32_t used = 1)
{
    std::string rec = Le((uint32_t)start, 4) + Le((uint32_t)end, 4) + Le(tx, 8) + Le(rx, 8) + Le((uint32_t)used, 4) +
                      Le(0xDEADBEEF, 4);  // the filler word is any value, covered by the CRC
    return Le(32, 2) + "\x5A\xA5" + Le(BitCrc(rec), 4) + rec;
}

TEST_F(FlashDecode, cursors_follow_the_newest_end_with_each_rings_tie_rule)
{
    // Whole rings at 512-byte pages, 4 to a block: 2408 pages, 602 blocks.
    const struct { const char *claim; std::vector<std::pair<unsigned, int32_t>> ends; unsigned minNext, hDayNext; } cases[] = {
        {"equal minute ends: the highest page; equal half-day ends: the lowest",
         {{3, 500}, {7, 500}, {2160, 100}, {2161, 300}, {2162, 300}}, 8, 2162},
        {"the newest in a ring's last page wraps the cursor to the ring's start",
         {{0, 100}, {2159, 900}, {2160, 5}, {2407, 50}}, 0, 2160},
        {"a minute end of 0 is followed, a half-day end of 0 or below is not",
         {{4, 0}, {2160, 0}, {2161, -5}}, 5, 2160},
    };
    for (const auto &c : cases) {
        std::string img(602 * 2048, '\xFF');
        for (auto [page, end] : c.ends) img.replace(page * 512, 40, Page(end - 60, end));
        WriteAll(dir + "/rings.img", img);
        json j = Json(dir + "/rings.img --page-size 512 --block-size 2048");
        EXPECT_EQ(j["rings"]["minute"]["nextPage"], c.minNext) << c.claim;
        EXPECT_EQ(j["rings"]["half-day"]["nextPage"], c.hDayNext) << c.claim;
        EXPECT_EQ(j["records"].size(), c.ends.size()) << c.claim;
        EXPECT_EQ(j["rings"]["minute"]["pastEnd"], 0) << c.claim;
        EXPECT_EQ(j["source"]["pagesOutsideRings"], 0) << c.claim;
    }
}

TEST_F(FlashDecode, pages_failing_the_length_or_crc_test_are_counted_and_listed_with_verbose)
{
    std::string img = ReadAll(golden);
    img[0 * 512] = 0x21;                 // length 33
    img[1 * 512 + 8 + 28] ^= 0x01;       // a bit of the filler word: the CRC no longer matches
    img[5 * 512 + 2] = 0x77;             // header filler bytes: any value, still valid
    WriteAll(dir + "/bad.img", img);
    json j = Json(dir + "/bad.img --verbose" + kGoldenGeometry);
    ASSERT_EQ(j["records"].size(), 2u);
    ExpectRecord(j["records"][0], kGolden[2]);
    ExpectRecord(j["records"][1], kGolden[3]);
    EXPECT_EQ(j["rings"]["minute"]["badLength"], 1);
    EXPECT_EQ(j["rings"]["minute"]["badCrc"], 1);
    EXPECT_EQ(j["rings"]["minute"]["blank"], 12);
    ASSERT_EQ(j["badPages"].size(), 2u);
    EXPECT_EQ(j["badPages"][0], json::parse(R"({"ring":"minute","page":0,"problem":"length","length":33})"));
    const json &crc = j["badPages"][1];
    EXPECT_EQ(crc["page"], 1);
    EXPECT_EQ(crc["problem"], "crc");
    std::string record = img.substr(512 + 8, 32);
    EXPECT_EQ(crc["computedCrc"], BitCrc(record));
    EXPECT_EQ(crc["storedCrc"], BitCrc(ReadAll(golden).substr(512 + 8, 32)));
    Outcome text = Tmctl(dir + "/bad.img --verbose" + kGoldenGeometry);
    EXPECT_NE(text.out.find("length field 33"), std::string::npos) << text.out;
}

TEST_F(FlashDecode, a_device_of_the_emulated_nand_is_read_and_never_erased_or_programmed)
{
    std::string image = dir + "/nand.img", log = dir + "/nand.log";
    WriteAll(image, ReadAll(golden));
    const char *asan = getenv("KVARD_ASAN_RUNTIME");
    std::string env = "LD_PRELOAD=" + std::string(asan ? std::string(asan) + ":" : "") + getenv("KVARD_PREFIX") +
                      "/lib/kvard/libmtdsim.so MTDSIM_IMAGE=" + image + " MTDSIM_LOG=" + log +
                      " MTDSIM_WRITESIZE=512 MTDSIM_ERASESIZE=2048 MTDSIM_DEVICE=/dev/mtd3";
    json j = Json("/dev/mtd3", env);
    EXPECT_EQ(j["source"]["kind"], "device");
    EXPECT_EQ(j["source"]["pageSize"], 512);
    EXPECT_EQ(j["source"]["blockSize"], 2048);
    ASSERT_EQ(j["records"].size(), 4u);
    for (int i = 0; i < 4; i++) ExpectRecord(j["records"][i], kGolden[i]);

    // Block 2 (pages 8 to 11) bad: its record is not read.
    j = Json("/dev/mtd3 --verbose", env + " MTDSIM_BADBLOCKS=2");
    EXPECT_EQ(j["records"].size(), 3u);
    EXPECT_EQ(j["rings"]["minute"]["unreadable"], 4);
    EXPECT_EQ(j["badPages"][0], json::parse(R"({"ring":"minute","page":8,"problem":"bad-block"})"));

    Outcome withGeometry = Tmctl("/dev/mtd3 --page-size 512", env);
    EXPECT_EQ(withGeometry.status, 2);
    EXPECT_EQ(ReadAll(log), "") << "an erase or a program reached the device";
    EXPECT_TRUE(ReadAll(image) == ReadAll(golden));
}

TEST_F(FlashDecode, errors_give_the_documented_status_and_one_line_naming_the_problem)
{
    WriteAll(dir + "/empty.img", "");
    const struct { std::string args; int status; std::string mentions; } cases[] = {
        {dir + "/missing.img", 1, dir + "/missing.img: cannot open"},
        {golden, 1, "8192 bytes is not a whole number of 131072-byte blocks"},  // the default geometry
        {golden + " --page-size 512 --block-size 3072", 1, "not a whole number of 3072-byte blocks"},
        {dir + "/empty.img", 1, "empty"},
        {"/dev/null", 1, "/dev/null: not an MTD device"},
        {golden + " --page-size 32 --block-size 2048", 2, "32-byte pages"},  // a page must hold the 40 bytes
        {golden + " --page-size 512 --block-size 1000", 2, "1000-byte blocks"},
        {golden + " --page-size 0", 2, "--page-size"},
        {golden + " --page-size", 2, "--page-size needs a value"},
        {golden + " --json --csv", 2, "--json"},
        {golden + " --frobnicate", 2, "--frobnicate"},
        {golden + " " + golden, 2, "unexpected argument"},
        {"", 2, "IMAGE or DEVICE"},
    };
    for (const auto &c : cases) {
        Outcome r = Tmctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_EQ(r.out, "") << c.args;
        EXPECT_EQ(r.err.rfind("tmctl: ", 0), 0u) << c.args << ": " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.args << ": " << r.err;
        EXPECT_NE(r.err.find(c.mentions), std::string::npos) << c.args << ": " << r.err;
    }
    Outcome help = Tmctl("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: tmctl flash decode", 0), 0u);
}

}  // namespace
