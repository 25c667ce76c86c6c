#include "wsserver/websocket_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/support/recording_websockets.h"
#include "wsserver/utf8_cut.h"

namespace {

using zenk_test::Action;
using Trace = std::vector<std::string>;

constexpr int kPort = 7681;

struct RecordingClient : Client {
    int onFilterConnection() override {
        if (throws) throw std::runtime_error("full");
        return filterResult;
    }
    void onConnect() override { calls += "connect "; }
    void onMessage(unsigned char* message, int length, bool binary) override {
        calls += binary ? "binary " : "text ";
        last.assign(reinterpret_cast<char*>(message), static_cast<std::size_t>(length));
        byteBehind = message[length];
        if (throws) throw std::runtime_error("bad message");
    }
    int onClose() override {
        calls += "close ";
        return -1;
    }
    std::string calls, last;
    int filterResult = 0;
    unsigned char byteBehind = 0;
    bool throws = false;
};

/// A served connection whose events the test raises one by one.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        zenk_test::resetLayer();
        EXPECT_EQ(startWebSocketServer(kPort, &client), 0);
        wsi = zenk_test::openConnection(7, "/");
        zenk_test::takeLayerTrace();
    }

    int raise(int reason, const void* in = nullptr, std::size_t len = 0) {
        const zenk_ws::lws_protocols& protocol = zenk_test::lastCreationInfo().protocols[0];
        return protocol.callback(wsi, reason, session.get(), const_cast<void*>(in), len);
    }
    int receive(const std::string& fragment, bool isFinal, bool isBinary = false) {
        zenk_test::setFragment(wsi, isFinal, isBinary);
        return raise(zenk_ws::kEventReceive, fragment.data(), fragment.size());
    }
    bool isAtRest() const {
        const auto isZero = [](unsigned char byte) { return byte == 0; };
        return session->rx == 0 && std::all_of(std::begin(session->buf), std::end(session->buf), isZero);
    }

    RecordingClient client;
    std::unique_ptr<ClientSessionData> session = std::make_unique<ClientSessionData>();
    lws* wsi = nullptr;
};

TEST_F(ServiceTest, OpensTheServerAndEndsWithTheServiceLoop) {
    const zenk_ws::lws_context_creation_info& info = zenk_test::lastCreationInfo();
    EXPECT_EQ(std::make_tuple(info.port, info.gid, info.uid, info.options), std::make_tuple(kPort, -1, -1, 256u));
    EXPECT_EQ(info.iface, nullptr);
    EXPECT_STREQ(info.protocols[0].name, "");
    EXPECT_EQ(info.protocols[0].per_session_data_size, sizeof(ClientSessionData));
    EXPECT_EQ(info.protocols[0].rx_buffer_size, 131072u);
    EXPECT_EQ(info.protocols[1].callback, nullptr);

    zenk_test::setListening(false);
    std::signal(SIGINT, SIG_DFL);
    EXPECT_EQ(startWebSocketServer(kPort, &client), -1);
    EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_DFL) << "the handler comes only with a context";
    EXPECT_EQ(zenk_test::takeLayerTrace(),
              (Trace{"log level 7 to syslog", "create", "log 1 libwebsocket init failed\n"}));
}

// In a process of its own, since a stop is for ever.
TEST_F(ServiceTest, StopsOnSigintForGood) {
    const auto stopTwice = [this] {
        int passes = 0;
        ::close(STDIN_FILENO);
        zenk_test::setService([&passes] {
            if (++passes == 3) std::raise(SIGINT);
            return 0;
        });
        const int first = startWebSocketServer(kPort, &client);
        const bool isZeroTaken = ::fcntl(STDIN_FILENO, F_GETFD) == FD_CLOEXEC;
        const Trace once{"log level 7 to syslog", "create", "service 10", "service 10", "service 10", "destroy"};
        bool good = first == 0 && isZeroTaken && zenk_test::takeLayerTrace() == once;
        good = good && startWebSocketServer(kPort, &client) == 0 && passes == 3;
        good = good && zenk_test::takeLayerTrace() == Trace{"log level 7 to syslog", "create", "destroy"};
        std::_Exit(good ? 0 : 1);
    };
    EXPECT_EXIT(stopTwice(), testing::ExitedWithCode(0), "");
}

TEST_F(ServiceTest, HandsEventsToTheClient) {
    client.filterResult = 403;
    EXPECT_EQ(raise(20), 403);
    EXPECT_EQ(raise(0), 0);
    EXPECT_EQ(raise(4), -1);
    EXPECT_EQ(client.calls, "connect close ");
    EXPECT_EQ(raise(26, "permessage-deflate"), 0);
    EXPECT_EQ(raise(26, "permessage-bzip2"), 1);
    client.m_wsi = nullptr;
    client.m_sessionData = nullptr;
    EXPECT_EQ(raise(99), 0);
    EXPECT_EQ(client.m_wsi, wsi);
    EXPECT_EQ(client.m_sessionData, session.get());
    EXPECT_EQ(raise(17), 0);
    EXPECT_EQ(client.m_socketFd, 7);
}

