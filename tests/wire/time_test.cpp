// Who is silent, for how long, and what a halted process makes of it.
#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;

struct Time : Wire {
    zenk_ws::Limits& limits = zenk_ws::limits();
};

TEST_F(Time, FindsPeersThatVanishedAndKeepsThoseThatAnswer) {
    limits.pingAfter = 300ms;
    limits.hangUpAfter = 1200ms;
    serve();
    RawClient vanished = join(), held = join(), alive = join(), deaf = join();
    hold(2);
    write(4, std::string(8'000'000, 'x'));
    if (!vanished.vanish() || !held.vanish()) GTEST_SKIP() << "the system lets no one vanish without a word";
    for (const auto end = std::chrono::steady_clock::now() + 4s; std::chrono::steady_clock::now() < end;) {
        const auto ping = alive.receiveFrame(100ms);
        if (ping) alive.send(clientFrame(kFin | kPong, ping->payload));
    }
    EXPECT_TRUE(server->isGone(1, 0ms) && server->isGone(2, 0ms));
    EXPECT_NE(server->connection(3), nullptr) << "who answers was cut";
    EXPECT_NE(server->connection(4), nullptr) << "who could not hear was cut";
}

TEST_F(Time, CutsNobodyForATimeInWhichItStoodStill) {
    limits.pingAfter = 400ms;
    limits.hangUpAfter = 800ms;
    limits.longestPass = 50ms;
    serve();
    server->onText = [this](int number, const std::string& text) {
        if (number == 1) std::this_thread::sleep_for(1500ms);  // as a frozen process does
        write(number, text);
    };
    RawClient halt = join(), client = join();
    halt.sendText("now");
    EXPECT_EQ(client.receiveFrame(), (Frame{kFin | kPing, "?"})) << "nobody is cut who was not asked first";
    halt.sendText("and while the answer is on its way");
    client.send(clientFrame(kFin | kPong, "?") + clientFrame(kFin | kText, "here"));
    EXPECT_EQ(client.receiveText(), "here");
}

// The time that a callback of the host takes is not the client's: its goodbye arrives.
TEST_F(Time, CutsWhoDoesNotAnswerItsCloseOrIsDeaf) {
    for (auto* const limit : {&limits.closeStall, &limits.closeTotal}) {
        server.reset();  // it reads the limits
        limits = zenk_ws::Limits();
        *limit = 300ms;
        serve();
        server->onText = [this](int number, const std::string&) {
            std::this_thread::sleep_for(500ms);
            close(number, 1001);
        };
        RawClient silent = join(), deaf = join();
        write(2, std::string(6'000'000, 'x'));
        for (const int number : {1, 2}) close(number, 1000);
        EXPECT_TRUE(server->isGone(1, 3s) && server->isGone(2, 3s));
        EXPECT_EQ(silent.closeCode(), 1000);
        EXPECT_TRUE(silent.waitForEnd());
        for (int i = 0; i < 3; ++i) {  // what the loop does next is up to chance
            RawClient late = join();
            late.sendText("now");
            EXPECT_EQ(late.closeCode(), 1001);
        }
    }
}

TEST_F(Time, GivesMemoryBackToWhatRests) {
    serve();
    server->onText = [this](int number, const std::string&) { write(number, "got it"); };
    std::vector<RawClient> clients(100);
    const std::size_t most = residentBytes() + clients.size() * 24 * zenk_ws::kKiB;
    for (RawClient& client : clients) {
        ASSERT_TRUE(client.upgrade(server->port, "/x") && client.sendText(std::string(100'000, 'x')));
        EXPECT_EQ(client.receiveText(), "got it");
    }
    EXPECT_TRUE(waitUntil([&] { return residentBytes() <= most; }, 5s));
}

}  // namespace
}  // namespace zenk_test
