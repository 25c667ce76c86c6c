// What the service makes of a connection's events, which the test raises one by one.
#include "wsserver/websocket_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "tests/support/front_end.h"

namespace {

using namespace std::string_literals;
using zenk_test::Action;

struct RecordingClient : Client {
    int onFilterConnection() override { return throws ? throw std::runtime_error("full") : 403; }
    void onConnect() override { heard += "connect "; }
    void onMessage(unsigned char* message, int length, bool binary) override {
        heard += binary ? "binary " : "text ";
        last.assign(message, message + std::min(length + 1, static_cast<int>(kMaxMessageBytes)));
        if (throws) throw std::runtime_error("bad message");
    }
    int onClose() override { return heard += "close ", -1; }
    std::string heard, last;
    bool throws = false;
};

class Service : public testing::Test {
protected:
    Service() {
        zenk_test::takeActions();  // an earlier test's
        EXPECT_EQ(startWebSocketServer(7681, &client), 0);
    }
    int raise(int reason, const void* in = nullptr, std::size_t length = 0) {
        return zenk_test::g_raise(&connection, reason, session.get(), const_cast<void*>(in), length);
    }
    void receive(const std::string& fragment, bool isFinal, bool isBinary) {
        connection.isFinal = isFinal;
        connection.isBinary = isBinary;
        EXPECT_EQ(raise(zenk_ws::kEventReceive, fragment.data(), fragment.size()), 0);
        const auto isUsed = [](unsigned char byte) { return byte != 0; };
        EXPECT_NE(isFinal, session->rx != 0 || std::any_of(std::begin(session->buf), std::end(session->buf), isUsed));
    }

    RecordingClient client;
    std::unique_ptr<ClientSessionData> session = std::make_unique<ClientSessionData>();
    lws connection{7};
};

TEST_F(Service, HandsEventsOnAndSurvivesAClientThatThrows) {
    const std::tuple<int, const char*, int> cases[] = {
        {20, "", 403}, {0, "", 0}, {4, "", -1}, {26, "permessage-deflate", 0}, {26, "x", 1}, {99, "", 0}};
    for (const auto& [event, in, result] : cases) EXPECT_EQ(raise(event, in), result) << event;
    EXPECT_EQ(client.heard, "connect close ");
    EXPECT_TRUE(client.m_wsi == &connection && client.m_sessionData == session.get());
    client.throws = true;
    EXPECT_EQ(raise(20), 503);
    receive("boo", false, false);
    receive("m", true, false);
    EXPECT_EQ(client.last, "boom\0"s);
    close(STDIN_FILENO);
    EXPECT_EQ(startWebSocketServer(7681, &client), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC) << "its number must not go to a connection";
}

// Nothing here asks for this event, but a host's layer may.
TEST_F(Service, SendsTheLastFragmentBackWhenWriteable) {
    const Action begun{Action::kWrite, &connection, 1 | 64, "ab"}, goesOn{Action::kWrite, &connection, 2 | 64, "ab"},
        resumed{Action::kReception, &connection, 1, ""};
    receive("ab", false, true);
    using Written = std::pair<std::optional<int>, int>;
    for (const auto& [written, result] : {Written{-5, 1}, {1, -1}, {std::nullopt, 0}, {std::nullopt, 0}}) {
        zenk_test::g_writeResult = written;
        EXPECT_EQ(raise(11), result);
    }
    EXPECT_EQ(zenk_test::takeActions(), (std::vector{begun, goesOn, goesOn, resumed}))
        << "nothing is left to send then";
    receive(std::string(kMaxMessageBytes + 100, 'x'), true, true);
    EXPECT_EQ(raise(11), 0);
    EXPECT_EQ(zenk_test::takeActions().front().bytes.size(), kMaxMessageBytes);
}

}  // namespace
