// What the service makes of a connection's events, which the test raises one by one.
#include "wsserver/websocket_service.h"

#include <stdexcept>

#include "tests/support/front_end.h"

namespace zenk_test {
namespace {

using namespace zenk_ws;

/// Fails in all that it is asked.
struct FailingClient : Client {
    int onFilterConnection() override { throw std::runtime_error("full"); }
    void onConnect() override { throw std::runtime_error("no memory"); }
    void onMessage(unsigned char* message, int length, bool) override {
        last.assign(message, message + length + 1);
        throw std::runtime_error("bad message");
    }
    std::string last;  // and the byte behind it
};

TEST(Service, SurvivesAClientThatThrowsAndSendsTheLastFragmentBackWhenWriteable) {
    FailingClient client;
    ClientSessionData session{};
    lws wsi{7};
    const auto raise = [&](int event, std::string in = "") {
        return g_raise(&wsi, event, &session, in.data(), in.size());
    };
    ASSERT_EQ(startWebSocketServer(7681, &client), 0);
    EXPECT_EQ(raise(kEventFilterProtocolConnection), 503);
    EXPECT_EQ(raise(kEventClientConfirmExtension, "permessage-deflate"), 0);
    EXPECT_EQ(raise(kEventEstablished), 0);
    EXPECT_EQ(takeActions(), (std::vector<Action>{{Action::kClose, &wsi, 1011, ""}})) << "nobody would hear of it";
    for (const char* message : {"both", "m"}) EXPECT_EQ(raise(kEventReceive, message), 0);
    EXPECT_EQ(client.last, std::string("m\0", 2)) << "nothing is left of the message before";

    // Nothing here asks for the writeable event, but a host's layer may.
    wsi.isFinal = false;
    raise(kEventReceive, "ab");
    for (const auto& [written, result] : {std::pair{-5, 1}, {1, -1}, {2, 0}, {2, 0}}) {
        g_writeResult = written;
        EXPECT_EQ(raise(kEventServerWriteable), result);
    }
    const auto write = [&](int type) { return Action{Action::kWrite, &wsi, type | kWriteNoFin, "ab"}; };
    const Action begun = write(kWriteText), next = write(kWriteContinuation), resumed{Action::kReception, &wsi, 1, ""};
    EXPECT_EQ(takeActions(), (std::vector{begun, next, next, resumed}));
    raise(kEventReceive, std::string(kMaxMessageBytes + 100, 'x'));
    g_writeResult.reset();
    EXPECT_EQ(raise(kEventServerWriteable), 0);
    EXPECT_EQ(takeActions().front().bytes.size(), kMaxMessageBytes);
}

}  // namespace
}  // namespace zenk_test
