#pragma once

#include <sys/socket.h>

#include <array>
#include <string>

#include "tests/support/net_util.h"

namespace zenk_test {

/// A UDP client of the wall-clock server. It allocates nothing.
class WallClockClient {
public:
    using Reply = std::array<unsigned char, 32>;

    explicit WallClockClient(int port) : m_socket(connectUdp(port)) {}

    void send(const std::string& bytes) {
        // What became of the datagram before is told by this call, which then sends nothing.
        const auto isSent = [&] { return ::send(m_socket.fd(), bytes.data(), bytes.size(), 0) >= 0; };
        if (!isSent()) isSent();
    }
    /// @return false when no datagram of a reply's length comes in time, or at once while nobody serves the port
    bool receive(Reply& reply, int flags = 0) {
        return recv(m_socket.fd(), reply.data(), reply.size(), flags | MSG_TRUNC) == static_cast<ssize_t>(reply.size());
    }
    bool hasMore() {
        Reply reply;
        return recv(m_socket.fd(), reply.data(), reply.size(), MSG_DONTWAIT) >= 0;
    }

private:
    Socket m_socket;
};

}  // namespace zenk_test
