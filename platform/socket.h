#pragma once

#include <sys/socket.h>
#include <unistd.h>

namespace zenk {

/// Owns an IPv4 socket that child processes of the host do not inherit.
class Socket {
public:
    /// @param type  SOCK_DGRAM or SOCK_STREAM
    explicit Socket(int type) : m_fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() { close(); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const { return m_fd; }
    bool isOpen() const { return m_fd != -1; }
    void close() {
        if (isOpen()) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

}  // namespace zenk
