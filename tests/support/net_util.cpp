#include "tests/support/net_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

namespace zenk_test {
namespace {

constexpr int kLowestPort = 10000;
constexpr int kHighestPort = 32000;  // the system's own range begins at 32768
constexpr Milliseconds kPollInterval{1};

sockaddr_in addressOf(in_addr_t host, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

void switchOn(const Socket& socket, int level, int option) {
    const int on = 1;
    setsockopt(socket.fd(), level, option, &on, sizeof on);
}

Socket makeSocket(int type) {
    Socket socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const timeval patience{kPatience.count() / 1000, 0};
    setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return socket;
}

bool isFree(int port) {
    return bindPort(port, SOCK_STREAM).isOpen() && bindPort(port, SOCK_DGRAM).isOpen();
}

}  // namespace

int freePort() {
    std::random_device random;
    std::uniform_int_distribution<int> ports(kLowestPort, kHighestPort);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int port = ports(random);
        if (isFree(port)) return port;
    }
    throw std::runtime_error("no free port");
}

bool waitUntil(const std::function<bool()>& predicate, Milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

Socket::~Socket() {
    close();
}

Socket::Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {
}

Socket& Socket::operator=(Socket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
}

void Socket::close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
}

Socket connectTcp(int port) {
    Socket socket = makeSocket(SOCK_STREAM);
    switchOn(socket, IPPROTO_TCP, TCP_NODELAY);  // what is sent in pieces must arrive in pieces, and at once
    const sockaddr_in address = addressOf(INADDR_LOOPBACK, port);
    if (connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) socket.close();
    return socket;
}

Socket connectUdp(int port) {
    Socket socket = makeSocket(SOCK_DGRAM);
    const sockaddr_in address = addressOf(INADDR_LOOPBACK, port);
    static_cast<void>(connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return socket;
}

Socket bindPort(int port, int type) {
    Socket socket = makeSocket(type);
    // Old connections of an earlier test do not count as taken; a listener still does.
    if (type == SOCK_STREAM) switchOn(socket, SOL_SOCKET, SO_REUSEADDR);
    const sockaddr_in address = addressOf(INADDR_ANY, port);
    if (bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return Socket();
    if (type == SOCK_STREAM && listen(socket.fd(), 1) != 0) return Socket();
    return socket;
}

}  // namespace zenk_test
