#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "tests/support/pair.h"
#include "tests/support/raw_client.h"
#include "tests/support/receiver.h"
#include "tests/support/sanitizer.h"

namespace {

using namespace zenk_test;
using Clock = std::chrono::steady_clock;

struct Unfinished {
    const char* name;
    std::string beginning;
    std::string drip;  // sent every now and then
    double seconds = 0;

    /// Takes the time until the server ends the connection.
    void run(int port) {
        constexpr Milliseconds kDripEvery{200};
        RawClient client;
        const auto started = Clock::now();
        if (!client.connect(port) || !client.send(beginning)) return;
        while (!client.waitForEnd(kDripEvery) && Clock::now() - started < 2 * kPatience && client.send(drip)) {
        }
        seconds = std::chrono::duration<double>(Clock::now() - started).count();
    }
};

// Who does not finish is cut after five seconds, whatever comes in that time. The steps of the wall
// clock neither shorten that nor harm the clients that stay.
TEST(UnfinishedHandshakes, AreCutInTimeWhileTheWallClockSteps) {
    std::vector<std::string> environment;
    // A sanitizer's own library wants to be the first.
    if (!kIsSanitized) environment.push_back(std::string("LD_PRELOAD=") + ZENK_STEPPING_CLOCK);
    Receiver receiver({}, environment);
    Pair pair;
    ASSERT_TRUE(pair.connect(receiver.port()));
    const std::string half = handshakeRequest("/css-ts/").substr(0, 60);
    Unfinished clients[] = {{"silent", "", ""},
                            {"half a request", half, ""},
                            {"half a request, then bytes", half, "x"},
                            {"endless headers", "GET / HTTP/1.1\r\n", "A: b\r\n"}};
    std::vector<std::thread> threads;
    for (Unfinished& client : clients) threads.emplace_back([&] { client.run(receiver.port()); });
    const auto started = Clock::now();
    while (Clock::now() - started < std::chrono::seconds(4)) EXPECT_TRUE(pair.exchange());
    for (std::thread& thread : threads) thread.join();
    for (const Unfinished& client : clients) {
        std::printf("%s: cut after %.1f s\n", client.name, client.seconds);
        EXPECT_GT(client.seconds, 4.0);
        EXPECT_LT(client.seconds, 9.5) << "the library's own limit is 10 s";
    }
    EXPECT_TRUE(pair.exchange());
    EXPECT_EQ(receiver.end(SIGTERM), 0);
}

}  // namespace
