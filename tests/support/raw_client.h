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

/// One WebSocket frame as a client sends it, masked. `firstByte` is FIN, reserved bits and opcode.
std::string clientFrame(std::uint8_t firstByte, std::string_view payload);

/// The request of a WebSocket handshake for `target`, with its final empty line.
std::string handshakeRequest(std::string_view target);

}  // namespace zenk_test
