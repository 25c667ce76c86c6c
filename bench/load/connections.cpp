#include <memory>
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
constexpr std::size_t kAtOnce = 32;  // handshakes under way

// A fixed number of clients, each of which opens, says goodbye, sees the server close, and is followed by the next.
class Turnstile {
public:
    explicit Turnstile(const Options& options) : m_options(options), m_fleet(m_poller, options.port), m_slots(kAtOnce) {
        m_fleet.openWaiting(options.waiting);
    }

    Report run() {
        Interval interval(m_options.serverPid, kWarmupSeconds, m_options.seconds);
        for (std::size_t slot = 0; slot < m_slots.size(); ++slot) admit(slot);
        const std::uint64_t giveUpAt = nowNs() + kStallNs + static_cast<std::uint64_t>(m_options.seconds * 1e9);
        for (std::uint64_t now = nowNs(); !interval.isOver(now, m_count); now = nowNs()) {
            for (const epoll_event& event : m_poller.wait(0)) onReady(event);
            if (now > giveUpAt) throw std::runtime_error("connections do not end");
        }
        Report report;
        report["server_us_per_conn"] = interval.serverMicrosecondsPer(interval.done());
        report["conns_per_s"] = interval.perSecond();
        interval.addShares(report);
        return report;
    }

private:
    // Each client has an endpoint of its own, so that none is paired and none finds a predecessor's record.
    void admit(std::size_t slot) {
        m_slots[slot].reset();
        const std::string name = "turn" + std::to_string(m_serial++);
        m_slots[slot] = std::make_unique<Client>(m_poller, m_options.port, Side::local, name);
        m_slots[slot]->tag = slot;
    }

    bool isThrough(Client& client, std::uint32_t events) {
        if (client.isOpen()) return client.drainUntilClosed();
        client.advance(events);
        if (client.isOpen()) client.sendAll(m_goodbye);
        return false;
    }

    void onReady(const epoll_event& event) {
        Client& client = clientOf(event);
        if (client.tag == Fleet::kSilent) {
            client.receive();
            return;
        }
        if (!isThrough(client, event.events)) return;
        ++m_count;
        admit(client.tag);
    }

    const Options& m_options;
    const std::string m_goodbye = closeFrame();
    Poller m_poller;
    Fleet m_fleet;
    std::vector<std::unique_ptr<Client>> m_slots;
    std::uint64_t m_serial = 0;
    std::uint64_t m_count = 0;
};

}  // namespace

Report runConnections(const Options& options) {
    return Turnstile(options).run();
}

}  // namespace zenk_bench
