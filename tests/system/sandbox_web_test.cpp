// kvard-sandbox web: the page and tm.cgi served by lighttpd from inside the box
// to a port of the host. What the page does is the browser test's; this is the
// server: files with their types, the CGI run in the box (its store, clock and
// kvard), one server per box, and its end with --stop and with the box.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/system/harness.h"

namespace kvard::test {
namespace {

struct Response {
    int status = -1;  // -1: no connection
    std::string head, body;
};

// One HTTP/1.0 request to 127.0.0.1:PORT.
Response Http(int port, const std::string &method, const std::string &path, const std::string &headers = "",
              const std::string &body = "") {
    Response r;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval timeout = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return r;
    }
    std::string request = method + " " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n" + headers +
                          (method == "POST" ? "Content-Length: " + std::to_string(body.size()) + "\r\n" : "") + "\r\n" + body;
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        close(fd);
        return r;
    }
    std::string all;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) all.append(buffer, static_cast<size_t>(n));
    close(fd);
    size_t end = all.find("\r\n\r\n");
    if (end == std::string::npos || sscanf(all.c_str(), "HTTP/%*d.%*d %d", &r.status) != 1) return r;
    r.head = all.substr(0, end);
    r.body = all.substr(end + 4);
    return r;
}

std::string Header(const Response &r, const std::string &name) {
    std::string lower = r.head;
    for (auto &c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    size_t at = lower.find("\r\n" + name + ":");
    if (at == std::string::npos) return "";
    size_t from = at + name.size() + 3, to = r.head.find("\r\n", from);
    std::string value = r.head.substr(from, to == std::string::npos ? std::string::npos : to - from);
    return value.substr(value.find_first_not_of(' '));
}

int PortOf(const std::string &url) {
    int port = 0;
    EXPECT_EQ(sscanf(url.c_str(), "http://127.0.0.1:%d/", &port), 1) << url;
    return port;
}

std::string Trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    return s;
}

TEST(SandboxWeb, serves_the_page_and_runs_the_cgi_in_the_box) {
    Sandbox box({.time = "2026-03-10 12:00:00", .zone = "Europe/Berlin"});
    box.Start();
    ASSERT_TRUE(box.WaitReady());
    box.SetNetDev({{"eth0.1", 5000000, 1000000}});
    box.SetTime("2026-03-10 12:01:00");
    ASSERT_EQ(box.Send(kTimeWake), 1);

    CommandResult web = box.Runner({"web", box.Dir()});
    ASSERT_EQ(web.status, 0) << web.out;
    const std::string url = Trim(web.out);
    const int port = PortOf(url);

    struct File {
        std::string path, type, inBody;
    } files[] = {
        {"/", "text/html", "<!doctype html>"},
        {"/index.html", "text/html", "tm.js"},
        {"/tm.css", "text/css", "{"},
        {"/tm.js", "text/javascript", "tm.cgi"},
        {"/favicon.svg", "image/svg+xml", "<svg"},
    };
    for (const auto &f : files) {
        Response r = Http(port, "GET", f.path);
        EXPECT_EQ(r.status, 200) << f.path;
        EXPECT_EQ(Header(r, "content-type").rfind(f.type, 0), 0u) << f.path << ": " << r.head;
        EXPECT_NE(r.body.find(f.inBody), std::string::npos) << f.path;
    }
    EXPECT_EQ(Http(port, "GET", "/nothing-here").status, 404);

    // The CGI reads the box's store (what kvard published a minute ago) and
    // the box's clock (the history's moment), not the host's.
    Response stats = Http(port, "GET", "/cgi-bin/tm.cgi/stats");
    ASSERT_EQ(stats.status, 200) << stats.head << stats.body;
    EXPECT_EQ(Header(stats, "content-type").rfind("application/json", 0), 0u);
    CommandResult tmctl =
        RunShell("TZ=Europe/Berlin " + InstalledPrefix() + "/bin/kvard-sandbox exec " + box.Dir() + " -- tmctl stats --json");
    ASSERT_EQ(tmctl.status, 0) << tmctl.out;
    nlohmann::json fromCgi = nlohmann::json::parse(stats.body), fromTmctl = nlohmann::json::parse(tmctl.out);
    // The one difference: where the store is, seen from the box and from the host.
    EXPECT_EQ(fromCgi["store"], "/var/lib/kvard/mdm");
    fromCgi.erase("store");
    fromTmctl.erase("store");
    EXPECT_EQ(fromCgi, fromTmctl);
    Response history = Http(port, "GET", "/cgi-bin/tm.cgi/history");
    ASSERT_EQ(history.status, 200) << history.body;
    EXPECT_NE(history.body.find("2026-03-10"), std::string::npos) << history.body.substr(0, 400);

    // Through the server, a POST still needs its session's token.
    Response refused = Http(port, "POST", "/cgi-bin/tm.cgi/reset", "Content-Type: application/x-www-form-urlencoded\r\n");
    EXPECT_EQ(refused.status, 403) << refused.body;

    // One server per box: a second call names it.
    CommandResult again = box.Runner({"web", box.Dir()});
    EXPECT_EQ(again.status, 0) << again.out;
    EXPECT_EQ(Trim(again.out), url);

    // --stop ends it and leaves the box running; a second --stop finds none.
    CommandResult stop = box.Runner({"web", box.Dir(), "--stop"});
    EXPECT_EQ(stop.status, 0) << stop.out;
    EXPECT_EQ(Http(port, "GET", "/").status, -1);
    EXPECT_EQ(box.Runner({"web", box.Dir(), "--stop"}).status, 3);
    EXPECT_EQ(box.Status(), "running");

    // A fixed port, then the box's end ends the server with it.
    CommandResult fixed = box.Runner({"web", box.Dir(), "--port", std::to_string(port)});
    ASSERT_EQ(fixed.status, 0) << fixed.out;
    EXPECT_EQ(Trim(fixed.out), url);
    EXPECT_EQ(Http(port, "GET", "/").status, 200);
    box.Stop();
    EXPECT_EQ(Http(port, "GET", "/").status, -1);
}

