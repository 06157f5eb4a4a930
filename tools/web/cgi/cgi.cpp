// tm.cgi's request and response handling (cgi.h).
#include "tools/web/cgi/cgi.h"

#include <sys/random.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace tmweb {

namespace {

const char *reason(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 415: return "Unsupported Media Type";
    case 422: return "Unprocessable Content";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    }
    return "Error";
}

std::string lower(std::string s)
{
    for (char &c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trimmed(const std::string &s)
{
    size_t from = s.find_first_not_of(" \t"), to = s.find_last_not_of(" \t");
    return from == std::string::npos ? "" : s.substr(from, to - from + 1);
}

// The pieces of TEXT between SEPARATORs, empty ones left out.
std::vector<std::string> pieces(const std::string &text, char separator)
{
    std::vector<std::string> out;
    for (size_t at = 0; at <= text.size();) {
        size_t end = text.find(separator, at);
        if (end == std::string::npos) end = text.size();
        if (end > at) out.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "+" is a blank, %XX a byte; false and *error for a "%" without two hex
// digits after it or for a NUL byte, which no setting can hold.
bool decode(const std::string &text, std::string *out, std::string *error)
{
    out->clear();
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '+') {
            *out += ' ';
        } else if (text[i] != '%') {
            *out += text[i];
        } else {
            int hi = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
            int lo = hi >= 0 ? hexDigit(text[i + 2]) : -1;
            if (hi < 0 || lo < 0) {
                *error = "is not URL-encoded: a '%' must be followed by two hex digits";
                return false;
            }
            if (hi == 0 && lo == 0) {
                *error = "holds a NUL byte (%00)";
                return false;
            }
            *out += static_cast<char>(hi * 16 + lo);
            i += 2;
        }
    }
    return true;
}

}  // namespace

void writeResponse(const Response &r)
{
    std::string head;
    if (r.status != 200) head += "Status: " + std::to_string(r.status) + " " + reason(r.status) + "\r\n";
    head += "Content-Type: application/json\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n";
    for (const std::string &h : r.headers) head += h + "\r\n";
    std::string body = r.body.dump(2, ' ', false, Json::error_handler_t::replace);
    fputs((head + "\r\n" + body + "\n").c_str(), stdout);
    fflush(stdout);
}

Response refusal(int status, const std::string &message)
{
    Response r;
    r.status = status;
    r.body = {{"ok", false}, {"error", message}};
    return r;
}

std::string env(const char *name)
{
    const char *v = getenv(name);
    return v ? v : "";
}

std::optional<std::string> sessionCookie()
{
    for (const std::string &cookie : pieces(env("HTTP_COOKIE"), ';')) {
        size_t eq = cookie.find('=');
        if (eq != std::string::npos && trimmed(cookie.substr(0, eq)) == "tm_session") return trimmed(cookie.substr(eq + 1));
    }
    return std::nullopt;
}

bool wellFormedToken(const std::string &token)
{
    if (token.size() != 32) return false;
    for (char c : token)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

std::optional<std::string> newToken()
{
    uint8_t bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        got += static_cast<size_t>(n);
    }
    static const char digits[] = "0123456789abcdef";
    std::string token;
    for (uint8_t b : bytes) token += {digits[b >> 4], digits[b & 15]};
    return token;
}

bool tokenMatches()
{
    auto cookie = sessionCookie();
    const char *header = getenv("HTTP_X_TM_TOKEN");
    if (!cookie || !header || !wellFormedToken(*cookie) || !wellFormedToken(header)) return false;
    // Every digit compared, so the time taken tells nothing of where they differ.
    unsigned diff = 0;
    for (size_t i = 0; i < cookie->size(); i++) diff |= static_cast<unsigned>((*cookie)[i] ^ header[i]);
    return diff == 0;
}

std::string mediaType()
{
    std::string type = env("CONTENT_TYPE");
    return lower(trimmed(type.substr(0, type.find(';'))));
}

std::optional<unsigned long long> contentLength()
{
    std::string text = env("CONTENT_LENGTH");
    if (text.empty()) return 0;
    if (text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    return std::stoull(text);
}

std::optional<std::string> readBody(size_t length, std::string *error)
{
    std::string body(length, '\0');
    size_t got = 0;
    while (got < length) {
        ssize_t n = read(STDIN_FILENO, body.data() + got, length - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = "the request body ended after " + std::to_string(got) + " of " + std::to_string(length) + " bytes";
            return std::nullopt;
        }
        got += static_cast<size_t>(n);
    }
    return body;
}

std::vector<FormPair> parseForm(const std::string &body)
{
    std::vector<FormPair> pairs;
    for (const std::string &raw : pieces(body, '&')) {
        FormPair p;
        size_t eq = raw.find('=');
        p.hasValue = eq != std::string::npos;
        std::string rawName = raw.substr(0, eq), rawValue = p.hasValue ? raw.substr(eq + 1) : "";
        std::string why;
        if (!decode(rawName, &p.name, &why)) {
            p.name = rawName;
            p.value = rawValue;
            p.error = "the name '" + rawName + "' " + why;
        } else if (!decode(rawValue, &p.value, &why)) {
            p.value = rawValue;
            p.error = "'" + rawValue + "' " + why;
        } else if (p.name.find('=') != std::string::npos) {
            p.error = "is no setting: a name holds no '='";
        }
        pairs.push_back(p);
    }
    return pairs;
}

}  // namespace tmweb
