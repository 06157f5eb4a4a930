// The CGI side of tm.cgi: the request as the web server hands it over
// (environment and standard input), the session token, the form body, and
// the one JSON response written to standard output.
#ifndef KVARD_WEB_CGI_H
#define KVARD_WEB_CGI_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tmweb {

using Json = nlohmann::ordered_json;

// Bodies larger than this are refused unread: a form of settings is far smaller.
constexpr size_t kMaxBody = 4096;

struct Response {
    int status = 200;
    std::vector<std::string> headers;   // "Name: value", after Content-Type and Cache-Control
    Json body;
};

// The document and its headers on stdout, as a CGI response. Text that is not
// UTF-8 (a value echoed from a request, a byte in the store) is written with
// U+FFFD in its place; every other document is exactly what dump(2) gives.
void writeResponse(const Response &r);
// {"ok":false,"error":MESSAGE} with STATUS.
Response refusal(int status, const std::string &message);

// The value of the environment variable, empty when unset.
std::string env(const char *name);

// The first tm_session cookie of HTTP_COOKIE, as sent; nullopt when there is none.
std::optional<std::string> sessionCookie();
// 32 lowercase hex digits.
bool wellFormedToken(const std::string &token);
// 128 bits from getrandom(2) as 32 lowercase hex digits; nullopt when the kernel gave none.
std::optional<std::string> newToken();
// Both the tm_session cookie and the X-TM-Token header carry the same well-formed token.
bool tokenMatches();

// The media type of CONTENT_TYPE without parameters, in lower case.
std::string mediaType();
// The body: CONTENT_LENGTH bytes of stdin. nullopt and *error when the
// length is not a number or the body is shorter than announced.
std::optional<std::string> readBody(size_t length, std::string *error);
// CONTENT_LENGTH as a number; nullopt when it is not one. Unset is 0.
std::optional<unsigned long long> contentLength();

// One NAME=VALUE pair of an application/x-www-form-urlencoded body.
struct FormPair {
    std::string name, value;   // decoded; as sent when they cannot be
    bool hasValue = true;      // "NAME" without "="
    std::string error;         // why the pair cannot be taken, naming what is wrong; empty when it can
};

// The pairs of BODY in order; empty pieces between "&" are skipped.
std::vector<FormPair> parseForm(const std::string &body);

}  // namespace tmweb

#endif
