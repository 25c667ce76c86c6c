#include <stdexcept>
#include <string>
#include <vector>

#include "bench/load/client.h"
#include "bench/load/measure.h"
#include "bench/load/options.h"

namespace zenk_bench {
namespace {

constexpr double kWarmupSeconds = 0.2;
constexpr std::uint64_t kStallNs = 5'000'000'000u;
constexpr std::size_t kRoomForRoundTrips = 1 << 20;

class PingPong {
public:
    explicit PingPong(const Options& options)
        : m_options(options),
          m_frame(textFrame(options.messageBytes)),
          m_fleet(m_poller, options.port),
          m_sentAtNs(options.pairs) {
        m_fleet.openSilentPairs(options.idle / 2);
        m_roundTripsNs.reserve(kRoomForRoundTrips);
    }

    Report run() {
        const std::vector<Pair> pairs = m_fleet.openPairs(m_options.pairs, "busy");
        Interval interval(m_options.serverPid, kWarmupSeconds, m_options.seconds);
        m_lastNs = nowNs();
        for (const Pair& pair : pairs) {
            m_sentAtNs[pair.local->tag] = m_lastNs;
            pair.local->sendAll(m_frame);
        }
        // The generator spins: to sleep would add its own wake-up to each round trip.
        for (std::uint64_t now = m_lastNs; !interval.isOver(now, m_count); now = nowNs()) {
            m_isMeasuring = interval.hasBegun();
            for (const epoll_event& event : m_poller.wait(0)) onReady(clientOf(event));
            if (now > m_lastNs + kStallNs) throw std::runtime_error("no message for 5 seconds");
        }
        return report(interval);
    }

private:
    void onReady(Client& client) {
        auto bytes = client.receive();
        bool hasMessage = false;
        while (client.reader().next(bytes)) hasMessage = true;
        if (client.reader().sawClose()) throw std::runtime_error("the server closed a connection");
        if (!hasMessage || client.tag == Fleet::kSilent) return;
        if (client.isRemote()) return client.sendAll(m_frame);
        onReturn(client);
    }

    void onReturn(Client& client) {
        m_lastNs = nowNs();
        ++m_count;
        if (m_isMeasuring) m_roundTripsNs.push_back(static_cast<std::uint32_t>(m_lastNs - m_sentAtNs[client.tag]));
        m_sentAtNs[client.tag] = m_lastNs;
        client.sendAll(m_frame);
    }

    Report report(const Interval& interval) {
        Report report;
        report["p50_us"] = percentileUs(m_roundTripsNs, 0.50);
        report["p99_us"] = percentileUs(m_roundTripsNs, 0.99);
        report["server_us_per_msg"] = interval.serverMicrosecondsPer(2 * interval.done());
        report["round_trips_per_s"] = interval.perSecond();
        interval.addShares(report);
        return report;
    }

    const Options& m_options;
    const std::string m_frame;
    Poller m_poller;
    Fleet m_fleet;
    bool m_isMeasuring = false;
    std::vector<std::uint64_t> m_sentAtNs;  // per pair
    std::vector<std::uint32_t> m_roundTripsNs;
    std::uint64_t m_count = 0;
    std::uint64_t m_lastNs = 0;
};

}  // namespace

Report runLatency(const Options& options) {
    return PingPong(options).run();
}

}  // namespace zenk_bench
