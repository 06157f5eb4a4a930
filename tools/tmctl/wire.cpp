// Control datagrams as tmctl builds them (wire.h).
#include "tools/tmctl/wire.h"

#include <cctype>
#include <cstdlib>

namespace tmctl {

const std::vector<MessageCode> &messageCodes()
{
    static const std::vector<MessageCode> codes = {
        {"TM_MSG_HEARTBEAT", 1},         {"TM_MSG_CONFIG_UPDATE", 2},     {"TM_MSG_LINK_UPDATE", 3},
        {"TM_MSG_TIME_UPDATE", 4},       {"TM_MSG_RESET_COUNTER", 5},     {"TM_MSG_WRITE_STATISTIC", 6},
        {"TM_MSG_TIME_WAKE", 7},         {"TM_MSG_DUMP_STATE", 100},      {"TM_MSG_DUMP_STATE_LISTS", 101},
        {"TM_MSG_DUMP_MIN_FLASH", 102},  {"TM_MSG_DUMP_HDAY_FLASH", 103}, {"TM_MSG_DUMP_RAW_FLASH", 104},
        {"TM_MSG_SET_DEBUG", 4436},      {"TM_MSG_SIM_WAKE", 5640},       {"TM_MSG_SIM_INPUT", 7254},
    };
    return codes;
}

// "time-wake", "TIME_WAKE", "tm_msg_time_wake" and "TM_MSG_TIME_WAKE" are one name.
static std::string canonicalName(const std::string &text)
{
    std::string s;
    for (char ch : text) s += ch == '-' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    return s.compare(0, 7, "TM_MSG_") == 0 ? s : "TM_MSG_" + s;
}

bool parseCode(const std::string &text, uint16_t *code)
{
    const std::string name = canonicalName(text);
    for (const MessageCode &c : messageCodes()) {
        if (name == c.name) {
            *code = c.code;
            return true;
        }
    }
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    size_t start = hex ? 2 : 0;
    if (text.size() <= start || text.size() - start > 8) return false;
    for (size_t i = start; i < text.size(); i++) {
        unsigned char ch = static_cast<unsigned char>(text[i]);
        if (hex ? !isxdigit(ch) : !isdigit(ch)) return false;
    }
    unsigned long v = strtoul(text.c_str() + start, nullptr, hex ? 16 : 10);
    if (v > 0xFFFF) return false;
    *code = static_cast<uint16_t>(v);
    return true;
}

std::string codeName(uint16_t code)
{
    for (const MessageCode &c : messageCodes())
        if (c.code == code) return c.name;
    return "";
}

bool parseHex(const std::string &text, std::vector<uint8_t> *out, std::string *error)
{
    std::vector<uint8_t> bytes;
    int high = -1;
    for (size_t i = 0; i < text.size(); i++) {
        unsigned char ch = static_cast<unsigned char>(text[i]);
        if (isspace(ch)) {
            if (high >= 0) {
                *error = "hex digit " + std::to_string(i) + " splits a byte";
                return false;
            }
            continue;
        }
        if (!isxdigit(ch)) {
            *error = std::string("'") + text[i] + "' at " + std::to_string(i) + " is not a hex digit";
            return false;
        }
        int v = isdigit(ch) ? ch - '0' : tolower(ch) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            bytes.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) {
        *error = "odd number of hex digits";
        return false;
    }
    *out = bytes;
    return true;
}

std::vector<uint8_t> textBody(const std::string &text)
{
    std::vector<uint8_t> body(text.begin(), text.end());
    body.push_back(0);
    return body;
}

std::vector<uint8_t> buildDatagram(uint16_t code, const std::vector<uint8_t> &body)
{
    const uint16_t length = static_cast<uint16_t>(body.size());
    const uint16_t fields[4] = {kMagic, code, length, 0};
    std::vector<uint8_t> d(kHeaderSize + body.size());
    for (size_t i = 0; i < 4; i++) {
        d[2 * i] = static_cast<uint8_t>(fields[i] & 0xFF);
        d[2 * i + 1] = static_cast<uint8_t>(fields[i] >> 8);
    }
    for (size_t i = 0; i < body.size(); i++) d[kHeaderSize + i] = body[i];
    return d;
}

int32_t replyWord(const uint8_t *b)
{
    uint32_t u = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 | static_cast<uint32_t>(b[2]) << 16 |
                 static_cast<uint32_t>(b[3]) << 24;
    return static_cast<int32_t>(u);
}

}  // namespace tmctl
