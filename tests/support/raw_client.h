#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tests/support/net_util.h"

namespace zenk_test {

/// A bare TCP connection for what no proper client would send.
class RawClient {
public:
    /// Connects to 127.0.0.1. @return false when nobody listens
    bool connect(int port);

    /// @return false when the peer does not take all bytes in time or has reset the connection
    bool send(std::string_view bytes, Milliseconds patience = kPatience);
    /// Connects, asks for a WebSocket on `target` and reads the answer. @return true for status 101
    bool upgrade(int port, std::string_view target, Milliseconds patience = kPatience);

    /// @return what has arrived: up to the end of `until` if it comes, else what came until the peer ended or time was
    /// up. What is behind `until` stays for the next call.
    std::string receiveUntil(std::string_view until, Milliseconds patience = kPatience);
    /// @return the next `count` bytes, or fewer when the peer ended or time was up
    std::string receive(std::size_t count, Milliseconds patience = kPatience);
    /// Reads and drops. @return true when the peer ended the connection in time, by FIN or reset
    bool waitForEnd(Milliseconds patience = kPatience);

    void finishSending();  ///< FIN; receiving goes on
    void close();          ///< plain close
    void reset();          ///< RST
    bool vanish();         ///< not a word on the wire; false where that takes more rights

private:
    bool readSome(std::chrono::steady_clock::time_point deadline);

    Socket m_socket;
    std::string m_received;
    bool m_hasEnded = false;
};

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

/// The request of a WebSocket handshake for `target`, with its final empty line.
std::string handshakeRequest(std::string_view target);

}  // namespace zenk_test
