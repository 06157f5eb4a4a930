// tmctl's control datagrams against hand-written bytes, and its parsing of
// message codes and hex.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/tmctl/wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct DatagramCase {
    const char *what;
    uint16_t code;
    Bytes body;
    Bytes expected;
};

class Datagram : public ::testing::TestWithParam<DatagramCase> {};

TEST_P(Datagram, header_is_magic_code_length_and_zero_little_endian)
{
    EXPECT_EQ(tmctl::buildDatagram(GetParam().code, GetParam().body), GetParam().expected) << GetParam().what;
}

Bytes simInput()
{
    Bytes d = {0x2D, 0xA5, 0x56, 0x1C, 0x1C, 0x00, 0x00, 0x00};
    d.resize(8 + 28, 0xEE);
    return d;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Datagram,
    ::testing::Values(
        DatagramCase{"heartbeat without text", 1, {}, {0x2D, 0xA5, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00}},
        DatagramCase{"heartbeat 'hi'", 1, tmctl::textBody("hi"),
                     {0x2D, 0xA5, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00, 'h', 'i', 0x00}},
        DatagramCase{"debug on", 4436, {0x3E, 0x14, 0x00, 0x00, 0x01},
                     {0x2D, 0xA5, 0x54, 0x11, 0x05, 0x00, 0x00, 0x00, 0x3E, 0x14, 0x00, 0x00, 0x01}},
        DatagramCase{"sim input", 7254, Bytes(28, 0xEE), simInput()},
        DatagramCase{"dump raw flash", 104, {}, {0x2D, 0xA5, 0x68, 0x00, 0x00, 0x00, 0x00, 0x00}},
        DatagramCase{"highest code", 0xFFFF, {}, {0x2D, 0xA5, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00}},
        DatagramCase{"long body", 1, Bytes(300, 'x'),
                     [] {
                         Bytes d = {0x2D, 0xA5, 0x01, 0x00, 0x2C, 0x01, 0x00, 0x00};
                         d.resize(308, 'x');
                         return d;
                     }()}));

struct CodeCase {
    const char *text;
    bool ok;
    uint16_t code;
};

class Code : public ::testing::TestWithParam<CodeCase> {};

TEST_P(Code, is_a_message_name_or_a_number_up_to_65535)
{
    uint16_t code = 0xBEEF;
    EXPECT_EQ(tmctl::parseCode(GetParam().text, &code), GetParam().ok) << GetParam().text;
    EXPECT_EQ(code, GetParam().ok ? GetParam().code : 0xBEEF) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Names, Code,
    ::testing::Values(CodeCase{"TM_MSG_HEARTBEAT", true, 1}, CodeCase{"TM_MSG_CONFIG_UPDATE", true, 2},
                      CodeCase{"TM_MSG_LINK_UPDATE", true, 3}, CodeCase{"TM_MSG_TIME_UPDATE", true, 4},
                      CodeCase{"TM_MSG_RESET_COUNTER", true, 5}, CodeCase{"TM_MSG_WRITE_STATISTIC", true, 6},
                      CodeCase{"TM_MSG_TIME_WAKE", true, 7}, CodeCase{"TM_MSG_DUMP_STATE", true, 100},
                      CodeCase{"TM_MSG_DUMP_STATE_LISTS", true, 101}, CodeCase{"TM_MSG_DUMP_MIN_FLASH", true, 102},
                      CodeCase{"TM_MSG_DUMP_HDAY_FLASH", true, 103}, CodeCase{"TM_MSG_DUMP_RAW_FLASH", true, 104},
                      CodeCase{"TM_MSG_SET_DEBUG", true, 4436}, CodeCase{"TM_MSG_SIM_WAKE", true, 5640},
                      CodeCase{"TM_MSG_SIM_INPUT", true, 7254}));

INSTANTIATE_TEST_SUITE_P(
    Numbers, Code,
    ::testing::Values(CodeCase{"0", true, 0}, CodeCase{"99", true, 99}, CodeCase{"4436", true, 4436},
                      CodeCase{"0x1154", true, 0x1154}, CodeCase{"0X1c56", true, 0x1C56},
                      CodeCase{"65535", true, 65535}, CodeCase{"0xFFFF", true, 65535}, CodeCase{"65536", false, 0},
                      CodeCase{"0x10000", false, 0}, CodeCase{"-1", false, 0}, CodeCase{"", false, 0},
                      CodeCase{"0x", false, 0}, CodeCase{" 1", false, 0}, CodeCase{"1e3", false, 0},
                      CodeCase{"tm_msg_heartbeat", false, 0}, CodeCase{"TM_MSG_HEARTBEAT ", false, 0},
                      CodeCase{"TM_MSG_NOTHING", false, 0}, CodeCase{"99999999999", false, 0}));

struct HexCase {
    const char *text;
    bool ok;
    Bytes bytes;
};

class Hex : public ::testing::TestWithParam<HexCase> {};

TEST_P(Hex, takes_digit_pairs_with_blanks_between_them)
{
    Bytes out = {0x99};
    std::string error;
    EXPECT_EQ(tmctl::parseHex(GetParam().text, &out, &error), GetParam().ok) << GetParam().text;
    if (GetParam().ok) {
        EXPECT_EQ(out, GetParam().bytes);
    } else {
        EXPECT_EQ(out, Bytes{0x99});
        EXPECT_FALSE(error.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Hex,
                         ::testing::Values(HexCase{"2da50100", true, {0x2D, 0xA5, 0x01, 0x00}},
                                           HexCase{"2D A5 01 00", true, {0x2D, 0xA5, 0x01, 0x00}},
                                           HexCase{" 2d\ta5\n", true, {0x2D, 0xA5}}, HexCase{"", true, {}},
                                           HexCase{"   ", true, {}}, HexCase{"2", false, {}},
                                           HexCase{"2da", false, {}}, HexCase{"2 d", false, {}},
                                           HexCase{"zz", false, {}}, HexCase{"0x2d", false, {}}));

TEST(Reply, is_a_signed_little_endian_word)
{
    const uint8_t minusOne[] = {0xFF, 0xFF, 0xFF, 0xFF};
    const uint8_t one[] = {0x01, 0x00, 0x00, 0x00};
    const uint8_t threeMillion[] = {0xC0, 0xC6, 0x2D, 0x00};
    const uint8_t lowest[] = {0x00, 0x00, 0x00, 0x80};
    EXPECT_EQ(tmctl::replyWord(minusOne), -1);
    EXPECT_EQ(tmctl::replyWord(one), 1);
    EXPECT_EQ(tmctl::replyWord(threeMillion), 3000000);
    EXPECT_EQ(tmctl::replyWord(lowest), INT32_MIN);
}

}  // namespace
