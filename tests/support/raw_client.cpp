#include "tests/support/raw_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace zenk_test {
namespace {

using Clock = std::chrono::steady_clock;

bool waitFor(int fd, short events, Clock::time_point deadline) {
    pollfd entry{fd, events, 0};
    int ready = -1;
    do {
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
        ready = poll(&entry, 1, static_cast<int>(std::max<Milliseconds::rep>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);  // a fuzzer's timer ticks
    return ready > 0;
}

std::string frameHead(int firstByte, std::size_t payloadBytes, int maskBit) {
    const std::string head(1, static_cast<char>(firstByte));
    const auto form = [maskBit](std::size_t length) {
        return bigEndian(static_cast<std::size_t>(maskBit) | length, 1);
    };
    if (payloadBytes < 126) return head + form(payloadBytes);
    if (payloadBytes < 65536) return head + form(126) + bigEndian(payloadBytes, 2);
    return head + form(127) + bigEndian(payloadBytes, 8);
}

}  // namespace

bool RawClient::connect(int port) {
    m_socket = connectTcp(port);
    m_received.clear();
    m_hasEnded = false;
    return m_socket.isOpen();
}

bool RawClient::send(std::string_view bytes, Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    while (!bytes.empty()) {
        if (!waitFor(m_socket.fd(), POLLOUT, deadline)) return false;
        const ssize_t sent = ::send(m_socket.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool RawClient::upgrade(int port, std::string_view target, Milliseconds patience) {
    if (!connect(port) || !send(handshakeRequest(target), patience)) return false;
    return receiveUntil("\r\n\r\n", patience).find(" 101 ") != std::string::npos;
}

std::string RawClient::receiveUntil(std::string_view until, Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    std::size_t end = std::string::npos;
    while ((end = m_received.find(until)) == std::string::npos && readSome(deadline)) continue;
    if (end == std::string::npos) return std::exchange(m_received, {});
    return receive(end + until.size(), Milliseconds(0));
}

std::string RawClient::receive(std::size_t count, Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    fill(count, deadline);
    std::string taken = m_received.substr(0, count);
    m_received.erase(0, taken.size());
    return taken;
}

std::optional<Frame> RawClient::receiveFrame(Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    if (!fill(2, deadline)) return std::nullopt;
    const auto form = static_cast<unsigned char>(m_received[1]);
    const std::size_t head = form < 126 ? 2 : form == 126 ? 4 : 10;
    if (form > 127 || !fill(head, deadline)) return std::nullopt;
    const std::size_t length = form < 126 ? form : fromBigEndian(std::string_view(m_received).substr(2, head - 2));
    if (!fill(head + length, deadline)) return std::nullopt;
    Frame frame{static_cast<unsigned char>(m_received[0]), m_received.substr(head, length)};
    m_received.erase(0, head + length);
    return frame;
}

std::string RawClient::receiveText(Milliseconds patience) {
    const std::optional<Frame> frame = receiveFrame(patience);
    return frame && frame->first == (kFin | kText) ? frame->payload : "";
}

int RawClient::closeCode(Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    while (const auto frame = receiveFrame(std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()))) {
        if (frame->first == (kFin | kClose)) return static_cast<int>(fromBigEndian(frame->payload.substr(0, 2)));
    }
    return kNoCloseFrame;
}

bool RawClient::waitForEnd(Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    while (readSome(deadline)) m_received.clear();
    return m_hasEnded;
}

void RawClient::finishSending() {
    shutdown(m_socket.fd(), SHUT_WR);
}

void RawClient::close() {
    m_socket.close();
}

void RawClient::reset() {
    const linger atOnce{1, 0};
    setsockopt(m_socket.fd(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    m_socket.close();
}

bool RawClient::vanish() {
    const int on = 1;
    const bool isAllowed = setsockopt(m_socket.fd(), IPPROTO_TCP, TCP_REPAIR, &on, sizeof on) == 0;
    m_socket.close();
    return isAllowed;
}

bool RawClient::readSome(Deadline deadline) {
    if (m_hasEnded || !waitFor(m_socket.fd(), POLLIN, deadline)) return false;
    std::array<char, 16384> buffer;
    const ssize_t count = recv(m_socket.fd(), buffer.data(), buffer.size(), 0);
    m_hasEnded = count <= 0;
    if (!m_hasEnded) m_received.append(buffer.data(), static_cast<std::size_t>(count));
    return !m_hasEnded;
}

bool RawClient::fill(std::size_t count, Deadline deadline) {
    while (m_received.size() < count && readSome(deadline)) continue;
    return m_received.size() >= count;
}

std::string clientFrame(int firstByte, std::string_view payload) {
    constexpr std::string_view kMask = "\x11\x22\x33\x44";
    std::string frame = frameHead(firstByte, payload.size(), 0x80).append(kMask);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame.push_back(static_cast<char>(payload[i] ^ kMask[i % kMask.size()]));
    }
    return frame;
}

std::string serverFrame(int firstByte, std::string_view payload) {
    return frameHead(firstByte, payload.size(), 0).append(payload);
}

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    while (bytes-- > 0) text.push_back(static_cast<char>(value >> (8 * bytes)));
    return text;
}

std::uint64_t fromBigEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

std::string handshakeRequest(std::string_view target) {
    std::string request = "GET ";
    request.append(target);
    request.append(
        " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    return request;
}

}  // namespace zenk_test
