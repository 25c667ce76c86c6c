#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "tools/wc_statistics.h"

namespace zenk {

using WCDatagram = std::array<std::uint8_t, 32>;

/// The requests of a wall-clock client (ETSI TS 103 286-2) and the replies to them. Bytes in, bytes out; one thread.
/// A reply belongs to the request whose originate time it carries, so no two requests get the same.
class WCLedger {
public:
    /// @param nowNs  client's clock, from 0 to 2^32 seconds
    /// @return the request to send now
    WCDatagram makeRequest(std::int64_t nowNs);

    /// Takes a datagram that arrived at `nowNs`. It becomes a candidate when it is a response that answers an open
    /// request with times that can be true; else it only counts as not matched.
    void takeReply(std::span<const std::uint8_t> datagram, std::int64_t nowNs);

    std::size_t sent() const { return m_sent; }
    std::size_t lost() const { return m_sent - m_candidates.size(); }
    std::size_t unmatched() const { return m_unmatched; }
    const std::vector<WCCandidate>& candidates() const { return m_candidates; }

private:
    std::int64_t m_lastOriginateNs = -1;
    std::size_t m_sent = 0;
    std::size_t m_unmatched = 0;
    std::unordered_map<std::uint64_t, std::int64_t> m_open;  // originate time as on the wire, and as sent
    std::vector<WCCandidate> m_candidates;
};

}  // namespace zenk