TEST(SandboxWeb, failures_are_named_and_leave_no_server) {
    Sandbox box;
    // Not running yet.
    CommandResult notRunning = box.Runner({"web", box.Dir()});
    EXPECT_EQ(notRunning.status, 2);
    EXPECT_NE(notRunning.out.find("instance is not running"), std::string::npos) << notRunning.out;

    box.Start();
    ASSERT_TRUE(box.WaitReady());
    // A port that is taken on the host.
    int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    socklen_t length = sizeof at;
    getsockname(taken, reinterpret_cast<sockaddr *>(&at), &length);
    const std::string port = std::to_string(ntohs(at.sin_port));

    struct Row {
        std::vector<std::string> args;
        std::vector<std::string> env;
        std::string message;
    } rows[] = {
        {{"--port", port}, {}, "cannot listen on 127.0.0.1:" + port + ": Address already in use"},
        {{"--listen", "localhost"}, {}, "bad --listen 'localhost'"},
        {{}, {"KVARD_SANDBOX_LIGHTTPD=/nonexistent/lighttpd"}, "lighttpd not found (Debian package lighttpd)"},
        {{}, {"KVARD_SANDBOX_LIGHTTPD=/bin/false"}, "the web server ended at once (exit status 1)"},
    };
    for (const auto &row : rows) {
        std::string command;
        for (const auto &e : row.env) command += e + " ";
        command += InstalledPrefix() + "/bin/kvard-sandbox web " + box.Dir();
        for (const auto &a : row.args) command += " '" + a + "'";
        CommandResult r = RunShell(command);
        EXPECT_EQ(r.status, 2) << command << "\n" << r.out;
        EXPECT_NE(r.out.find(row.message), std::string::npos) << command << "\n" << r.out;
        EXPECT_EQ(box.Runner({"web", box.Dir(), "--stop"}).status, 3) << command;
    }
    close(taken);
    EXPECT_EQ(box.Status(), "running");
}

}  // namespace
}  // namespace kvard::test
