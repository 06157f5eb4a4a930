// The command-line conventions of every tmctl verb (cli.h).
#include "tools/tmctl/cli.h"

#include <cstdio>

#include "kvard_version.h"

namespace tmctl {

OptionArgs::OptionArgs(const std::string &verb, const std::vector<std::string> &args)
{
    words_.push_back(verb.empty() ? "tmctl" : "tmctl " + verb);
    words_.insert(words_.end(), args.begin(), args.end());
    for (std::string &w : words_) argv_.push_back(w.data());
    argv_.push_back(nullptr);
}

std::vector<std::string> OptionArgs::operands() const
{
    std::vector<std::string> out;
    // getopt_long permutes the pointers, not the strings: read them through argv_.
    for (int i = optind; i < argc(); i++) out.emplace_back(argv_[i]);
    return out;
}

void startOptions()
{
    opterr = 0;
    optind = 0;   // 0, not 1: glibc then starts afresh, also after an earlier scan
}

int printVersion()
{
    printf("tmctl %s\n", KVARD_VERSION);
    return 0;
}

int usageError(const std::string &verb, const std::string &message)
{
    fprintf(stderr, "tmctl: %s (try 'tmctl %s--help')\n", message.c_str(), verb.empty() ? "" : (verb + " ").c_str());
    return 2;
}

int optionError(const std::string &verb, OptionArgs &args, int c)
{
    // optind has moved past the word at fault; for "--name=value" the word is the whole of it.
    std::string word = optind >= 1 && optind <= args.argc() ? args.argv()[optind - 1] : "";
    std::string where = verb.empty() ? "" : verb + ": ";
    if (c == ':') {
        size_t eq = word.find('=');
        return usageError(verb, where + "option " + word.substr(0, eq) + " needs a value");
    }
    return usageError(verb, where + "unknown option " + word);
}

}  // namespace tmctl
