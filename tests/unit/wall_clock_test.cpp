#include "wsserver/wall_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "tests/support/environment.h"
#include "wsserver/zenk_dvbCss.h"

using namespace std::string_literals;

// What the linker's wrap gives in the place of any clock. Never destroyed: detached threads read it until the very end.
static std::mutex g_mutex;
static auto& g_reads = *new std::deque<timespec>;
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

TEST(WallClock, CutsTheTimeByAUsableTick) {
    ZenkWallClock clock;
    timespec told{};
    clock_getres(CLOCK_MONOTONIC_COARSE, &told);
    clock.Initialize(WALLCLOCK_MONOTONIC_COARSE);
    // Within one tick, or held up for 3 s between the reads: neither tells anything.
    const long second = 1'000'000'000, begin = second - 1;
    for (const auto& [tick, cut] :
         {std::pair{600'000'000L, 600'000'000L}, {0L, told.tv_nsec}, {3 * second, told.tv_nsec}}) {
        script({{5, begin}, {5 + (begin + tick) / second, (begin + tick) % second}, {1, 123'456'789}});
        clock.GetPrecision();
        EXPECT_EQ(clock.GetWallClockTime().tv_nsec, 123'456'789 / cut * cut) << "of " << tick;
    }
}

TEST(WallClock, ReadsTheClockOfItsType) {
    ZenkWallClock clock;
    const clockid_t ids[] = {CLOCK_MONOTONIC, CLOCK_MONOTONIC_COARSE, CLOCK_MONOTONIC_RAW};
    for (int type = 0; type < 3; ++type) {
        clock.Initialize(static_cast<ZenkWallClockType>(type));
        clock.GetWallClockTime();
        EXPECT_EQ(g_lastClock, ids[type]);
    }
}

class WCServer : public testing::Test {
protected:
    /// The device asks 127.0.0.2: what comes from another address than the asked one does not arrive.
    WCServer() {
        const sockaddr_in asked{AF_INET, htons(static_cast<in_port_t>(m_port)), {htonl(INADDR_LOOPBACK + 1)}, {}};
        EXPECT_EQ(connect(m_device.fd(), reinterpret_cast<const sockaddr*>(&asked), sizeof asked), 0);
        m_server.m_enableInterDevSync = 1;
        const timeval patience{2, 0};
        setsockopt(m_device.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~WCServer() override {
        m_server.stopWCServer();
        delete ZenkCSSEventDispatcher::m_instance;
    }

    /// Runs the server on a thread. @return its reply to an empty datagram
    std::string start() {
        m_thread = std::jthread([this] { m_server.startWCServer(); });
        std::string reply;
        EXPECT_TRUE(zenk_test::waitUntil([&] { return !(reply = ask("")).empty(); }));
        return reply;
    }
    /// @return the reply, or nothing: at once while nobody has the port
    std::string ask(const std::string& bytes) {
        std::string reply(32, '\0');
        const bool isSent = send(m_device.fd(), bytes.data(), bytes.size(), 0) >= 0;
        return isSent && recv(m_device.fd(), reply.data(), 32, MSG_TRUNC) == 32 ? reply : "";
    }

    const int m_port = zenk_test::freePort();
    std::string m_text = std::to_string(m_port) + "x";  // the sockets read the number only
    ZenkWallClock m_clock;
    ZenkCSSWCServer m_server{m_text};
    const zenk::Socket m_device{SOCK_DGRAM};
    std::jthread m_thread;
};

TEST_F(WCServer, RepliesWithTheRequestsFieldsAndItsOwnTimesAndAllocatesNothing) {
    start();
    zenk_test::failAllocationOf(m_thread.native_handle(), 0);
    const std::string request = "\x07\xC8\x11\x5A"s + "freqoriginatereceive!transmit";
    // Receive time, two reads that measure 1000 ns, transmit time; then the same with 7 ns.
    script({{100, 0}, {1, 0}, {1, 1000}, {101, 999'999'999}});
    const std::string first = ask(request);
    script({{102, 5555}, {1, 0}, {1, 7}, {103, 5555}});
    const std::string second = ask(request);
    EXPECT_EQ(first.substr(0, 20), "\x07\x01\xED\x5A\x00\x00\x01\xF4originat\0\0\0\x64"s);
    EXPECT_EQ(first.substr(24), "\0\0\0\x65\x3B\x9A\xC6\x18"s) << "999,999,000";
    EXPECT_EQ(second.substr(16), "\0\0\0\x66\0\0\x13\x88\0\0\0\x67\0\0\x15\xAF"s) << "5000 by the earlier tick, 5551";
    EXPECT_FALSE(zenk_test::stopFailing());
}

TEST_F(WCServer, StaysInItsBufferEndsAtTheWakeWordAndIsSilentWhileIdle) {
    start();
    EXPECT_EQ(ask(std::string(129, 'A')).substr(8, 8), "AAAAAAAA");
    EXPECT_EQ(ask(std::string(10, 'b')).substr(8, 8), "bbAAAAAA");
    EXPECT_EQ(ask("quitwc").size(), 32U) << "a b follows it in the buffer still";
    EXPECT_EQ(ask("quitwc\0junk"s), "");
    m_thread.join();
    EXPECT_EQ(start().substr(8, 8), std::string(8, '\0')) << "a new run forgets";
    std::atomic_ref(m_server.m_enableInterDevSync).store(0);
    ask("z");  // may still be answered
    EXPECT_EQ(ask("z"), "");
}

}  // namespace
