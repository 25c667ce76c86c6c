// Who is silent, for how long, and what a halted process makes of it.
#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

struct Time : Wire {};

TEST_F(Time, FindsPeersThatVanishedAndKeepsThoseThatAnswer) {
    limits.pingAfter = 300ms;
    limits.hangUpAfter = 1200ms;
    limits.closeTotal = 1s;
    serve();
    RawClient vanished = join(), held = join(), alive = join(), deaf = join(), silent = join();
    hold(2);
    write(4, std::string(8'000'000, 'x'));
    close(5, 1000);
    if (!vanished.vanish() || !held.vanish()) GTEST_SKIP() << "the system lets no one vanish without a word";
    for (int pings = 0; pings < 4; ++pings) {
        ASSERT_EQ(alive.receiveFrame(), (Frame{kFin | kPing, "?"}));
        alive.send(clientFrame(kFin | kPong, "?"));
    }
    for (const int gone : {1, 2, 5}) EXPECT_TRUE(server->isGone(gone, 1s)) << gone;
    EXPECT_EQ(silent.closeCode(), 1000);
    EXPECT_NE(server->connection(4), nullptr) << "who could not hear was cut";
}

// As a frozen process or a long callback of the host does. Whoever it is, it is pinged first, and its goodbye arrives.
TEST_F(Time, CutsNobodyForATimeInWhichItStoodStill) {
    limits.pingAfter = 500ms;
    limits.hangUpAfter = 1400ms;
    limits.longestPass = 500ms;
    limits.closeStall = 400ms;
    serve();
    server->onText = [this](int number, const std::string& text) {
        if (text == "here") return void(write(number, text));
        std::this_thread::sleep_for(1500ms);
        close(number, 1001);
    };
    RawClient client = join(), first = join(), second = join();
    first.sendText("halt");
    EXPECT_EQ(client.receiveFrame(), (Frame{kFin | kPing, "?"}));
    second.sendText("halt while the answer is on its way");
    client.send(clientFrame(kFin | kPong, "?") + clientFrame(kFin | kText, "here"));
    EXPECT_EQ(client.receiveText(), "here");
    EXPECT_EQ(first.closeCode(), 1001);
    EXPECT_EQ(second.closeCode(), 1001);
}

}  // namespace
}  // namespace zenk_test
