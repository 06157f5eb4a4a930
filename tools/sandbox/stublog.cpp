#include "tools/sandbox/stublog.h"

namespace sandbox {

std::string FormatStubLine(const std::vector<std::string> &argv) {
    std::string line;
    for (size_t i = 0; i < argv.size(); ++i) {
        if (i > 0) line += ' ';
        line += '"';
        for (unsigned char c : argv[i]) {
            switch (c) {
            case '\\': line += "\\\\"; break;
            case '"': line += "\\\""; break;
            case '\n': line += "\\n"; break;
            case '\t': line += "\\t"; break;
            case '\r': line += "\\r"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    line += '\\';
                    line += static_cast<char>('0' + ((c >> 6) & 7));
                    line += static_cast<char>('0' + ((c >> 3) & 7));
                    line += static_cast<char>('0' + (c & 7));
                } else {
                    line += static_cast<char>(c);
                }
            }
        }
        line += '"';
    }
    line += '\n';
    return line;
}

std::optional<std::vector<std::string>> ParseStubLine(std::string_view line) {
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    std::vector<std::string> argv;
    size_t i = 0;
    while (i < line.size()) {
        if (!argv.empty()) {
            if (line[i] != ' ') return std::nullopt;
            ++i;
        }
        if (i >= line.size() || line[i] != '"') return std::nullopt;
        ++i;
        std::string arg;
        for (;;) {
            if (i >= line.size()) return std::nullopt;
            char c = line[i++];
            if (c == '"') break;
            if (c != '\\') {
                arg += c;
                continue;
            }
            if (i >= line.size()) return std::nullopt;
            char e = line[i++];
            switch (e) {
            case '\\': arg += '\\'; break;
            case '"': arg += '"'; break;
            case 'n': arg += '\n'; break;
            case 't': arg += '\t'; break;
            case 'r': arg += '\r'; break;
            default:
                if (e < '0' || e > '3' || i + 1 >= line.size() || line[i] < '0' || line[i] > '7' ||
                    line[i + 1] < '0' || line[i + 1] > '7')
                    return std::nullopt;
                arg += static_cast<char>(((e - '0') << 6) | ((line[i] - '0') << 3) | (line[i + 1] - '0'));
                i += 2;
            }
        }
        argv.push_back(std::move(arg));
    }
    if (argv.empty()) return std::nullopt;
    return argv;
}

}  // namespace sandbox
