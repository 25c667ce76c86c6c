#include "tools/wc_statistics.h"

#include <algorithm>
#include <cmath>

namespace zenk {

namespace {

constexpr double kNanosPerSecond = 1e9;
constexpr double kPartPerMillion = 1e-6;

double serverFreqErrorPpm(const WCCandidate& candidate) {
    return candidate.freqError / 256.0;
}

}  // namespace

std::int64_t roundTripNs(const WCCandidate& candidate) {
    return (candidate.arrivalNs - candidate.originateNs) - (candidate.transmitNs - candidate.receiveNs);
}

double offsetNs(const WCCandidate& candidate) {
    // Differences first: the sum of two absolute times has no place to spare in 64 bits.
    const std::int64_t there = candidate.receiveNs - candidate.originateNs;
    const std::int64_t back = candidate.transmitNs - candidate.arrivalNs;
    return static_cast<double>(there + back) / 2;
}

double dispersionNs(const WCCandidate& candidate, const WCOwnClock& own, std::int64_t nowNs) {
    const double serverPpm = serverFreqErrorPpm(candidate);
    const double atServer = static_cast<double>(candidate.transmitNs - candidate.receiveNs);
    const double atClient = static_cast<double>(candidate.arrivalNs - candidate.originateNs);
    const double since = static_cast<double>(nowNs - candidate.arrivalNs);
    const double drift = own.freqErrorPpm * atClient + serverPpm * atServer + (own.freqErrorPpm + serverPpm) * since;
    return static_cast<double>(roundTripNs(candidate)) / 2 + own.precisionNs +
           std::exp2(candidate.precisionLog2) * kNanosPerSecond + drift * kPartPerMillion;
}

std::size_t bestCandidate(std::span<const WCCandidate> candidates, const WCOwnClock& own, std::int64_t nowNs) {
    const auto best = std::min_element(candidates.begin(), candidates.end(), [&](const auto& a, const auto& b) {
        return dispersionNs(a, own, nowNs) < dispersionNs(b, own, nowNs);
    });
    return static_cast<std::size_t>(best - candidates.begin());
}

std::int64_t percentile(std::span<const std::int64_t> sorted, double percent) {
    const double rank = std::ceil(percent / 100 * static_cast<double>(sorted.size()));
    return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

std::vector<HistogramRow> histogram(std::span<const std::int64_t> sorted, std::size_t rows) {
    const std::int64_t low = sorted.front();
    const std::int64_t width = (percentile(sorted, 99) - low) / static_cast<std::int64_t>(rows) + 1;
    std::vector<HistogramRow> result;
    auto begin = sorted.begin();
    for (std::int64_t from = low; result.size() < rows; from += width) {
        const auto end = std::lower_bound(begin, sorted.end(), from + width);
        result.push_back({from, from + width, static_cast<std::size_t>(end - begin)});
        begin = end;
    }
    if (begin != sorted.end()) {
        result.push_back({result.back().toNs, sorted.back() + 1, static_cast<std::size_t>(sorted.end() - begin)});
    }
    return result;
}

}  // namespace zenk
