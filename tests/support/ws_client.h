#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/net_util.h"

namespace zenk_test {

/// A WebSocket client that shares no code with the server: Boost.Beast behind plain calls, each with a deadline.
/// For one thread at a time. What arrives while another call runs is kept for receive().
class WsClient {
public:
    struct Message {
        std::string data;
        bool binary = false;
        bool operator==(const Message&) const = default;
    };

    WsClient();
    ~WsClient();  ///< drops the connection without a closing handshake
    WsClient(WsClient&&) noexcept;
    WsClient& operator=(WsClient&&) noexcept;

    /// Connects to 127.0.0.1 and asks for `target` (path and query). @return false when refused, see httpStatus()
    bool connect(int port, std::string_view target, Milliseconds patience = kPatience);
    /// Status of the answer to the handshake: 101 when accepted, 0 when no answer came.
    int httpStatus() const;

    /// Each sends one message in one frame. @return false when the connection has gone or does not take it in time
    bool sendText(std::string_view text, Milliseconds patience = kPatience);
    bool sendBinary(std::string_view bytes, Milliseconds patience = kPatience);
    /// One message in as many frames as there are fragments.
    bool sendFragments(const std::vector<std::string>& fragments, bool binary, Milliseconds patience = kPatience);

    /// @return the next message; nothing when the deadline passes or the connection ends before it
    std::optional<Message> receive(Milliseconds patience = kPatience);
    /// Like receive() for a text message; "" stands for none as well.
    std::string receiveText(Milliseconds patience = kPatience);

    /// Waits for the server's end of the connection, dropping messages.
    /// @return the status of its close frame, 1006 when the connection ended without one, nothing at the deadline
    std::optional<std::uint16_t> closeCode(Milliseconds patience = kPatience);

    /// Closing handshake with `code` from this side. @return false when the server does not complete it in time
    bool close(std::uint16_t code = 1000, Milliseconds patience = kPatience);
    /// Ends the connection by a TCP reset.
    void reset();

private:
    struct Connection;
    std::unique_ptr<Connection> m_connection;
};

}  // namespace zenk_test
