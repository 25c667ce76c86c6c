#include "wsserver/zenk_dvbCss.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <new>

#include "wsserver/trace.h"
#include "wsserver/wall_clock.h"

// ---------------------------------------------------------------- event dispatcher

// ---------------------------------------------------------------- CSS-CII server

// ---------------------------------------------------------------- CSS-TS server

// ---------------------------------------------------------------- CSS-WC server

ZenkCSSWCServer* ZenkCSSWCServer::m_instance = nullptr;

/// Given by the dispatcher's section.
ZenkCSSEventDispatcher* sharedEventDispatcher();

namespace {

constexpr char kWakeWord[] = "quitwc";
constexpr std::size_t kWCBufferBytes = 128;
constexpr useconds_t kIdlePollMicroseconds = 500'000;
constexpr int kResponse = 1;  // the message type of a reply that no follow-up corrects

// Plain bytes to their writers, atomic to the loop, which must see each change of them.
bool isSet(unsigned char& flag) {
    return std::atomic_ref(flag).load() != 0;
}

/// @return whether this call changed the flag
bool change(unsigned char& flag, bool value) {
    return (std::atomic_ref(flag).exchange(value ? 1 : 0) != 0) != value;
}

/// Owns a UDP socket that child processes of the host do not inherit.
class UdpSocket {
public:
    UdpSocket() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~UdpSocket() { close(); }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int fd() const { return m_fd; }
    bool isOpen() const { return m_fd != -1; }
    void close() {
        if (isOpen()) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

/// All interfaces, and the low-order 16 bits of the number that the text begins with (0 without a number).
sockaddr_in anyAddress(const std::string& port) {
    using IntLimits = std::numeric_limits<int>;
    const long number = std::clamp<long>(std::strtol(port.c_str(), nullptr, 10), IntLimits::min(), IntLimits::max());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(number));
    return address;
}

// The host's clock, or one of ours that lives as long as the process.
ZenkWallClock* takeWallClock() {
    ZenkWallClock* const clock = std::atomic_ref(ZenkWallClock::m_instance).load();
    return clock != nullptr ? clock : new (std::nothrow) ZenkWallClock;
}

/// One request at a time: receives it into its buffer, and answers it.
class WCExchange {
public:
    WCExchange(int fd, ZenkWallClock& clock) : m_fd(fd), m_clock(clock) {}

    bool receive();
    bool isWakeWord() const { return std::strcmp(m_received, kWakeWord) == 0; }
    void answer();

private:
    void fillReply(ZenkWCMessage& message, const timespec& receiveTime);

    const int m_fd;
    ZenkWallClock& m_clock;
    sockaddr_in m_sender{};
    socklen_t m_senderBytes = sizeof m_sender;
    int m_receivedBytes = 0;
    // Never cleared between requests. The last byte stays 0, so that even a full datagram ends as a text.
    char m_received[kWCBufferBytes + 1]{};
    char m_reply[kWCBufferBytes];
};

bool WCExchange::receive() {
    const ssize_t bytes =
        ::recvfrom(m_fd, m_received, kWCBufferBytes, 0, reinterpret_cast<sockaddr*>(&m_sender), &m_senderBytes);
    if (bytes < 0) return false;
    m_receivedBytes = static_cast<int>(bytes);
    std::printf("##MS## receive msg from wc client, len=%d,msg:%s\n", m_receivedBytes, m_received);
    return true;
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
    // A reply that cannot leave is a lost datagram like any other; the device asks again.
    ::sendto(m_fd, m_reply, static_cast<std::size_t>(replyBytes), 0, reinterpret_cast<const sockaddr*>(&m_sender),
             m_senderBytes);
}

enum class WCEnd { kFlagCleared, kToldToQuit, kReceiveFailed };

WCEnd answerRequests(WCExchange& exchange, unsigned char& running, unsigned char& enabled) {
    while (isSet(running)) {
        if (!isSet(enabled)) {
            ::usleep(kIdlePollMicroseconds);
            continue;
        }
        if (!exchange.receive()) {
            std::perror("recvfrom");
            return WCEnd::kReceiveFailed;
        }
        if (exchange.isWakeWord()) return WCEnd::kToldToQuit;
        exchange.answer();
    }
    return WCEnd::kFlagCleared;
}

}  // namespace

ZenkCSSWCServer::ZenkCSSWCServer() : m_running(0), m_enableInterDevSync(0) {
    ZENK_TRACE_ENTER();
    m_instance = this;
    m_dispatcher = sharedEventDispatcher();
    ZENK_TRACE_LEAVE();
}

ZenkCSSWCServer::ZenkCSSWCServer(std::string& port) : ZenkCSSWCServer() {
    m_port = port;
}

ZenkCSSWCServer::~ZenkCSSWCServer() {
    ZENK_TRACE_ENTER();
    m_dispatcher = nullptr;
    m_instance = nullptr;
    change(m_running, false);
    ZENK_TRACE_LEAVE();
}

// Each end has an error line of its own: the line number tells which it was.
void ZenkCSSWCServer::startWCServer() {
    ZENK_TRACE_ENTER();
    if (isSet(m_running) || m_port.empty()) {
        ZENK_TRACE_ERROR();
        return;
    }
    const sockaddr_in address = anyAddress(m_port);
    UdpSocket socket;
    if (!socket.isOpen()) {
        ZENK_TRACE_ERROR();
        return;
    }
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        std::perror("bind");
        ZENK_TRACE_ERROR();
        return;
    }
    // Of two starts at the same moment the bind lets one through; on port 0, where both get one, the flag does.
    if (!change(m_running, true)) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZenkWallClock* const clock = takeWallClock();
    if (clock == nullptr) {
        ZENK_TRACE_ERROR();
        socket.close();
        change(m_running, false);
        return;
    }
    WCExchange exchange(socket.fd(), *clock);
    switch (answerRequests(exchange, m_running, m_enableInterDevSync)) {
        case WCEnd::kReceiveFailed:
            ZENK_TRACE_ERROR();
            socket.close();
            change(m_running, false);
            return;
        case WCEnd::kToldToQuit:
            ZENK_TRACE_ERROR();
            change(m_running, false);
            break;
        case WCEnd::kFlagCleared:
            ZENK_TRACE_ERROR();
            break;
    }
    socket.close();
    ZENK_TRACE_LEAVE();
}

// The flag goes first: the loop ends even if it takes the datagram for a request.
void ZenkCSSWCServer::stopWCServer() {
    ZENK_TRACE_ENTER();
    if (!change(m_running, false)) {
        ZENK_TRACE_ERROR();
        return;
    }
    const sockaddr_in address = anyAddress(m_port);
    UdpSocket socket;
    if (!socket.isOpen()) {
        ZENK_TRACE_ERROR();
        return;
    }
    ::sendto(socket.fd(), kWakeWord, std::strlen(kWakeWord), 0, reinterpret_cast<const sockaddr*>(&address),
             sizeof address);
    socket.close();
    ZENK_TRACE_LEAVE();
}

void ZenkCSSWCServer::getCssWcEndpoint(std::string& url) {
    ZENK_TRACE_ENTER();
    constexpr int kAddressChars = 15;
    char address[kAddressChars + 1]{};
    if (getLocalIpAddr(address, kAddressChars) < 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    try {
        url = "udp://" + std::string(address) + ":" + m_port;
    } catch (const std::exception&) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}
