#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/pair.h"
#include "tests/support/raw_client.h"
#include "tests/support/receiver.h"
#include "tests/support/sanitizer.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

bool liveThroughOneCycle(int port, const std::string& name) {
    Pair pair;
    if (!pair.connect(port, name) || !pair.exchange()) return false;
    pair.local.reset();  // no proper end: its port is free at once
    return pair.remote.closeCode() == 1000;
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
    Receiver receiver({"--no-sync"});
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
    Receiver receiver({"--no-sync"});
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
    Receiver receiver({"--no-sync"});
    Pair pair, other;
    ASSERT_TRUE(pair.connect(receiver.port(), "stalled"));
    ASSERT_TRUE(other.connect(receiver.port(), "other"));
    const std::size_t before = receiver.process().residentBytes();
    const auto message = [](int i) { return std::to_string(10'000'000 + i) + std::string(kMessageBytes - 8, 'x'); };
    std::jthread sending([&] {
        for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(pair.local.sendBinary(message(i), 90s)) << i;
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(other.exchange());
        std::this_thread::sleep_for(5ms);
    }
    if (!kIsSanitized) {
        EXPECT_LT(receiver.process().residentBytes(), before + 16 * kMiB);
    }
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(pair.remote.receive() == (WsClient::Message{message(i), true})) << i;
    }
    if (!kIsSanitized) {
        EXPECT_LT(receiver.process().residentBytes(), before + 16 * kMiB);
    }
}

}  // namespace
}  // namespace zenk_test
