// tm.cgi: the Traffic Meter page's one program on the router's web server.
// The figures, the daily history and the settings come out as the JSON
// documents tmctl prints, made by the same code; a change of the settings is
// checked as "tmctl config set" checks it and kvard is told; the manual reset
// is the datagram kvard answers. Endpoints and their documents: docs/web.md.
//
// Every state change is a POST that carries the session token twice, as the
// tm_session cookie and as the X-TM-Token header. A page of another site can
// make the browser send the cookie, but can neither read it nor set the
// header, so it cannot change a setting or reset the counters.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/cms/cms.h"
#include "tools/tmctl/config.h"
#include "tools/tmctl/exchange.h"
#include "tools/tmctl/history.h"
#include "tools/tmctl/stats.h"
#include "tools/tmctl/wire.h"
#include "tools/web/cgi/cgi.h"

namespace tmweb {

namespace {

const char kManualResetDefault[] = "/data/tmrestarttime.data";
constexpr int kReplyTimeoutMs = 2000;
const uint16_t kResetCounter = 5;   // TM_MSG_RESET_COUNTER

// A failure the store library reported on stderr (the server's error log) leaves no text of its own.
std::string orLogged(const std::string &error)
{
    return error.empty() ? "the store could not be read (the web server's error log tells why)" : error;
}

// kvard's control port: KVARD_WEB_PORT, or the one kvard always binds.
std::optional<uint16_t> controlPort()
{
    std::string text = env("KVARD_WEB_PORT");
    if (text.empty()) return tmctl::kPort;
    if (text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    unsigned long v = std::stoul(text);
    if (v == 0 || v > 65535) return std::nullopt;
    return static_cast<uint16_t>(v);
}

// The "tm" partition: KVARD_WEB_FLASH, or the device of the first line of
// /proc/mtd that holds "tm" in quotes, the one kvard takes
// (mtd3: 00400000 00020000 "tm" is /dev/mtd3).
std::optional<std::string> flashPath()
{
    std::string given = env("KVARD_WEB_FLASH");
    if (!given.empty()) return given;
    std::ifstream mtd("/proc/mtd");
    for (std::string line; std::getline(mtd, line);) {
        size_t colon = line.find(':');
        if (line.find("\"tm\"") != std::string::npos && colon != std::string::npos && colon > 0)
            return "/dev/" + line.substr(0, colon);
    }
    return std::nullopt;
}

Response document(const Json &doc)
{
    Response r;
    r.body = doc;
    return r;
}

Response session()
{
    auto cookie = sessionCookie();
    std::optional<std::string> token = cookie && wellFormedToken(*cookie) ? cookie : newToken();
    if (!token) return refusal(503, "no random numbers for a session token (getrandom failed)");
    Response r;
    r.headers.push_back("Set-Cookie: tm_session=" + *token + "; Path=/; SameSite=Strict; HttpOnly");
    r.body = {{"token", *token}};
    return r;
}

Response stats()
{
    Json doc;
    std::string error;
    if (tmctl::statsDocument(&doc, &error) != 0) return refusal(503, orLogged(error));
    return document(doc);
}

Response config()
{
    Json doc;
    std::string error;
    if (tmctl::configDocument(&doc, &error) != 0) return refusal(503, orLogged(error));
    return document(doc);
}

Response history()
{
    auto path = flashPath();
    if (!path) return refusal(503, "no partition named \"tm\" in /proc/mtd (KVARD_WEB_FLASH names it otherwise)");
    std::string manual = env("KVARD_WEB_MANUAL_RESET");
    if (manual.empty()) manual = kManualResetDefault;
    struct stat st;
    std::optional<std::string> manualFile;
    if (stat(manual.c_str(), &st) == 0) manualFile = manual;
    nlohmann::json doc;
    std::string error;
    if (tmctl::historyDaysDocument(*path, manualFile, &doc, &error) != 0) return refusal(503, orLogged(error));
    Response r;
    r.body = Json::parse(doc.dump());   // the same text: history's document is sorted by name already
    return r;
}

Json problemJson(const std::string &field, const std::string &value, const std::string &message)
{
    return {{"field", field}, {"value", value}, {"message", message}};
}

Response unprocessable(const Json &errors, const std::string &message)
{
    Response r;
    r.status = 422;
    r.body = {{"ok", false}, {"errors", errors}, {"message", message}};
    return r;
}

Response setConfig(const std::string &body, uint16_t port)
{
    std::vector<FormPair> pairs = parseForm(body);
    Json errors = Json::array();
    std::vector<std::string> assignments;
    for (const FormPair &p : pairs) {
        if (!p.error.empty())
            errors.push_back(problemJson(p.name, p.value, p.error));
        else
            assignments.push_back(p.hasValue ? p.name + "=" + p.value : p.name);
    }
    if (pairs.empty()) return unprocessable(errors, "nothing written: the form named no setting (NAME=VALUE)");
    // With a pair that cannot be read, the others are still checked, so that every problem shows at once.
    tmctl::ConfigSetOptions options;
    options.dryRun = !errors.empty();
    options.port = port;
    options.timeoutMs = kReplyTimeoutMs;
    tmctl::ConfigSetResult result = tmctl::configSet(assignments, options);
    for (const tmctl::ConfigProblem &p : result.problems) errors.push_back(problemJson(p.field, p.value, p.text));
    if (!errors.empty())
        return unprocessable(errors, "nothing written (" + std::to_string(errors.size()) + " problem" +
                                         (errors.size() == 1 ? "" : "s") + ")");
    if (!result.notified && result.status != 0) return refusal(503, orLogged(result.error));

    Json changes = Json::array();
    for (const tmctl::ConfigChange &c : result.changes)
        changes.push_back({{"field", c.field},
                           {"old", c.old ? Json(*c.old) : Json(nullptr)},
                           {"new", c.now ? Json(*c.now) : Json(nullptr)}});
    Response r;
    r.body = {{"ok", true},
              {"changes", changes},
              {"applied", result.applied},
              {"reply", result.reply ? Json(*result.reply) : Json(nullptr)},
              {"message", result.error.empty() ? result.message : result.error}};
    return r;
}

Response reset(const std::string &body, uint16_t port)
{
    std::vector<FormPair> pairs = parseForm(body);
    bool confirmed = pairs.empty() || (pairs.size() == 1 && pairs[0].error.empty() && pairs[0].name == "confirm" &&
                                       pairs[0].value == "1");
    if (!confirmed) return refusal(422, "a reset takes no fields but confirm=1; nothing was reset");
    tmctl::Exchange ex = tmctl::exchange(tmctl::buildDatagram(kResetCounter, {}), port, kReplyTimeoutMs);
    std::string where = "127.0.0.1:" + std::to_string(port);
    Response r;
    if (ex.outcome == tmctl::Exchange::kReply && ex.reply.size() == 4) {
        int32_t word = tmctl::replyWord(ex.reply.data());
        r.body = {{"ok", word == 1}, {"reply", word}};
        r.body["message"] =
            word == 1   ? "kvard reset the counters: this month counts again from now, the period and its reset day stay"
            : word == 0 ? "kvard reset the counters, but a page of the flash could not be rewritten: after a restart "
                          "part of this month's traffic may come back (see kvard's output)"
                        : "kvard answered " + std::to_string(word) + " to the reset";
        return r;
    }
    // Nothing listening: no kvard, no reset. No reply in time: a busy kvard
    // may still do it when it gets to the datagram.
    std::string why = ex.outcome == tmctl::Exchange::kRefused
                          ? "not reset: nothing listens on " + where + " (is kvard running?)"
                      : ex.outcome == tmctl::Exchange::kNoReply
                          ? "not confirmed: no reply from " + where + " within " + std::to_string(kReplyTimeoutMs) +
                                " ms; kvard may still reset the counters when it gets to the request"
                      : ex.outcome == tmctl::Exchange::kReply
                          ? "not confirmed: a reply of " + std::to_string(ex.reply.size()) + " bytes from " + where +
                                ", not 4"
                          : "not reset: cannot talk to " + where + ": " + ex.error;
    r.status = 503;
    r.body = {{"ok", false}, {"reply", nullptr}, {"message", why}};
    return r;
}

struct Endpoint {
    const char *method;   // "GET" or "POST"
    std::function<Response()> get;
    std::function<Response(const std::string &body, uint16_t port)> post;
};

// A POST passes the token, size and type checks before its body is read.
Response post(const Endpoint &e)
{
    if (!tokenMatches()) return refusal(403, "missing or wrong session token: reload the page");
    auto length = contentLength();
    if (!length) return refusal(400, "CONTENT_LENGTH '" + env("CONTENT_LENGTH") + "' is not a byte count");
    if (*length > kMaxBody)
        return refusal(413, "the request body has " + std::to_string(*length) + " bytes, at most " +
                                std::to_string(kMaxBody) + " are taken");
    std::string type = mediaType();
    // An empty POST (a reset) may come without a type: there is nothing to read.
    if (type != "application/x-www-form-urlencoded" && !(type.empty() && *length == 0))
        return refusal(415, "the body must be application/x-www-form-urlencoded, not '" + env("CONTENT_TYPE") + "'");
    auto port = controlPort();
    if (!port) return refusal(500, "KVARD_WEB_PORT '" + env("KVARD_WEB_PORT") + "' is not a port (1 to 65535)");
    std::string error;
    auto body = readBody(static_cast<size_t>(*length), &error);
    if (!body) return refusal(400, error);
    return e.post(*body, *port);
}

Response handle()
{
    static const std::map<std::string, std::vector<Endpoint>> endpoints = {
        {"/session", {{"GET", session, nullptr}}},
        {"/stats", {{"GET", stats, nullptr}}},
        {"/history", {{"GET", history, nullptr}}},
        {"/config", {{"GET", config, nullptr}, {"POST", nullptr, setConfig}}},
        {"/reset", {{"POST", nullptr, reset}}},
    };
    const std::string path = env("PATH_INFO"), method = env("REQUEST_METHOD");
    auto it = endpoints.find(path);
    if (it == endpoints.end())
        return refusal(404, "no endpoint '" + path + "': /session, /stats, /history and /config (GET), /config and "
                            "/reset (POST)");
    std::string allow;
    for (const Endpoint &e : it->second) {
        if (method == e.method) return e.get ? e.get() : post(e);
        allow += std::string(allow.empty() ? "" : ", ") + e.method;
    }
    Response r = refusal(405, path + " takes " + allow + ", not " + (method.empty() ? "no method" : method));
    r.headers.push_back("Allow: " + allow);
    return r;
}

}  // namespace

}  // namespace tmweb

int main()
{
    cmsLog_initWithName(0, "tm.cgi");   // the store's own error lines in the server's log name this program
    tmweb::Response r;
    try {
        r = tmweb::handle();
    } catch (const std::exception &e) {
        r = tmweb::refusal(500, std::string("tm.cgi failed: ") + e.what());
    }
    tmweb::writeResponse(r);
    return 0;
}
