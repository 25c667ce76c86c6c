#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/clock/seams.h"
#include "tests/support/allocation_count.h"
#include "tests/support/net_util.h"
#include "tests/support/sanitizer.h"
#include "tests/support/wall_clock_client.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"
#ifdef ZENK_WCPROBE
#include <nlohmann/json.hpp>
#endif

namespace {

using zenk_test::waitUntil;
using Reply = zenk_test::WallClockClient::Reply;

class UdpPeer : public zenk_test::WallClockClient {
public:
    using WallClockClient::WallClockClient;
    Reply ask(const std::string& bytes) {
        Reply reply{};
        send(bytes);
        EXPECT_TRUE(receive(reply)) << "no reply to " << bytes.size() << " bytes";
        return reply;
    }
};

std::string slice(const Reply& reply, std::size_t from, std::size_t count) {
    return std::string(reply.begin() + static_cast<long>(from), reply.begin() + static_cast<long>(from + count));
}

// Originate times of a reply: what the server read from bytes 8 to 15 of its buffer.
std::string originate(const Reply& reply) {
    return slice(reply, 8, 8);
}

class WCServer : public testing::Test {
protected:
    WCServer() {
        std::string text = std::to_string(m_port) + "x";  // the sockets read the number only
        m_server = std::make_unique<ZenkCSSWCServer>(text);
    }
    ~WCServer() override {
        if (m_thread.joinable()) stop();
    }

    void enable(bool on) {
        std::atomic_ref(m_server->m_enableInterDevSync).store(static_cast<unsigned char>(on ? 1 : 0));
    }
    bool isBound() {
        std::ostringstream line;
        line << " 00000000:" << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << m_port << ' ';
        std::ifstream file("/proc/net/udp");
        const std::string sockets{std::istreambuf_iterator<char>(file), {}};
        return sockets.find(line.str()) != std::string::npos;
    }
    /// Runs the server on a thread until it is bound; `ready` waits for its first answer too and leaves zeros in its
    /// receive buffer.
    void start(bool ready = true) {
        enable(ready);
        m_hasEnded = false;
        m_thread = std::thread([this] {
            m_server->startWCServer();
            m_hasEnded = true;
        });
        ASSERT_TRUE(waitUntil([this] { return isBound(); }));
        if (ready) m_peer.ask(std::string(200, '\0'));
    }
    bool join() {
        const bool inTime = waitUntil([this] { return m_hasEnded.load(); });
        if (!inTime) std::abort();  // the thread cannot be left behind
        m_thread.join();
        return !isBound();
    }
    void stop() {
        waitUntil([this] {
            m_server->stopWCServer();
            return m_hasEnded.load();
        });
        EXPECT_TRUE(join());
    }

