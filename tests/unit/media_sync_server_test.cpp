// Connections, observers and pairs over a stand-in of the layer: who is told what, and what is written to whom.
#include <algorithm>
#include <climits>
#include <functional>
#include <future>
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
    ~Listener() override {
        if (m_server != nullptr) m_server->removeObserver(this);
    }
    void onNewClient(char* uri, int id) override { note("new " + std::to_string(id) + " " + uri); }
    void onMessage(unsigned char* message, int length, int id) override {
        note(std::to_string(id) + ": " + std::string(message, message + length));
    }
    void onClientLeave(int id) override { note("left " + std::to_string(id)); }
    int getCssServerStatus() override { return status; }
    void note(const std::string& line) { heard.push_back(line), inCall(); }
    Heard take() { return std::exchange(heard, {}); }

    int status = 0;
    Heard heard;
    std::function<void()> inCall = [] {};
};

class Front : public zenk_test::FrontEnd {
protected:
    Listener first, second;
};

TEST_F(Front, UrlsOutliveTheirConnectionForAWhileAndIdsGoOnAtOne) {
    server.addObserver(&first);
    lws* const css = connect("/css-cii/a-path-too-long-to-stand-inside-a-string-object", "q");
    const char* const url = first.getUrl(1);
    std::string copy = url;
    close(css);
    EXPECT_STREQ(first.getUrl(1), "NONE");
    EXPECT_FALSE(first.copyUrl(1, copy));
    for (int i = 0; i < 255; ++i) close(connect("/another"));
    EXPECT_EQ(url, copy);
    EXPECT_EQ(nextClientId(INT_MAX - 1, {{1, nullptr}, {2, nullptr}, {INT_MAX, nullptr}}), 3) << "not one in use";
}

TEST_F(Front, ObserversMayLeaveInsideACallAndOutliveTheirServer) {
    auto leaving = std::make_unique<Listener>();
    auto other = std::make_unique<MediaSyncServer>();
    for (Listener* each : {leaving.get(), &first, leaving.get(), &second}) server.addObserver(each);
    first.inCall = [&] { leaving == nullptr ? server.removeObserver(&first) : leaving.reset(); };
    close(connect("/a"));
    EXPECT_EQ(first.take(), (Heard{"new 1 /a", "left 1"}));
    EXPECT_EQ(second.take(), (Heard{"new 1 /a", "left 1"})) << "the walk neither skips nor repeats";
    other->addObserver(&first);
    other.reset();
    connect("/b");
    first.sendMessage(nullptr, 0, -1);
    first.closeClientConnection(-1);
    EXPECT_TRUE(takeActions().empty());
    EXPECT_STREQ(first.getUrl(2), "NONE");
    EXPECT_EQ(first.take(), Heard());
}

TEST_F(Front, RemovalWaitsForARunningCall) {
    server.addObserver(&first);
    std::promise<void> entered, release;
    first.inCall = [&entered, &release] { entered.set_value(), release.get_future().wait(); };
    auto service = std::async(std::launch::async, [this] { connect("/a"); });
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [this] { server.removeObserver(&first); });
    EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    removal.wait();
    service.wait();
    connect("/b");
    EXPECT_EQ(first.take(), Heard{"new 1 /a"});
    second.status = 1;
    server.addObserver(&second);
    EXPECT_EQ(filter(open(4, "/c")), 403);
    std::async(std::launch::async, [this] { server.removeObserver(&second); }).wait();  // a refusal is no call
}

TEST_F(Front, HostThreadsNeverReachAClosedConnection) {
    server.addObserver(&first);
    const std::string path = "/css-cii/some/path/of/a/certain/length";
    const std::jthread host([&](const std::stop_token& end) {
        for (int i = 0; !end.stop_requested(); ++i) {
            Listener passing;
            server.addObserver(&passing);
            char text[] = "x";
            first.sendMessage(text, 1, i % 7 == 0 ? -1 : i % 300);
            if (i % 5 == 0) first.closeClientConnection(i % 300);
            std::string url = path;
            first.copyUrl(i % 300, url);
            EXPECT_EQ(url, path);
            EXPECT_NE(first.getUrl(i % 300)[0], '\0');
        }
    });
    std::list<lws*> connections;
    for (int i = 0; i < 300; ++i) {
        connections.push_back(connect(path));
        message(connections.back(), "m");
        if (i % 3 == 0) close(connections.front()), connections.pop_front();
        takeActions();  // or they fill the memory
    }
}

/// The rules of pairing as plain walks over a list.
struct Model {
    struct Record {
        std::string endpoint;
        lws* sides[2] = {nullptr, nullptr};  // local, remote
    };
    std::list<Record> list;
    std::vector<Action> actions;
    bool isEnabled = false;

