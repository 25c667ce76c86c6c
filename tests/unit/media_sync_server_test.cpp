// Connections, observers and pairs over a stand-in of the layer: who is told what, and what is written to whom.
#include <climits>
#include <random>

#include "tests/support/front_end.h"
#include "wsserver/client_ids.h"

namespace zenk_test {
namespace {

/// Writes down what it hears of which client; `inCall` runs inside each of its calls.
struct Listener : ClientObserver {
    void onNewClient(char* uri, int id) override { note(id, uri); }
    void onMessage(unsigned char* message, int length, int id) override { note(id, {message, message + length}); }
    void onClientLeave(int id) override { note(id, "left"); }
    int getCssServerStatus() override { return status; }
    void note(int id, const std::string& what) { heard.emplace_back(id, what), inCall(); }

    int status = 0;
    std::vector<std::pair<int, std::string>> heard;
    std::function<void()> inCall = [] {};
};

TEST_F(FrontEnd, ObserversMayLeaveInsideACallAndUrlsOutliveTheirConnection) {
    const std::string longPath = "/a-path-too-long-to-stand-inside-a-string-object";
    Listener first, second;
    auto leaving = std::make_unique<Listener>();
    for (Listener* each : {leaving.get(), &first, leaving.get(), &second}) server.addObserver(each);
    first.inCall = [&] { leaving == nullptr ? server.removeObserver(&first) : leaving.reset(); };
    lws* const wsi = connect(longPath);
    const char* const url = second.getUrl(1);
    close(wsi);
    EXPECT_EQ(first.heard, (decltype(first.heard){{1, longPath}, {1, "left"}}));
    EXPECT_EQ(second.heard, first.heard) << "the walk neither skips nor repeats";
    for (int i = 0; i < 255; ++i) close(connect("/another"));
    EXPECT_EQ(url, longPath);
    EXPECT_EQ(nextClientId(INT_MAX - 1, {{1, nullptr}, {2, nullptr}, {INT_MAX, nullptr}}), 3) << "not one in use";
}

const int kRefusals[] = {0, 403, 503, 0};  // by the observer's status
const std::string kPrefixes[] = {"/local/hbbtv/", "/remote/hbbtv/", "/local/hbbtv?", "/Remote/hbbtv/"};
// What stands behind them, and the endpoint that it names behind the first two.
const std::pair<std::string, std::string> kRests[] = {
    {"token/a", "/a"}, {"a?b=c/a", "/a"}, {"a", "a"}, {"", ""}, {"/hbbtv/a", "/hbbtv/a"}, {"t/hbbtv/a", "/hbbtv/a"}};

// Connections come, speak and go on a few sockets, and the host changes its mind. Two peers of one record are a pair,
// and a newcomer takes the oldest record that waits for its side.
TEST_F(FrontEnd, FollowsItsModelInRandomSequences) {
    struct Peer {
        lws* wsi = nullptr;
        int id = 0, side = 2, record = 0;
        std::string endpoint = {};
        Peer* partner = nullptr;
    };
    Peer peers[40];  // by their sockets
    std::vector<Action> actions;
    Listener observer, expected;
    std::mt19937 random(20240607);
    const auto draw = [&random](unsigned count) { return static_cast<int>(random() % count); };
    const auto relay = [&](const Peer* to, int type, const std::string& bytes) {
        if (server.enablePairing && to != nullptr) actions.push_back({Action::kWrite, to->wsi, type, bytes});
    };
    server.addObserver(&observer);
    for (int step = 0, lastId = 0; step < 20'000; ++step) {
        observer.status = draw(4);
        server.enablePairing = draw(2) == 0;
        const int socket = draw(std::size(peers)), kind = draw(3);
        Peer& peer = peers[socket];
        if (peer.wsi == nullptr) {
            const int side = draw(4), refusal = side < 2 ? 0 : kRefusals[observer.status];
            const auto& [rest, endpoint] = kRests[draw(std::size(kRests))];
            lws* const wsi = open(socket + 1, kPrefixes[side] + rest);
            ASSERT_EQ(filter(wsi), refusal);
            if (refusal != 0) continue;
            if (kind == 0) filter(open(99, "/another-handshake"));
            establish(wsi);
            peer = {wsi, ++lastId, side, step, endpoint};
            for (Peer& each : peers) {
                const bool isWaiting = each.partner == nullptr && each.side == 1 - side && each.endpoint == endpoint;
                if (isWaiting && each.record < peer.record) peer.partner = &each, peer.record = each.record;
            }
            if (peer.partner != nullptr) {
                peer.partner->partner = &peer;
                relay(side == 0 ? &peer : peer.partner, 0, "pairingcompleted");
                relay(side == 1 ? &peer : peer.partner, 0, "pairingcompleted");
            }
            if (side > 1) expected.note(peer.id, kPrefixes[side] + rest);
        } else if (kind > 0) {
            const std::string bytes(random() % 4, static_cast<char>(draw(256)));
            message(peer.wsi, bytes, kind == 1);
            relay(peer.partner, kind == 1 ? 1 : 0, bytes);
            if (peer.side > 1) expected.note(peer.id, bytes);
        } else {
            for (const int result : {0, -1}) ASSERT_EQ(close(peer.wsi), result);
            if (peer.partner != nullptr) actions.push_back({Action::kClose, peer.partner->wsi, 1000, ""});
            if (peer.partner != nullptr) peer.partner->partner = nullptr;
            if (peer.side > 1) expected.note(peer.id, "left");
            peer = {};
        }
        ASSERT_EQ(takeActions(), std::exchange(actions, {})) << "step " << step;
        ASSERT_EQ(std::exchange(observer.heard, {}), std::exchange(expected.heard, {})) << "step " << step;
    }
}

}  // namespace
}  // namespace zenk_test
