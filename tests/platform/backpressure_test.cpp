// A reader that stalls costs bounded memory, loses nothing, and is nobody else's trouble.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/ws_limits.h"
#include "tests/platform/layer_server.h"
#include "tests/support/child_process.h"
#include "tests/support/net_util.h"
#include "tests/support/raw_client.h"
#include "tests/support/sanitizer.h"
#include "tests/support/ws_client.h"

namespace zenk_test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

constexpr std::size_t kMessageBytes = 100'000;

void expectGrowthBelow(std::size_t before, std::size_t bytes) {
    if (!kIsSanitized) {
        EXPECT_LT(residentBytes(), before + bytes);
    }
}

std::string message(int number) {
    std::string payload(kMessageBytes, static_cast<char>('a' + number % 26));
    payload.replace(0, 8, std::to_string(10'000'000 + number));
    return payload;
}

class Backpressure : public LayerTest {
protected:
    void serve() {
        LayerTest::serve();
        ASSERT_TRUE(m_sender.upgrade(m_port, "/l/a"));
        ASSERT_TRUE(m_reader.upgrade(m_port, "/r/a"));
        ASSERT_NE(connectionOf("/r/a"), nullptr);
    }
    /// Sends until the server takes no more. @return how many whole messages it took
    int fill(int most) {
        for (int i = 0; i < most; ++i) {
            m_unsent = clientFrame(0x82, message(i));
            if (!m_sender.send(m_unsent, 500ms)) return i;
        }
        return most;
    }
    void expectMessages(int first, int end) {
        for (int i = first; i < end; ++i) {
            const std::string frame = serverFrame(0x82, message(i));
            ASSERT_TRUE(m_reader.receive(frame.size()) == frame) << i;
        }
    }

    RawClient m_sender, m_reader;
    std::string m_unsent;
};

TEST_F(Backpressure, EndsAStoppedSenderThatWasReset) {
    serve();
    ASSERT_LT(fill(1000), 1000);
    m_sender.reset();
    EXPECT_TRUE(waitUntil([&] { return m_server->connection("/l/a") == nullptr; }, 3s));
}

TEST_F(Backpressure, ServesAStoppedSenderThatHasFinishedToTheEnd) {
    serve();
    constexpr int kMessages = 60;
    std::jthread sending([&] {
        for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(m_sender.send(clientFrame(0x82, message(i)), 60s));
        ASSERT_TRUE(m_sender.send(clientFrame(0x88, "\x03\xE8"), 60s));
        m_sender.finishSending();
    });
    std::this_thread::sleep_for(1500ms);  // the stall: nothing is awaited, the reader just does not read
    expectMessages(0, kMessages);
    EXPECT_EQ(m_reader.receive(4), "\x88\x02\x03\xE8"sv);
}

TEST_F(Backpressure, LetsTheSenderGoWhenItsStalledPartnerDies) {
    serve();
    ASSERT_LT(fill(1000), 1000);
    m_reader.reset();
    EXPECT_EQ(m_sender.receive(4), "\x88\x02\x03\xE8"sv);
}

TEST_F(Backpressure, EndsAPartnerThatTakesNothingForTooLong) {
    zenk_ws::limits().backlogStall = 1s;
    zenk_ws::limits().closeStall = 1s;
    serve();
    ASSERT_LT(fill(1000), 1000);
    EXPECT_TRUE(waitUntil([&] { return m_server->connection("/r/a") == nullptr; }));
    EXPECT_EQ(m_sender.receive(4), "\x88\x02\x03\xE8"sv);
}

