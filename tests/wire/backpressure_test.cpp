// Who does not keep up, client or host, costs bounded memory, loses nothing, and is nobody else's trouble.
#include <latch>
#include <semaphore>

#include "tests/wire/wire.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

constexpr int kMany = 1000;  // far more messages than fit in sockets and marks
constexpr std::size_t kMiB = zenk_ws::kMiB;

std::string message(int number) {
    return std::to_string(10'000'000 + number) + std::string(100'000, static_cast<char>('a' + number % 26));
}

/// Sends until the server takes no more. @return how many whole messages it took
int flood(RawClient& client, int most = kMany, Milliseconds patience = 300ms) {
    int sent = 0;
    while (sent < most && client.send(clientFrame(kFin | kBinary, message(sent)), patience)) ++sent;
    return sent;
}

struct Backpressure : Wire {
    void SetUp() override {
        zenk_ws::limits().backlogStall = 4s;
        zenk_ws::limits().closeStall = 1s;
        serve();
        ASSERT_TRUE(pair.connect(server->port));
    }
    Pair pair;
};

// Of the few the sender is done before the reader begins; of the many it has to wait with most.
TEST_F(Backpressure, KeepsAllForAReaderThatStallsAlsoWhenItsSenderHasFinished) {
    for (const int messages : {60, 300}) {
        ASSERT_TRUE(pair.connect(server->port, std::to_string(messages)));
        std::thread sending([&] {
            flood(pair.local, messages, 60s);
            pair.local.send(clientFrame(kFin | kClose, "\x03\xE8"), 60s);
            pair.local.finishSending();
        });
        std::this_thread::sleep_for(700ms);  // the stall: nothing is awaited, the reader just does not read
        EXPECT_LE(grownMiB(), 16);
        for (int i = 0; i < messages; ++i) EXPECT_EQ(pair.remote.receiveFrame(), (Frame{kFin | kBinary, message(i)}));
        EXPECT_EQ(pair.remote.closeCode(), 1000);
        sending.join();
    }
}

TEST_F(Backpressure, LetsWhoIsHeldGoWhenEitherEndsOrTheReaderTakesNothingForTooLong) {
    ASSERT_LT(flood(pair.local), kMany);
    pair.local.reset();
    EXPECT_TRUE(server->isGone(1, 2s));
    ASSERT_TRUE(pair.connect(server->port, "again"));
    ASSERT_LT(flood(pair.local), kMany);
    pair.remote.reset();
    EXPECT_EQ(pair.local.closeCode(2s), 1000);
    ASSERT_TRUE(pair.connect(server->port, "and again"));
    flood(pair.local);
    EXPECT_EQ(pair.local.closeCode(), 1000);
    EXPECT_TRUE(server->isGone(6));
}

// Whoever is told to go is read, so that its answer is seen. What it floods us with meanwhile is nobody's any more.
TEST_F(Backpressure, TakesNothingMoreFromAClientThatIsToldToGo) {
    std::atomic<int> taken = 0;
    server->onText = [&](int number, const std::string& text) {
        ++taken;
        write(number, text);
    };
    enum Held { ByTheHost, ByItsOwnAnswers, ByItsPartner, TooLate };
    for (const auto& [held, number] :
         {std::pair{ByTheHost, 3}, {ByItsOwnAnswers, 4}, {ByItsPartner, 5}, {TooLate, 7}}) {
        SCOPED_TRACE(number);
        Pair both;
        RawClient& client = both.local;
        ASSERT_TRUE(held == ByItsPartner ? both.connect(server->port) : client.upgrade(server->port, "/x"));
        write(number, std::string(7'000'000, 'h'), zenk_ws::kWriteBinary);  // unread: the close frame waits behind it
        if (held == ByTheHost) hold(number);
        EXPECT_TRUE(held == ByTheHost || held == TooLate || flood(client) < kMany);
        close(number, 1001);
        if (held == TooLate) hold(number);
        const int before = taken;
        flood(client, 200);
        EXPECT_LE(taken, before + 1) << "but for one that was on its way";
        EXPECT_LE(grownMiB(), 32);
        EXPECT_TRUE(server->isGone(number));
    }
}

struct HostBurst : Wire {
    /// The client gets messages of these lengths; if they are none, it is cut.
    static void expectTaken(RawClient& client, const std::vector<std::size_t>& lengths) {
        for (const std::size_t length : lengths)
            EXPECT_EQ(client.receiveFrame().value_or(Frame()).payload.size(), length);
        EXPECT_TRUE(!lengths.empty() || (client.receive(1).empty() && client.waitForEnd()));
    }
};

TEST_F(HostBurst, CutsWhomItBringsMoreThanTheMarkOrWhoHasMostButNobodyForTheLengthOfOneMessage) {
    struct Sent {
        int number;
        std::size_t bytes;
        int times = 1;
    };
    const struct {
        std::size_t total;
        std::vector<Sent> sent;
        std::vector<std::size_t> first, second;
    } bursts[] = {{64 * kMiB, {{1, 0, 200'000}, {2, 100'000, 2000}}, {}, {}},
                  {64 * kMiB, {{1, 1}, {1, 8'400'000}, {2, 20'000'000}, {2, 8'300'000}}, {}, {20'000'000, 8'300'000}},
                  {6'000'000, {{1, 1'000'000}, {2, 20'000'000}}, {1'000'000}, {20'000'000}},
                  {6'000'000, {{1, 4'000'000}, {2, 1'000'000}, {2, 1'500'000}}, {}, {1'000'000, 1'500'000}}};
    for (const auto& [total, sent, byFirst, bySecond] : bursts) {
        zenk_ws::limits().hostTotalBytes = total;
        serve();
        std::binary_semaphore isBusy(0), mayGoOn(0);
        server->onText = [&](int, const std::string&) {
            isBusy.release();
            mayGoOn.acquire();
        };
        RawClient first = join(), second = join();
        first.sendText("keep the service thread busy");
        isBusy.acquire();
        for (const auto& [number, bytes, times] : sent)
            for (int i = 0; i < times; ++i) write(number, std::string(bytes, 'h'));
        EXPECT_LE(grownMiB(), 80);
        mayGoOn.release();
        expectTaken(first, byFirst);
        expectTaken(second, bySecond);
    }
}

TEST_F(Backpressure, OfABlockedHostNeitherStopsTheNetworkNorFillsMemory) {
    static std::latch mayGoOn(1);
    static std::atomic<int> messages = 0;
    const auto onEvent = [](ZenkCSSEvent, ZenkCSSEevntInfo* info, void const*) {
        mayGoOn.wait();
        if (info->message == message(messages)) ++messages;
    };
    ZenkCSSCIIServer css;
    css.registerCIIEventCallback(onEvent, &css);
    css.setEnableInterDevSync(true);
    server->frontEnd.addObserver(&css);
    RawClient client = join("/css-cii/t/");
    const int sent = flood(client);
    EXPECT_LT(sent, kMany);
    EXPECT_LE(grownMiB(), 16);
    EXPECT_TRUE(pair.exchange());
    mayGoOn.count_down();
    EXPECT_TRUE(waitUntil([&] { return messages == sent; }));
}

}  // namespace
}  // namespace zenk_test
