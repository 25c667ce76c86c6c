#include "examples/local_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

class Socket {
public:
    explicit Socket(int type) : m_fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (m_fd >= 0) close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return m_fd; }

private:
    const int m_fd;
};

sockaddr_in addressOf(in_addr_t host, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

std::error_code lastError() {
    return {errno, std::generic_category()};
}

}  // namespace

std::error_code whyNotServable(int type, int port) {
    const Socket socket(type);
    const int on = 1;
    // As a server does: what remains of old connections does not count, a living listener does.
    if (type == SOCK_STREAM) setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = addressOf(INADDR_ANY, port);
    if (bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return lastError();
    return {};
}

bool acceptsConnections(int port) {
    const Socket socket(SOCK_STREAM);
    const sockaddr_in address = addressOf(INADDR_LOOPBACK, port);
    return connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}
