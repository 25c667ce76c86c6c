#include <stdexcept>
#include <vector>

#include "bench/load/client.h"
#include "bench/load/measure.h"
#include "bench/load/options.h"

namespace zenk_bench {
namespace {

constexpr std::size_t kConnections = 2000;
constexpr std::uint64_t kPatienceNs = 20'000'000'000u;

void exchangeOnce(Poller& poller, const std::vector<Pair>& pairs) {
    const std::string frame = textFrame(100);
    for (const Pair& pair : pairs) {
        pair.local->sendAll(frame);
        pair.remote->sendAll(frame);
    }
    const std::uint64_t giveUpAt = nowNs() + kPatienceNs;
    for (std::size_t missing = 2 * pairs.size(); missing > 0;) {
        if (nowNs() > giveUpAt) throw std::runtime_error("messages are missing");
        for (const epoll_event& event : poller.wait(100)) {
            Client& client = clientOf(event);
            auto bytes = client.receive();
            while (client.reader().next(bytes)) --missing;
        }
    }
}

}  // namespace

Report runMemory(const Options& options) {
    Poller poller;
    Fleet fleet(poller, options.port);
    // A first pair comes and goes before the base is taken, so that what the server sets up once is not charged to
    // the connections.
    exchangeOnce(poller, fleet.openPairs(1, "first"));
    const auto before = static_cast<double>(settledResidentBytes(options.serverPid));
    const std::vector<Pair> pairs = fleet.openPairs(kConnections / 2, "memory");
    const auto open = static_cast<double>(settledResidentBytes(options.serverPid));
    exchangeOnce(poller, pairs);
    const auto used = static_cast<double>(settledResidentBytes(options.serverPid));

    const auto count = static_cast<double>(2 * pairs.size());
    Report report;
    report["bytes_per_idle_conn"] = (open - before) / count;
    report["bytes_per_used_conn"] = (used - before) / count;
    return report;
}

}  // namespace zenk_bench
