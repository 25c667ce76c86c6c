#include "wsserver/wc_exchange.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/shared_value.h"

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

}  // namespace

// What comes in from the first moment on is to carry the address that it came to.
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
    m_piece = {m_received, kBufferBytes};
    m_datagram = {&m_peer, sizeof m_peer, &m_piece, 1, m_note, sizeof m_note, 0};
    const ssize_t bytes = ::recvmsg(m_fd, &m_datagram, 0);
    if (bytes < 0) return false;
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
    m_piece = {m_reply, bytes};
    cmsghdr* const note = CMSG_FIRSTHDR(&m_datagram);
    // From the address that was asked, but by any interface: the route may be another than the request's.
    if (note != nullptr) std::memset(CMSG_DATA(note) + offsetof(in_pktinfo, ipi_ifindex), 0, sizeof(int));
    ::sendmsg(m_fd, &m_datagram, 0);
}

}  // namespace zenk
