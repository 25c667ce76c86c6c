#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/pair.h"
#include "tests/support/raw_client.h"
#include "tests/support/sanitizer.h"
#include "wsserver/websocket_service.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using namespace zenk_test;

constexpr std::size_t kMessageBytes = 60'000;
constexpr int kMessages = 800;  // 48 MB: far more than the queue may hold of a client and its sockets can take

/// A host whose callback blocks at the first message until it is told to go on, and checks the order of all.
class BlockingHost {
public:
    static void onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
        static_cast<BlockingHost*>(const_cast<void*>(self))->take(event, *info);
    }

    void goOn() {
        const std::lock_guard lock(m_mutex);
        m_isBlocked = false;
        m_changed.notify_all();
    }

    std::atomic<bool> hasBlocked = false;
    std::atomic<int> messages = 0;  // of the client that stays
    std::atomic<int> leaves = 0;
    std::atomic<bool> isInOrder = true;

private:
    void take(ZenkCSSEvent event, const ZenkCSSEevntInfo& info) {
        if (event == CSS_EVENT_CII_CLIENT_LEAVE) ++leaves;
        if (event != CSS_EVENT_CII_MESSAGE) return;
        {
            std::unique_lock lock(m_mutex);
            hasBlocked = true;
            m_changed.wait(lock, [this] { return !m_isBlocked; });
        }
        if (info.message[0] != 's') return;
        if (std::stoi(info.message.substr(1)) != messages) isInOrder = false;
        ++messages;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isBlocked = true;  // under m_mutex
};

/// One client's messages, as fast as they go: `kind` and a number, filled up to their size. It ends with the last one,
/// or by a reset when it could send nothing for as long as its patience.
class Flood {
public:
    Flood(int port, char kind, Milliseconds patience)
        : m_thread([this, port, kind, patience] { run(port, kind, patience); }) {}
    ~Flood() { m_thread.join(); }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    std::atomic<int> sent = 0;

private:
    void run(int port, char kind, Milliseconds patience) {
        if (!m_client.upgrade(port, "/css-cii/t/")) return;
        for (int number = 0; number < kMessages; ++number) {
            std::string text = kind + std::to_string(number) + ' ';
            text.resize(kMessageBytes, '.');
            if (!m_client.send(clientFrame(0x81, text), patience)) return m_client.reset();
            ++sent;
        }
    }

    RawClient m_client;
    std::thread m_thread;
};

/// Returns when the client could send nothing for a while.
bool waitUntilStalled(const Flood& flood) {
    int before = -1;
    auto since = std::chrono::steady_clock::now();
    return waitUntil([&] {
        const auto now = std::chrono::steady_clock::now();
        if (flood.sent != before) since = now;
        before = flood.sent;
        return flood.sent > 0 && now - since > std::chrono::milliseconds(500);
    });
}

TEST(CssFlood, NeitherStopsTheNetworkNorFillsMemoryWhenTheHostBlocks) {
    const int port = freePort();
    MediaSyncServer& server = *MediaSyncServer::getInstance();
    server.enablePairing = true;
    BlockingHost host;
    auto cii = std::make_unique<ZenkCSSCIIServer>();
    server.addObserver(cii.get());
    cii->registerCIIEventCallback(BlockingHost::onEvent, &host);
    cii->setEnableInterDevSync(true);
    std::thread service([&] { startWebSocketServer(port, &server); });
    ASSERT_TRUE(waitUntil([&] { return connectTcp(port).isOpen(); }));
    Pair pair;
    ASSERT_TRUE(pair.connect(port));

    const std::size_t residentBefore = residentBytes();
    const auto expectBoundedMemory = [&] {
        if (!kIsSanitized) {
            EXPECT_LT(residentBytes() - residentBefore, 32u * 1024 * 1024);
        }
    };
    const Flood leaving(port, 'l', std::chrono::seconds(1));
    ASSERT_TRUE(waitUntil([&] { return host.hasBlocked.load(); }));
    const Flood staying(port, 's', 10 * kPatience);
    EXPECT_TRUE(waitUntilStalled(staying));
    EXPECT_LT(staying.sent, kMessages);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(pair.exchange());
    expectBoundedMemory();

    constexpr int kLeavingId = 3, kToldId = 5;  // behind the pair, and behind the one that stays
    const Flood told(port, 't', 10 * kPatience);
    EXPECT_TRUE(waitUntilStalled(told));
    std::string unread(7'000'000, 'h');
    cii->sendMessage(unread.data(), static_cast<int>(unread.size()), kToldId);
    cii->closeClientConnection(kToldId);
    EXPECT_TRUE(waitUntil([&] { return cii->ciiClientIdExists(kToldId) == 0; })) << "it does not read, so it is cut";
    expectBoundedMemory();

    EXPECT_TRUE(waitUntil([&] { return cii->ciiClientIdExists(kLeavingId) == 0; })) << "its reset is seen";
    EXPECT_LT(leaving.sent, kMessages);
    host.goOn();
    EXPECT_TRUE(waitUntil([&] { return host.messages == kMessages; }, 3 * kPatience));
    EXPECT_TRUE(host.isInOrder);
    EXPECT_TRUE(waitUntil([&] { return host.leaves >= 1; }));
    EXPECT_TRUE(pair.exchange());

    sighandler(SIGINT);
    service.join();
    cii.reset();
    delete ZenkCSSEventDispatcher::m_instance;
    delete &server;
}

}  // namespace
