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
        zenk_ws::limits().mayUseLibev = GetParam();
        serve();
    }
    void expectStatus(const std::string& request, int status) {
        SCOPED_TRACE(request);
        RawClient client;
        ASSERT_TRUE(client.connect(server->port) && client.send(request));
        EXPECT_EQ(client.receiveUntil("\r\n\r\n").substr(0, 13), "HTTP/1.1 " + std::to_string(status) + " ");
        EXPECT_TRUE(status == 101 || client.waitForEnd());
    }
    void expectAllClosed() {
        EXPECT_TRUE(waitUntil([this] { return server->closed == server->opened(); }));
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
                                          {with("GET", "POST"), 405},
                                          {with("Version: 13", "Version: 113"), 426},
                                          {with("Version: 13", "Version: 8 ,13 ,"), 101},
                                          {with("websocket", "  WebSocket"), 101},
                                          {with(" Upgrade\r", " keep-alive , upgrade\r"), 101}})
        expectStatus(request, status);
    for (const auto& [refusal, status] : {std::pair{503, 503}, {-1, 403}, {600, 403}}) {
        server->refusal = refusal;
        expectStatus(good, status);
    }
    server->stop();
    EXPECT_EQ(server->opened(), 3);
    expectAllClosed();
}

TEST_P(Layer, TellsTheWholeTarget) {
    int number = 0;
    for (const std::string target : {"/x?", "/x?a=1&&b=2", "/x?&", "/x?a=/y?z", "/a&/"}) {
        const RawClient client = join(target);
        ASSERT_NE(server->connection(++number), nullptr);
        EXPECT_STREQ(server->getUrl(number), target.c_str());
    }
}

TEST_P(Layer, ClosesWithTheFirstStatusBehindWhatIsQueued) {
    const auto sayLast = [this](int number) {
        write(number, "last");
        close(number, 1001);
        close(number, 1000);
        EXPECT_LT(write(number, "late"), 0);
    };
    server->onText = [&](int number, const std::string&) { sayLast(number); };
    for (const int number : {1, 2}) {
        RawClient client = join();
        number == 1 ? sayLast(number) : void(client.sendText("now, on the service thread"));
        EXPECT_EQ(client.receiveText(), "last");
        EXPECT_EQ(client.closeCode(), 1001);
    }
    expectAllClosed();
}

TEST_P(Layer, EndsThePartnerOfWhoGoesInAnyWayAndKeepsNothingOfIt) {
    const struct {
        std::string sent;
        void (RawClient::*end)();
    } ways[] = {{"", &RawClient::reset},
                {"", &RawClient::close},
                {clientFrame(kFin | 0x3, ""), &RawClient::finishSending},
                {"\x81\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", &RawClient::reset},
                {clientFrame(kText, std::string(100'000, 'x')), &RawClient::reset}};  // its message never ends
    for (const auto& [sent, end] : ways) {
        SCOPED_TRACE(testing::PrintToString(sent.substr(0, 20)));
        Pair pair;
        ASSERT_TRUE(pair.connect(server->port));
        EXPECT_TRUE(pair.local.send(sent));
        (pair.local.*end)();
        EXPECT_EQ(pair.remote.closeCode(), 1000);
        pair.local.close();
        pair.remote.close();
        expectAllClosed();
    }
    Pair next;
    EXPECT_TRUE(next.connect(server->port) && next.exchange());
}

// More than leave in one pass; what they have sent is delivered first.
TEST_P(Layer, LetsACrowdLeaveInPortionsAndLosesNothing) {
    std::list<RawClient> others(130);  // who comes behind so many is watched
    std::list<Pair> pairs(60);
    for (RawClient& each : others) ASSERT_TRUE(each.upgrade(server->port, "/x"));
    for (Pair& each : pairs) ASSERT_TRUE(each.connect(server->port));
    others.clear();
    for (Pair& each : pairs) {
        each.local.sendText("last words");
        each.local.close();
    }
    for (Pair& each : pairs) {
        EXPECT_EQ(each.remote.receiveText(), "last words");
        EXPECT_EQ(each.remote.closeCode(), 1000);
    }
    pairs.clear();
    expectAllClosed();
}

TEST_P(Layer, KeepsTheOrderOfWritesOverThreads) {
    std::atomic<int> turn = 0;  // the service thread's and this one's, each when the other is done
    const auto writeEverySecond = [&](int first) {
        for (int i = first; i < 300; i += 2) {
            ASSERT_TRUE(waitUntil([&] { return turn == i; }));
            write(1, std::to_string(i));
            ++turn;
        }
    };
    server->onText = [&](int, const std::string&) { writeEverySecond(0); };
    RawClient client = join();
    client.sendText("go");
    writeEverySecond(1);
    for (int i = 0; i < turn; ++i) ASSERT_EQ(client.receiveText(), std::to_string(i));
}

TEST_P(Layer, SaysGoodbyeToEverybodyAndLeavesThePort) {
    Pair pair;
    ASSERT_TRUE(pair.connect(server->port));
    RawClient lonely = join(), unfinished;
    ASSERT_TRUE(unfinished.connect(server->port) && unfinished.send("GET /l/c HT"));
    server->connection(3);
    server->stop();
    for (RawClient* const client : {&pair.local, &pair.remote, &lonely}) EXPECT_EQ(client->closeCode(), 1001);
    EXPECT_EQ(server->closed, 3);
    const int port = server->port;
    for (const int none : {-1, 65536 + port}) EXPECT_EQ(startWebSocketServer(none, &server->frontEnd), -1);
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
    clients.clear();
    expectAllClosed();
    join();  // there is room again
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_P(Layer, TellsEachCloseOnceUnderStress) {
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
    // The host meanwhile writes and closes at random, on connections that may be gone by then.
    for (std::minstd_rand random(7); server->opened() < 360; std::this_thread::sleep_for(200us)) {
        const int number = server->opened() - static_cast<int>(random() % 10);
        if (number < 1) continue;
        write(number, std::string(random() % 5000, 'h'), zenk_ws::kWriteBinary);
        if (random() % 50 == 0) close(number, 1000);
    }
    clients.clear();
    server->stop();
    expectAllClosed();
}

INSTANTIATE_TEST_SUITE_P(OverEitherLoop, Layer, testing::Bool());

}  // namespace
}  // namespace zenk_test
