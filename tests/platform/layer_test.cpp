// The layer over real sockets: what its header promises, with clients that share no code with it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/ws_limits.h"
#include "tests/platform/layer_server.h"
#include "tests/support/net_util.h"
#include "tests/support/raw_client.h"
#include "tests/support/ws_client.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

class Layer : public LayerTest {
protected:
    bool waitForCounts(int established, int closed) {
        return waitUntil([&] {
            const LayerServer::Counts counts = m_server->counts();
            return counts.established == established && counts.closed == closed;
        });
    }
};

std::string answerTo(int port, const std::string& request) {
    RawClient client;
    if (!client.connect(port) || !client.send(request)) return "";
    const std::string head = client.receiveUntil("\r\n\r\n");
    return client.waitForEnd() ? head : head + " (stays open)";
}

TEST_F(Layer, RefusesWhatIsNoHandshakeForItAndRaisesNoEvents) {
    serve();
    const std::string good = handshakeRequest("/l/a");
    const auto with = [&](std::string_view what, std::string_view by) {
        std::string request = good;
        request.replace(request.find(what), what.size(), by);
        return request;
    };
    EXPECT_TRUE(answerTo(m_port, "GET / HTTP/1.1\r\nHost: x\r\n\r\n").starts_with("HTTP/1.1 426 "));
    EXPECT_TRUE(answerTo(m_port, with("Host:", "Sec-WebSocket-Protocol: chat\r\nHost:")).starts_with("HTTP/1.1 400 "));
    EXPECT_TRUE(answerTo(m_port, with("Upgrade: websocket", "Upgrade: h2c")).starts_with("HTTP/1.1 400 "));
    EXPECT_TRUE(answerTo(m_port, with("GET", "POST")).starts_with("HTTP/1.1 405 "));
    EXPECT_TRUE(answerTo(m_port, with("Version: 13", "Version: 8")).starts_with("HTTP/1.1 426 "));
    EXPECT_TRUE(answerTo(m_port, "CONNECT x:1 HTTP/1.1\r\nHost: x\r\n\r\n").starts_with("HTTP/1.1 405 "));
    EXPECT_EQ(m_server->counts().filtered, 0);
    for (const auto& [result, status] : {std::pair{403, "403"}, {503, "503"}, {1, "403"}, {-1, "403"}, {600, "403"}}) {
        m_server->filterResult = result;
        EXPECT_TRUE(answerTo(m_port, good).starts_with(std::string("HTTP/1.1 ") + status + " ")) << result;
    }
    m_server->filterResult = 0;
    WsClient client;
    EXPECT_TRUE(client.connect(m_port, "/l/a"));
    EXPECT_TRUE(client.close());
    EXPECT_TRUE(waitForCounts(1, 1));
    EXPECT_EQ(m_server->counts().filtered, 6);
}

TEST_F(Layer, GivesPathAndQueryWhole) {
    serve();
    for (const auto& [target, seen] : {
             std::pair{"/local/hbbtv/tok/name", "/local/hbbtv/tok/name -"},
             {"/x?", "/x "},
             {"/x?a=1&b=2", "/x a=1&b=2"},
             {"/x?a=1&", "/x a=1&"},
             {"/x?a=1&&b=2", "/x a=1&&b=2"},
             {"/x?&", "/x &"},
             {"/x?a=/y?z", "/x a=/y?z"},
             {"/x?a=b%26/", "/x a=b&/"},
             {"/a&b/c", "/a&b/c -"},
         }) {
        WsClient client;
        ASSERT_TRUE(client.connect(m_port, target)) << target;
        EXPECT_EQ(m_server->lastTarget(), seen);
    }
}

TEST_F(Layer, RelaysEverySizeBothWaysInOrder) {
    serve();
    WsClient left, right;
    ASSERT_TRUE(left.connect(m_port, "/l/a"));
    ASSERT_TRUE(right.connect(m_port, "/r/a"));
    connectionOf("/r/a");
    for (const std::size_t size : {0u, 1u, 125u, 126u, 4096u, 65525u, 65535u, 65536u, 131072u, 1000000u}) {
        const std::string payload(size, static_cast<char>('a' + size % 26));
        for (const bool isBinary : {false, true}) {
            ASSERT_TRUE(isBinary ? left.sendBinary(payload) : left.sendText(payload));
            ASSERT_EQ(right.receive(), (WsClient::Message{payload, isBinary})) << size;
            ASSERT_TRUE(right.sendFragments({payload, "", payload}, isBinary));
            ASSERT_EQ(left.receive(), (WsClient::Message{payload + payload, isBinary})) << size;
        }
    }
}

