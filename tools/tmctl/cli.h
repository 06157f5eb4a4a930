// What every tmctl verb shares on its command line: the argument vector that
// getopt_long scans, the version line, and the one-line errors of exit status 2.
#ifndef KVARD_TMCTL_CLI_H
#define KVARD_TMCTL_CLI_H

#include <getopt.h>

#include <string>
#include <vector>

namespace tmctl {

// "tmctl VERB" followed by ARGS, as a NUL-ended argv that getopt_long may permute.
class OptionArgs {
public:
    OptionArgs(const std::string &verb, const std::vector<std::string> &args);
    OptionArgs(const OptionArgs &) = delete;
    OptionArgs &operator=(const OptionArgs &) = delete;
    int argc() const { return static_cast<int>(words_.size()); }
    char **argv() { return argv_.data(); }
    // The operands getopt_long left from optind on, in order.
    std::vector<std::string> operands() const;

private:
    std::vector<std::string> words_;
    std::vector<char *> argv_;
};

// Readies getopt_long for a fresh scan that reports nothing by itself.
void startOptions();
// Prints "tmctl VERSION" on stdout; returns 0.
int printVersion();
// "tmctl: MESSAGE (try 'tmctl VERB --help')" on stderr; returns 2.
int usageError(const std::string &verb, const std::string &message);
// The error of a '?' (unknown option) or ':' (missing value) that getopt_long
// returned while scanning args; returns 2.
int optionError(const std::string &verb, OptionArgs &args, int c);

}  // namespace tmctl

#endif
