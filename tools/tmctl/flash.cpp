// "tmctl flash decode" (flash.h): options, then one of three renderings of a
// FlashScan (flashscan.h): labelled text, JSON (docs/tmctl.md gives its schema) or CSV.
#include "tools/tmctl/flash.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <nlohmann/json.hpp>

#include "history/tmrings.h"
#include "tools/tmctl/flashscan.h"
#include "tools/tmctl/cli.h"
#include "tools/tmctl/mdm.h"

namespace tmctl {

namespace {

const char kFlashHelp[] =
    "usage: tmctl flash decode (IMAGE | DEVICE) [--json | --csv] [--verbose]\n"
    "                          [--page-size N --block-size N]\n"
    "\n"
    "Decodes the traffic history of a \"tm\" partition: an image file, or an MTD\n"
    "device, which is opened read-only. Lists every valid record of the minute and\n"
    "half-day rings with its times (local and epoch), bytes sent and received and\n"
    "seconds connected, then a summary: counts per ring, the page at which kvard\n"
    "would write next, the oldest and the newest record.\n"
    "  --json            one JSON document (schema in docs/tmctl.md)\n"
    "  --csv             one line per record, with a header line\n"
    "  --verbose         also list the pages that fail the length or CRC test,\n"
    "                    or cannot be read\n"
    "  --page-size N     page size of an image file in bytes (default 2048)\n"
    "  --block-size N    erase-block size of an image file in bytes (default 131072)\n"
    "A device reports its own geometry. Times are local (TZ).\n"
    "Exit status: 0 done, 1 failed (unreadable file, bad size or geometry of the\n"
    "partition), 2 bad arguments.\n";

int usage(const std::string &message)
{
    fprintf(stderr, "tmctl: %s (try 'tmctl flash --help')\n", message.c_str());
    return kExitUsage;
}

bool parseSize(const char *text, uint32_t *out)
{
    if (!*text || strspn(text, "0123456789") != strlen(text) || strlen(text) > 10) return false;
    unsigned long long v = strtoull(text, nullptr, 10);
    if (v == 0 || v > UINT32_MAX) return false;
    *out = (uint32_t)v;
    return true;
}

std::string at(int32_t t) { return localTime(t) + " (" + std::to_string(t) + ")"; }

std::string pageRange(const FlashRing &r)
{
    return std::to_string(r.firstPage) + "-" + std::to_string(r.firstPage + r.pageCount - 1);
}

uint32_t pagesOutsideRings(const FlashScan &s)
{
    uint32_t end = s.halfDay.firstPage + s.halfDay.pageCount;
    return s.geometry.pages() > end ? s.geometry.pages() - end : 0;
}

// ---- text ----

void printText(const FlashScan &s, bool verbose)
{
    const FlashGeometry &g = s.geometry;
    printf("%s: %s, %u bytes: %u blocks of %u bytes, %u pages of %u bytes (%u per block)\n", s.path.c_str(),
           g.device ? "MTD device" : "image file", g.size, g.size / g.blockSize, g.blockSize, g.pages(), g.pageSize,
           g.pagesPerBlock());
    printf("rings: minute pages %s, half-day pages %s\n", pageRange(s.minute).c_str(), pageRange(s.halfDay).c_str());
    uint32_t past = s.minute.pastEnd + s.halfDay.pastEnd;
    if (past) printf("note: the partition ends at page %u; %u pages of the rings lie past it and hold no record\n",
                     g.pages() - 1, past);
    if (pagesOutsideRings(s)) printf("note: %u pages behind the rings are not used and not read\n", pagesOutsideRings(s));
    printf("\n%-8s %6s  %-19s %13s  %-19s %13s  %20s  %20s  %13s\n", "ring", "page", "start (local)", "start (epoch)",
           "end (local)", "end (epoch)", "sent (bytes)", "received (bytes)", "connected (s)");
    for (const FlashRecord &f : s.records) {
        const TmRecord &r = f.record;
        printf("%-8s %6u  %-19s %13d  %-19s %13d  %20llu  %20llu  %13d\n", f.ring, f.page, localTime(r.tStart).c_str(),
               r.tStart, localTime(r.tEnd).c_str(), r.tEnd, (unsigned long long)r.tx, (unsigned long long)r.rx,
               r.tUsed);
    }
    if (s.records.empty()) printf("(no records)\n");
    if (verbose) {
        printf("\npages that hold no record although not blank:\n");
        for (const FlashBadPage &b : s.badPages) {
            if (!strcmp(b.problem, "length"))
                printf("%-8s %6u  length field %u, not 32\n", b.ring, b.page, b.length);
            else if (!strcmp(b.problem, "crc"))
                printf("%-8s %6u  CRC stored 0x%08x, computed 0x%08x\n", b.ring, b.page, b.storedCrc, b.computedCrc);
            else if (!strcmp(b.problem, "bad-block"))
                printf("%-8s %6u  in a bad block, not read\n", b.ring, b.page);
            else
                printf("%-8s %6u  the read failed\n", b.ring, b.page);
        }
        if (s.badPages.empty()) printf("(none)\n");
    }
    printf("\n");
    for (const FlashRing *r : {&s.minute, &s.halfDay}) {
        printf("%s ring: %u records, %u blank pages, %u failed the length test, %u failed the CRC test, "
               "%u unreadable (bad block or failed read), %u past the end\n",
               r->name, r->records, r->blank, r->badLength, r->badCrc, r->unreadable, r->pastEnd);
        if (r->followedPage >= 0)
            printf("  kvard would write next at page %u, after page %lld, whose record ends %s\n", r->nextPage,
                   (long long)r->followedPage, at(r->followedEnd).c_str());
        else
            printf("  kvard would write next at page %u, the ring's start (no record to follow)\n", r->nextPage);
    }
    if (s.oldest >= 0) {
        const FlashRecord &o = s.records[s.oldest], &n = s.records[s.newest];
        printf("oldest record: %s page %u, starts %s\n", o.ring, o.page, at(o.record.tStart).c_str());
        printf("newest record: %s page %u, ends %s\n", n.ring, n.page, at(n.record.tEnd).c_str());
    } else {
        printf("oldest record: none\nnewest record: none\n");
    }
}

// ---- JSON ----

nlohmann::ordered_json recordJson(const FlashRecord &f)
{
    const TmRecord &r = f.record;
    return {{"ring", f.ring},   {"page", f.page}, {"start", r.tStart}, {"startLocal", localTime(r.tStart)},
            {"end", r.tEnd},    {"endLocal", localTime(r.tEnd)},     {"tx", r.tx}, {"rx", r.rx},
            {"seconds", r.tUsed}};
}

nlohmann::ordered_json ringJson(const FlashRing &r)
{
    nlohmann::ordered_json j = {{"firstPage", r.firstPage}, {"pages", r.pageCount},  {"records", r.records},
                                {"blank", r.blank},         {"badLength", r.badLength}, {"badCrc", r.badCrc},
                                {"unreadable", r.unreadable}, {"pastEnd", r.pastEnd}, {"nextPage", r.nextPage}};
    j["followedPage"] = nullptr;
    j["followedEnd"] = nullptr;
    if (r.followedPage >= 0) {
        j["followedPage"] = r.followedPage;
        j["followedEnd"] = r.followedEnd;
    }
    return j;
}

void printJson(const FlashScan &s, bool verbose)
{
    const FlashGeometry &g = s.geometry;
    nlohmann::ordered_json j;
    j["source"] = {{"path", s.path}, {"kind", g.device ? "device" : "image"}, {"size", g.size},
                   {"pageSize", g.pageSize}, {"blockSize", g.blockSize}, {"pages", g.pages()},
                   {"pagesOutsideRings", pagesOutsideRings(s)}};
    j["rings"] = {{"minute", ringJson(s.minute)}, {"half-day", ringJson(s.halfDay)}};
    j["records"] = nlohmann::ordered_json::array();
    for (const FlashRecord &f : s.records) j["records"].push_back(recordJson(f));
    j["oldest"] = s.oldest >= 0 ? recordJson(s.records[s.oldest]) : nlohmann::ordered_json(nullptr);
    j["newest"] = s.newest >= 0 ? recordJson(s.records[s.newest]) : nlohmann::ordered_json(nullptr);
    if (verbose) {
        j["badPages"] = nlohmann::ordered_json::array();
        for (const FlashBadPage &b : s.badPages) {
            nlohmann::ordered_json e = {{"ring", b.ring}, {"page", b.page}, {"problem", b.problem}};
            if (!strcmp(b.problem, "length") || !strcmp(b.problem, "crc")) e["length"] = b.length;
            if (!strcmp(b.problem, "crc")) {
                e["storedCrc"] = b.storedCrc;
                e["computedCrc"] = b.computedCrc;
            }
            j["badPages"].push_back(e);
        }
    }
    printf("%s\n", j.dump(2).c_str());
}

// ---- CSV ----

void printCsv(const FlashScan &s)
{
    printf("ring,page,start,startLocal,end,endLocal,tx,rx,seconds\n");
    for (const FlashRecord &f : s.records) {
        const TmRecord &r = f.record;
        printf("%s,%u,%d,%s,%d,%s,%llu,%llu,%d\n", f.ring, f.page, r.tStart, localTime(r.tStart).c_str(), r.tEnd,
               localTime(r.tEnd).c_str(), (unsigned long long)r.tx, (unsigned long long)r.rx, r.tUsed);
    }
}

int decode(const std::vector<std::string> &args)
{
    enum { kJson = 1, kCsv, kVerbose, kPageSize, kBlockSize, kHelp, kVersion };
    static const struct option longOptions[] = {
        {"json", no_argument, nullptr, kJson},           {"csv", no_argument, nullptr, kCsv},
        {"verbose", no_argument, nullptr, kVerbose},     {"page-size", required_argument, nullptr, kPageSize},
        {"block-size", required_argument, nullptr, kBlockSize}, {"help", no_argument, nullptr, kHelp},
        {"version", no_argument, nullptr, kVersion},     {nullptr, 0, nullptr, 0}};
    std::vector<std::string> storage = {"tmctl flash decode"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &s : storage) argv.push_back(s.data());
    argv.push_back(nullptr);

    int format = 0;
    bool verbose = false;
    FlashOptions options;
    opterr = 0;
    optind = 0;  // a fresh scan: glibc then also forgets any earlier state
    for (;;) {
        int c = getopt_long((int)storage.size(), argv.data(), ":hv", longOptions, nullptr);
        if (c == -1) break;
        switch (c) {
        case kJson:
        case kCsv:
            if (format && format != c) return usage("flash decode: give one of --json and --csv");
            format = c;
            break;
        case 'v':
        case kVerbose:
            verbose = true;
            break;
        case kPageSize:
        case kBlockSize:
            if (!parseSize(optarg, c == kPageSize ? &options.pageSize : &options.blockSize))
                return usage(std::string(c == kPageSize ? "--page-size" : "--block-size") +
                             " needs a number of bytes, not '" + optarg + "'");
            break;
        case 'h':
        case kHelp:
            fputs(kFlashHelp, stdout);
            return kExitOk;
        case kVersion:
            return printVersion();
        case ':':
            return usage(std::string("flash decode: ") + argv[optind - 1] + " needs a value");
        default:
            return usage(std::string("flash decode: unknown option ") + argv[optind - 1]);
        }
    }
    if (optind >= (int)storage.size()) return usage("flash decode: which IMAGE or DEVICE?");
    if (optind + 1 < (int)storage.size())
        return usage(std::string("flash decode: unexpected argument '") + argv[optind + 1] + "'");

    // Geometry options are checked before the file, whatever the file turns out to be.
    uint32_t pageSize = options.pageSize ? options.pageSize : kDefaultPageSize;
    uint32_t blockSize = options.blockSize ? options.blockSize : kDefaultBlockSize;
    if (!TmGeometryUsable(pageSize, blockSize)) return usage("flash decode: " + unusableGeometry(pageSize, blockSize));

    FlashScan scan;
    std::string error;
    int status = scanFlash(argv[optind], options, &scan, &error);
    if (status != kExitOk) {
        fprintf(stderr, "tmctl: %s\n", error.c_str());
        return status;
    }
    tzset();
    if (format == kJson)
        printJson(scan, verbose);
    else if (format == kCsv)
        printCsv(scan);
    else
        printText(scan, verbose);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "tmctl: cannot write the listing of %s: %s\n", scan.path.c_str(), strerror(errno));
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace

int flashCommand(const std::vector<std::string> &args)
{
    if (args.empty()) return usage("flash: which command? (decode)");
    if (args[0] == "--help" || args[0] == "-h") {
        fputs(kFlashHelp, stdout);
        return kExitOk;
    }
    if (args[0] == "--version") return printVersion();
    if (args[0].size() > 1 && args[0][0] == '-') return usage("flash: unknown option " + args[0]);
    if (args[0] == "decode") return decode(std::vector<std::string>(args.begin() + 1, args.end()));
    return usage("flash: unknown command '" + args[0] + "'");
}

}  // namespace tmctl
