// Who gets in, what a connection is told, and how it ends.
#include <sys/resource.h>

#include <list>
#include <random>

#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

/// With libwebsockets' libev loop, and with its poll loop.
struct Layer : Wire, testing::WithParamInterface<bool> {
    void SetUp() override {
        limits.mayUseLibev = GetParam();
        serve();
    }
};

TEST_P(Layer, AnswersWhatIsNoHandshakeForItAndTellsNobody) {
    const std::string good = handshakeRequest("/x");
    const auto with = [&](std::string_view what, std::string_view by) {
        return std::string(good).replace(good.find(what), what.size(), by);
    };
    for (const auto& [request, status] : {std::pair{std::string("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), 426},
                                          {"CONNECT x:1 HTTP/1.1\r\nHost: x\r\n\r\n", 405},
                                          {with("Host:", "Sec-WebSocket-Protocol: chat\r\nHost:"), 400},
                                          {with("Version: 13", "Version: 113"), 426},
                                          {with("Version: 13", "Version: 8 ,13 ,"), 101},
                                          {with("websocket", "  WebSocket"), 101},
                                          {good, 503}}) {
        server->refusal = status == 503 ? status : 0;
        RawClient client;
        ASSERT_TRUE(client.connect(server->port) && client.send(request));
        const std::string answer = client.receiveUntil("\r\n\r\n");
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + std::to_string(status) + " ")) << answer << "to " << request;
        EXPECT_TRUE(status == 101 || client.waitForEnd());
    }
    EXPECT_EQ(server->opened(), 2);
}

// A host writes on the service thread and on another one, each when the other is done, and closes behind that.
TEST_P(Layer, KeepsTheOrderOfAHostsThreadsAndTellsItTheWholeTarget) {
    std::atomic<int> turn = 0;
    const auto writeEverySecond = [&](int first) {
        for (int i = first; i < 300; i += 2) {
            ASSERT_TRUE(waitUntil([&] { return turn == i; }));
            write(1, std::to_string(i));
            ++turn;
        }
    };
    server->onText = [&](int, const std::string&) { writeEverySecond(0); };
    const std::string target = "/a&/?&b=/y?z&";  // libwebsockets gives it in pieces
    RawClient client = join(target);
    client.sendText("go");
    writeEverySecond(1);
    EXPECT_STREQ(server->getUrl(1), target.c_str());
    close(1, 1001);
    close(1, 1000);
    EXPECT_LT(write(1, "late"), 0);
    for (int i = 0; i < turn; ++i) ASSERT_EQ(client.receiveText(), std::to_string(i));
    EXPECT_EQ(client.closeCode(), 1001);
}

// More than leave in one pass. What they have sent is delivered first, and of unfinished messages nothing stays.
TEST_P(Layer, LetsACrowdLeaveInPortionsAndLosesNothing) {
    std::list<RawClient> others(130);  // who comes behind so many is watched
    std::list<Pair> pairs(60);
    for (RawClient& each : others) ASSERT_TRUE(each.upgrade(server->port, "/x"));
    for (Pair& each : pairs) ASSERT_TRUE(each.connect(server->port));
    for (RawClient& each : others) each.reset();
    for (Pair& each : pairs) {
        each.local.send(clientFrame(kFin | kText, "last words") + clientFrame(kText, "and more"));
        &each == &pairs.front() ? each.local.finishSending() : each.local.close();
    }
    for (Pair& each : pairs) {
        EXPECT_EQ(each.remote.receiveText(), "last words");
        EXPECT_EQ(each.remote.closeCode(), 1000);
    }
    pairs.clear();
    EXPECT_TRUE(waitUntil([this] { return server->closed == server->opened(); }));
    EXPECT_TRUE(pairs.emplace_back().connect(server->port) && pairs.back().exchange());
}

TEST_P(Layer, SaysGoodbyeToEverybodyAndLeavesThePort) {
    Pair pair;
    ASSERT_TRUE(pair.connect(server->port));
    RawClient lonely = join(), unfinished;
    ASSERT_TRUE(unfinished.connect(server->port) && unfinished.send("GET /l/c HT"));
    server->connection(3);
    server->stop();
    for (RawClient* const client : {&pair.local, &pair.remote, &lonely}) EXPECT_EQ(client->closeCode(), 1001);
    const int port = server->port;
    server.emplace(port);
    EXPECT_TRUE(pair.connect(port));
}

TEST_P(Layer, EndsNewConnectionsBeforeTheDescriptorsRunOut) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowest = dup(STDIN_FILENO);  // that is free
    ::close(lowest);
    const rlimit scarce{static_cast<rlim_t>(lowest) + 40, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &scarce);
    std::vector<RawClient> clients(20);  // each takes two, its own and the server's
    const auto getsIn = [&](RawClient& each) { return each.upgrade(server->port, "/x"); };
    const auto refused = std::ranges::find_if_not(clients, getsIn);
    ASSERT_LT(refused - clients.begin(), 15) << "none were kept back";
    EXPECT_TRUE(refused->waitForEnd());
    clients.front().close();
    EXPECT_TRUE(waitUntil([&] { return getsIn(*refused); })) << "there is room again";
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_P(Layer, TellsEachCloseOnceWhileTheHostWritesAndClosesAtRandom) {
    const auto live = [this](std::minstd_rand random) {
        for (int lives = 0; lives < 60; ++lives) {
            const std::string side = random() % 2 != 0 ? "/local/hbbtv/" : "/remote/hbbtv/";
            RawClient client = join(side + std::to_string(random() % 8));
            for (auto left = random() % 6; left > 0; --left)
                client.send(clientFrame(kFin | kBinary, std::string(random() % 100'000, 'x')), 200ms);
            if (random() % 2 != 0) client.reset();
        }
    };
    std::list<std::jthread> clients;
    for (unsigned seed = 1; seed <= 6; ++seed) clients.emplace_back(live, std::minstd_rand(seed));
    for (std::minstd_rand random(7); server->opened() < 360; std::this_thread::sleep_for(200us)) {
        const int number = std::max(1, server->opened() - static_cast<int>(random() % 10));  // may be gone by then
        write(number, std::string(random() % 5000, 'h'), zenk_ws::kWriteBinary);
        if (random() % 50 == 0) close(number, 1000);
    }
}

INSTANTIATE_TEST_SUITE_P(OverEitherLoop, Layer, testing::Bool());

}  // namespace
}  // namespace zenk_test
