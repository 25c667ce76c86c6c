#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/load/client.h"
#include "bench/load/measure.h"
#include "bench/load/options.h"

namespace zenk_bench {
namespace {

constexpr double kWarmupSeconds = 0.3;
constexpr std::uint64_t kStallNs = 5'000'000'000u;

// The sockets are looked at every 10 us at most, so that one read brings many messages. Without it the generator
// takes as long per message as the slowest relay, and hides what the others can do.
constexpr std::uint64_t kPaceNs = 10'000;

// One busy pair. Bytes are counted, not messages, because a send may end within a frame.
struct Stream {
    Pair ends;
    std::uint64_t sentBytes = 0;
    std::uint64_t dueBytes = 0;
    std::uint64_t issued = 0;
    std::uint64_t arrived = 0;
};

class Throughput {
public:
    explicit Throughput(const Options& options) : m_options(options), m_fleet(m_poller, options.port) {
        repeatFrame(textFrame(options.messageBytes));
        m_fleet.openSilentPairs(options.idle / 2);
        for (const Pair& pair : m_fleet.openPairs(options.pairs, "busy")) m_streams.push_back({pair});
    }

    Report run() {
        Interval interval(m_options.serverPid, kWarmupSeconds, m_options.seconds);
        for (Stream& stream : m_streams) refill(stream);
        std::uint64_t now = m_lastArrivalNs = nowNs();
        while (!interval.isOver(now, m_total)) {
            pauseUntilNextLook();
            for (const epoll_event& event : m_poller.wait(0)) onReady(event);
            now = nowNs();
            if (now > m_lastArrivalNs + kStallNs) throw std::runtime_error("no message for 5 seconds");
        }
        Report report;
        report["server_us_per_msg"] = interval.serverMicrosecondsPer(interval.done());
        report["msgs_per_s"] = interval.perSecond();
        interval.addShares(report);
        return report;
    }

private:
    void repeatFrame(const std::string& frame) {
        constexpr std::size_t kTapeBytes = 1 << 20;
        m_frameBytes = frame.size();
        const std::size_t copies = std::max<std::size_t>(2, std::min(m_options.window + 1, kTapeBytes / frame.size()));
        for (std::size_t i = 0; i < copies; ++i) m_tape += frame;
    }

    // Tops the window up once a quarter of it is free: a real sender's messages come in small bursts too.
    void refill(Stream& stream) {
        const std::uint64_t inFlight = stream.issued - stream.arrived;
        if (m_options.window - inFlight >= std::max<std::size_t>(1, m_options.window / 4)) {
            stream.issued = stream.arrived + m_options.window;
            stream.dueBytes = stream.issued * m_frameBytes;
        }
        if (!stream.ends.local->watchesRoom()) pump(stream);
    }

    void pump(Stream& stream) {
        while (stream.sentBytes < stream.dueBytes) {
            const auto offset = static_cast<std::size_t>(stream.sentBytes % m_frameBytes);
            const auto due = static_cast<std::size_t>(stream.dueBytes - stream.sentBytes);
            const std::size_t sent = stream.ends.local->send(std::string_view(m_tape).substr(offset, due));
            if (sent == 0) return stream.ends.local->watchRoom(true);
            stream.sentBytes += sent;
        }
        stream.ends.local->watchRoom(false);
    }

    void onReady(const epoll_event& event) {
        Client& client = clientOf(event);
        if (client.tag == Fleet::kSilent) {
            client.receive();  // notices a server that closes idle connections
            return;
        }
        if (event.events & EPOLLOUT) pump(m_streams[client.tag]);
        if (event.events & ~static_cast<std::uint32_t>(EPOLLOUT)) onArrival(client);
    }

    void onArrival(Client& client) {
        auto bytes = client.receive();
        std::uint64_t count = 0;
        while (client.reader().next(bytes)) ++count;
        if (client.reader().sawClose()) throw std::runtime_error("the server closed a busy connection");
        if (!client.isRemote() || count == 0) return;
        Stream& stream = m_streams[client.tag];
        stream.arrived += count;
        m_total += count;
        m_lastArrivalNs = m_nextLookNs;
        refill(stream);
    }

    void pauseUntilNextLook() {
        while (nowNs() < m_nextLookNs) {
        }
        m_nextLookNs = nowNs() + kPaceNs;
    }

    const Options& m_options;
    Poller m_poller;
    Fleet m_fleet;
    std::vector<Stream> m_streams;
    std::string m_tape;  // the same frame many times over, so that one send carries many
    std::size_t m_frameBytes = 0;
    std::uint64_t m_total = 0;
    std::uint64_t m_nextLookNs = 0;
    std::uint64_t m_lastArrivalNs = 0;  // as exact as the looks are frequent
};

}  // namespace

Report runThroughput(const Options& options) {
    return Throughput(options).run();
}

}  // namespace zenk_bench
