#pragma once

#include <chrono>
#include <functional>

/// Small helpers of the tests that talk over real sockets, all of them on 127.0.0.1.
namespace zenk_test {

using Milliseconds = std::chrono::milliseconds;

/// Long enough for a loaded two-core machine under a sanitizer; a test that passes never waits for it.
inline constexpr Milliseconds kPatience{20000};

/// @return a port that was free for TCP and UDP a moment ago. It lies below the range from which the system takes the
/// ports of outgoing connections, so that none of those can grab it in between. Throws when there is none.
int freePort();

/// Calls `predicate` until it holds. @return false when it did not within `patience`
bool waitUntil(const std::function<bool()>& predicate, Milliseconds patience = kPatience);

/// An open socket, closed at the end of its life.
class Socket {
public:
    explicit Socket(int fd = -1) : m_fd(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;

    int fd() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }
    void close();

private:
    int m_fd;
};

/// @return a connected TCP socket, or a closed one when nobody listens
Socket connectTcp(int port);
/// @return a UDP socket that sends to `port`; its receives end after kPatience
Socket connectUdp(int port);

/// @return a socket of `type` (SOCK_STREAM, SOCK_DGRAM) bound to all interfaces, a stream one listening; a closed one
/// when the port is taken. Its receives end after kPatience.
Socket bindPort(int port, int type);

}  // namespace zenk_test
