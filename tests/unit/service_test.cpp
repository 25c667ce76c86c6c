// What the service makes of a connection's events, which the test raises one by one.
#include "wsserver/websocket_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/support/recording_websockets.h"
#include "wsserver/utf8_cut.h"

namespace {

using zenk_test::Action;

struct RecordingClient : Client {
    int onFilterConnection() override { return throws ? throw std::runtime_error("full") : 403; }
    void onConnect() override { heard += "connect "; }
    void onMessage(unsigned char* message, int length, bool binary) override {
        heard += binary ? "binary " : "text ";
        last.assign(message, message + length);
        byteBehind = message[length];
        if (throws) throw std::runtime_error("bad message");
    }
    int onClose() override { return heard += "close ", -1; }
    std::string heard, last;
    unsigned char byteBehind = 0;
    bool throws = false;
};

class Service : public testing::Test {
protected:
    Service() {
        zenk_test::resetLayer();
        EXPECT_EQ(startWebSocketServer(7681, &client), 0);
        wsi = zenk_test::openConnection(7, "/");
    }
    int raise(int reason, const void* in = nullptr, std::size_t length = 0) {
        const auto callback = zenk_test::lastCreationInfo().protocols[0].callback;
        return callback(wsi, reason, session.get(), const_cast<void*>(in), length);
    }
    void receive(const std::string& fragment, bool isFinal, bool isBinary = false) {
        zenk_test::setFragment(wsi, isFinal, isBinary);
        EXPECT_EQ(raise(zenk_ws::kEventReceive, fragment.data(), fragment.size()), 0);
    }
    bool isAtRest() const {
        return session->rx == 0 && std::all_of(std::begin(session->buf), std::end(session->buf), std::logical_not<>());
    }

    RecordingClient client;
    std::unique_ptr<ClientSessionData> session = std::make_unique<ClientSessionData>();
    lws* wsi = nullptr;
};

TEST_F(Service, HandsEventsOnAndSurvivesAClientThatThrows) {
    const struct {
        int event;
        const char* in;
        int result;
    } cases[] = {{20, "", 403}, {0, "", 0}, {4, "", -1}, {26, "permessage-deflate", 0}, {26, "other", 1}, {99, "", 0}};
    for (const auto& row : cases) EXPECT_EQ(raise(row.event, row.in), row.result) << row.event;
    EXPECT_EQ(client.heard, "connect close ");
    EXPECT_TRUE(client.m_wsi == wsi && client.m_sessionData == session.get());
    raise(17);
    EXPECT_EQ(client.m_socketFd, 7);
    client.throws = true;
    EXPECT_EQ(raise(20), 503);
    receive("boom", true);
    EXPECT_TRUE(isAtRest());
}

TEST_F(Service, GathersFragmentsCutsThemAtTheLimitAndLeavesNothingBehind) {
    const std::string half(20000, 'x'), full(kMaxMessageBytes, 'a');
    const struct {
        std::vector<std::string> fragments;
        bool isBinary;
        std::string whole;
        int overruns;
    } cases[] = {{{half, half}, true, half + half, 0},
                 {{"short"}, false, "short", 0},
                 {{"abc", ""}, false, "abc", 0},
                 {{""}, false, "", 0},
                 {{full, ""}, true, full, 0},
                 {{full.substr(1), "bcd", "e", ""}, true, full.substr(1) + "b", 2},
                 {{full.substr(1), "\xC3\xA9", ""}, false, full.substr(1), 1}};
    for (const auto& row : cases) {
        testing::internal::CaptureStdout();
        for (const std::string& each : row.fragments) receive(each, &each == &row.fragments.back(), row.isBinary);
        const std::string told = testing::internal::GetCapturedStdout();
        EXPECT_EQ(client.last, row.whole);
        EXPECT_EQ(client.byteBehind * (row.whole.size() < kMaxMessageBytes), 0U);
        EXPECT_TRUE(isAtRest());
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), row.overruns) << told;
    }
    EXPECT_EQ(client.heard, "binary text text text binary binary text ");
    for (const auto& [text, whole] : {std::pair{"", 0U},
                                      {"a\xC3", 1U},
                                      {"\xE2\x82\xAC", 3U},
                                      {"b\xF0\x9F\x98", 1U},
                                      {"\xF0\x9F\x98\x80", 4U},
                                      {"\x80\x80\x80\x80\x80", 5U}}) {
        EXPECT_EQ(wholeUtf8Length(reinterpret_cast<const unsigned char*>(text), std::strlen(text)), whole) << text;
    }
}

// Nothing here asks for this event, but a host's layer may.
TEST_F(Service, SendsTheLastFragmentBackWhenWriteable) {
    EXPECT_EQ(raise(11), 0);
    receive("ab", false, true);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(raise(11), 0) << "the second time there is nothing to send";
    receive(std::string(kMaxMessageBytes + 100, 'x'), true, true);
    EXPECT_EQ(raise(11), 0);
    const auto actions = zenk_test::takeActions();
    ASSERT_EQ(actions.size(), 4U);
    EXPECT_EQ(actions[0], (Action{Action::kWrite, wsi, 1 | 64, "ab"}));
    EXPECT_EQ(actions[1], (Action{Action::kReception, wsi, 1, ""}));
    EXPECT_EQ(actions[2], (Action{Action::kWrite, wsi, 2, std::string(kMaxMessageBytes, '\0')})) << "a continuation";
    receive("def", true);
    for (const auto& [written, result] : {std::pair{-5, 1}, {2, -1}}) {
        zenk_test::setWriteResult(written);
        EXPECT_EQ(raise(11), result);
    }
}

}  // namespace
