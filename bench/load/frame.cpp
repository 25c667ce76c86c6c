#include "bench/load/frame.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace zenk_bench {
namespace {

constexpr std::uint8_t kFinBit = 0x80;
constexpr std::uint8_t kMaskBit = 0x80;
constexpr std::uint8_t kControlBit = 0x08;
constexpr std::uint8_t kOpcodeBits = 0x0f;
constexpr std::uint8_t kOpcodeText = 1;
constexpr std::uint8_t kOpcodeClose = 8;
constexpr std::uint8_t kLength16 = 126;
constexpr std::uint8_t kLength64 = 127;
constexpr std::string_view kMask = "7\xfa!=";

std::size_t lengthFieldBytes(std::uint8_t length7) {
    if (length7 == kLength16) return 2;
    return length7 == kLength64 ? 8 : 0;
}

std::uint8_t length7Of(std::size_t size) {
    if (size > 0xffff) return kLength64;
    return size < kLength16 ? static_cast<std::uint8_t>(size) : kLength16;
}

std::string maskedFrame(std::uint8_t opcode, std::string_view payload) {
    const std::size_t size = payload.size();
    const std::uint8_t length7 = length7Of(size);
    std::string frame{static_cast<char>(kFinBit | opcode), static_cast<char>(kMaskBit | length7)};
    for (std::size_t left = lengthFieldBytes(length7); left > 0; --left) {
        frame += static_cast<char>(size >> (8 * (left - 1)) & 0xff);
    }
    frame += kMask;
    for (std::size_t i = 0; i < size; ++i) frame += static_cast<char>(payload[i] ^ kMask[i % kMask.size()]);
    return frame;
}

}  // namespace

std::string textFrame(std::size_t letters) {
    std::string text(letters, 'a');
    for (std::size_t i = 0; i < letters; ++i) text[i] = static_cast<char>('a' + i * 7 % 26);
    return maskedFrame(kOpcodeText, text);
}

std::string closeFrame() {
    return maskedFrame(kOpcodeClose, "\x03\xe8");
}

bool FrameReader::next(std::span<const std::uint8_t>& bytes) {
    while (m_inPayload || readHeader(bytes)) {
        const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(m_payloadLeft, bytes.size()));
        bytes = bytes.subspan(taken);
        m_payloadLeft -= taken;
        m_inPayload = m_payloadLeft > 0;
        if (m_inPayload) return false;
        if (isMessageEnd()) return true;
    }
    return false;
}

bool FrameReader::readHeader(std::span<const std::uint8_t>& bytes) {
    while (!bytes.empty()) {
        m_header[m_headerBytes++] = bytes.front();
        bytes = bytes.subspan(1);
        if (m_headerBytes < 2) continue;
        const std::size_t lengthBytes = lengthFieldBytes(m_header[1] & 0x7f);
        if (m_headerBytes < 2 + lengthBytes) continue;
        beginPayload(lengthBytes);
        return true;
    }
    return false;
}

void FrameReader::beginPayload(std::size_t lengthBytes) {
    if (m_header[1] & kMaskBit) throw std::runtime_error("the server sent a masked frame");
    m_payloadLeft = lengthBytes > 0 ? 0 : m_header[1];
    for (std::size_t i = 0; i < lengthBytes; ++i) m_payloadLeft = m_payloadLeft << 8 | m_header[2 + i];
    m_headerBytes = 0;
}

bool FrameReader::isMessageEnd() {
    if (m_header[0] & kControlBit) {
        m_sawClose = m_sawClose || (m_header[0] & kOpcodeBits) == kOpcodeClose;
        return false;
    }
    return (m_header[0] & kFinBit) != 0;
}

}  // namespace zenk_bench
