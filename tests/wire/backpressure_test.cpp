// Who does not keep up, client or host, costs bounded memory, loses nothing, and is nobody else's trouble.
#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

constexpr int kMany = 1000;  // far more messages than fit in sockets and marks
constexpr std::size_t kMiB = zenk_ws::kMiB;

std::string message(int number) {
    return std::to_string(10'000'000 + number) + std::string(100'000, static_cast<char>('a' + number % 26));
}

/// Sends until the server takes no more. @return how many whole messages it took
int flood(RawClient& client, int most = kMany) {
    for (int i = 0; i < most; ++i) {
        if (!client.send(clientFrame(0x82, message(i)), 300ms)) return i;
    }
    return most;
}

struct Backpressure : Wire {
    void SetUp() override { serve(); }
    void serve() {
        Wire::serve();
        ASSERT_TRUE(pair.connect(server->port));
    }
    Pair pair;
};

TEST_F(Backpressure, KeepsAllForAReaderThatStallsAlsoWhenItsSenderHasFinished) {
    constexpr int kMessages = 60;
    const std::size_t before = residentBytes();
    std::atomic<int> sent = 0;
    std::jthread sending([&] {
        while (sent < kMessages && pair.local.send(clientFrame(0x82, message(sent)), 60s)) ++sent;
        pair.local.send(clientFrame(0x88, "\x03\xE8"), 60s);
        pair.local.finishSending();
    });
    std::this_thread::sleep_for(700ms);  // the stall: nothing is awaited, the reader just does not read
    EXPECT_LE(residentBytes(), before + 8 * kMiB);
    for (int i = 0; i < kMessages; ++i) ASSERT_EQ(pair.remote.receiveFrame(), (Frame{0x82, message(i)})) << i;
    EXPECT_EQ(pair.remote.closeCode(), 1000);
}

TEST_F(Backpressure, LetsWhoIsHeldGoWhenEitherEnds) {
    ASSERT_LT(flood(pair.local), kMany);
    pair.local.reset();
    EXPECT_TRUE(server->isGone(1, 3s));
    pair.remote.reset();
    ASSERT_TRUE(pair.connect(server->port));
    ASSERT_LT(flood(pair.local), kMany);
    pair.remote.reset();
    EXPECT_EQ(pair.local.closeCode(), 1000);
}

TEST_F(Backpressure, EndsAReaderThatTakesNothingForTooLong) {
    zenk_ws::limits().backlogStall = 800ms;
    zenk_ws::limits().closeStall = 300ms;
    ASSERT_LT(flood(pair.local), kMany);
    EXPECT_EQ(pair.local.closeCode(), 1000);
    EXPECT_TRUE(server->isGone(2));
}

TEST_F(Backpressure, SlowsAClientDownThatFloodsItself) {
    server->onText = [this](int number, const std::string& text) { write(number, text); };
    RawClient client;
    ASSERT_TRUE(client.upgrade(server->port, "/x"));
    const std::size_t before = residentBytes();
    ASSERT_LT(flood(client), kMany);
    EXPECT_LE(residentBytes(), before + 16 * kMiB);
    EXPECT_NE(server->connection(3), nullptr);
}

// Whoever is told to go is read, so that its answer is seen. What it floods us with meanwhile is nobody's any more.
TEST_F(Backpressure, TakesNothingMoreFromAClientThatIsToldToGo) {
    zenk_ws::limits().closeStall = 1s;
    std::atomic<int> taken = 0;
    server->onText = [&](int, const std::string&) { ++taken; };
    enum Held { ByTheHost, ByItsPartner, TooLate };
    for (const Held held : {ByTheHost, ByItsPartner, TooLate}) {
        SCOPED_TRACE(held);
        RawClient alone, partner;
        Pair both;
        RawClient& client = held == ByItsPartner ? both.local : alone;
        ASSERT_TRUE(held == ByItsPartner ? both.connect(server->port) : alone.upgrade(server->port, "/x"));
        const int number = held == ByTheHost ? 3 : held == ByItsPartner ? 4 : 6;
        write(number, std::string(7'000'000, 'h'), zenk_ws::kWriteBinary);  // unread: the close frame waits behind it
        if (held == ByTheHost) hold(number);
        if (held == ByItsPartner) flood(client);
        close(number, 1001);
        if (held == TooLate) hold(number);
        const int before = taken;
        flood(client, 200);
        EXPECT_LE(taken, before + 1) << "but for one that was on its way";
        EXPECT_TRUE(server->isGone(number));
    }
}

/// What a host sends while the service thread is busy.
struct HostBurst : Wire {
    void SetUp() override {
        serve();
        server->onText = [this](int, const std::string&) {
            isBusy = true;
            waitUntil([this] { return mayGoOn.load(); });
        };
        ASSERT_TRUE(first.upgrade(server->port, "/x") && second.upgrade(server->port, "/x"));
        server->connection(2);
        ASSERT_TRUE(first.sendText("be busy") && waitUntil([this] { return isBusy.load(); }));
    }
    void TearDown() override { mayGoOn = true; }
    int send(int number, std::size_t bytes) { return write(number, std::string(bytes, 'h')); }
    /// Lengths of the messages that a client gets up to the end of its connection, or up to `count` of them.
    static std::vector<std::size_t> takenBy(RawClient& client, std::size_t count = 100) {
        std::vector<std::size_t> lengths;
        while (lengths.size() < count) {
            const auto frame = client.receiveFrame();
            if (!frame) break;
            lengths.push_back(frame->payload.size());
        }
        return lengths;
    }
    using Lengths = std::vector<std::size_t>;

    std::atomic<bool> isBusy = false, mayGoOn = false;
    RawClient first, second;
};

TEST_F(HostBurst, TakesAnyMessageThatNothingWaitsBefore) {
    send(1, 20'000'000);
    send(1, 1);
    mayGoOn = true;
    EXPECT_EQ(takenBy(first, 2), (Lengths{20'000'000, 1}));
}

TEST_F(HostBurst, CutsNobodyForTheLengthOfOneMessage) {
    zenk_ws::limits().hostTotalBytes = 6'000'000;
    send(2, 1'000'000);
    send(1, 20'000'000);
    mayGoOn = true;
    EXPECT_EQ(takenBy(second, 1), Lengths{1'000'000});
    EXPECT_EQ(takenBy(first, 1), Lengths{20'000'000});
}

TEST_F(HostBurst, CutsWhomItBringsMoreThanTheMark) {
    for (const std::size_t bytes : {std::size_t{0}, std::size_t{100'000}}) {
        const std::size_t before = residentBytes();
        int sent = 0;
        while (sent < 200'000 && send(bytes == 0 ? 1 : 2, bytes) >= 0) ++sent;
        EXPECT_LT(sent, 200'000) << "messages fill the memory";
        EXPECT_LE(residentBytes(), before + 32 * kMiB);
    }
    mayGoOn = true;
    EXPECT_EQ(takenBy(first), Lengths());
    EXPECT_EQ(takenBy(second), Lengths());
}

TEST_F(HostBurst, CutsWhoHasMostWhenAllTogetherHaveTooMuch) {
    zenk_ws::limits().hostTotalBytes = 6'000'000;
    send(1, 4'000'000);
    send(2, 1'000'000);
    EXPECT_EQ(send(2, 1'500'000), 1'500'000);
    mayGoOn = true;
    EXPECT_EQ(takenBy(first), Lengths());
    EXPECT_EQ(takenBy(second, 2), (Lengths{1'000'000, 1'500'000}));
}

}  // namespace
}  // namespace zenk_test
