// Connections, observers and pairs over a stand-in of the layer: who is told what, and what is written to whom.
#include <algorithm>
#include <array>
#include <climits>
#include <list>
#include <random>

#include "tests/support/front_end.h"
#include "wsserver/client_ids.h"

namespace {

using zenk_test::Action;
using zenk_test::takeActions;
using Heard = std::vector<std::string>;

/// Writes down what it hears; `inCall` runs inside each of its calls.
struct Listener : ClientObserver {
    void onNewClient(char* uri, int id) override { note("new " + std::to_string(id) + " " + uri); }
    void onMessage(unsigned char* message, int length, int id) override {
        note(std::to_string(id) + ": " + std::string(message, message + length));
    }
    void onClientLeave(int id) override { note("left " + std::to_string(id)); }
    int getCssServerStatus() override { return status; }
    void note(const std::string& line) { heard.push_back(line), inCall(); }

    int status = 0;
    Heard heard;
    std::function<void()> inCall = [] {};
};

const std::string kLongPath = "/a-path-too-long-to-stand-inside-a-string-object";

class Front : public zenk_test::FrontEnd {
protected:
    Listener first, second;
};

TEST_F(Front, ObserversMayLeaveInsideACallAndUrlsOutliveTheirConnection) {
    auto leaving = std::make_unique<Listener>();
    for (Listener* each : {leaving.get(), &first, leaving.get(), &second}) server.addObserver(each);
    first.inCall = [&] { leaving == nullptr ? server.removeObserver(&first) : leaving.reset(); };
    lws* const wsi = connect(kLongPath);
    const char* const url = second.getUrl(1);
    close(wsi);
    for (int i = 0; i < 255; ++i) close(connect("/another"));
    EXPECT_EQ(url, kLongPath);
    EXPECT_EQ(first.heard, (Heard{"new 1 " + kLongPath, "left 1"}));
    second.heard.resize(2);
    EXPECT_EQ(second.heard, first.heard) << "the walk neither skips nor repeats";
    EXPECT_EQ(nextClientId(INT_MAX - 1, {{1, nullptr}, {2, nullptr}, {INT_MAX, nullptr}}), 3) << "not one in use";
}

// What stands behind "/local/hbbtv/" or "/remote/hbbtv/", and the endpoint that it names.
const std::pair<std::string, std::string> kRests[] = {
    {"token/a", "/a"}, {"a?b=c/a", "/a"}, {"a", "a"}, {"", ""}, {"/hbbtv/a", "/hbbtv/a"}, {"t/hbbtv/a", "/hbbtv/a"}};
const std::string kOthers[] = {"/local/hbbtv", "/css-cii/x?", "/Remote/hbbtv/t/a?/", "?/local/hbbtv/t/a", "", "/"};

// Connections come, speak and go, and the host changes its mind. Sockets are few and used again. Two peers of one
// record are a pair, and a newcomer takes the oldest record that waits for its side.
TEST_F(Front, FollowsItsModelInRandomSequences) {
    struct Peer {
        lws* wsi;
        int side, record, id;
        std::string endpoint;
    };
    std::list<Peer> peers;
    std::vector<Action> actions;
    Heard expected;
    int lastId = 0;
    std::mt19937 random(20240607);
    const auto draw = [&random](std::size_t count) { return static_cast<int>(random() % count); };
    const auto partnerOf = [&peers](const Peer& peer) {
        const auto found = std::ranges::find_if(
            peers, [&](const Peer& each) { return each.record == peer.record && each.side == 1 - peer.side; });
        return found == peers.end() ? nullptr : found->wsi;
    };
    const auto relay = [&](lws* to, int type, const std::string& bytes) {
        if (server.enablePairing && to != nullptr) actions.push_back({Action::kWrite, to, type, bytes});
    };
    server.addObserver(&first);
    for (int step = 0; step < 20'000; ++step) {
        const int kind = peers.empty() ? 0 : draw(12), fd = 1 + draw(24);
        auto peer = std::next(peers.begin(), peers.empty() ? 0 : draw(peers.size()));
        lws* partner = peers.empty() ? nullptr : partnerOf(*peer);
        if (kind < 4) {
            const int side = draw(3), at = draw(6);
            const auto& [rest, endpoint] = kRests[at];
            const std::string uri = side == 2 ? kOthers[at] : (side == 0 ? "/local/hbbtv/" : "/remote/hbbtv/") + rest;
            if (std::ranges::any_of(peers, [fd](const Peer& each) { return each.wsi->socketFd == fd; })) continue;
            lws* const wsi = open(fd, uri);
            const int refusal = side < 2 ? 0 : std::array{0, 403, 503, 0}[static_cast<std::size_t>(first.status)];
            ASSERT_EQ(filter(wsi), refusal);
            if (refusal != 0) continue;
            if (draw(16) == 0) filter(open(99, "/another-handshake"));
            establish(wsi);
            peer = peers.insert(peers.end(), {wsi, side, step, ++lastId, endpoint});
            for (const Peer& each : peers)
                if (each.side == 1 - side && each.endpoint == endpoint && partnerOf(each) == nullptr)
                    peer->record = std::min(peer->record, each.record);
            partner = partnerOf(*peer);
            relay(side == 0 && partner != nullptr ? wsi : partner, 0, "pairingcompleted");
            relay(side == 1 && partner != nullptr ? wsi : partner, 0, "pairingcompleted");
            if (side == 2) expected.push_back("new " + std::to_string(lastId) + " " + uri);
        } else if (kind == 4) {
            first.status = draw(4);
            server.enablePairing = draw(2) == 0;
        } else if (kind < 9) {
            const std::string bytes(static_cast<std::size_t>(draw(4)), static_cast<char>(draw(256)));
            message(peer->wsi, bytes, kind == 5);
            relay(partner, kind == 5 ? 1 : 0, bytes);
            if (peer->side == 2) expected.push_back(std::to_string(peer->id) + ": " + bytes);
        } else {
            for (const int result : {0, -1}) ASSERT_EQ(close(peer->wsi), result);
            if (partner != nullptr) actions.push_back({Action::kClose, partner, 1000, ""});
            if (peer->side == 2) expected.push_back("left " + std::to_string(peer->id));
            peers.erase(peer);
        }
        ASSERT_EQ(takeActions(), std::exchange(actions, {})) << "step " << step;
        ASSERT_EQ(std::exchange(first.heard, {}), std::exchange(expected, {})) << "step " << step;
    }
}

}  // namespace
