// Client frames out, server frames in: as much of RFC 6455 as a load generator needs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace zenk_bench {

/// One masked client frame with a text of so many letters.
std::string textFrame(std::size_t letters);

/// A masked close frame with status 1000.
std::string closeFrame();

/// Takes a server's byte stream apart. Payloads are passed over, so that reading millions of messages a second costs
/// the generator next to nothing.
class FrameReader {
public:
    /// Consumes bytes from the front of `bytes` until a data message is complete.
    /// @return true when one is, or false when all bytes are used up
    /// @throws std::runtime_error for a masked frame, which no server may send
    bool next(std::span<const std::uint8_t>& bytes);

    /// Whether a close frame has come.
    bool sawClose() const { return m_sawClose; }

private:
    bool readHeader(std::span<const std::uint8_t>& bytes);
    void beginPayload(std::size_t lengthBytes);
    bool isMessageEnd();

    std::array<std::uint8_t, 10> m_header{};
    std::size_t m_headerBytes = 0;
    std::uint64_t m_payloadLeft = 0;
    bool m_inPayload = false;
    bool m_sawClose = false;
};

}  // namespace zenk_bench
