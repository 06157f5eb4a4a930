// Control datagrams against the production daemon in the sandbox: validity
// rules, every code's reply word and effect, the silence timer.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "tests/system/harness.h"

namespace {

using namespace kvard::test;
using std::chrono::milliseconds;

// Header fields in the target's (little-endian) order, then the body.
std::string Datagram(uint16_t magic, uint16_t code, uint16_t length, const std::string &body = {})
{
    std::string d;
    for (uint16_t v : {magic, code, length, uint16_t(0)}) {
        d += char(v & 0xFF);
        d += char(v >> 8);
    }
    return d + body;
}

std::string Word(uint32_t v)
{
    std::string s(4, '\0');
    memcpy(&s[0], &v, 4);
    return s;
}

int32_t ReplyWord(const std::optional<std::string> &reply)
{
    EXPECT_TRUE(reply.has_value()) << "no reply";
    if (!reply || reply->size() != 4) {
        ADD_FAILURE() << "reply of " << (reply ? reply->size() : 0) << " bytes";
        return INT32_MIN;
    }
    int32_t w;
    memcpy(&w, reply->data(), 4);
    return w;
}

// TmSimInput: simNow, 4 reserved bytes, simTx, simRx, simMsg.
std::string SimInput(uint32_t now, uint64_t tx, uint64_t rx, int32_t msg)
{
    std::string b(28, '\0');
    memcpy(&b[0], &now, 4);
    memcpy(&b[8], &tx, 8);
    memcpy(&b[16], &rx, 8);
    memcpy(&b[24], &msg, 4);
    return b;
}

class Protocol : public ::testing::Test {
protected:
    Sandbox box;
    void SetUp() override
    {
        box.Start();
        ASSERT_TRUE(box.WaitReady());
    }
    int32_t Raw(const std::string &datagram) { return ReplyWord(box.Request(datagram)); }
    // Debug printing shows whether the loop is alive and what it does.
    void Debug(bool on)
    {
        ASSERT_EQ(box.Send(4436, Word(on ? 5182 : 0) + std::string(1, '\0')), 1);
    }
};

TEST_F(Protocol, malformed_datagrams_get_minus_one_and_change_nothing)
{
    struct Case {
        const char *claim;
        std::string datagram;
    } cases[] = {
        {"7 bytes, even with a correct magic", Datagram(0xA52D, 1, 0).substr(0, 7)},
        {"1 byte", std::string(1, '\x2D')},
        {"wrong magic", Datagram(0xA52E, 1, 0)},
        {"magic in network byte order", Datagram(0x2DA5, 1, 0)},
        {"length 0 with a body", Datagram(0xA52D, 1, 0, "abc")},
        {"length larger than the bytes sent", Datagram(0xA52D, 1, 4, "abc")},
        {"length smaller than the bytes sent", Datagram(0xA52D, 1, 2, "abc")},
        {"120 bytes with an honest length arrive cut to 101", Datagram(0xA52D, 1, 112, std::string(112, 'x'))},
        {"a malformed debug switch", Datagram(0xA52D, 4436, 4, Word(5182) + "x")},
    };
    for (const Case &c : cases) EXPECT_EQ(Raw(c.datagram), -1) << c.claim;
    EXPECT_EQ(box.Stdout().find("Heart Beat"), std::string::npos) << "nothing was handled";
    EXPECT_EQ(box.Stdout().find("KVARD select"), std::string::npos) << "debug printing stayed off";
}

TEST_F(Protocol, a_zero_length_datagram_gets_no_reply)
{
    EXPECT_EQ(box.Request(std::string(), milliseconds(600)), std::nullopt);
    EXPECT_EQ(box.Send(1), 0) << "and the daemon goes on";
}

TEST_F(Protocol, the_longest_body_is_93_bytes)
{
    std::string text(92, 'h');
    EXPECT_EQ(Raw(Datagram(0xA52D, 1, 93, text + '\0')), 0);
    EXPECT_TRUE(box.WaitStdout("Heart Beat: " + text + "\n"));
}

TEST_F(Protocol, heartbeat_text_ends_at_its_first_nul_or_with_the_body)
{
    EXPECT_EQ(box.Send(1), 0);
    EXPECT_TRUE(box.WaitStdout("Heart Beat: \n"));
    EXPECT_EQ(box.Send(1, std::string("hello world\0tail", 16)), 0);
    EXPECT_TRUE(box.WaitStdout("Heart Beat: hello world\n"));
    // No terminator: the text is the body, whatever the buffer held behind it.
    EXPECT_EQ(box.Send(1, "abc"), 0);
    EXPECT_TRUE(box.WaitStdout("Heart Beat: abc\n"));
}

TEST_F(Protocol, unknown_codes_get_zero_and_do_nothing)
{
    for (uint16_t code : {0, 8, 99, 105, 4435, 65535}) EXPECT_EQ(box.Send(code), 0) << code;
    for (uint16_t code : {0, 8, 99, 105}) EXPECT_EQ(box.Send(code, "body"), 0) << code;
    EXPECT_EQ(box.Stdout().find("Heart Beat"), std::string::npos);
}

TEST_F(Protocol, every_code_answers_its_own_reply_word)
{
    struct Case {
        uint16_t code;
        int32_t reply;
    } cases[] = {
        {1, 0},    {3, 1},    {4, 1},    {6, 1},    {7, 1},
        {100, 0},  {101, 0},  {102, 1},  {103, 1},  {104, 1},
        {5640, 3000000},
    };
    for (const Case &c : cases) EXPECT_EQ(box.Send(c.code), c.reply) << "code " << c.code;
    // A body on a code that takes none is accepted while the length is right.
    EXPECT_EQ(box.Send(3, "ignored"), 1);
}

TEST_F(Protocol, the_state_dump_shows_the_ring_layout_of_a_2k_page_128k_block_partition)
{
    EXPECT_EQ(box.Send(100), 0);
    EXPECT_TRUE(box.WaitStdout("Minute Flash Size: 2304\nMinute Flash Start: 0\nHalf Day Flash Size: 256\n"
                               "Half Day Flash Start: 2304\n"));
    EXPECT_TRUE(box.WaitStdout("WAN: DHCP/STATIC\n"));
    EXPECT_TRUE(box.WaitStdout("Next Flash Index min:"));
}

TEST_F(Protocol, the_list_dump_prints_all_720_and_124_entries)
{
    EXPECT_EQ(box.Send(101), 0);
    ASSERT_TRUE(box.WaitStdout("Half Day List:\n"));
    ASSERT_TRUE(box.WaitStdout("Index: 123 Start: "));
    std::string out = box.Stdout();
    size_t minutes = out.find("\nMinute List:\n"), hdays = out.find("\nHalf Day List:\n");
    ASSERT_NE(minutes, std::string::npos);
    EXPECT_NE(out.find("Tmp Minute List:\nTmp Half Day List:\nMinute List:\nIndex: 0 Start: "), std::string::npos);
    std::string list = out.substr(minutes, hdays - minutes);
    size_t lines = 0;
    for (size_t at = list.find("Index: "); at != std::string::npos; at = list.find("Index: ", at + 1)) lines++;
    EXPECT_EQ(lines, 720u);
    EXPECT_NE(list.find("Index: 719 "), std::string::npos);
}

TEST_F(Protocol, the_debug_switch_needs_a_body_of_five_bytes)
{
    // 4 bytes: nothing changes.
    EXPECT_EQ(box.Send(4436, Word(5182)), 1);
    EXPECT_EQ(box.Send(1, std::string("a\0", 2)), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: a\n"));
    // 5 bytes beginning with the on value: on.
    EXPECT_EQ(box.Send(4436, Word(5182) + "z"), 1);
    EXPECT_EQ(box.Send(1, std::string("b\0", 2)), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: b\nKVARD select wait for sec=3 usec=0\n"));
    // 5 bytes beginning with any other word: off.
    EXPECT_EQ(box.Send(4436, Word(5183) + "z"), 1);
    EXPECT_EQ(box.Send(1, std::string("c\0", 2)), 0);
    ASSERT_TRUE(box.WaitStdout("Heart Beat: c\n"));
    std::string out = box.Stdout();
    // Had the 4-byte switch turned debug printing on, the pass that received
    // heartbeat "a" would have printed its select lines before it.
    std::string beforeA = out.substr(0, out.find("Heart Beat: a\n"));
    EXPECT_EQ(beforeA.find("KVARD select"), std::string::npos) << beforeA;
    std::string afterOff = out.substr(out.find("Heart Beat: c\n"));
    EXPECT_EQ(afterOff.find("KVARD select"), std::string::npos) << afterOff;
}

TEST_F(Protocol, simulated_input_is_stored_printed_and_stops_the_real_wakes)
{
    EXPECT_EQ(box.Send(7254, SimInput(1700000000, 123456789012ull, 42, 0)), 1);
    EXPECT_TRUE(box.WaitStdout("tx=123456789012 rx=42 now=1700000000 msg=0\n"));
    EXPECT_EQ(box.Send(7254, SimInput(4000000000u, 1, 2, 1)), 1) << "a non-zero msg prints nothing";
    // A short body: the fields behind it keep what the buffer held.
    EXPECT_EQ(box.Send(7254, SimInput(1700000060, 555, 666, 0)), 1);
    EXPECT_TRUE(box.WaitStdout("tx=555 rx=666 now=1700000060 msg=0\n"));
    uint32_t now = 1700000120;
    EXPECT_EQ(box.Send(7254, std::string((const char *)&now, 4)), 1);
    EXPECT_TRUE(box.WaitStdout("tx=555 rx=666 now=1700000120 msg=0\n"));
    EXPECT_EQ(box.Stdout().find("now=4000000000"), std::string::npos);
    EXPECT_EQ(box.Send(7), 1) << "a wake of kind 1 still answers 1";
    EXPECT_EQ(box.Send(5640), 3000000);
}

TEST_F(Protocol, the_timer_wakes_only_after_three_seconds_of_silence)
{
    Debug(true);
    // A datagram every second: the 3 s silence timer starts again each time.
    for (int i = 0; i < 4; i++) {
        std::this_thread::sleep_for(milliseconds(1000));
        ASSERT_EQ(box.Send(1), 0);
    }
    EXPECT_EQ(box.Stdout().find("KVARD select retval=0"), std::string::npos) << box.Stdout();
    // Silence: a timeout within a little more than 3 s.
    EXPECT_TRUE(box.WaitStdout("KVARD select retval=0\n", milliseconds(4500)));
}

TEST_F(Protocol, link_and_time_updates_answer_one)
{
    EXPECT_EQ(box.Send(3), 1);
    EXPECT_EQ(box.Send(4), 1);
    // Counters that can't be read make the link update fail.
    box.WriteObject("1400", {{"wanType", "PPPoE"}});
    box.WriteProc("net/dev", "Inter-| Receive\n face |bytes\n");
    EXPECT_EQ(box.Send(3), 1) << "a missing interface is no failure";
    box.RemoveFile("var/lib/kvard/mdm/1400");
    EXPECT_EQ(box.Send(3), 0);
    EXPECT_TRUE(box.WaitStdout("Fail to get tx/rx counters\n"));
}

}  // namespace
