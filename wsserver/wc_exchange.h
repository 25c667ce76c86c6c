#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <ctime>
#include <string>

#include "wsserver/wall_clock.h"

namespace zenk {

/// Answers wall-clock requests on a UDP socket, one at a time, in one thread. The reply leaves from the address that
/// was asked: a device drops an answer that comes from another address of the receiver.
class WCExchange {
public:
    enum class End { kStopped, kToldToQuit, kReceiveFailed };

    /// Binds a socket to all interfaces and the port that a text begins with.
    /// @return false, with the reason in errno
    static bool bindSocket(int fd, const std::string& port);

    /// Wakes the server that waits on that port of this machine.
    static void sendWakeWord(int fd, const std::string& port);

    /// @param fd  bound by bindSocket(); stays the caller's, as does the clock
    WCExchange(int fd, ZenkWallClock& clock) : m_fd(fd), m_clock(clock) {}

    /// Serves as long as `running` is set. While `enabled` is not, it looks at both twice a second and leaves the
    /// requests in the socket. Prints two lines per request, allocates nothing.
    End run(unsigned char& running, unsigned char& enabled);

private:
    bool receive();
    bool isWakeWord() const;
    void answer();
    void fillReply(ZenkWCMessage& message, const timespec& receiveTime);
    void sendReply(std::size_t bytes);

    static constexpr std::size_t kBufferBytes = 128;

    const int m_fd;
    ZenkWallClock& m_clock;
    // The request as it came and, with another piece, its reply: for the same peer, from the address that the system
    // has noted as the one that was asked. One that notes none answers from an address of its choice.
    msghdr m_datagram{};
    sockaddr_in m_peer{};
    iovec m_piece{};
    alignas(cmsghdr) char m_note[CMSG_SPACE(sizeof(in_pktinfo))];
    int m_receivedBytes = 0;
    // Never cleared between requests. The last byte stays 0, so that even a full datagram ends as a text.
    char m_received[kBufferBytes + 1]{};
    char m_reply[kBufferBytes];
};

}  // namespace zenk
