// Uses something of each part of the installed library. Exit status: 0 all well, 3 the port was taken, 1 anything else.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "log/zenk_log.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/wall_clock.h"
#include "wsserver/websocket_service.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

constexpr int kPortTaken = 3;
constexpr auto kDeadline = std::chrono::seconds(30);

class Observer : public ClientObserver {};

// The status line that a WebSocket handshake of `path` gets, or an empty text as long as nobody listens.
std::string handshake(int port, const std::string& path) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<std::uint16_t>(port));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char answer[13] = {};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0) {
        const std::string request = "GET " + path +
                                    " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
            recv(fd, answer, sizeof answer - 1, MSG_WAITALL);
        }
    }
    close(fd);
    return answer;
}

int check(bool isTrue, const char* what) {
    if (!isTrue) std::fprintf(stderr, "host: not so: %s\n", what);
    return isTrue ? 0 : 1;
}

int checkServed(int port, const std::atomic<bool>& isOver) {
    std::string pairing;
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (pairing.empty() && !isOver && std::chrono::steady_clock::now() < end) {
        pairing = handshake(port, "/local/hbbtv/token/app");
    }
    if (isOver) return kPortTaken;
    return check(pairing == "HTTP/1.1 101", "App2App is served") |
           check(handshake(port, "/css-cii/token/") == "HTTP/1.1 403", "a disabled server refuses");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 1;
    const int port = std::atoi(argv[1]);

    insert_modules_list("HOST", 1);
    MediaSyncServer* const server = MediaSyncServer::getInstance();
    server->m_port = port;
    server->enablePairing = true;
    ZenkCSSCIIServer cii;
    Observer observer;
    server->addObserver(&cii);
    server->addObserver(&observer);
    ZenkWallClock clock;

    std::atomic<bool> isOver{false};
    std::thread service([&] {
        startWebSocketServer(port, server);
        isOver = true;
    });
    const int served = checkServed(port, isOver);
    sighandler(0);
    service.join();
    server->removeObserver(&observer);

    return served | check(zenk_log_getLevel("HOST") == 2, "the log takes modules") |
           check(cii.getCssServerStatus() == 1, "a server begins disabled") |
           check(clock.GetWallClockTime().tv_sec > 0, "the clock runs");
}