    const int m_port = zenk_test::freePort();
    std::unique_ptr<ZenkCSSWCServer> m_server;
    UdpPeer m_peer{m_port};
    std::thread m_thread;
    std::atomic<bool> m_hasEnded{true};
};

TEST_F(WCServer, RepliesWithTheRequestsFieldsAndItsOwnTimes) {
    start();
    const std::string request = std::string("\x07\xC8\x11\x5A", 4) + "freqoriginatereceive!transmit";
    // Receive time, two reads that measure 1000 ns, transmit time; then the same with 7 ns.
    seams::scriptReads({{100, 0}, {1, 0}, {1, 1000}, {101, 999'999'999}});
    const Reply first = m_peer.ask(request);
    EXPECT_EQ(slice(first, 0, 8), std::string("\x07\x01\xED\x5A\x00\x00\x01\xF4", 8));
    EXPECT_EQ(originate(first), "originat");
    EXPECT_EQ(slice(first, 16, 4), std::string("\0\0\0\x64", 4));
    EXPECT_EQ(slice(first, 24, 8), std::string("\0\0\0\x65\x3B\x9A\xC6\x18", 8));  // 999,999,000
    seams::scriptReads({{102, 5555}, {1, 0}, {1, 7}, {103, 5555}});
    const Reply second = m_peer.ask(request);
    EXPECT_EQ(slice(second, 16, 8), std::string("\0\0\0\x66\0\0\x13\x88", 8)) << "cut by the earlier tick: 5000";
    EXPECT_EQ(slice(second, 24, 8), std::string("\0\0\0\x67\0\0\x15\xAF", 8)) << "cut by its own tick: 5551";
    EXPECT_EQ(seams::readsLeft(), 0u);
}

TEST_F(WCServer, ForgetsOldDatagramsAtItsStart) {
    start();
    m_peer.ask(std::string(128, 'A'));
    EXPECT_EQ(originate(m_peer.ask(std::string(10, 'b'))), "bbAAAAAA");
    stop();
    start(false);
    enable(true);
    EXPECT_EQ(originate(m_peer.ask("")), std::string(8, '\0'));
}

TEST_F(WCServer, PrintsBothLinesAndStaysInsideItsBuffer) {
    start();
    testing::internal::CaptureStdout();
    m_peer.ask(std::string(128, 'A'));
    m_peer.ask(std::string(129, 'B'));
    stop();
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string sent = "##MS## send msg to wc client, len=32\n";
    const std::string expected = "##MS## receive msg from wc client, len=128,msg:" + std::string(128, 'A') + "\n" +
                                 sent + "##MS## receive msg from wc client, len=128,msg:" + std::string(128, 'B') +
                                 "\n" + sent;
    EXPECT_EQ(printed.substr(0, expected.size()), expected);
}

TEST_F(WCServer, EndsAtTheWakeWordOnly) {
    start();
    m_peer.ask("quitwcx");
    m_peer.ask("quitwc");  // an x follows it in the buffer still
    m_peer.send(std::string("quitwc\0junk", 11));
    EXPECT_TRUE(join());
    EXPECT_FALSE(m_peer.hasMore());
    start();
    m_peer.send("quitwc");
    EXPECT_TRUE(join());
    m_server->stopWCServer();
}

TEST_F(WCServer, StopsWhileAnsweringWhateverItsBufferHolds) {
    for (const char left : {'\0', 'z'}) {
        start();
        m_peer.ask(std::string(32, left));
        m_server->stopWCServer();
        EXPECT_TRUE(join());
    }
}

TEST_F(WCServer, KeepsDatagramsWaitingWhileIdle) {
    start(false);
    m_peer.send(std::string(32, 'q'));
    EXPECT_FALSE(m_peer.hasMore());
    enable(true);
    Reply reply;
    ASSERT_TRUE(m_peer.receive(reply));
    EXPECT_EQ(originate(reply), "qqqqqqqq");
    enable(false);
    for (int i = 0; i < 3; ++i) m_peer.send("");
    stop();
    EXPECT_FALSE(m_peer.hasMore() && m_peer.hasMore()) << "only the next datagram may still be answered";
}

TEST_F(WCServer, AnswersEachRequestOfManySocketsOnce) {
    constexpr int kSockets = 8;
    constexpr int kRounds = 500;
    start();
    std::vector<UdpPeer> peers;
    for (int i = 0; i < kSockets; ++i) peers.emplace_back(m_port);
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kSockets; ++i) {
        threads.emplace_back([&, i] {
            UdpPeer& peer = peers[static_cast<std::size_t>(i)];
            for (int round = 0; round < kRounds; ++round) {
                std::string mark = std::to_string(10'000'000 + i * kRounds + round);
                if (originate(peer.ask(std::string(8, '\0') + mark)) == mark) ++right;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    stop();
    EXPECT_EQ(right, kSockets * kRounds);
    EXPECT_TRUE(std::none_of(peers.begin(), peers.end(), [](UdpPeer& peer) { return peer.hasMore(); }));
}

TEST_F(WCServer, APassAllocatesNothing) {
    if (zenk_test::kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator is not counted";
    const std::string request(32, 'r');
    start();
    const std::size_t before = zenk_test::allocationCount();
    EXPECT_NE(std::make_unique<std::string>(100, 'x'), nullptr);
    ASSERT_GT(zenk_test::allocationCount(), before) << "the counter counts";
    m_peer.ask(request);
    const std::size_t quiet = zenk_test::allocationCount();
    for (int i = 0; i < 100; ++i) m_peer.ask(request);
    EXPECT_EQ(zenk_test::allocationCount(), quiet);
}

#ifdef ZENK_WCPROBE
/// Runs the probe; @return its standard output and exit code.
std::pair<std::string, int> runProbe(const std::string& arguments) {
    FILE* const probe = popen((ZENK_WCPROBE " " + arguments + " 2>/dev/null").c_str(), "r");
    std::string output;
    for (int c; (c = std::fgetc(probe)) != EOF;) output += static_cast<char>(c);
    return {output, WEXITSTATUS(pclose(probe))};
}

TEST_F(WCServer, TheProbeFindsNoMoreOffsetThanItsDispersionOnOneMachine) {
    const std::string arguments = "udp://127.0.0.1:" + std::to_string(m_port) + " --count 30 --interval 1 --json";
    EXPECT_EQ(runProbe(arguments + " --timeout 1").second, 1) << "nothing answers";
    EXPECT_EQ(runProbe("127.0.0.1 --json").second, 2) << "no port";
    start();
    const auto [output, exitCode] = runProbe(arguments);
    ASSERT_EQ(exitCode, 0);
    const nlohmann::json report = nlohmann::json::parse(output);
    EXPECT_EQ(report["answered"].get<int>() + report["lost"].get<int>(), 30);
    EXPECT_LT(std::abs(report["offset_ns"].get<double>()), report["dispersion_ns"].get<double>());
    EXPECT_EQ(report["server_clock"]["max_freq_error"], 500);
}
#endif

TEST_F(WCServer, TheLastOneBuiltIsTheInstance) {
    EXPECT_EQ(ZenkCSSWCServer::m_instance, m_server.get());
    { ZenkCSSWCServer other; }
    EXPECT_EQ(ZenkCSSWCServer::m_instance, nullptr);
}

}  // namespace