TEST_F(Backpressure, CutsAReaderThatTheHostFloods) {
    serve();
    lws* const wsi = m_server->connection("/r/a");
    const std::string load(100'000, 'h');
    const std::size_t before = residentBytes();
    const bool isCut = waitUntil(
        [&] { return zenk_ws::lws_write(wsi, load.data(), static_cast<int>(load.size()), zenk_ws::kWriteBinary) < 0; });
    EXPECT_TRUE(isCut);
    expectGrowthBelow(before, std::size_t{32} * 1024 * 1024);
    EXPECT_EQ(m_sender.receive(4), "\x88\x02\x03\xE8"sv);
}

/// What a host sends while the service thread is busy.
class HostBurst : public LayerTest {
protected:
    void SetUp() override {
        serve();
        m_server->onPiece = [this](lws*, const std::string&, const std::string&) {
            m_isBusy = true;
            waitUntil([this] { return m_mayGoOn.load(); });
        };
        ASSERT_TRUE(m_first.connect(m_port, "/l/first"));
        ASSERT_TRUE(m_second.connect(m_port, "/l/second"));
        ASSERT_NE(connectionOf("/l/second"), nullptr);
        m_first.sendText("be busy");
        ASSERT_TRUE(waitUntil([this] { return m_isBusy.load(); }));
    }
    int send(const char* to, std::size_t bytes) {
        const std::string load(bytes, 'h');
        return zenk_ws::lws_write(m_server->connection(to), load.data(), static_cast<int>(bytes), zenk_ws::kWriteText);
    }
    /// @return the length of the next message, or -1 when there comes none
    static int takenBy(WsClient& client) {
        const auto message = client.receive();
        return message ? static_cast<int>(message->data.size()) : -1;
    }

    std::atomic<bool> m_isBusy = false, m_mayGoOn = false;
    WsClient m_first, m_second;
};

TEST_F(HostBurst, TakesAnyMessageThatNothingWaitsBefore) {
    send("/l/first", 20'000'000);
    send("/l/first", 1);
    m_mayGoOn = true;
    EXPECT_EQ(takenBy(m_first), 20'000'000);
    EXPECT_EQ(takenBy(m_first), 1);
}

TEST_F(HostBurst, CutsNobodyElseForTheLengthOfOneMessage) {
    zenk_ws::limits().hostTotalBytes = 6'000'000;
    send("/l/second", 1'000'000);
    send("/l/first", 20'000'000);
    m_mayGoOn = true;
    EXPECT_EQ(takenBy(m_second), 1'000'000);
    EXPECT_EQ(takenBy(m_first), 20'000'000);
}

TEST_F(HostBurst, CutsWhomItBringsMoreThanTheMark) {
    int sent = 0;
    while (sent < 200'000 && send("/l/first", 0) == 0) ++sent;
    EXPECT_LT(sent, 200'000) << "messages without a byte fill the memory";
    send("/l/second", 100'000);
    m_mayGoOn = true;
    EXPECT_EQ(takenBy(m_first), -1);
    EXPECT_EQ(takenBy(m_second), 100'000);
}

TEST_F(HostBurst, CutsWhoHasMostWhenAllTogetherHaveTooMuch) {
    zenk_ws::limits().hostTotalBytes = 6'000'000;
    send("/l/first", 4'000'000);
    send("/l/second", 1'000'000);
    EXPECT_EQ(send("/l/second", 1'500'000), 1'500'000);
    m_mayGoOn = true;
    EXPECT_EQ(takenBy(m_first), -1);
    EXPECT_EQ(takenBy(m_second), 1'000'000);
    EXPECT_EQ(takenBy(m_second), 1'500'000);
}

TEST_F(Backpressure, SlowsAClientDownThatFloodsItself) {
    serve();
    m_server->onPiece = [](lws* wsi, const std::string&, const std::string& piece) {
        zenk_ws::lws_write(wsi, piece.data(), static_cast<int>(piece.size()), zenk_ws::kWriteBinary);
    };
    const std::size_t before = residentBytes();
    ASSERT_LT(fill(1000), 1000);
    expectGrowthBelow(before, std::size_t{16} * 1024 * 1024);
    EXPECT_NE(m_server->connection("/l/a"), nullptr);
}

TEST_F(Backpressure, HoldsAClientForItsCaller) {
    serve();
    lws* const wsi = m_server->connection("/l/a");
    zenk_ws::lws_rx_flow_control(wsi, 0);
    zenk_ws::lws_write(m_server->connection("/r/a"), "", 0, zenk_ws::kWriteText);
    ASSERT_EQ(m_reader.receive(2), "\x81\0"sv);  // so the request before it has been served too
    m_sender.send(clientFrame(0x82, "one"));
    EXPECT_EQ(m_reader.receive(1, 300ms), "");
    zenk_ws::lws_rx_flow_control(wsi, 1);
    EXPECT_EQ(m_reader.receive(5), "\x82\x03one");
}

// Whoever is told to go is read, so that its answer is seen. What it floods us with meanwhile is nobody's any more.
TEST_F(Backpressure, TakesNothingMoreFromAClientThatIsToldToGo) {
    zenk_ws::limits().closeStall = 1s;
    LayerTest::serve();
    enum Held { ByTheHost, ByItsPartner, TooLate };
    const std::string load(7'000'000, 'h');  // the client reads nothing, so the close frame waits behind this
    for (const Held held : {ByTheHost, ByItsPartner, TooLate}) {
        SCOPED_TRACE(held);
        const std::string name = std::to_string(held);
        RawClient client, partner;
        ASSERT_TRUE(client.upgrade(m_port, "/l/" + name));
        ASSERT_TRUE(partner.upgrade(m_port, "/r/" + name));
        lws* const wsi = connectionOf("/l/" + name);
        const auto flood = [&] {
            for (int i = 0; i < 200 && client.send(clientFrame(0x82, message(i)), 500ms); ++i) continue;
        };
        connectionOf("/r/" + name);
        zenk_ws::lws_write(wsi, load.data(), static_cast<int>(load.size()), zenk_ws::kWriteBinary);
        if (held == ByTheHost) zenk_ws::lws_rx_flow_control(wsi, 0);
        if (held == ByItsPartner) flood();
        zenk_ws::lws_close(wsi, 1001);
        if (held == TooLate) zenk_ws::lws_rx_flow_control(wsi, 0);
        const int before = m_server->counts().finalFragments;
        flood();
        EXPECT_LE(m_server->counts().finalFragments, before + 1) << "but for one that was on its way";
        EXPECT_TRUE(waitUntil([&] { return m_server->connection("/l/" + name) == nullptr; }));
    }
}

TEST_F(Backpressure, FindsAHeldClientThatVanished) {
    zenk_ws::limits().pingAfter = 1s;
    zenk_ws::limits().hangUpAfter = 2s;
    serve();
    zenk_ws::lws_rx_flow_control(m_server->connection("/l/a"), 0);
    zenk_ws::lws_write(m_server->connection("/r/a"), "", 0, zenk_ws::kWriteText);
    ASSERT_EQ(m_reader.receive(2), "\x81\0"sv);
    if (!m_sender.vanish()) GTEST_SKIP() << "the system lets no one vanish without a word";
    EXPECT_TRUE(waitUntil([&] { return m_server->counts().closed == 1; }));
}

}  // namespace
}  // namespace zenk_test
