// Control datagrams as tmctl builds them: the 8-byte header (magic 0xA52D,
// code, body length, reserved 0; each 16 bits, little-endian) and the body.
#ifndef KVARD_TMCTL_WIRE_H
#define KVARD_TMCTL_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

namespace tmctl {

constexpr uint16_t kMagic = 0xA52D;
constexpr uint16_t kPort = 22724;
constexpr size_t kHeaderSize = 8;

struct MessageCode {
    const char *name;   // TM_MSG_...
    uint16_t code;
};

// Every message code the daemon knows, in ascending order.
const std::vector<MessageCode> &messageCodes();
// true and the code for a name (case-insensitive, TM_MSG_ prefix optional, '-' or '_'),
// a decimal number or a 0x hex number up to 65535.
bool parseCode(const std::string &text, uint16_t *code);
// The TM_MSG_ name of a code; empty when the daemon has none for it.
std::string codeName(uint16_t code);
// true and the bytes of hex digit pairs, blanks between pairs allowed; false and *error otherwise.
bool parseHex(const std::string &text, std::vector<uint8_t> *out, std::string *error);
// The body for a text: its bytes and one NUL, since the daemon adds no terminator.
std::vector<uint8_t> textBody(const std::string &text);
// Header plus body; the length field is the body's size (at most 65535, as the caller checks).
std::vector<uint8_t> buildDatagram(uint16_t code, const std::vector<uint8_t> &body);
// The signed 32-bit reply word of 4 little-endian bytes.
int32_t replyWord(const uint8_t *bytes);

}  // namespace tmctl

#endif
