// Control datagrams against the daemon: validity rules, reply words and
// effects, the silence timer, and the WAN counters it reads.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

template <typename... T> std::string Bytes(T... values) {  // little-endian, as the target lays them out
    std::string out;
    ((out += std::string(reinterpret_cast<const char *>(&values), sizeof values)), ...);
    return out;
}

std::string Datagram(uint16_t magic, uint16_t code, uint16_t length, const std::string &body = {}) {
    return Bytes(magic, code, length, uint16_t(0)) + body;
}

TEST(Protocol, every_datagram_gets_its_reply_word_and_effect) {
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    const uint16_t magic = 0xA52D;
    const std::string hi = std::string("hi") + '\0', h92(92, 'h');
    struct { std::string datagram; int32_t reply; std::string out; } rows[] = {  // reply 99: none
        {Datagram(magic, 1, 0).substr(0, 7), -1, ""},
        {"", 99, ""},
        {Datagram(0x2DA5, 1, 0), -1, ""},  // the magic in network order
        {Datagram(magic, 1, 4, "abc"), -1, ""},
        {Datagram(magic, 1, 0, "abc"), -1, ""},
        {Datagram(magic, 4436, 4, Bytes(5182) + "x"), -1, ""},
        {Datagram(magic, 1, 93, h92 + '\0'), 0, "Heart Beat: " + h92 + "\n"},
        {Datagram(magic, 1, 93, std::string(112, 'x')), 0, "Heart Beat: " + std::string(93, 'x') + "\n"},  // cut to 101
        {Datagram(magic, 1, 0), 0, "Heart Beat: \n"},
        {Datagram(magic, 1, 16, std::string("hello world\0tail", 16)), 0, "Heart Beat: hello world\n"},
        {Datagram(magic, 0, 4, "body"), 0, ""},
        {Datagram(magic, 8, 0), 0, ""},
        {Datagram(magic, 99, 0), 0, ""},
        {Datagram(magic, 105, 0), 0, ""},
        {Datagram(magic, 3, 0), 1, ""},
        {Datagram(magic, 4, 0), 1, ""},
        {Datagram(magic, 4436, 4, Bytes(5182)), 1, ""},  // four bytes: no switch
        {Datagram(magic, 1, 3, hi), 0, "Heart Beat: hi\n"},
        {Datagram(magic, 4436, 5, Bytes(5182) + "z"), 1, "KVARD select wait for sec=3 usec=0\n"},
        {Datagram(magic, 1, 3, hi), 0, "KVARD select retval=1\nHeart Beat: hi\nKVARD select wait for sec=3 usec=0\n"},
        {Datagram(magic, 4436, 5, Bytes(5183) + "z"), 1, "KVARD select retval=1\n"},
        {Datagram(magic, 1, 3, "end"), 0, "Heart Beat: end\n"},
        {Datagram(magic, 7254, 28, Bytes(1700000000, 0, 123456789012ULL, 42ULL, 0)), 1,
         "tx=123456789012 rx=42 now=1700000000 msg=0\n"},
        {Datagram(magic, 7254, 28, Bytes(4000000000U, 0, 1ULL, 2ULL, 1)), 1, ""},  // msg 1 prints nothing
        {Datagram(magic, 7254, 28, Bytes(1700000060, 0, 555ULL, 666ULL, 0)), 1, "tx=555 rx=666 now=1700000060 msg=0\n"},
        // A short body: the fields behind it keep what they held.
        {Datagram(magic, 7254, 4, Bytes(1700000120)), 1, "tx=555 rx=666 now=1700000120 msg=0\n"},
        {Datagram(magic, 7, 0), 1, ""},
        {Datagram(magic, 5640, 0), 3000000, ""},
    };
    for (const auto &row : rows) {
        auto reply = box.Request(row.datagram, milliseconds(row.reply == 99 ? 600 : 5000));
        int32_t word = 99;
        if (reply && reply->size() == 4) memcpy(&word, reply->data(), 4);
        EXPECT_EQ(word, row.reply) << row.datagram.size() << " bytes: " << row.datagram;
        EXPECT_TRUE(box.WaitStdout(row.out));
    }
    // Nothing else: no malformed datagram handled, debug lines only while it is on.
    std::string expected, out = box.Stdout();
    for (const auto &row : rows) expected += row.out;
    EXPECT_EQ(out.erase(0, out.find("Heart Beat")), expected);
}

TEST(Protocol, the_timer_wakes_after_three_seconds_of_silence_only) {
    Sandbox box;
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    ASSERT_EQ(box.Send(4436, Bytes(5182) + "z"), 1);
    for (int i = 0; i < 4; i++) {  // a datagram every second starts the 3 s again
        std::this_thread::sleep_for(milliseconds(1000));
        ASSERT_EQ(box.Send(kHeartbeat), 0);
    }
    EXPECT_EQ(box.Stdout().find("KVARD select retval=0"), std::string::npos) << box.Stdout();
    auto silence = std::chrono::steady_clock::now();
    EXPECT_TRUE(box.WaitStdout("KVARD select retval=0\n", milliseconds(4500)));
    EXPECT_GT(std::chrono::steady_clock::now() - silence, milliseconds(2500)) << "woke before 3 s of silence";
}

TEST(Wan, the_counting_base_comes_from_the_interface_the_store_names) {
    struct { const char *wanType, *upstream, *expected; } rows[] = {
        {"DHCP", "eth0", "Last Tx:222 Rx:111 "}, {"Static", "eth4", "Last Tx:888 Rx:777 "},
        {"PPPoE", "eth0", "Last Tx:444 Rx:333 "}, {"L2TP", "eth0", "Last Tx:666 Rx:555 "}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.wanType);
        Sandbox box;
        box.WriteObject("1400", {{"wanType", row.wanType}});
        box.WriteObject("1152.1", {{"ifName", row.upstream}, {"isUpstream", "1"}});
        box.SetNetDev({{"eth0.1", 111, 222}, {"ppp0.2", 333, 444}, {"ppp0", 555, 666}, {"eth4.1", 777, 888}});
        box.Start();
        ASSERT_TRUE(box.WaitReady());
        ASSERT_EQ(box.Send(100), 0);
        EXPECT_TRUE(box.WaitStdout(row.expected));
    }
}

}  // namespace
}  // namespace kvard::test
