#include "bench/load/frame.h"

#include <algorithm>
#include <stdexcept>

namespace zenk_bench {
namespace {

constexpr std::uint8_t kFinBit = 0x80;
constexpr std::uint8_t kMaskBit = 0x80;
constexpr std::uint8_t kOpcodeBits = 0x0f;
constexpr std::uint8_t kOpcodeText = 1;
constexpr std::uint8_t kOpcodeClose = 8;
constexpr std::uint8_t kLength16 = 126;
constexpr std::uint8_t kLength64 = 127;

void appendBigEndian(std::string& out, std::uint64_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out += static_cast<char>(value >> shift & 0xff);
}

void appendLength(std::string& out, std::size_t length) {
    if (length < kLength16) {
        out += static_cast<char>(kMaskBit | length);
    } else if (length <= 0xffff) {
        out += static_cast<char>(kMaskBit | kLength16);
        appendBigEndian(out, length, 2);
    } else {
        out += static_cast<char>(kMaskBit | kLength64);
        appendBigEndian(out, length, 8);
    }
}

std::string maskedFrame(std::uint8_t opcode, std::string_view payload, std::uint32_t mask) {
    std::string frame;
    frame.reserve(payload.size() + 14);
    frame += static_cast<char>(kFinBit | opcode);
    appendLength(frame, payload.size());
    appendBigEndian(frame, mask, 4);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        const auto key = static_cast<std::uint8_t>(mask >> (24 - 8 * (i % 4)));
        frame += static_cast<char>(static_cast<std::uint8_t>(payload[i]) ^ key);
    }
    return frame;
}

std::size_t lengthFieldBytes(std::uint8_t length7) {
    if (length7 == kLength16) return 2;
    return length7 == kLength64 ? 8 : 0;
}

}  // namespace

std::string clientFrame(std::string_view payload, std::uint32_t mask) {
    return maskedFrame(kOpcodeText, payload, mask);
}

std::string clientCloseFrame(std::uint16_t status) {
    std::string payload;
    appendBigEndian(payload, status, 2);
    return maskedFrame(kOpcodeClose, payload, 0x01020304);
}

bool FrameReader::next(std::span<const std::uint8_t>& bytes) {
    while (true) {
        if (!m_inPayload && !readHeader(bytes)) return false;
        if (!readPayload(bytes)) return false;
        m_inPayload = false;
        if (finishFrame()) return true;
    }
}

bool FrameReader::readHeader(std::span<const std::uint8_t>& bytes) {
    while (!bytes.empty()) {
        m_header[m_headerBytes++] = bytes.front();
        bytes = bytes.subspan(1);
        if (m_headerBytes < 2) continue;
        const std::size_t lengthBytes = lengthFieldBytes(m_header[1] & 0x7f);
        if (m_headerBytes < 2 + lengthBytes) continue;
        beginFrame(lengthBytes);
        return true;
    }
    return false;
}

void FrameReader::beginFrame(std::size_t lengthBytes) {
    if (m_header[1] & kMaskBit) throw std::runtime_error("the server sent a masked frame");
    m_payloadLeft = m_header[1];
    if (lengthBytes > 0) m_payloadLeft = 0;
    for (std::size_t i = 0; i < lengthBytes; ++i) m_payloadLeft = m_payloadLeft << 8 | m_header[2 + i];
    m_headerBytes = 0;
    m_inPayload = true;
    if (isControl() || !m_messageEnded) return;
    m_messageEnded = false;
    m_payload.clear();
}

bool FrameReader::readPayload(std::span<const std::uint8_t>& bytes) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(m_payloadLeft, bytes.size()));
    if (m_keepsPayload && !isControl()) m_payload.append(reinterpret_cast<const char*>(bytes.data()), taken);
    bytes = bytes.subspan(taken);
    m_payloadLeft -= taken;
    return m_payloadLeft == 0;
}

bool FrameReader::finishFrame() {
    if (isControl()) {
        m_sawClose = m_sawClose || (m_header[0] & kOpcodeBits) == kOpcodeClose;
        return false;
    }
    m_messageEnded = (m_header[0] & kFinBit) != 0;
    return m_messageEnded;
}

}  // namespace zenk_bench
