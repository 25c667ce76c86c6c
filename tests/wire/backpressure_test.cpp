// Who does not keep up, client or host, costs bounded memory, loses nothing, and is nobody else's trouble.
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
        serve();
        ASSERT_TRUE(pair.connect(server->port));
    }
    Pair pair;
};

// Of the few the sender is done before the reader begins; of the many it has to wait with most.
TEST_F(Backpressure, KeepsAllForAReaderThatStallsAlsoWhenItsSenderHasFinished) {
    for (const int messages : {60, 300}) {
        ASSERT_TRUE(pair.connect(server->port, std::to_string(messages)));
        const std::size_t before = residentBytes();
        std::thread sending([&] {
            flood(pair.local, messages, 60s);
            pair.local.send(clientFrame(kFin | kClose, "\x03\xE8"), 60s);
            pair.local.finishSending();
        });
        std::this_thread::sleep_for(700ms);  // the stall: nothing is awaited, the reader just does not read
        EXPECT_LE(residentBytes(), before + 8 * kMiB);
        for (int i = 0; i < messages; ++i) EXPECT_EQ(pair.remote.receiveFrame(), (Frame{kFin | kBinary, message(i)}));
        EXPECT_EQ(pair.remote.closeCode(), 1000);
        sending.join();
    }
}

TEST_F(Backpressure, LetsWhoIsHeldGoWhenEitherEndsOrTheReaderTakesNothingForTooLong) {
    ASSERT_LT(flood(pair.local), kMany);
    pair.local.reset();
    EXPECT_TRUE(server->isGone(1, 3s));
    ASSERT_TRUE(pair.connect(server->port, "again"));
    ASSERT_LT(flood(pair.local), kMany);
    pair.remote.reset();
    EXPECT_EQ(pair.local.closeCode(), 1000);
    zenk_ws::limits().backlogStall = 800ms;
    SetUp();
    flood(pair.local, 200);
    EXPECT_EQ(pair.local.closeCode(), 1000);
    EXPECT_TRUE(server->isGone(2));
}

TEST_F(Backpressure, SlowsAClientDownThatFloodsItself) {
    server->onText = [this](int number, const std::string& text) { write(number, text); };
    RawClient client = join();
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
    for (const auto& [held, number] : {std::pair{ByTheHost, 3}, {ByItsPartner, 4}, {TooLate, 6}}) {
        SCOPED_TRACE(number);
        Pair both;
        RawClient& client = both.local;
        ASSERT_TRUE(held == ByItsPartner ? both.connect(server->port) : client.upgrade(server->port, "/x"));
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
        mayGoOn = false;
        serve();
        server->onText = [this](int, const std::string&) {
            isBusy = true;
            waitUntil([this] { return mayGoOn.load(); });
        };
        first.emplace(server->port, "/x"), second.emplace(server->port, "/x");
        ASSERT_TRUE(first->sendText("be busy") && waitUntil([this] { return isBusy.exchange(false); }));
    }
    void TearDown() override { mayGoOn = true; }
    /// The client gets messages of these lengths; if they are none, it is cut.
    static void expectTaken(RawClient& client, const std::vector<std::size_t>& lengths) {
        for (const std::size_t length : lengths)
            EXPECT_EQ(client.receiveFrame().value_or(Frame()).payload.size(), length);
        EXPECT_TRUE(!lengths.empty() || (client.receive(1).empty() && client.waitForEnd()));
    }

    std::atomic<bool> isBusy = false, mayGoOn = false;
    std::optional<RawClient> first, second;
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
    } bursts[] = {{64 * kMiB, {{1, 0, 200'000}, {2, 1}}, {}, {1}},
                  {64 * kMiB, {{1, 1}, {2, 100'000, 2000}}, {1}, {}},
                  {64 * kMiB, {{1, 20'000'000}, {1, 1}, {2, 1}, {2, 8'300'000}}, {20'000'000, 1}, {1, 8'300'000}},
                  {64 * kMiB, {{1, 1}, {1, 8'400'000}, {2, 1}}, {}, {1}},
                  {6'000'000, {{2, 1'000'000}, {1, 20'000'000}}, {20'000'000}, {1'000'000}},
                  {6'000'000, {{1, 4'000'000}, {2, 1'000'000}, {2, 1'500'000}}, {}, {1'000'000, 1'500'000}}};
    for (const auto& [total, sent, byFirst, bySecond] : bursts) {
        zenk_ws::limits().hostTotalBytes = total;
        const std::size_t before = residentBytes();
        for (const auto& [number, bytes, times] : sent)
            for (int i = 0; i < times; ++i) write(number, std::string(bytes, 'h'));
        EXPECT_LE(residentBytes(), before + 40 * kMiB);
        mayGoOn = true;
        expectTaken(*first, byFirst);
        expectTaken(*second, bySecond);
        SetUp();
    }
}

TEST_F(Backpressure, OfABlockedHostNeitherStopsTheNetworkNorFillsMemory) {
    constexpr int kMessages = 400;
    static std::atomic<bool> mayGoOn = false;
    static std::atomic<int> messages = 0;
    const auto onEvent = [](ZenkCSSEvent, ZenkCSSEevntInfo* info, void const*) {
        waitUntil([] { return mayGoOn.load(); });
        if (info->message == message(messages)) ++messages;
    };
    ZenkCSSCIIServer css;
    css.registerCIIEventCallback(onEvent, &css);
    css.setEnableInterDevSync(true);
    server->frontEnd.addObserver(&css);
    RawClient client = join("/css-cii/t/");
    const std::size_t before = residentBytes();
    std::thread sending([&] { EXPECT_EQ(flood(client, kMessages, 60s), kMessages); });
    std::this_thread::sleep_for(700ms);
    EXPECT_TRUE(pair.exchange());
    EXPECT_LE(residentBytes(), before + 16 * kMiB);
    mayGoOn = true;
    EXPECT_TRUE(waitUntil([] { return messages == kMessages; }, 3 * kPatience));
    sending.join();
}

}  // namespace
}  // namespace zenk_test
