// Stands in for the daemon on its UDP port: prints a datagram with the daemon's magic as hex and answers
// the word -2; "now" gets this long-running program's clock; anything else runs as a shell command.
#include <err.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <ctime>
#include <string>

int main() {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(22724);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(sock, reinterpret_cast<sockaddr *>(&peer), sizeof peer) != 0) err(1, "bind");
    for (char in[4096], out[4096];;) {
        socklen_t length = sizeof peer;
        ssize_t n = recvfrom(sock, in, sizeof in - 1, 0, reinterpret_cast<sockaddr *>(&peer), &length);
        std::string reply = "\xfe\xff\xff\xff";
        if (n >= 2 && in[0] == '\x2d' && in[1] == '\xa5') {
            for (ssize_t i = 0; i < n; ++i) printf("%02x ", static_cast<unsigned char>(in[i]));
            printf("\n");
            fflush(stdout);
        } else if (n == 3 && std::string(in, 3) == "now") {
            reply = std::to_string(time(nullptr));
        } else if (n >= 0) {
            in[n] = '\0';
            FILE *pipe = popen(in, "r");
            reply.clear();
            for (size_t got; pipe && (got = fread(out, 1, sizeof out, pipe)) > 0;) reply.append(out, got);
            if (pipe) pclose(pipe);
        }
        sendto(sock, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&peer), length);
    }
}