    void connect(const std::string& endpoint, int side, lws* wsi) {
        auto r = std::ranges::find_if(
            list, [&](const Record& each) { return each.endpoint == endpoint && each.sides[side] == nullptr; });
        const bool isMet = r != list.end() && isEnabled;
        if (r == list.end()) r = list.insert(r, Record{endpoint});
        r->sides[side] = wsi;
        for (lws* each : r->sides)
            if (isMet) actions.push_back({Action::kWrite, each, 0, "pairingcompleted"});
    }
    /// What befalls a connection: bytes from it, or its end. @return whether it is one of a pair
    bool act(lws* wsi, const std::string* bytes, bool isBinary) {
        const auto r =
            std::ranges::find_if(list, [&](Record& each) { return std::ranges::count(each.sides, wsi) > 0; });
        if (r == list.end()) return false;
        lws*& side = r->sides[r->sides[0] == wsi ? 0 : 1];
        lws* const other = r->sides[r->sides[0] == wsi ? 1 : 0];
        if (bytes == nullptr) side = nullptr;
        if (bytes == nullptr && other == nullptr) list.erase(r);
        if (bytes == nullptr && other != nullptr) actions.push_back({Action::kClose, other, 1000, ""});
        if (bytes != nullptr && other != nullptr && isEnabled)
            actions.push_back({Action::kWrite, other, isBinary ? 1 : 0, *bytes});
        return true;
    }
};

// What stands behind "/local/hbbtv/" or "/remote/hbbtv/", and the endpoint that it names.
const std::pair<std::string, std::string> kRests[] = {{"token/a", "/a"}, {"other/a", "/a"}, {"a", "a"},
                                                      {"t/", "/"},       {"", ""},          {"/hbbtv/a", "/hbbtv/a"},
                                                      {"a?b=c/a", "/a"}, {"t/a?", "/a?"},   {"t/A", "/A"}};
const std::string kOthers[] = {"/local/hbbtv", "/css-cii/x", "?/local/hbbtv/t/a", "/Remote/hbbtv/t/a?x=1", ""};

// Connections come, speak and go, the host speaks, closes and changes its mind. Sockets are few and used again.
TEST_F(Front, FollowsItsModelInRandomSequences) {
    struct Peer {
        lws* wsi;
        int id;
        std::string uri;
    };
    std::mt19937 random(20240607);
    const auto draw = [&random](std::size_t count) { return static_cast<int>(random() % count); };
    const auto openUri = [this](int fd, const std::string& uri) {
        const std::size_t query = std::min(uri.find('?'), uri.size());
        return open(fd, query == 0 ? Text() : uri.substr(0, query),
                    query == uri.size() ? Text() : uri.substr(query + 1));
    };
    std::vector<Peer> peers;
    Model model;
    Heard expected;
    int lastId = 0;
    for (Listener* each : {&first, &second}) server.addObserver(each);
    for (int step = 0; step < 20'000; ++step) {
        const int kind = peers.empty() ? 0 : draw(12), length = draw(4);
        std::string bytes(static_cast<std::size_t>(length), static_cast<char>(draw(256)));
        const auto chosen = peers.begin() + (peers.empty() ? 0 : draw(peers.size()));
        if (kind < 4) {
            const int fd = 1 + draw(24), side = draw(4), at = draw(9);
            const int status = first.status == 1 || first.status == 2 ? first.status : second.status;
            const int refusal = side < 2 ? 0 : status == 1 ? 403 : status == 2 ? 503 : 0;
            const auto& [rest, endpoint] = kRests[at];
            const std::string uri =
                side > 1 ? kOthers[at % 5] : (side == 0 ? "/local/hbbtv/" : "/remote/hbbtv/") + rest;
            if (std::ranges::any_of(peers, [fd](const Peer& peer) { return peer.wsi->socketFd == fd; })) continue;
            lws* const wsi = openUri(fd, uri);
            ASSERT_EQ(filter(wsi), refusal);
            if (refusal != 0 || draw(16) == 0) continue;  // that one fails for another reason
            if (draw(16) == 0) filter(openUri(99, "/another?handshake"));
            establish(wsi);
            peers.push_back({wsi, ++lastId, uri});
            side > 1 ? expected.push_back("new " + std::to_string(lastId) + " " + uri)
                     : model.connect(endpoint, side, wsi);
        } else if (kind == 4) {
            const int act = draw(3), id = draw(3) == 0 ? draw(3) - 1 : chosen->id;  // -1 is everybody
            if (act == 0) first.sendMessage(bytes.data(), length, id);
            if (act == 1) first.sendMessageAll(bytes.data(), length, id);
            if (act == 2) first.closeClientConnection(id);
            const Action action{act == 2 ? Action::kClose : Action::kWrite, nullptr, act == 2 ? 1001 : 0,
                                act == 2 ? "" : bytes};
            for (const Peer& peer : peers)
                if (act == 1 ? peer.id != id : id == -1 || peer.id == id)
                    model.actions.push_back(action), model.actions.back().wsi = peer.wsi;
        } else if (kind == 5) {
            first.status = draw(4);
            second.status = draw(4);
            model.isEnabled = server.enablePairing = draw(2) == 0;
        } else if (kind < 9) {
            const std::string heard = std::to_string(chosen->id) + ": " + bytes;
            message(chosen->wsi, bytes, length == 1);
            if (!model.act(chosen->wsi, &bytes, length == 1)) expected.push_back(heard);
        } else {
            for (const int result : {0, -1}) ASSERT_EQ(close(chosen->wsi), result);
            if (!model.act(chosen->wsi, nullptr, false)) expected.push_back("left " + std::to_string(chosen->id));
            peers.erase(chosen);
        }
        ASSERT_EQ(takeActions(), std::exchange(model.actions, {})) << "step " << step;
        ASSERT_EQ(first.take(), expected) << "step " << step;
        ASSERT_EQ(second.take(), std::exchange(expected, {}));
        for (const Peer& peer : peers) ASSERT_EQ(first.getUrl(peer.id), peer.uri);
    }
}

}  // namespace
