#pragma once

#include <netinet/tcp.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/support/environment.h"

namespace zenk_test {

/// First bytes of frames.
inline constexpr std::uint8_t kFin = 0x80, kContinuation = 0x0, kText = 0x1, kBinary = 0x2, kClose = 0x8, kPing = 0x9,
                              kPong = 0xA;

/// `value` in so many bytes, the highest first.
inline std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    while (bytes-- > 0) text.push_back(static_cast<char>(value >> (8 * bytes)));
    return text;
}
inline std::uint64_t fromBigEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

/// @{ One WebSocket frame with the shortest form of length: unmasked as a server sends it, masked as a client does.
/// `firstByte` is FIN, reserved bits and opcode.
inline std::string serverFrame(int firstByte, std::string_view payload) {
    const std::size_t length = payload.size();
    const int lengthBytes = length < 126 ? 0 : length < 65536 ? 2 : 8;
    const std::size_t form = lengthBytes == 0 ? length : lengthBytes == 2 ? 126 : 127;
    const std::string head = bigEndian(static_cast<unsigned>(firstByte) << 8 | form, 2);
    return (head + bigEndian(length, lengthBytes)).append(payload);
}
inline std::string clientFrame(int firstByte, std::string_view payload) {
    const std::string mask = "\x11\x22\x33\x44";
    std::string frame = serverFrame(firstByte, payload);
    const std::size_t head = frame.size() - payload.size();
    frame[1] = static_cast<char>(frame[1] | 0x80);
    for (std::size_t i = 0; i < payload.size(); ++i) frame[head + i] = static_cast<char>(payload[i] ^ mask[i % 4]);
    return frame.insert(head, mask);
}
/// @}

/// The request of a WebSocket handshake for `target`, with its final empty line.
inline std::string handshakeRequest(const std::string& target) {
    return "GET " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
}

/// One frame of a server.
struct Frame {
    int first;  ///< FIN, reserved bits and opcode
    std::string payload;
    bool operator==(const Frame&) const = default;
};

/// A connection to 127.0.0.1 that speaks WebSocket, and whatever else a test wants to say. It does nothing by itself:
/// no ping is answered, and no close frame. `patience` is how long a call waits while nothing moves.
class RawClient {
public:
    RawClient() = default;
    /// Upgrades at once. @throws std::runtime_error when it may not
    RawClient(int port, const std::string& target) {
        if (!upgrade(port, target)) throw std::runtime_error("no way in to " + target);
    }

    /// @return false when nobody listens
    bool connect(int port, int type = SOCK_STREAM) {
        m_socket.emplace(type);
        set(IPPROTO_TCP, TCP_NODELAY, 1);  // what is sent in pieces must arrive in pieces, and at once
        return attach(::connect, *m_socket, port);
    }
    /// Connects, asks for a WebSocket on `target` and reads the answer. @return true for status 101
    bool upgrade(int port, const std::string& target) {
        return connect(port) && send(handshakeRequest(target)) &&
               receiveUntil("\r\n\r\n").find(" 101 ") != std::string::npos;
    }

    /// @return false when the peer does not take all bytes in time or has reset the connection
    bool send(std::string_view bytes, Milliseconds patience = kPatience) {
        setPatience(SO_SNDTIMEO, patience);
        while (!bytes.empty()) {
            const ssize_t sent = TEMP_FAILURE_RETRY(::send(m_socket->fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
            if (sent < 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    bool sendText(std::string_view text) { return send(clientFrame(kFin | kText, text)); }

    /// @return the next `count` bytes, or fewer when the peer ended, with errno 0, or time was up
    std::string receive(std::size_t count, Milliseconds patience = kPatience) {
        setPatience(SO_RCVTIMEO, patience);
        std::string bytes(count, '\0');
        std::size_t size = 0;
        errno = 0;
        while (size < count) {
            const ssize_t got = TEMP_FAILURE_RETRY(recv(m_socket->fd(), &bytes[size], count - size, 0));
            if (got <= 0) break;
            size += static_cast<std::size_t>(got);
        }
        bytes.resize(size);
        return bytes;
    }
    /// @return what has arrived: up to the end of `until` if it comes, else what came until the peer ended or time was
    /// up
    std::string receiveUntil(std::string_view until) {
        std::string text = receive(until.size()), next;
        while (!text.ends_with(until) && !(next = receive(1)).empty()) text += next;
        return text;
    }
    /// @return the next frame; nothing when the peer ended, time was up, or the frame is masked
    std::optional<Frame> receiveFrame(Milliseconds patience = kPatience) {
        const std::string head = receive(2, patience);
        const std::size_t form = head.size() < 2 ? 128 : fromBigEndian(head) & 0xFF;
        if (form > 127) return std::nullopt;
        const std::size_t length = form < 126 ? form : fromBigEndian(receive(form == 126 ? 2 : 8, patience));
        const std::string payload = receive(length, patience);
        if (payload.size() < length) return std::nullopt;
        return Frame{static_cast<unsigned char>(head[0]), payload};
    }
    /// @return the payload of the next frame, or "" when that is no whole text message
    std::string receiveText(Milliseconds patience = kPatience) {
        const Frame frame = receiveFrame(patience).value_or(Frame());
        return frame.first == (kFin | kText) ? frame.payload : "";
    }
    /// Drops frames up to a close frame. @return its status; 1006 when there came none
    int closeCode(Milliseconds patience = kPatience) {
        std::optional<Frame> frame = receiveFrame(patience);
        while (frame && frame->first != (kFin | kClose)) frame = receiveFrame(patience);
        return frame ? static_cast<int>(fromBigEndian(frame->payload.substr(0, 2))) : 1006;
    }
    /// Reads and drops. @return true when the peer ended the connection in time, by FIN or reset
    bool waitForEnd(Milliseconds patience = kPatience) {
        while (!receive(65536, patience).empty()) continue;
        return errno != EAGAIN;
    }

    /// FIN; receiving goes on
    void finishSending() { shutdown(m_socket->fd(), SHUT_WR); }
    void close() { m_socket->close(); }
    /// RST
    void reset() {
        set(SOL_SOCKET, SO_LINGER, linger{1, 0});
        close();
    }
    /// Not a word on the wire. @return false where that takes more rights
    bool vanish() {
        const bool isAllowed = set(IPPROTO_TCP, TCP_REPAIR, 1);
        close();
        return isAllowed;
    }

private:
    bool set(int level, int option, const auto& value) {
        return setsockopt(m_socket->fd(), level, option, &value, sizeof value) == 0;
    }
    void setPatience(int option, Milliseconds patience) {
        set(SOL_SOCKET, option, timeval{patience.count() / 1000, patience.count() % 1000 * 1000});
    }

    std::optional<zenk::Socket> m_socket;
};

}  // namespace zenk_test
