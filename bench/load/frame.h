// Client frames out, server frames in: as much of RFC 6455 as a load generator needs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace zenk_bench {

/// One whole text as one masked client frame.
std::string clientFrame(std::string_view payload, std::uint32_t mask);

/// A masked close frame with the given status.
std::string clientCloseFrame(std::uint16_t status);

/// Takes a server's byte stream apart. Payloads are passed over unless keepPayload() asks for them, so that reading
/// millions of messages a second costs the generator next to nothing.
class FrameReader {
public:
    /// Whether the payload of the messages to come is gathered for payload().
    void keepPayload(bool wanted) { m_keepsPayload = wanted; }

    /// Consumes bytes from the front of `bytes` until a data message is complete.
    /// @return true with the message at hand, or false when all bytes are used up
    /// @throws std::runtime_error for a masked frame, which no server may send
    bool next(std::span<const std::uint8_t>& bytes);

    /// The message that next() has just completed; valid until the next call.
    const std::string& payload() const { return m_payload; }

    /// Whether a close frame has come.
    bool sawClose() const { return m_sawClose; }

private:
    bool readHeader(std::span<const std::uint8_t>& bytes);
    bool readPayload(std::span<const std::uint8_t>& bytes);
    bool finishFrame();
    void beginFrame(std::size_t lengthBytes);
    bool isControl() const { return (m_header[0] & 0x08) != 0; }

    std::array<std::uint8_t, 10> m_header{};
    std::size_t m_headerBytes = 0;
    std::uint64_t m_payloadLeft = 0;
    bool m_inPayload = false;
    bool m_keepsPayload = false;
    bool m_messageEnded = true;
    bool m_sawClose = false;
    std::string m_payload;
};

}  // namespace zenk_bench