TEST_F(Layer, ClosesWithTheFirstStatusAfterWhatIsQueued) {
    serve();
    for (const bool isOnServiceThread : {false, true}) {
        m_server->onPiece = [&](lws* wsi, const std::string&, const std::string&) {
            zenk_ws::lws_write(wsi, "last", 4, zenk_ws::kWriteText);
            zenk_ws::lws_close(wsi, 1001);
            zenk_ws::lws_close(wsi, 1000);
            EXPECT_LT(zenk_ws::lws_write(wsi, "late", 4, zenk_ws::kWriteText), 0);
        };
        WsClient client;
        ASSERT_TRUE(client.connect(m_port, "/l/a"));
        lws* const wsi = connectionOf("/l/a");
        if (isOnServiceThread) {
            ASSERT_TRUE(client.sendText("now"));
        } else {
            m_server->onPiece(wsi, "", "");
        }
        EXPECT_EQ(client.receiveText(), "last");
        EXPECT_EQ(client.closeCode(), 1001);
        EXPECT_TRUE(waitUntil([&] { return m_server->connection("/l/a") == nullptr; }));
    }
    EXPECT_TRUE(waitForCounts(2, 2));
}

TEST_F(Layer, TellsThePartnerWhenOneSideGoesInAnyWay) {
    serve();
    const auto ways = {+[](RawClient& client) { client.reset(); },
                       +[](RawClient& client) { client.close(); },
                       +[](RawClient& client) { client.send(clientFrame(0x88, "\x03\xE8")); },
                       +[](RawClient& client) {
                           client.send("\x81\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
                           client.reset();
                       },
                       +[](RawClient& client) {
                           client.send(clientFrame(0x01, std::string(100'000, 'x')));  // its message never ends
                           client.reset();
                       },
                       +[](RawClient& client) { client.send("\xF1\x80"); }};
    int ended = 0;
    for (const auto way : ways) {
        RawClient left;
        WsClient right;
        ASSERT_TRUE(left.upgrade(m_port, "/l/a"));
        ASSERT_TRUE(right.connect(m_port, "/r/a"));
        connectionOf("/r/a");
        way(left);
        EXPECT_EQ(right.closeCode(), 1000);
        ended += 2;
        left.close();
        EXPECT_TRUE(waitForCounts(ended, ended));
    }
    EXPECT_EQ(m_server->counts().dirtyRecords, 0);
}

TEST_F(Layer, CutsAPeerThatDoesNotAnswerItsClose) {
    zenk_ws::limits().closeStall = 300ms;
    serve();
    RawClient silent, deaf;
    ASSERT_TRUE(silent.upgrade(m_port, "/l/a"));
    ASSERT_TRUE(deaf.upgrade(m_port, "/l/b"));
    zenk_ws::lws_close(connectionOf("/l/a"), 1000);
    const std::string load(6'000'000, 'x');
    EXPECT_GT(zenk_ws::lws_write(connectionOf("/l/b"), load.data(), 6'000'000, zenk_ws::kWriteBinary), 0);
    zenk_ws::lws_close(connectionOf("/l/b"), 1000);
    EXPECT_TRUE(waitForCounts(2, 2));
    EXPECT_EQ(silent.receive(4), "\x88\x02\x03\xE8"sv);
    EXPECT_TRUE(silent.waitForEnd());
}

TEST_F(Layer, KeepsTheOrderOfWritesOverThreads) {
    serve();
    // The service thread and the test's thread write by turns, each when the other is done.
    constexpr int kTurns = 300;
    std::atomic<int> turn{0};
    m_server->onPiece = [&](lws* wsi, const std::string&, const std::string&) {
        for (int i = 0; i < kTurns; i += 2) {
            waitUntil([&] { return turn == i; });
            const std::string text = std::to_string(i);
            zenk_ws::lws_write(wsi, text.data(), static_cast<int>(text.size()), zenk_ws::kWriteText);
            ++turn;
        }
    };
    WsClient client;
    ASSERT_TRUE(client.connect(m_port, "/l/a"));
    lws* const wsi = connectionOf("/l/a");
    ASSERT_TRUE(client.sendText("go"));
    for (int i = 1; i < kTurns; i += 2) {
        ASSERT_TRUE(waitUntil([&] { return turn == i; }));
        const std::string text = std::to_string(i);
        zenk_ws::lws_write(wsi, text.data(), static_cast<int>(text.size()), zenk_ws::kWriteText);
        ++turn;
    }
    for (int i = 0; i < kTurns; ++i) ASSERT_EQ(client.receiveText(), std::to_string(i));
}

TEST_F(Layer, SaysGoodbyeToEverybodyWhenItStops) {
    serve();
    WsClient left, right;
    RawClient unfinished;
    ASSERT_TRUE(left.connect(m_port, "/l/a"));
    ASSERT_TRUE(right.connect(m_port, "/r/b"));
    ASSERT_TRUE(unfinished.connect(m_port));
    ASSERT_TRUE(unfinished.send("GET /l/c HT"));
    connectionOf("/r/b");
    std::thread reader([&] { EXPECT_EQ(right.closeCode(), 1001); });
    std::thread stopper([&] { m_server->stop(); });
    EXPECT_EQ(left.closeCode(), 1001);
    reader.join();
    stopper.join();
    EXPECT_EQ(m_server->counts().closed, 2);
    EXPECT_LT(zenk_ws::lws_write(nullptr, "x", 1, zenk_ws::kWriteText), 0);
    LayerServer again(m_port);
    EXPECT_TRUE(again.isServing()) << "the port was not given back";
}

TEST_F(Layer, FindsPeersThatVanishedWithoutAWord) {
    zenk_ws::limits().pingAfter = 500ms;
    zenk_ws::limits().hangUpAfter = 1500ms;
    serve();
    RawClient vanished;
    WsClient alive;
    ASSERT_TRUE(vanished.upgrade(m_port, "/l/a"));
    ASSERT_TRUE(alive.connect(m_port, "/l/b"));
    const std::jthread answering([&] { alive.receive(4500ms); });  // the client answers pings while it reads
    EXPECT_EQ(vanished.receive(2), "\x89\x01"sv);
    EXPECT_TRUE(waitForCounts(2, 1));
    EXPECT_TRUE(vanished.waitForEnd());
    std::this_thread::sleep_for(1500ms);  // as long again
    EXPECT_EQ(m_server->counts().closed, 1) << "a client that answers pings was hung up";
}

TEST_F(Layer, CutsNobodyForATimeInWhichItStoodStill) {
    zenk_ws::limits().pingAfter = 1s;
    zenk_ws::limits().hangUpAfter = 2s;
    zenk_ws::limits().longestPass = 100ms;
    serve();
    m_server->onPiece = [](lws* wsi, const std::string& path, const std::string& piece) {
        if (path == "/l/halt") std::this_thread::sleep_for(3s);  // as a frozen process does
        zenk_ws::lws_write(wsi, piece.data(), static_cast<int>(piece.size()), zenk_ws::kWriteText);
    };
    RawClient halt, client;
    ASSERT_TRUE(halt.upgrade(m_port, "/l/halt"));
    ASSERT_TRUE(client.upgrade(m_port, "/l/a"));
    halt.send(clientFrame(0x81, "now"));
    EXPECT_EQ(client.receive(3), "\x89\x01?") << "nobody is cut who was not asked first";
    halt.send(clientFrame(0x81, "and while the answer is on its way"));
    client.send(clientFrame(0x8A, "?") + clientFrame(0x81, "here"));
    EXPECT_EQ(client.receive(6), "\x81\x04here");
}

TEST_F(Layer, SaysGoodbyeAfterALongCallback) {
    zenk_ws::limits().closeStall = 200ms;
    zenk_ws::limits().longestPass = 50ms;
    serve();
    m_server->onPiece = [](lws* wsi, const std::string&, const std::string&) {
        std::this_thread::sleep_for(500ms);
        zenk_ws::lws_close(wsi, 1001);
    };
    for (int i = 0; i < 5; ++i) {  // what the loop does next is up to chance
        RawClient client;
        ASSERT_TRUE(client.upgrade(m_port, "/l/a"));
        client.send(clientFrame(0x81, "now"));
        EXPECT_EQ(client.receive(4), "\x88\x02\x03\xE9"sv);
    }
}

/// Lets the process open `more` descriptors and no more.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int more) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const int next = dup(STDIN_FILENO);  // the lowest that is free
        close(next);
        rlimit now = m_before;
        now.rlim_cur = static_cast<rlim_t>(next) + static_cast<rlim_t>(more);
        setrlimit(RLIMIT_NOFILE, &now);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit m_before{};
};

TEST_F(Layer, EndsNewConnectionsBeforeTheDescriptorsRunOut) {
    serve();
    const DescriptorLimit limit(40);  // each connection takes two of them, its client's and its server's
    std::vector<std::unique_ptr<RawClient>> clients;
    const auto connectOne = [&] {
        clients.push_back(std::make_unique<RawClient>());
        return clients.back()->upgrade(m_port, "/l/" + std::to_string(clients.size()));
    };
    int served = 0;
    while (served < 20 && connectOne()) ++served;
    EXPECT_GE(served, 5);
    EXPECT_LT(served, 15) << "none were kept back";
    EXPECT_TRUE(clients.back()->waitForEnd());
    clients.clear();
    EXPECT_TRUE(waitForCounts(served, served));
    EXPECT_TRUE(connectOne()) << "nobody gets in after the shortage";
}

TEST_F(Layer, ServesWithThePollLoopToo) {
    zenk_ws::limits().mayUseLibev = false;
    serve();
    WsClient left, right;
    ASSERT_TRUE(left.connect(m_port, "/l/a"));
    ASSERT_TRUE(right.connect(m_port, "/r/a"));
    lws* const wsi = connectionOf("/r/a");
    ASSERT_TRUE(left.sendText("hello"));
    EXPECT_EQ(right.receiveText(), "hello");
    zenk_ws::lws_write(wsi, "from a host", 11, zenk_ws::kWriteText);
    EXPECT_EQ(right.receiveText(), "from a host");
    zenk_ws::lws_close(wsi, 1001);
    EXPECT_EQ(right.closeCode(), 1001);
    EXPECT_EQ(left.closeCode(), 1000);
}

/// One client of the stress: connects, talks, and leaves in a random way.
void liveBriefly(int port, unsigned seed) {
    std::mt19937 random(seed);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    RawClient client;
    if (!client.upgrade(port, (pick(2) ? "/l/" : "/r/") + std::to_string(pick(8)))) return;
    for (int i = pick(6); i > 0; --i) {
        client.send(clientFrame(0x82, std::string(static_cast<std::size_t>(pick(3) ? pick(300) : pick(200000)), 'x')),
                    200ms);
    }
    switch (pick(3)) {
        case 0:
            client.reset();
            break;
        case 1:
            client.send(clientFrame(0x88, "\x03\xE8"), 200ms);
            break;
        default:
            break;
    }
}

TEST_F(Layer, GivesEachConnectionOneCloseEventUnderStress) {
    serve();
    std::atomic<bool> isOver{false};
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < 6; ++thread) {
        threads.emplace_back([&, thread] {
            for (unsigned i = 0; i < 60; ++i) liveBriefly(m_port, thread * 1000 + i);
        });
    }
    std::jthread host([&] {  // writes and closes at random, on connections that may be gone by then
        std::mt19937 random(7);
        const std::string payload(5000, 'h');
        while (!isOver) {
            const std::string path = (random() % 2 ? "/l/" : "/r/") + std::to_string(random() % 8);
            lws* const wsi = m_server->connection(path);
            zenk_ws::lws_write(wsi, payload.data(), static_cast<int>(random() % 5000), zenk_ws::kWriteBinary);
            if (random() % 50 == 0) zenk_ws::lws_close(wsi, 1000);
            std::this_thread::sleep_for(200us);
        }
    });
    threads.clear();
    isOver = true;
    host.join();
    m_server->stop();
    const LayerServer::Counts counts = m_server->counts();
    EXPECT_GT(counts.established, 200);
    EXPECT_EQ(counts.established, counts.closed);
    EXPECT_EQ(counts.closedUnannounced, 0);
}

}  // namespace
}  // namespace zenk_test
