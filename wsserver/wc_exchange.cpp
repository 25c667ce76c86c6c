#include "wsserver/wc_exchange.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "wsserver/shared_value.h"

namespace zenk {

namespace {

constexpr char kWakeWord[] = "quitwc";
constexpr useconds_t kIdlePollMicroseconds = 500'000;
constexpr int kResponse = 1;  // the message type of a reply that no follow-up corrects

/// All interfaces, and the low-order 16 bits of the number that the text begins with (0 without a number).
sockaddr_in anyAddress(const std::string& port) {
    using IntLimits = std::numeric_limits<int>;
    const long number = std::clamp<long>(std::strtol(port.c_str(), nullptr, 10), IntLimits::min(), IntLimits::max());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(number));
    return address;
}

/// Room for the address that a datagram came to, or for the one that it shall leave from.
union AddressNote {
    cmsghdr header;  // for its alignment
    char bytes[CMSG_SPACE(sizeof(in_pktinfo))];
};

/// A datagram of one piece, with the peer's address and a note.
msghdr makeDatagram(iovec& piece, sockaddr_in& peer, socklen_t peerBytes, AddressNote& note) {
    msghdr datagram{};
    datagram.msg_name = &peer;
    datagram.msg_namelen = peerBytes;
    datagram.msg_iov = &piece;
    datagram.msg_iovlen = 1;
    datagram.msg_control = note.bytes;
    datagram.msg_controllen = sizeof note.bytes;
    return datagram;
}

/// @return the zero address, which leaves the choice to the system, where the system has noted none
in_addr notedAddress(msghdr& datagram) {
    in_pktinfo info{};
    const cmsghdr* const note = CMSG_FIRSTHDR(&datagram);
    if (note != nullptr && note->cmsg_level == IPPROTO_IP && note->cmsg_type == IP_PKTINFO) {
        std::memcpy(&info, CMSG_DATA(note), sizeof info);
    }
    return info.ipi_spec_dst;
}

void noteAddress(msghdr& datagram, const in_addr& address) {
    in_pktinfo info{};  // no interface: the route may be another than the request's
    info.ipi_spec_dst = address;
    cmsghdr* const note = CMSG_FIRSTHDR(&datagram);
    note->cmsg_level = IPPROTO_IP;
    note->cmsg_type = IP_PKTINFO;
    note->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(note), &info, sizeof info);
}

}  // namespace

// What comes in from the first moment on is to carry the address that it came to. A system that cannot tell answers
// from an address of its choice.
bool WCExchange::bindSocket(int fd, const std::string& port) {
    const int isOn = 1;
    ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &isOn, sizeof isOn);
    const sockaddr_in address = anyAddress(port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void WCExchange::sendWakeWord(int fd, const std::string& port) {
    const sockaddr_in address = anyAddress(port);
    ::sendto(fd, kWakeWord, std::strlen(kWakeWord), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

WCExchange::End WCExchange::run(unsigned char& running, unsigned char& enabled) {
    while (loadShared(running) != 0) {
        if (loadShared(enabled) == 0) {
            ::usleep(kIdlePollMicroseconds);
            continue;
        }
        if (!receive()) {
            std::perror("recvfrom");
            return End::kReceiveFailed;
        }
        if (isWakeWord()) return End::kToldToQuit;
        answer();
    }
    return End::kStopped;
}

bool WCExchange::receive() {
    iovec piece{m_received, kBufferBytes};
    AddressNote note{};
    msghdr request = makeDatagram(piece, m_sender, sizeof m_sender, note);
    const ssize_t bytes = ::recvmsg(m_fd, &request, 0);
    if (bytes < 0) return false;
    m_senderBytes = request.msg_namelen;
    m_asked = notedAddress(request);
    m_receivedBytes = static_cast<int>(bytes);
    std::printf("##MS## receive msg from wc client, len=%d,msg:%s\n", m_receivedBytes, m_received);
    return true;
}

bool WCExchange::isWakeWord() const {
    return std::strcmp(m_received, kWakeWord) == 0;
}

// Called at once after the comparison: what comes before the receive time would count as time on the way.
void WCExchange::answer() {
    const timespec receiveTime = m_clock.GetWallClockTime();
    ZenkWCMessage message{};
    m_clock.StringToZenkWCMessage(m_received, m_receivedBytes, &message);
    fillReply(message, receiveTime);
    std::memset(m_reply, 0, sizeof m_reply);
    int replyBytes = 0;
    m_clock.ZenkWCMessageToString(&message, m_reply, &replyBytes);
    std::printf("##MS## send msg to wc client, len=%d\n", replyBytes);
    sendReply(static_cast<std::size_t>(replyBytes));
}

// The receive time is cut by the tick measured for an earlier request, the transmit time by the one measured for this.
void WCExchange::fillReply(ZenkWCMessage& message, const timespec& receiveTime) {
    message.message_type = kResponse;
    message.precision = m_clock.GetPrecision();
    message.max_freq_error = static_cast<std::uint32_t>(m_clock.GetMaxFreqError());
    message.receive_timevalue_secs = static_cast<std::uint32_t>(receiveTime.tv_sec);
    message.receive_timevalue_nanos = static_cast<std::uint32_t>(receiveTime.tv_nsec);
    const timespec transmitTime = m_clock.GetWallClockTime();
    message.transmit_timevalue_secs = static_cast<std::uint32_t>(transmitTime.tv_sec);
    message.transmit_timevalue_nanos = static_cast<std::uint32_t>(transmitTime.tv_nsec);
}

// A reply that cannot leave is a lost datagram like any other; the device asks again.
void WCExchange::sendReply(std::size_t bytes) {
    iovec piece{m_reply, bytes};
    AddressNote note{};
    msghdr reply = makeDatagram(piece, m_sender, m_senderBytes, note);
    noteAddress(reply, m_asked);
    ::sendmsg(m_fd, &reply, 0);
}

}  // namespace zenk
