#include "tools/wc_ledger.h"

#include <algorithm>
#include <optional>

namespace zenk {

namespace {

constexpr std::uint8_t kVersion = 0;
constexpr std::uint8_t kResponse = 1;
constexpr std::uint8_t kResponseBeforeFollowUp = 2;  // as good as the other one; the follow-up itself is not used
constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

enum Offset : std::size_t { kType = 1, kPrecision = 2, kFreqError = 4, kOriginate = 8, kReceive = 16, kTransmit = 24 };

std::uint32_t readBe32(std::span<const std::uint8_t> wire, std::size_t at) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : wire.subspan(at, 4)) value = value << 8 | byte;
    return value;
}

void writeBe32(WCDatagram& wire, std::size_t at, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) wire[at++] = static_cast<std::uint8_t>(value >> shift);
}

// The two words of a time as one, which is only a key.
std::uint64_t timeWords(std::span<const std::uint8_t> wire, std::size_t at) {
    return std::uint64_t{readBe32(wire, at)} << 32 | readBe32(wire, at + 4);
}

std::optional<std::int64_t> readTimeNs(std::span<const std::uint8_t> wire, std::size_t at) {
    const std::int64_t nanos = readBe32(wire, at + 4);
    if (nanos >= kNanosPerSecond) return std::nullopt;
    return readBe32(wire, at) * kNanosPerSecond + nanos;
}

bool isResponse(std::span<const std::uint8_t> datagram) {
    return datagram.size() == WCDatagram{}.size() && datagram[0] == kVersion &&
           (datagram[kType] == kResponse || datagram[kType] == kResponseBeforeFollowUp);
}

/// @return the candidate, unless the times cannot be true
std::optional<WCCandidate> readCandidate(std::span<const std::uint8_t> reply, std::int64_t sentNs, std::int64_t nowNs) {
    const auto receive = readTimeNs(reply, kReceive);
    const auto transmit = readTimeNs(reply, kTransmit);
    if (!receive || !transmit) return std::nullopt;
    const int precision = static_cast<std::int8_t>(reply[kPrecision]);  // NOLINT(bugprone-signed-char-misuse): a number
    const WCCandidate candidate{sentNs, *receive, *transmit, nowNs, precision, readBe32(reply, kFreqError)};
    if (roundTripNs(candidate) < 0) return std::nullopt;
    return candidate;
}

}  // namespace

WCDatagram WCLedger::makeRequest(std::int64_t nowNs) {
    // A coarse clock can stand still between two requests; they must differ all the same.
    m_lastOriginateNs = std::max(nowNs, m_lastOriginateNs + 1);
    WCDatagram wire{};
    writeBe32(wire, kOriginate, static_cast<std::uint32_t>(m_lastOriginateNs / kNanosPerSecond));
    writeBe32(wire, kOriginate + 4, static_cast<std::uint32_t>(m_lastOriginateNs % kNanosPerSecond));
    m_open[timeWords(wire, kOriginate)] = m_lastOriginateNs;
    ++m_sent;
    return wire;
}

void WCLedger::takeReply(std::span<const std::uint8_t> datagram, std::int64_t nowNs) {
    if (isResponse(datagram)) {
        const auto request = m_open.find(timeWords(datagram, kOriginate));
        const auto candidate = request == m_open.end() ? std::nullopt : readCandidate(datagram, request->second, nowNs);
        if (candidate) {
            m_candidates.push_back(*candidate);
            m_open.erase(request);
            return;
        }
    }
    ++m_unmatched;
}

}  // namespace zenk
