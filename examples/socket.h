#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

/// An IPv4 socket that child processes do not inherit.
class Socket {
public:
    /// @param type  SOCK_STREAM for TCP, SOCK_DGRAM for UDP
    explicit Socket(int type) : m_type(type), m_fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        // As a server does: what remains of old connections does not count, a living listener does.
        if (type == SOCK_STREAM) set(SOL_SOCKET, SO_REUSEADDR, 1);
    }
    ~Socket() { close(m_fd); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const { return m_fd; }

    template <typename Value>
    bool set(int level, int option, const Value& value) const {
        return setsockopt(m_fd, level, option, &value, sizeof value) == 0;
    }

    /// @throw std::system_error that names the port and the reason when it cannot be served
    void bind(const std::string& address, int port) const {
        const std::string protocol = m_type == SOCK_STREAM ? "TCP" : "UDP";
        const std::string failure = "cannot serve " + protocol + " port " + std::to_string(port);
        const sockaddr_in name = addressOf(address, port);
        if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) return;
        throw std::system_error(errno, std::generic_category(), failure);
    }

    /// @return true when somebody accepts connections there
    bool connect(const std::string& address, int port) const {
        const sockaddr_in name = addressOf(address, port);
        return ::connect(m_fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
    }

private:
    static sockaddr_in addressOf(const std::string& host, int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, host.c_str(), &address.sin_addr);
        return address;
    }

    const int m_type;
    const int m_fd;
};
