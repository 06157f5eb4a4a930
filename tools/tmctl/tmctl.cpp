// tmctl: the control client of kvard. Sends control datagrams to the daemon,
// reads and writes objects of the data-model store and decodes the traffic
// history on flash (docs/tmctl.md).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/cms/cms.h"
#include "platform/cms/cms_fields.h"
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
    "\n"
    "Talks to kvard on 127.0.0.1:22724 and to its data-model store.\n"
    "\n"
    "commands:\n"
    "  send CODE [--text T | --hex H] [--timeout MS]   send one control datagram, print the reply word\n"
    "  raw HEX [--timeout MS] [--no-reply]             send HEX as the whole datagram\n"
    "  mdm get OID[.N]                                 print an object's fields as name=value lines\n"
    "  mdm set OID[.N] name=value|name ...             change fields (bare name: null)\n"
    "  flash decode (IMAGE | DEVICE) [--json | --csv]   list the traffic history on a \"tm\" partition\n"
    "  history (IMAGE | DEVICE) [--days ...] [--json | --csv]   traffic per period, as kvard rebuilds it\n"
    "  chart (IMAGE | DEVICE) -o FILE.png|FILE.svg [--days N]   daily use as a bar chart\n"
    "  stats [--json | --oneline] [--alert]            the published figures, the limit and its state\n"
    "\n"
    "'tmctl COMMAND --help' tells more. Exit status: 0 done, 1 failed, 2 bad arguments.\n";

const char kSendHelp[] =
    "usage: tmctl send CODE [--text T | --hex H] [--timeout MS]\n"
    "\n"
    "Sends one control datagram to 127.0.0.1:22724 and prints the 4-byte reply as a\n"
    "signed decimal number. CODE is a number (decimal or 0x hex) or a name:\n"
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

int usage(const std::string &message)
{
    fprintf(stderr, "tmctl: %s (try 'tmctl --help')\n", message.c_str());
    return kExitUsage;
}

bool wantsHelp(const std::vector<std::string> &args)
{
    for (const std::string &a : args)
        if (a == "--help" || a == "-h") return true;
    return false;
}

std::string codeList()
{
    std::string s;
    for (const MessageCode &c : messageCodes()) s += "    " + std::to_string(c.code) + "\t" + c.name + "\n";
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

int cmdSend(const std::vector<std::string> &args)
{
    if (wantsHelp(args)) {
        printf(kSendHelp, codeList().c_str());
        return kExitOk;
    }
    std::string code;
    std::vector<uint8_t> body;
    bool haveBody = false;
    int timeoutMs = 2000;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string &a = args[i];
        bool hasValue = i + 1 < args.size();
        if (a == "--text" || a == "--hex") {
            if (!hasValue) return usage(a + " needs a value");
            if (haveBody) return usage("give one of --text and --hex");
            haveBody = true;
            std::string error;
            if (a == "--text")
                body = textBody(args[++i]);
            else if (!parseHex(args[++i], &body, &error))
                return usage("--hex: " + error);
        } else if (a == "--timeout") {
            if (!hasValue || !parseTimeout(args[++i], &timeoutMs)) return usage("--timeout needs milliseconds");
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            return usage("send: unknown option " + a);
        } else if (code.empty()) {
            code = a;
        } else {
            return usage("send: unexpected argument '" + a + "'");
        }
    }
    if (code.empty()) return usage("send: which CODE?");
    uint16_t value = 0;
    if (!parseCode(code, &value)) return usage("send: unknown message code '" + code + "'");
    if (body.size() > 0xFFFF) return usage("send: a body has at most 65535 bytes");
    return talk(buildDatagram(value, body), timeoutMs, true);
}

int cmdRaw(const std::vector<std::string> &args)
{
    if (wantsHelp(args)) {
        fputs(kRawHelp, stdout);
        return kExitOk;
    }
    bool haveHex = false, expectReply = true;
    std::vector<uint8_t> datagram;
    int timeoutMs = 2000;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string &a = args[i];
        if (a == "--timeout") {
            if (i + 1 >= args.size() || !parseTimeout(args[++i], &timeoutMs))
                return usage("--timeout needs milliseconds");
        } else if (a == "--no-reply") {
            expectReply = false;
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            return usage("raw: unknown option " + a);
        } else if (!haveHex) {
            std::string error;
            if (!parseHex(a, &datagram, &error)) return usage("raw: " + error);
            haveHex = true;
        } else {
            return usage("raw: unexpected argument '" + a + "'");
        }
    }
    if (!haveHex) return usage("raw: which bytes? (\"\" sends a zero-length datagram)");
    return talk(datagram, timeoutMs, expectReply);
}

int cmdMdm(const std::vector<std::string> &args)
{
    if (args.empty() || wantsHelp(args)) {
        if (args.empty()) return usage("mdm: get or set?");
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
    const std::string &verb = args[0];
    if (verb == "get") {
        if (args.size() != 2) return usage("mdm get takes one OID[.N]");
        return mdmGet(args[1]);
    }
    if (verb == "set") {
        if (args.size() < 2) return usage("mdm set takes OID[.N] and name=value ...");
        return mdmSet(args[1], std::vector<std::string>(args.begin() + 2, args.end()));
    }
    return usage("mdm: unknown command '" + verb + "'");
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
    if (cmd == "send") return cmdSend(args);
    if (cmd == "raw") return cmdRaw(args);
    if (cmd == "mdm") return cmdMdm(args);
    if (cmd == "flash") return flashCommand(args);
    if (cmd == "history") return historyCommand(args);
    if (cmd == "chart") return chartCommand(args);
    if (cmd == "stats") return statsCommand(args);
    return usage("unknown command '" + cmd + "'");
}
