#include <array>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/load/client.h"
#include "bench/load/modes.h"
#include "bench/load/payload.h"

namespace zenk_bench {
namespace {

constexpr std::uint64_t kPatienceNs = 10'000'000'000u;

// Around each change of the length field, each likely buffer size, and near the largest message.
constexpr std::array<std::size_t, 16> kSizes = {0,    1,    5,    125,   126,   127,   1000,   4095,
                                                4096, 4097, 8192, 65535, 65536, 65537, 100000, 131000};

struct Case {
    std::size_t bytes;
    bool isBinary;
    bool toLocal;

    // Small ones back to back in great number: they meet each other in one read.
    std::size_t messages() const { return bytes <= 1000 ? 20 : 3; }
    std::string payload(std::size_t index) const {
        return isBinary ? binaryPayload(bytes, index) : asciiPayload(bytes, index);
    }
    std::string name() const {
        return std::to_string(bytes) + (isBinary ? " binary to " : " text to ") + (toLocal ? "local" : "remote");
    }
};

std::string framesOf(const Case& task) {
    std::string frames;
    for (std::size_t i = 0; i < task.messages(); ++i) {
        frames += clientFrame(task.payload(i), task.isBinary, kFixedMask + static_cast<std::uint32_t>(i) * 0x01010101u);
    }
    return frames;
}

bool isMessage(const Case& task, std::size_t index, const FrameReader& reader) {
    return index < task.messages() && reader.isBinary() == task.isBinary && reader.payload() == task.payload(index);
}

bool passes(const Case& task, const Pair& pair) {
    Client& from = task.toLocal ? *pair.remote : *pair.local;
    Client& to = task.toLocal ? *pair.local : *pair.remote;
    to.reader().keepPayload(true);
    const std::string frames = framesOf(task);
    std::string_view unsent = frames;
    const std::uint64_t giveUpAt = nowNs() + kPatienceNs;
    std::size_t arrived = 0;
    while (arrived < task.messages()) {
        if (nowNs() > giveUpAt) return false;
        if (!unsent.empty()) unsent.remove_prefix(from.send(unsent));
        auto bytes = to.receive();
        while (to.reader().next(bytes)) {
            if (!isMessage(task, arrived++, to.reader())) return false;
        }
    }
    return true;
}

// A connection that the server closed is the failure of that case, not the end of the check.
bool passesOrFails(const Case& task, const Pair& pair) {
    try {
        return passes(task, pair);
    } catch (const std::runtime_error&) {
        return false;
    }
}

class Checker {
public:
    explicit Checker(std::uint16_t port) : m_port(port) {}

    // All cases share one pair, so that what one leaves behind meets the next; a failure gets a fresh pair.
    void check(const Case& task) {
        if (!m_fleet) reopen();
        if (passesOrFails(task, m_pair)) {
            ++m_passed;
            return;
        }
        m_failures += (m_failures.empty() ? "" : ", ") + task.name();
        m_fleet.reset();
    }
    Report result() const {
        if (!m_failures.empty()) throw std::runtime_error("content check failed: " + m_failures);
        return Report().add("passed", m_passed);
    }

private:
    void reopen() {
        m_fleet = std::make_unique<Fleet>(m_poller, m_port);
        m_pair = m_fleet->openPairs(1, "check" + std::to_string(m_serial++) + "-").front();
    }

    const std::uint16_t m_port;
    Poller m_poller;
    std::unique_ptr<Fleet> m_fleet;
    Pair m_pair{};
    unsigned m_serial = 0;
    double m_passed = 0;
    std::string m_failures;
};

}  // namespace

Report runCheck(const Options& options) {
    Checker checker(options.port);
    for (const bool toLocal : {false, true}) {
        for (const bool isBinary : {false, true}) {
            for (const std::size_t bytes : kSizes) checker.check({bytes, isBinary, toLocal});
        }
    }
    return checker.result();
}

}  // namespace zenk_bench
