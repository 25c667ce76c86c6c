#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// The sums of a wall-clock client (ETSI TS 103 286-2). All times in nanoseconds; plain functions without state.
namespace zenk {

/// One request that was answered: its four times, and what the server says about its clock.
struct WCCandidate {
    std::int64_t originateNs;  ///< T1, client's clock: the request leaves
    std::int64_t receiveNs;    ///< T2, server's clock: it arrives
    std::int64_t transmitNs;   ///< T3, server's clock: the reply leaves
    std::int64_t arrivalNs;    ///< T4, client's clock: it arrives
    int precisionLog2;         ///< log2 of the server's precision in seconds
    std::uint32_t freqError;   ///< of the server's clock, in 1/256 part per million
};

/// What the client knows about its own clock.
struct WCOwnClock {
    double precisionNs;
    double freqErrorPpm;
};

/// Time on the network, there and back. Below 0 when the times cannot be true.
std::int64_t roundTripNs(const WCCandidate& candidate);

/// Server's clock minus the client's, if both ways took equally long: ((T3 + T2) - (T4 + T1)) / 2.
double offsetNs(const WCCandidate& candidate);

/// How far the offset can be wrong at `nowNs` of the client's clock: half the round trip, the precision of both clocks,
/// what both can have drifted during the exchange, and what they can have drifted apart since.
double dispersionNs(const WCCandidate& candidate, const WCOwnClock& own, std::int64_t nowNs);

/// @return index of the candidate with the lowest dispersion; `candidates` is not empty
std::size_t bestCandidate(std::span<const WCCandidate> candidates, const WCOwnClock& own, std::int64_t nowNs);

/// @param sorted   ascending, not empty
/// @param percent  0 to 100
/// @return the value that this share of all values does not exceed (nearest rank)
std::int64_t percentile(std::span<const std::int64_t> sorted, double percent);

struct HistogramRow {
    std::int64_t fromNs;  ///< included
    std::int64_t toNs;    ///< not included
    std::size_t count;
};

/// Equal rows from the lowest value to the 99th percentile, and one more for the tail above it if there is one.
/// @param sorted  ascending, not empty
std::vector<HistogramRow> histogram(std::span<const std::int64_t> sorted, std::size_t rows);

}  // namespace zenk
