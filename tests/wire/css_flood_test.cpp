#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "tests/support/sanitizer.h"
#include "tests/support/server.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

constexpr int kMessages = 800;  // of 60 KB each: far more than the queue may hold of a client and its sockets can take

/// Blocks at the first message until it is told to go on, and checks the order of all.
struct BlockingHost {
    static void onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
        static_cast<BlockingHost*>(const_cast<void*>(self))->take(event, info->message);
    }
    void take(ZenkCSSEvent event, const std::string& message) {
        if (event == CSS_EVENT_CII_CLIENT_LEAVE) ++leaves;
        if (event != CSS_EVENT_CII_MESSAGE) return;
        goOn.wait();
        if (message[0] != 's') return;
        if (std::stoi(message.substr(1)) != messages) isInOrder = false;
        ++messages;
    }

    std::latch goOn{1};
    std::atomic<int> messages = 0;  // of the client that stays
    std::atomic<int> leaves = 0;
    std::atomic<bool> isInOrder = true;
};

/// Sends as fast as it goes, and until it can send nothing for as long as its patience.
void flood(RawClient& client, char kind, Milliseconds patience, std::atomic<int>& sent) {
    for (bool isTaken = true; isTaken && sent < kMessages; sent += isTaken ? 1 : 0) {
        std::string text = kind + std::to_string(sent) + ' ';
        text.resize(60'000, '.');
        isTaken = client.sendText(text, patience);
    }
}

TEST(CssFlood, NeitherStopsTheNetworkNorFillsMemoryWhenTheHostBlocks) {
    Server server;
    BlockingHost host;
    ZenkCSSCIIServer css;
    css.registerCIIEventCallback(BlockingHost::onEvent, &host);
    css.setEnableInterDevSync(true);
    server.frontEnd().addObserver(&css);
    Pair pair;
    RawClient leaving, staying;
    ASSERT_TRUE(pair.connect(server.port));
    ASSERT_TRUE(leaving.upgrade(server.port, "/css-cii/t/") && staying.upgrade(server.port, "/css-cii/t/"));
    const std::size_t residentBefore = residentBytes();

    std::atomic<int> sentByLeaving = 0, sentByStaying = 0;
    std::thread stayingThread([&] { flood(staying, 's', 10 * kPatience, sentByStaying); });
    flood(leaving, 'l', std::chrono::seconds(1), sentByLeaving);
    EXPECT_LT(sentByLeaving, kMessages);
    int sentBefore = -1;
    for (; sentBefore != sentByStaying; std::this_thread::sleep_for(std::chrono::milliseconds(500)))
        sentBefore = sentByStaying;
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(pair.exchange());
    leaving.reset();
    EXPECT_TRUE(waitUntil([&] { return css.ciiClientIdExists(3) == 0; })) << "its reset is seen";
    EXPECT_EQ(sentByStaying, sentBefore);
    EXPECT_LT(sentBefore, kMessages);
    EXPECT_TRUE(residentBytes() - residentBefore < 32u * 1024 * 1024);

    host.goOn.count_down();
    EXPECT_TRUE(waitUntil([&] { return host.messages == kMessages && host.leaves == 1; }, 3 * kPatience));
    stayingThread.join();
    EXPECT_TRUE(host.isInOrder);
    EXPECT_TRUE(pair.exchange());
}

}  // namespace
}  // namespace zenk_test
