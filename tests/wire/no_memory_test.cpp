// Memory that is missing costs no more than the connection that needed it.
#include <filesystem>

#include "tests/wire/wire.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

constexpr Milliseconds kShort{100};  // what a failed allocation has lost does not come

struct NoMemory : Wire {
    void SetUp() override {
        serve();
        server->addObserver(&cii);
        cii.setEnableInterDevSync(true);
    }
    /// What clients and a host do in a day. No step is checked: any of them may be the one that fails.
    void liveThroughADay(const std::string& endpoint) {
        RawClient local, remote, css;
        local.upgrade(server->port, "/local/hbbtv/t/" + endpoint);
        remote.upgrade(server->port, "/remote/hbbtv/t/" + endpoint);
        css.upgrade(server->port, "/css-cii/a-token?a-query=longer-than-any-short-string");
        local.sendText("a message that is longer than a few bytes");
        remote.receiveText(kShort);
        remote.send(clientFrame(kFin | kBinary, std::string(100'000, 'x')));
        local.receiveFrame(kShort);
        local.close();
        remote.closeCode(kShort);
        css.sendText("a message for the host");
        cii.sendMessage(answer, sizeof answer - 1, -1);
        cii.closeClientConnection(-1);
        css.closeCode(kShort);
    }
    static auto openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

    char answer[22] = "an answer of the host";
    ZenkCSSCIIServer cii;
};

// Each allocation of the service thread fails once, wherever it stands.
TEST_F(NoMemory, OfTheServiceCostsOneConnectionAndLeavesNothingBehind) {
    liveThroughADay("warm-up");
    const auto descriptors = openDescriptors();
    int days = 0;
    for (bool hasFailed = true; hasFailed && days < 1000; ++days) {
        failAllocationOf(server->thread(), days);
        liveThroughADay(std::to_string(days));
        hasFailed = stopFailing();
        Pair pair;
        ASSERT_TRUE(pair.connect(server->port, "witness" + std::to_string(days)) && pair.exchange()) << days;
    }
    EXPECT_TRUE(20 < days && days < 1000) << "some allocations were never reached";
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= descriptors && cii.getCssServerStatus() == 0; }));
}

// The host's own threads need memory to hand something over. A client that would miss it is ended instead.
TEST_F(NoMemory, OfTheHostLeavesNoClientWaiting) {
    bool hasFailed = true;
    for (int count = 0; hasFailed; ++count) {
        ASSERT_LT(count, 100);
        RawClient css = join("/css-cii/t/");
        ASSERT_NE(server->connection(count + 1), nullptr);
        failAllocationOf(pthread_self(), count);
        cii.sendMessage(answer, sizeof answer - 1, -1);
        cii.closeClientConnection(-1);
        hasFailed = stopFailing();
        EXPECT_TRUE(hasFailed || css.receiveText() == answer);
        EXPECT_TRUE(css.closeCode() == 1001 || css.waitForEnd()) << count;
    }
}

}  // namespace
}  // namespace zenk_test
