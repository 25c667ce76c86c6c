#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/failing_allocations.h"
#include "tests/support/pair.h"
#include "wsserver/websocket_service.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using namespace zenk_test;

constexpr Milliseconds kShort{100};  // what a failed allocation has lost does not come

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

/// A server in this process, whose service thread is known.
class Server {
public:
    Server() {
        m_server.enablePairing = true;
        m_server.addObserver(&cii);
        cii.setEnableInterDevSync(true);
        m_thread = std::thread([this] {
            startWebSocketServer(port, &m_server);
            hasEnded = true;
        });
    }
    ~Server() {
        sighandler(SIGINT);
        m_thread.join();
    }
    pthread_t thread() { return m_thread.native_handle(); }

    const int port = freePort();
    ZenkCSSEventDispatcher dispatcher;
    ZenkCSSCIIServer cii;
    std::atomic<bool> hasEnded = false;

private:
    MediaSyncServer& m_server = *new MediaSyncServer;  // threads of ours may look for it until the very end
    std::thread m_thread;
};

/// What clients and a host do in a day: pairs that meet, talk and part, a CSS client that is answered and closed. No
/// step is checked: any of them may be the one that fails.
void liveThroughADay(Server& server, const std::string& endpoint) {
    {
        WsClient local, remote;
        local.connect(server.port, "/local/hbbtv/t/" + endpoint);
        remote.connect(server.port, "/remote/hbbtv/t/" + endpoint + "?a-query=longer-than-any-short-string");
        remote = WsClient();
        remote.connect(server.port, "/remote/hbbtv/t/" + endpoint);
        local.sendText("a message that is longer than a few bytes");
        remote.receiveText(kShort);
        remote.sendBinary(std::string(100'000, 'x'));
        local.receiveText(kShort);
        local.close();
        remote.closeCode(kShort);
    }
    WsClient css;
    css.connect(server.port, "/css-cii/a-token-that-is-longer/");
    css.sendText("a message for the host");
    server.cii.sendMessage(const_cast<char*>("an answer of the host"), 21, -1);
    css.receiveText(kShort);
    server.cii.closeClientConnection(-1);
    css.closeCode(kShort);
}

// Each allocation of the service thread fails once, wherever it stands. The service goes on for all others, and nothing
// that belonged to a client stays.
TEST(NoMemory, CostsNoMoreThanTheConnectionThatNeededIt) {
    Server server;
    ASSERT_TRUE(waitUntil([&] { return connectTcp(server.port).isOpen(); }));
    liveThroughADay(server, "warm-up");
    ASSERT_TRUE(waitUntil([&] { return Pair().connect(server.port); }));
    const std::ptrdiff_t descriptors = openDescriptors();

    bool hasFailed = true;
    int days = 0;
    for (; hasFailed && days < 1000; ++days) {
        SCOPED_TRACE(days);
        failAllocationOf(server.thread(), days);
        liveThroughADay(server, std::to_string(days));
        hasFailed = stopFailing();
        ASSERT_FALSE(server.hasEnded);
        Pair pair;
        ASSERT_TRUE(pair.connect(server.port, "witness" + std::to_string(days)));
        ASSERT_TRUE(pair.exchange());
    }
    EXPECT_FALSE(hasFailed) << "some allocations were never reached";
    EXPECT_GT(days, 20);
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= descriptors; }));
    EXPECT_TRUE(waitUntil([&] { return server.cii.getCssServerStatus() == 0; }));
}

// The host's own threads need memory to hand something over. A client that would miss it is ended instead.
TEST(NoMemory, OfTheHostLeavesNoClientWaiting) {
    Server server;
    ASSERT_TRUE(waitUntil([&] { return connectTcp(server.port).isOpen(); }));
    bool hasFailed = true;
    for (int count = 0; hasFailed; ++count) {
        SCOPED_TRACE(count);
        ASSERT_LT(count, 100);
        WsClient css;
        ASSERT_TRUE(css.connect(server.port, "/css-cii/t/"));
        ASSERT_TRUE(waitUntil([&] { return server.cii.ciiClientIdExists(count + 1) != 0; }));
        failAllocationOf(pthread_self(), count);
        server.cii.sendMessage(const_cast<char*>("an answer of the host"), 21, -1);
        server.cii.closeClientConnection(-1);
        hasFailed = stopFailing();
        if (!hasFailed) {
            EXPECT_EQ(css.receiveText(), "an answer of the host");
        }
        EXPECT_TRUE(css.closeCode().has_value());
    }
}

}  // namespace
