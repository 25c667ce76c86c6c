#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/net_util.h"
#include "tests/support/raw_client.h"
#include "tests/support/sanitizer.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

constexpr auto kGreeting = "\x81\x10pairingcompleted"sv;
constexpr auto kGoodbye = "\x88\x02\x03\xE8"sv;
constexpr std::size_t kMiB = 1024 * 1024;

class Receiver {
public:
    Receiver() : m_port(freePort()), m_process({ZENK_RECEIVER, "--port", std::to_string(m_port), "--no-sync"}) {
        m_isReady = m_process.lineWith("ready").has_value();
    }
    bool isReady() const { return m_isReady; }
    int port() const { return m_port; }
    ChildProcess& process() { return m_process; }

private:
    const int m_port;
    ChildProcess m_process;
    bool m_isReady = false;
};

/// Two raw clients that have been told of each other.
struct Pair {
    RawClient local, remote;

    bool connect(int port, const std::string& name) {
        return local.upgrade(port, "/local/hbbtv/t/" + name) && remote.upgrade(port, "/remote/hbbtv/t/" + name) &&
               local.receive(kGreeting.size()) == kGreeting && remote.receive(kGreeting.size()) == kGreeting;
    }
};

bool liveThroughOneCycle(int port, const std::string& name) {
    Pair pair;
    if (!pair.connect(port, name)) return false;
    if (!pair.local.send(clientFrame(0x81, "hello")) || pair.remote.receive(7) != "\x81\x05hello") return false;
    pair.local.reset();  // no proper end: its port is free at once
    const bool isTold = pair.remote.receive(kGoodbye.size()) == kGoodbye;
    pair.remote.reset();
    return isTold;
}

void liveThroughCycles(int port, int count) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        threads.emplace_back([=] {
            for (int i = 0; i < count / 2; ++i) {
                ASSERT_TRUE(liveThroughOneCycle(port, std::to_string(thread) + "-" + std::to_string(i % 10)));
            }
        });
    }
}

TEST(Endurance, TenThousandPairsLeaveNothingBehind) {
    Receiver receiver;
    ASSERT_TRUE(receiver.isReady());
    const std::size_t descriptors = receiver.process().openDescriptors();
    liveThroughCycles(receiver.port(), 500);
    const std::size_t before = receiver.process().residentBytes();
    liveThroughCycles(receiver.port(), kIsSanitized ? 500 : 10'000);
    EXPECT_TRUE(waitUntil([&] { return receiver.process().openDescriptors() == descriptors; }));
    if (!kIsSanitized) {
        EXPECT_LT(receiver.process().residentBytes(), before + kMiB);
    }
}

TEST(Endurance, AnIdleConnectionCostsLittle) {
    if (kIsSanitized) GTEST_SKIP() << "a sanitizer's memory is not ours";
    constexpr std::size_t kConnections = 1'000;
    Receiver receiver;
    ASSERT_TRUE(receiver.isReady());
    const std::size_t before = receiver.process().residentBytes();
    std::vector<RawClient> clients(kConnections);
    for (std::size_t i = 0; i < kConnections; ++i) {
        ASSERT_TRUE(clients[i].upgrade(receiver.port(), "/local/hbbtv/t/" + std::to_string(i)));
    }
    EXPECT_LT((receiver.process().residentBytes() - before) / kConnections, 24u * 1024);
}

TEST(Endurance, AStalledPartnerCostsBoundedMemoryAndNobodyElseAnything) {
    constexpr int kMessages = kIsSanitized ? 300 : 2'000;  // 200 MB
    constexpr std::size_t kMessageBytes = 100'000;
    Receiver receiver;
    ASSERT_TRUE(receiver.isReady());
    Pair pair, other;
    ASSERT_TRUE(pair.connect(receiver.port(), "stalled"));
    ASSERT_TRUE(other.connect(receiver.port(), "other"));
    const std::size_t before = receiver.process().residentBytes();
    const auto message = [](int i) { return std::to_string(10'000'000 + i) + std::string(kMessageBytes - 8, 'x'); };
    std::jthread sending([&] {
        for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(pair.local.send(clientFrame(0x82, message(i)), 90s)) << i;
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(other.local.send(clientFrame(0x81, "ping")));
        ASSERT_EQ(other.remote.receive(6), "\x81\x04ping");
        std::this_thread::sleep_for(5ms);
    }
    if (!kIsSanitized) {
        EXPECT_LT(receiver.process().residentBytes(), before + 16 * kMiB);
    }
    const std::string head = "\x82\x7F" + std::string(5, '\0') + "\x01\x86\xA0";
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ(pair.remote.receive(head.size()), head) << i;
        ASSERT_TRUE(pair.remote.receive(kMessageBytes) == message(i)) << i;
    }
    if (!kIsSanitized) {
        EXPECT_LT(receiver.process().residentBytes(), before + 16 * kMiB);
    }
}

}  // namespace
}  // namespace zenk_test
