#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>

#include "tests/support/allocation_count.h"
#include "tests/support/front_end.h"
#include "tests/support/plain_pairing.h"
#include "wsserver/paired_apps.h"

namespace {

using zenk_test::Action;
using zenk_test::Actions;
using zenk_test::PlainPairing;
using zenk_test::takeActions;
using zenk_test::text;

Actions completed(lws* local, lws* remote) {
    return {text(local, "pairingcompleted"), text(remote, "pairingcompleted")};
}

class Pairing : public zenk_test::FrontEnd {
protected:
    Pairing() { server.enablePairing = true; }
    lws* local(const std::string& rest) { return connect("/local/hbbtv/" + rest); }
    lws* remote(const std::string& rest) { return connect("/remote/hbbtv/" + rest); }
};

TEST(PairingUri, IsCutIntoSideAndEndpoint) {
    const struct {
        const char* uri;
        PairSide side;
        const char* endpoint;
    } cases[] = {{"/local/hbbtv/token/name", PairSide::kLocal, "/name"},
                 {"/remote/hbbtv/token/name", PairSide::kRemote, "/name"},
                 {"/local/hbbtv/token/name/more/", PairSide::kLocal, "/name/more/"},
                 {"/local/hbbtv/name", PairSide::kLocal, "name"},
                 {"/local/hbbtv/token/", PairSide::kLocal, "/"},
                 {"/local/hbbtv/", PairSide::kLocal, ""},
                 {"/local/hbbtv//hbbtv/x", PairSide::kLocal, "/hbbtv/x"},
                 {"/local/hbbtv/name?a=b/c", PairSide::kLocal, "/c"},
                 {"/remote/hbbtv/token/name?x", PairSide::kRemote, "/name?x"},
                 {"", PairSide::kLocal, ""},
                 {"/hbbtv/remote", PairSide::kLocal, "remote"},
                 {"/remote", PairSide::kRemote, ""}};
    for (const auto& [uri, side, endpoint] : cases) {
        const PairingUri cut = cutPairingUri(uri);
        EXPECT_EQ(cut.side, side) << uri;
        EXPECT_EQ(cut.endpoint, endpoint) << uri;
    }
}

TEST_F(Pairing, JoinsTwoSidesOfOneEndpointAndRelaysBothWays) {
    lws* const tv = local("token/app");
    message(tv, "too early");
    EXPECT_EQ(takeActions(), Actions{}) << "a side without a partner is heard by nobody";
    lws* const phone = remote("other/app");
    EXPECT_EQ(takeActions(), completed(tv, phone));
    message(tv, "to phone");
    message(phone, std::string("\0b", 2), true);
    message(phone, "");
    EXPECT_EQ(takeActions(),
              (Actions{text(phone, "to phone"), {Action::kWrite, tv, 1, std::string("\0b", 2)}, text(tv, "")}));

    lws* const waitingPhone = remote("t/second");
    lws* const lateTv = local("t/second");
    EXPECT_EQ(takeActions(), completed(lateTv, waitingPhone)) << "the local side hears first, whoever came last";
    lws* const third = local("token/app");
    message(third, "hello?");
    EXPECT_EQ(takeActions(), Actions{}) << "a third connection waits and disturbs nobody";
    message(tv, "undisturbed");
    EXPECT_EQ(takeActions(), Actions{text(phone, "undisturbed")});
}

// Sockets and endpoints are few, so that one socket often stands in several records, or on both sides of one.
TEST_F(Pairing, MatchesThePlainWalkInRandomSequences) {
    std::mt19937 random(20240607);
    const auto draw = [&random](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
    std::vector<lws*> connections;
    connections.reserve(8);
    for (int i = 0; i < 8; ++i) connections.push_back(zenk_test::openConnection(i, ""));
    PlainPairing plain;
    std::size_t longest = 0;
    const std::string endpoints[] = {"", "/a", "/ab", "/a?q"};
    std::string bytes = "m";
    for (int step = 0; step < 20000; ++step) {
        const int fd = draw(step % 2000 < 1000 ? 200 : 13);  // 0 is no socket
        const int side = draw(2);
        const std::string& endpoint = endpoints[draw(4)];
        lws* const wsi = draw(50) == 0 ? nullptr : connections[static_cast<std::size_t>(draw(8))];
        plain.isEnabled = server.enablePairing = draw(5) != 0;
        switch (draw(3)) {
            case 0:
                plain.connect(endpoint, side, fd, wsi);
                server.handlePairingConnection((side == 0 ? "/local/hbbtv/t" : "/remote/hbbtv/t") + endpoint, fd, wsi);
                break;
            case 1:
                ASSERT_EQ(server.handlePairingMsg(reinterpret_cast<unsigned char*>(bytes.data()), 1, fd, side == 0),
                          plain.message(fd, bytes, side == 0));
                break;
            default:
                ASSERT_EQ(server.handlePairingClose(fd), plain.close(fd));
        }
        ASSERT_EQ(takeActions(), std::exchange(plain.actions, {})) << "step " << step;
        longest = std::max(longest, plain.list.size());
    }
    EXPECT_GT(longest, 30u);
}

TEST_F(Pairing, RelaysWithoutAllocating) {
    lws* const tv = local("t/app");
    remote("t/app");
    std::string bytes(100, 'x');
    server.m_wsi = tv;
    zenk_test::setRecording(false);
    const std::size_t before = zenk_test::allocationCount();
    for (int i = 0; i < 100; ++i) server.onMessage(reinterpret_cast<unsigned char*>(bytes.data()), 100, false);
    EXPECT_EQ(zenk_test::allocationCount(), before);
}

}  // namespace
