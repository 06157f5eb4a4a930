// The stub log: one line per call of a stub command, holding its whole
// argument vector losslessly. Each argument is written as a double-quoted
// C string and the arguments are separated by one blank:
//     "ifconfig" "eth0.1" "down"
// Inside the quotes a backslash, a double quote, a line feed, a tab and a
// carriage return are written \\ \" \n \t \r; every other byte below 0x20 and
// 0x7f is written as three octal digits (\001); all other bytes, UTF-8
// included, stand as they are.
#ifndef KVARD_SANDBOX_STUBLOG_H
#define KVARD_SANDBOX_STUBLOG_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// The log line of ARGV, line feed included.
std::string FormatStubLine(const std::vector<std::string> &argv);

// The argument vector of one log line (with or without its line feed);
// nullopt when the line is not in the format above.
std::optional<std::vector<std::string>> ParseStubLine(std::string_view line);

}  // namespace sandbox

#endif
