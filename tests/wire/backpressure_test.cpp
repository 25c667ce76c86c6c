// Who does not keep up, client or host, costs bounded memory, loses nothing, and is nobody else's trouble.
#include <latch>

#include "tests/wire/wire.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

constexpr int kMany = 1000;  // far more messages than fit in sockets and marks

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
        limits.backlogStall = 4s;
        limits.closeStall = 1s;
        limits.hostTotalBytes = 30'000'000;
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
        EXPECT_LE(heapMiB(), 16);
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
}

// Whoever is told to go is read, so that its answer is seen. What it floods us with meanwhile is nobody's any more.
TEST_F(Backpressure, TakesNothingMoreFromAClientThatIsToldToGo) {
    std::atomic<int> taken = 0;
    server->onText = [&](int number, const std::string& text) {
        ++taken;
        write(number, text);
    };
    RawClient& client = pair.local;
    enum Held { ByTheHost, ByItsOwnAnswers, ByItsPartner, TooLate };
    for (const auto& [held, number] :
         {std::pair{ByTheHost, 3}, {ByItsOwnAnswers, 4}, {ByItsPartner, 5}, {TooLate, 7}}) {
        SCOPED_TRACE(number);
        ASSERT_TRUE(held == ByItsPartner ? pair.connect(server->port) : client.upgrade(server->port, "/x"));
        write(number, std::string(7'000'000, 'h'), zenk_ws::kWriteBinary);  // unread: the close frame waits behind it
        if (held == ByTheHost) hold(number);
        EXPECT_TRUE(held == ByTheHost || held == TooLate || flood(client) < kMany);
        close(number, 1001);
        if (held == TooLate) hold(number);
        const int before = taken;
        flood(client, 200);
        EXPECT_LE(taken, before + 1) << "but for one that was on its way";
        EXPECT_LE(heapMiB(), 32);
        EXPECT_TRUE(server->isGone(number));
    }
}

// Whoever gets more than the mark is cut, and of all whoever has most, but nobody for the length of one message.
TEST_F(Backpressure, OfABurstOfTheHostCutsWhoGetsMost) {
    using Lengths = std::vector<std::size_t>;
    const struct {
        Lengths sent[2];
        bool isCut[2];
    } bursts[] = {{{Lengths(200'000, 0), Lengths(2000, 100'000)}, {true, true}},
                  {{{1, 8'400'000}, {20'000'000, 8'300'000}}, {true, false}},
                  {{{1'000'000}, {40'000'000}}, {false, false}},
                  {{{20'000'000, 7'000'000}, {1'000'000, 3'000'000}}, {true, false}}};
    for (const auto& [sent, isCut] : bursts) {
        serve();
        std::latch isBusy(1), mayGoOn(1);
        server->onText = [&](int, const std::string&) {
            isBusy.count_down();
            mayGoOn.wait();
        };
        RawClient clients[] = {join(), join()};
        clients[0].sendText("keep the service thread busy");
        isBusy.wait();
        for (const int i : {0, 1})
            for (const std::size_t length : sent[i]) write(i + 1, std::string(length, 'h'));
        EXPECT_LE(heapMiB(), 80);
        mayGoOn.count_down();
        for (const int i : {0, 1}) {
            Lengths taken;
            for (std::optional<Frame> frame; taken.size() < sent[i].size() && (frame = clients[i].receiveFrame());)
                taken.push_back(frame->payload.size());
            EXPECT_EQ(taken, isCut[i] ? Lengths() : sent[i]);
            EXPECT_EQ(clients[i].waitForEnd(1ms), isCut[i]);
        }
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
    server->addObserver(&css);
    RawClient client = join("/css-cii/t/");
    const int sent = flood(client);
    EXPECT_LT(sent, kMany);
    EXPECT_LE(heapMiB(), 16);
    EXPECT_TRUE(pair.exchange());
    mayGoOn.count_down();
    EXPECT_TRUE(waitUntil([&] { return messages == sent; }));
}

}  // namespace
}  // namespace zenk_test