TEST_F(ServiceTest, GathersFragmentsAndLeavesNothingBehind) {
    const std::string half(20000, 'x');
    EXPECT_EQ(receive(half, false, true), 0);
    EXPECT_EQ(client.calls, "");
    EXPECT_EQ(receive(half, true, true), 0);
    EXPECT_EQ(client.last, half + half);
    EXPECT_TRUE(isAtRest());
    EXPECT_EQ(session->len, 20000);
    EXPECT_EQ(zenk_test::takeActions(), (std::vector<Action>{{Action::kReleased, wsi, 40000, ""}}));

    receive("short", true);
    EXPECT_EQ(client.last, "short");
    EXPECT_EQ(client.byteBehind, 0);
    receive("abc", false);
    receive("", true);
    EXPECT_EQ(client.last, "abc");
    EXPECT_EQ(raise(zenk_ws::kEventReceive, nullptr, 0), 0);
    EXPECT_EQ(client.last, "");
    EXPECT_EQ(client.calls, "binary text text text ");
    EXPECT_TRUE(zenk_test::takeActions().empty()) << "small messages keep their pages";
}

TEST_F(ServiceTest, CutsOverlongMessagesAndReportsTheLimit) {
    const std::string full(kMaxMessageBytes, 'a');
    testing::internal::CaptureStdout();
    receive(full, false, true);
    receive("", true, true);
    EXPECT_EQ(client.last, full);
    EXPECT_TRUE(isAtRest());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "exactly the limit is no overrun";

    testing::internal::CaptureStdout();
    receive(full.substr(1), false, true);
    receive("bcd", false, true);
    receive("e", false, true);
    receive("", true, true);
    EXPECT_EQ(client.last, full.substr(1) + "b");
    EXPECT_TRUE(isAtRest());
    const std::string line = "#####, receive max length playload data!\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
}

TEST(Utf8Cut, KeepsWholeCharactersOnly) {
    const struct {
        const char* text;
        std::size_t whole;
    } cases[] = {{"", 0},
                 {"a", 1},
                 {"a\xC3", 1},
                 {"\xC3\xA9", 2},
                 {"\xE2\x82", 0},
                 {"\xE2\x82\xAC", 3},
                 {"b\xF0\x9F\x98", 1},
                 {"\xF0\x9F\x98\x80", 4},
                 {"\x80\x80\x80\x80\x80", 5}};
    for (const auto& [text, whole] : cases) {
        EXPECT_EQ(wholeUtf8Length(reinterpret_cast<const unsigned char*>(text), std::strlen(text)), whole) << text;
    }
}

TEST_F(ServiceTest, SendsTheLastFragmentBackWhenWriteable) {
    EXPECT_EQ(raise(11), 0);
    receive("ab", false, true);
    EXPECT_EQ(raise(11), 0);
    EXPECT_EQ(session->len, -1);
    EXPECT_EQ(raise(11), 0);
    receive("c", true, true);
    EXPECT_EQ(raise(11), 0);
    const std::vector<Action> expected{{Action::kWrite, wsi, 1 | 64, "ab"},
                                       {Action::kReception, wsi, 1, ""},
                                       {Action::kWrite, wsi, 2, std::string(1, '\0')},
                                       {Action::kReception, wsi, 1, ""}};
    EXPECT_EQ(zenk_test::takeActions(), expected);
    EXPECT_EQ(session->tx, 3u);
    EXPECT_EQ(session->continuation, 0);

    receive("def", true);
    zenk_test::setWriteResult(-5);
    EXPECT_EQ(raise(11), 1);
    zenk_test::setWriteResult(2);
    EXPECT_EQ(raise(11), -1);
    EXPECT_EQ(zenk_test::takeLayerTrace(),
              (Trace{"log 1 ERROR -5 writing to socket, hanging up\n", "log 1 Partial write\n"}));
    zenk_test::setWriteResult(std::nullopt);
    receive(std::string(kMaxMessageBytes + 100, 'x'), true);
    zenk_test::takeActions();
    EXPECT_EQ(raise(11), 0);
    EXPECT_EQ(zenk_test::takeActions()[0].bytes.size(), kMaxMessageBytes) << "never beyond the payload area";
}

TEST_F(ServiceTest, SurvivesAClientThatThrows) {
    client.throws = true;
    EXPECT_EQ(raise(20), 503);
    EXPECT_EQ(receive("boom", true), 0);
    EXPECT_TRUE(isAtRest());
    EXPECT_EQ(zenk_test::takeLayerTrace().size(), 2u);
}

}  // namespace
