#include "wsserver/wall_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "tests/support/failing_allocations.h"
#include "tests/support/raw_client.h"
#include "wsserver/zenk_dvbCss.h"

using namespace std::string_literals;
using zenk_test::waitUntil;

// What the linker's wrap gives in the place of any clock, and the clock that was read last.
static std::mutex g_mutex;
static auto& g_reads =
    *new std::deque<timespec>;  // never destroyed: detached threads read the clock until the very end
static clockid_t g_lastClock = -1;

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const std::lock_guard lock(g_mutex);
    g_lastClock = clock;
    if (g_reads.empty()) return __real_clock_gettime(clock, now);
    *now = g_reads.front();
    g_reads.pop_front();
    return 0;
}
}

namespace {

void script(std::deque<timespec> reads) {
    const std::lock_guard lock(g_mutex);
    g_reads = std::move(reads);
}

TEST(WallClock, ReadsTheSelectedSystemClockAndStandsAtZeroWithoutOne) {
    ZenkWallClock clock;
    for (const auto& [type, id] :
         {std::pair{0, CLOCK_MONOTONIC}, {1, CLOCK_MONOTONIC_COARSE}, {2, CLOCK_MONOTONIC_RAW}, {3, -1}}) {
        clock.Initialize(static_cast<ZenkWallClockType>(type));
        g_lastClock = -1;
        EXPECT_EQ(clock.GetPrecision() == 0, id == -1);
        EXPECT_EQ(clock.GetWallClockTime().tv_sec == 0, id == -1);
        EXPECT_EQ(g_lastClock, id);
        EXPECT_EQ(clock.GetMaxFreqError(), id == -1 ? 0 : 500);
    }
}

TEST(WallClock, CutsTheTimeByAUsableTick) {
    ZenkWallClock clock;
    timespec told{};
    clock_getres(CLOCK_MONOTONIC_COARSE, &told);
    clock.Initialize(WALLCLOCK_MONOTONIC_COARSE);
    // Within one tick, or held up for 3 s between the reads: neither tells anything.
    const long resolution = told.tv_nsec, second = 1'000'000'000, begin = second - 1;
    for (const auto& [tick, cut, log2] : {std::tuple{1L, 1L, -29},
                                          {600'000'000L, 600'000'000L, 0},
                                          {0L, resolution, -7},
                                          {3 * second, resolution, -7}}) {
        script({{5, begin}, {5 + (begin + tick) / second, (begin + tick) % second}, {1, 123'456'789}});
        EXPECT_NEAR(clock.GetPrecision(), log2, cut == resolution ? 1 : 0) << "of " << tick << "; 1 to 10 ms are told";
        EXPECT_EQ(clock.GetWallClockTime().tv_nsec, 123'456'789 / cut * cut);
    }
}

TEST(WCMessage, RefusesNullAndKeepsTheUpperBitsOfByteFields) {
    ZenkWallClock clock;
    ZenkWCMessage message{0x12345678, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    char wire[32] = {'\xE0'};
    int length = 0;
    EXPECT_EQ(clock.StringToZenkWCMessage(nullptr, 32, &message), -1);
    EXPECT_EQ(clock.ZenkWCMessageToString(&message, nullptr, &length), -1);
    EXPECT_EQ(clock.StringToZenkWCMessage(wire, 0, &message), 0);
    EXPECT_EQ(message.version, 0x123456E0);
}

class WCServer : public testing::Test {
protected:
    WCServer() { m_peer.connect(m_port, SOCK_DGRAM); }
    ~WCServer() override {
        if (m_thread.joinable()) stop();
        delete ZenkCSSEventDispatcher::m_instance;
    }

    void enable(bool on) { std::atomic_ref(m_server.m_enableInterDevSync).store(on ? 1 : 0); }
    /// Runs the server on a thread until it answers this.
    std::string start(const std::string& first = std::string(128, '\0')) {
        enable(true);
        m_thread = std::thread([this] { m_server.startWCServer(); });
        std::string reply;
        EXPECT_TRUE(waitUntil([&] { return !(reply = ask(first)).empty(); }));
        return reply;
    }
    /// @return the reply; empty at once while nobody serves the port
    std::string ask(const std::string& bytes) { return m_peer.send(bytes) ? m_peer.receive(32) : ""; }
    void join() {
        m_thread.join();
        EXPECT_TRUE(zenk_test::attach(::bind, zenk::Socket(SOCK_DGRAM), m_port)) << "the port is given back";
    }
    void stop() {
        m_server.stopWCServer();
        join();
    }

    const int m_port = zenk_test::freePort();
    std::string m_text = std::to_string(m_port) + "x";  // the sockets read the number only
    ZenkWallClock m_clock;
    ZenkCSSWCServer m_server{m_text};
    zenk_test::RawClient m_peer;
    std::thread m_thread;
};

TEST_F(WCServer, RepliesWithTheRequestsFieldsAndItsOwnTimesAndAllocatesNothing) {
    start();
    zenk_test::failAllocationOf(m_thread.native_handle(), 0);
    const std::string request = "\x07\xC8\x11\x5A"s + "freqoriginatereceive!transmit";
    // Receive time, two reads that measure 1000 ns, transmit time; then the same with 7 ns.
    script({{100, 0}, {1, 0}, {1, 1000}, {101, 999'999'999}});
    const std::string first = ask(request), second = (script({{102, 5555}, {1, 0}, {1, 7}, {103, 5555}}), ask(request));
    EXPECT_EQ(first.substr(0, 20), "\x07\x01\xED\x5A\x00\x00\x01\xF4originat\0\0\0\x64"s);
    EXPECT_EQ(first.substr(24), "\0\0\0\x65\x3B\x9A\xC6\x18"s) << "999,999,000";
    EXPECT_EQ(second.substr(16), "\0\0\0\x66\0\0\x13\x88\0\0\0\x67\0\0\x15\xAF"s) << "5000 by the earlier tick, 5551";
    EXPECT_FALSE(zenk_test::stopFailing());
}

TEST_F(WCServer, AnswersFromTheAddressThatWasAsked) {
    start();
    const zenk::Socket device(SOCK_DGRAM);
    const sockaddr_in asked{AF_INET, htons(static_cast<in_port_t>(m_port)), {htonl(INADDR_LOOPBACK + 1)}, {}};
    ASSERT_EQ(connect(device.fd(), reinterpret_cast<const sockaddr*>(&asked), sizeof asked), 0);
    const timeval patience{2, 0};
    setsockopt(device.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    char bytes[32] = {};
    EXPECT_EQ(send(device.fd(), bytes, sizeof bytes, 0), 32);
    EXPECT_EQ(recv(device.fd(), bytes, sizeof bytes, 0), 32) << "from another address it does not arrive";
}

TEST_F(WCServer, StaysInItsBufferAndEndsAtTheWakeWordOrTheStopWhateverIsLeftThere) {
    start(std::string(128, 'A'));
    EXPECT_EQ(ask(std::string(10, 'b')).substr(8, 8), "bbAAAAAA");
    EXPECT_EQ(ask("quitwc").size(), 32U) << "a b follows it in the buffer still";
    m_peer.send("quitwc\0junk"s);
    join();
    for (const char left : {'\0', 'z'}) {
        EXPECT_EQ(start("").substr(8, 8), std::string(8, '\0')) << "a new run forgets";
        ask(std::string(129, left));
        stop();
    }
}

TEST_F(WCServer, LeavesDatagramsUnreadWhileIdleAndStopsThen) {
    start();
    enable(false);
    for (int i = 0; i < 3; ++i) m_peer.send("");
    stop();
    EXPECT_LE(m_peer.receive(64, zenk_test::Milliseconds(10)).size(), 32U) << "only the next one may still be answered";
}

TEST_F(WCServer, OfManyStartsOneServes) {
    std::string anyPort = "0";  // the bind lets all of them through
    ZenkCSSWCServer server(anyPort);
    std::atomic<int> ended = 0;
    std::deque<std::jthread> starts;
    for (int i = 0; i < 4; ++i) starts.emplace_back([&] { server.startWCServer(), ++ended; });
    EXPECT_TRUE(waitUntil([&] { return ended == 3; }));
    EXPECT_TRUE(waitUntil([&] { return server.stopWCServer(), ended == 4; }));
}

}  // namespace
