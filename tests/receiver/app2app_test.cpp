// Two applications find each other through the printed URLs.

#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/pair.h"
#include "tests/support/raw_client.h"
#include "tests/support/receiver.h"

using namespace zenk_test;

namespace {

/// Connects both sides of `name` by the printed URLs. @return true when they have heard of each other
bool meet(Receiver& receiver, const std::string& name, Pair& pair) {
    return pair.local.connect(receiver.port(), receiver.path("app2app-local") + name) &&
           pair.remote.connect(receiver.port(), receiver.path("app2app-remote") + name) &&
           pair.local.receiveText() == "pairingcompleted" && pair.remote.receiveText() == "pairingcompleted";
}

TEST(App2App, PairsRelaysBothWaysAndClosesThePartnerWith1000) {
    Receiver receiver;
    Pair pair;
    ASSERT_TRUE(meet(receiver, "game?level=3", pair));
    ASSERT_TRUE(pair.local.sendText("h\xc3\xa9llo"));
    EXPECT_EQ(pair.remote.receive(), (WsClient::Message{"h\xc3\xa9llo", false}));
    const std::string bytes("\x00\xff\x80 bytes", 9);
    ASSERT_TRUE(pair.remote.sendFragments({bytes.substr(0, 2), "", bytes.substr(2)}, true));
    EXPECT_EQ(pair.local.receive(), (WsClient::Message{bytes, true}));
    ASSERT_TRUE(pair.local.sendText(""));
    EXPECT_EQ(pair.remote.receive(), (WsClient::Message{"", false}));
    EXPECT_TRUE(pair.local.close());
    EXPECT_EQ(pair.remote.closeCode(), 1000);
    // A reset ends the partner too, and the endpoint can be used again.
    Pair next;
    ASSERT_TRUE(meet(receiver, "game?level=3", next));
    next.remote.reset();
    EXPECT_EQ(next.local.closeCode(), 1000);
    EXPECT_EQ(receiver.end(SIGTERM), 0);
}

TEST(App2App, WithoutPairingNothingIsExchanged) {
    Receiver receiver({"--no-pairing"});
    Pair pair;
    ASSERT_TRUE(pair.open(receiver.port(), "game"));
    ASSERT_TRUE(pair.local.sendText("hello?"));
    EXPECT_TRUE(pair.local.close());
    // The partner hears of the end, and of nothing before it.
    EXPECT_EQ(pair.remote.receive(), std::nullopt);
    EXPECT_EQ(pair.remote.closeCode(), 1000);
}

TEST(App2App, BadClientsDisturbNobodyAndLeaveNothing) {
    Receiver receiver;
    Pair pair;
    ASSERT_TRUE(meet(receiver, "quiet", pair));
    const std::size_t descriptors = receiver.process().openDescriptors();
    RawClient bad;
    ASSERT_TRUE(bad.connect(receiver.port()));
    bad.send("\x16\x03\x01 this is no HTTP \r\n\r\n");
    EXPECT_TRUE(bad.waitForEnd());
    bad.close();
    ASSERT_TRUE(bad.connect(receiver.port()));
    bad.send(handshakeRequest("/local/hbbtv/x/half").substr(0, 40));
    bad.reset();
    ASSERT_TRUE(bad.upgrade(receiver.port(), receiver.path("app2app-local") + "bad"));
    ASSERT_TRUE(bad.send("\xff\xff\xff\xff\xff\xff"));
    EXPECT_TRUE(bad.waitForEnd());
    bad.close();
    EXPECT_TRUE(waitUntil([&] { return receiver.process().openDescriptors() == descriptors; }));
    EXPECT_TRUE(pair.exchange());
}

}  // namespace
