#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tests/support/net_util.h"

namespace zenk_test {

/// First bytes of frames.
inline constexpr std::uint8_t kFin = 0x80, kContinuation = 0x0, kText = 0x1, kBinary = 0x2, kClose = 0x8, kPing = 0x9,
                              kPong = 0xA;
/// @{ One WebSocket frame with the shortest form of length: masked as a client sends it, unmasked as a server does.
/// `firstByte` is FIN, reserved bits and opcode.
std::string clientFrame(int firstByte, std::string_view payload);
std::string serverFrame(int firstByte, std::string_view payload);
/// @}
/// `value` in so many bytes, the highest first.
std::string bigEndian(std::uint64_t value, int bytes);
std::uint64_t fromBigEndian(std::string_view bytes);

/// The request of a WebSocket handshake for `target`, with its final empty line.
std::string handshakeRequest(std::string_view target);

/// One frame of a server.
struct Frame {
    int first;  ///< FIN, reserved bits and opcode
    std::string payload;
    bool operator==(const Frame&) const = default;
};

/// A TCP connection to 127.0.0.1 that speaks WebSocket, and whatever else a test wants to say. It does nothing by
/// itself: no ping is answered, and no close frame.
class RawClient {
public:
    static constexpr int kNoCloseFrame = 1006;  ///< RFC 6455, 7.1.5

    /// @return false when nobody listens
    bool connect(int port);
    /// Connects, asks for a WebSocket on `target` and reads the answer. @return true for status 101
    bool upgrade(int port, std::string_view target, Milliseconds patience = kPatience);

    /// @return false when the peer does not take all bytes in time or has reset the connection
    bool send(std::string_view bytes, Milliseconds patience = kPatience);
    bool sendText(std::string_view text, Milliseconds patience = kPatience) {
        return send(clientFrame(kFin | kText, text), patience);
    }

    /// @return what has arrived: up to the end of `until` if it comes, else what came until the peer ended or time was
    /// up. What is behind `until` stays for the next call.
    std::string receiveUntil(std::string_view until, Milliseconds patience = kPatience);
    /// @return the next `count` bytes, or fewer when the peer ended or time was up
    std::string receive(std::size_t count, Milliseconds patience = kPatience);
    /// @return the next frame; nothing when the peer ended, time was up, or the frame is masked
    std::optional<Frame> receiveFrame(Milliseconds patience = kPatience);
    /// @return the payload of the next frame, or "" when that is no whole text message
    std::string receiveText(Milliseconds patience = kPatience);
    /// Drops frames up to a close frame. @return its status; kNoCloseFrame when there came none
    int closeCode(Milliseconds patience = kPatience);
    /// Reads and drops. @return true when the peer ended the connection in time, by FIN or reset
    bool waitForEnd(Milliseconds patience = kPatience);

    void finishSending();  ///< FIN; receiving goes on
    void close();          ///< plain close
    void reset();          ///< RST
    bool vanish();         ///< not a word on the wire; false where that takes more rights

private:
    using Deadline = std::chrono::steady_clock::time_point;

    bool readSome(Deadline deadline);
    bool fill(std::size_t count, Deadline deadline);

    Socket m_socket;
    std::string m_received;
    bool m_hasEnded = false;
};

}  // namespace zenk_test
