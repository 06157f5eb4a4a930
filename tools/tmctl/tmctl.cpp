// tmctl: the control client of kvard. Sends control datagrams to the daemon,
// reads and writes objects of the data-model store and decodes the traffic
// history on flash (docs/tmctl.md).
#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
#include "tools/tmctl/cli.h"
#include "tools/tmctl/config.h"
#include "tools/tmctl/exchange.h"
#include "tools/tmctl/flash.h"
#include "tools/tmctl/history.h"
#include "tools/tmctl/mdm.h"
#include "tools/tmctl/stats.h"
#include "tools/tmctl/wire.h"

namespace {

using namespace tmctl;

const char kTopHelp[] =
    "usage: tmctl COMMAND [ARGS]\n"
    "       tmctl --version\n"
    "\n"
    "Talks to kvard on 127.0.0.1:22724 and to its data-model store.\n"
    "\n"
    "commands:\n"
    "  config show [--json]                            the settings and what kvard makes of them\n"
    "  config set NAME=VALUE ... [--dry-run]           change settings, checked, then tell kvard\n"
    "  send CODE [--text T | --hex H] [--timeout MS]   send one control datagram, print the reply word\n"
    "  raw HEX [--timeout MS] [--no-reply]             send HEX as the whole datagram\n"
    "  mdm get OID[.N]                                 print an object's fields as name=value lines\n"
    "  mdm set OID[.N] name=value|name ...             change fields unchecked (bare name: null)\n"
    "  flash decode (IMAGE | DEVICE) [--json | --csv]   list the traffic history on a \"tm\" partition\n"
    "  history (IMAGE | DEVICE) [--days ...] [--json | --csv]   traffic per period, as kvard rebuilds it\n"
    "  chart (IMAGE | DEVICE) -o FILE.png|FILE.svg [--days N]   daily use as a bar chart\n"
    "  stats [--json | --oneline] [--alert]            the published figures, the limit and its state\n"
    "\n"
    "'tmctl COMMAND --help' tells more; every command takes --help and --version.\n"
    "Exit status: 0 done, 1 failed, 2 bad arguments or values, 3 settings saved but\n"
    "not applied by kvard (config set).\n";

const char kSendHelp[] =
    "usage: tmctl send CODE [--text T | --hex H] [--timeout MS]\n"
    "\n"
    "Sends one control datagram to 127.0.0.1:22724 and prints the 4-byte reply as a\n"
    "signed decimal number. CODE is a number (decimal or 0x hex) or a name, in any\n"
    "case, with or without TM_MSG_, with - or _ (time-wake, TIME_WAKE):\n"
    "%s"
    "  --text T      body: the text T and one NUL byte (heartbeat text)\n"
    "  --hex H       body: exactly these bytes, hex pairs, blanks allowed\n"
    "  --timeout MS  how long to wait for the reply (default 2000)\n"
    "Without --text or --hex the datagram is the 8-byte header alone.\n";

const char kRawHelp[] =
    "usage: tmctl raw HEX [--timeout MS] [--no-reply]\n"
    "\n"
    "Sends HEX (hex pairs, blanks allowed; \"\" for a zero-length datagram) as the\n"
    "whole datagram, header included, and prints the reply word.\n"
    "  --timeout MS  how long to wait for the reply (default 2000)\n"
    "  --no-reply    expect no reply: succeed when none comes within the timeout,\n"
    "                fail when one does\n";

const char kMdmHelp[] =
    "usage: tmctl mdm get OID[.N]\n"
    "       tmctl mdm set OID[.N] name=value|name ...\n"
    "\n"
    "Reads or changes an object of the data-model store ($KVARD_MDM_DIR, default\n"
    "/var/lib/kvard/mdm) under the store lock (waiting at most 5000 ms).\n"
    "OID is the object's number (2888, 0xB48) or name (MDMOID_ORNA_TRAFFIC_METER);\n"
    ".N picks row N of a table (1152.2). Values are written as in the store:\n"
    "\\n for a line feed, \\\\ for a backslash. set creates a missing object; a bare\n"
    "name sets that field to null. Objects:\n"
    "%s";

int usage(const std::string &message, const std::string &verb = "") { return usageError(verb, message); }

std::string codeList()
{
    std::string s;
    for (const MessageCode &c : messageCodes()) {
        std::string shortName = std::string(c.name).substr(7);
        for (char &ch : shortName) ch = ch == '_' ? '-' : static_cast<char>(tolower(static_cast<unsigned char>(ch)));
        s += "    " + std::to_string(c.code) + "\t" + c.name + "\t(" + shortName + ")\n";
    }
    return s;
}

bool parseTimeout(const std::string &text, int *ms)
{
    if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *ms = atoi(text.c_str());
    return true;
}

// Sends the datagram and reports the outcome; expectReply false is --no-reply.
int talk(const std::vector<uint8_t> &datagram, int timeoutMs, bool expectReply)
{
    Exchange ex = exchange(datagram, kPort, timeoutMs);
    switch (ex.outcome) {
    case Exchange::kReply:
        if (ex.reply.size() != 4) {
            fprintf(stderr, "tmctl: reply of %zu bytes from 127.0.0.1:%u, expected 4\n", ex.reply.size(), kPort);
            return kExitFailed;
        }
        printf("%d\n", static_cast<int>(replyWord(ex.reply.data())));
        if (!expectReply) {
            fprintf(stderr, "tmctl: a reply came from 127.0.0.1:%u although none was expected\n", kPort);
            return kExitFailed;
        }
        return kExitOk;
    case Exchange::kNoReply:
        if (!expectReply) return kExitOk;
        fprintf(stderr, "tmctl: no reply from 127.0.0.1:%u within %d ms (is kvard running?)\n", kPort, timeoutMs);
        return kExitFailed;
    case Exchange::kRefused:
        fprintf(stderr, "tmctl: nothing listens on 127.0.0.1:%u, the datagram was refused (is kvard running?)\n", kPort);
        return kExitFailed;
    case Exchange::kFailed:
        break;
    }
    fprintf(stderr, "tmctl: cannot talk to 127.0.0.1:%u: %s\n", kPort, ex.error.c_str());
    return kExitFailed;
}

enum { kOptHelp = 'h', kOptText = 256, kOptHex, kOptTimeout, kOptNoReply, kOptVersion };

int cmdSend(const std::vector<std::string> &args)
{
    static const struct option longOptions[] = {
        {"text", required_argument, nullptr, kOptText},       {"hex", required_argument, nullptr, kOptHex},
        {"timeout", required_argument, nullptr, kOptTimeout}, {"help", no_argument, nullptr, kOptHelp},
        {"version", no_argument, nullptr, kOptVersion},       {nullptr, 0, nullptr, 0}};
    OptionArgs words("send", args);
    std::vector<uint8_t> body;
    bool haveBody = false;
    int timeoutMs = 2000;
    startOptions();
    for (int c; (c = getopt_long(words.argc(), words.argv(), ":h", longOptions, nullptr)) != -1;) {
        switch (c) {
        case kOptText:
        case kOptHex: {
            if (haveBody) return usage("send: give one of --text and --hex", "send");
            haveBody = true;
            std::string error;
            if (c == kOptText)
                body = textBody(optarg);
            else if (!parseHex(optarg, &body, &error))
                return usage("send: --hex: " + error, "send");
            break;
        }
        case kOptTimeout:
            if (!parseTimeout(optarg, &timeoutMs))
                return usage("send: --timeout needs milliseconds, not '" + std::string(optarg) + "'", "send");
            break;
        case kOptHelp:
            printf(kSendHelp, codeList().c_str());
            return kExitOk;
        case kOptVersion:
            return printVersion();
        default:
            return optionError("send", words, c);
        }
    }
    std::vector<std::string> operands = words.operands();
    if (operands.empty()) return usage("send: which CODE?", "send");
    if (operands.size() > 1) return usage("send: unexpected argument '" + operands[1] + "'", "send");
    uint16_t value = 0;
    if (!parseCode(operands[0], &value)) return usage("send: unknown message code '" + operands[0] + "'", "send");
    if (body.size() > 0xFFFF) return usage("send: a body has at most 65535 bytes", "send");
    return talk(buildDatagram(value, body), timeoutMs, true);
}

int cmdRaw(const std::vector<std::string> &args)
{
    static const struct option longOptions[] = {
        {"timeout", required_argument, nullptr, kOptTimeout}, {"no-reply", no_argument, nullptr, kOptNoReply},
        {"help", no_argument, nullptr, kOptHelp},             {"version", no_argument, nullptr, kOptVersion},
        {nullptr, 0, nullptr, 0}};
    OptionArgs words("raw", args);
    bool expectReply = true;
    int timeoutMs = 2000;
    startOptions();
    for (int c; (c = getopt_long(words.argc(), words.argv(), ":h", longOptions, nullptr)) != -1;) {
        switch (c) {
        case kOptTimeout:
            if (!parseTimeout(optarg, &timeoutMs))
                return usage("raw: --timeout needs milliseconds, not '" + std::string(optarg) + "'", "raw");
            break;
        case kOptNoReply:
            expectReply = false;
            break;
        case kOptHelp:
            fputs(kRawHelp, stdout);
            return kExitOk;
        case kOptVersion:
            return printVersion();
        default:
            return optionError("raw", words, c);
        }
    }
    std::vector<std::string> operands = words.operands();
    if (operands.empty()) return usage("raw: which bytes? (\"\" sends a zero-length datagram)", "raw");
    if (operands.size() > 1) return usage("raw: unexpected argument '" + operands[1] + "'", "raw");
    std::vector<uint8_t> datagram;
    std::string error;
    if (!parseHex(operands[0], &datagram, &error)) return usage("raw: " + error, "raw");
    return talk(datagram, timeoutMs, expectReply);
}

int cmdMdm(const std::vector<std::string> &args)
{
    static const struct option longOptions[] = {{"help", no_argument, nullptr, kOptHelp},
                                                {"version", no_argument, nullptr, kOptVersion},
                                                {nullptr, 0, nullptr, 0}};
    OptionArgs words("mdm", args);
    startOptions();
    for (int c; (c = getopt_long(words.argc(), words.argv(), ":h", longOptions, nullptr)) != -1;) {
        switch (c) {
        case kOptHelp: {
            std::string objects;
            int count = 0;
            const CmsObjectType *types = cmsFields_all(&count);
            for (int i = 0; i < count; i++) {
                objects += "  " + std::to_string(types[i].oid) + "\t" + types[i].name + ":";
                for (uint16_t f = 0; f < types[i].fieldCount; f++) objects += std::string(" ") + types[i].fields[f].name;
                objects += "\n";
            }
            printf(kMdmHelp, objects.c_str());
            return kExitOk;
        }
        case kOptVersion:
            return printVersion();
        default:
            return optionError("mdm", words, c);
        }
    }
    std::vector<std::string> operands = words.operands();
    if (operands.empty()) return usage("mdm: get or set?", "mdm");
    const std::string &verb = operands[0];
    if (verb == "get") {
        if (operands.size() != 2) return usage("mdm get takes one OID[.N]", "mdm");
        return mdmGet(operands[1]);
    }
    if (verb == "set") {
        if (operands.size() < 2) return usage("mdm set takes OID[.N] and name=value ...", "mdm");
        return mdmSet(operands[1], std::vector<std::string>(operands.begin() + 2, operands.end()));
    }
    return usage("mdm: unknown command '" + verb + "'", "mdm");
}

}  // namespace

int main(int argc, char **argv)
{
    cmsLog_initWithName(0, "tmctl");   // the store's own error lines then start with "tmctl:" too
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usage("which command?");
    const std::string cmd = args[0];
    args.erase(args.begin());
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
        fputs(kTopHelp, stdout);
        return kExitOk;
    }
    if (cmd == "--version" || cmd == "-V") return printVersion();
    if (cmd == "send") return cmdSend(args);
    if (cmd == "raw") return cmdRaw(args);
    if (cmd == "mdm") return cmdMdm(args);
    if (cmd == "flash") return flashCommand(args);
    if (cmd == "history") return historyCommand(args);
    if (cmd == "chart") return chartCommand(args);
    if (cmd == "stats") return statsCommand(args);
    if (cmd == "config") return configCommand(args);
    if (!cmd.empty() && cmd[0] == '-') return usage("unknown option " + cmd);
    return usage("unknown command '" + cmd + "'");
}
