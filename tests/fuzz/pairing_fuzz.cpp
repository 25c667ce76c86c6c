// Filter, connect, message and close in any order and with any URIs, over the recording stand-in of the layer. A model
// of the rules is asked after every step: what was written and closed, what the observer heard, who is whose partner.
#include <optional>
#include <utility>

#include "tests/fuzz/fuzz_input.h"
#include "tests/support/plain_pairing.h"
#include "wsserver/media_sync_server.h"

namespace {

using zenk_test::Action;
using zenk_test::Actions;
using zenk_test::FuzzInput;
using zenk_test::require;
using zenk_test::takeActions;
using Notes = std::vector<std::string>;

constexpr int kSockets = 24;
constexpr int kUnknownId = 1'000'000;

std::string note(const char* what, int id, std::string_view text = "") {
    return what + std::to_string(id) + " " + std::string(text);
}

struct Listener : ClientObserver {
    void onNewClient(char* uri, int id) override { heard.push_back(note("new ", id, uri)); }
    void onMessage(unsigned char* message, int length, int id) override {
        heard.push_back(note("message ", id, {reinterpret_cast<char*>(message), static_cast<std::size_t>(length)}));
    }
    void onClientLeave(int id) override { heard.push_back(note("left ", id)); }
    int getCssServerStatus() override { return status; }

    int status = 0;
    Notes heard;
};

/// One live connection as the model knows it.
struct Peer {
    lws* wsi;
    int fd, id;
    std::string uri;
};

class Play {
public:
    explicit Play(FuzzInput input) : m_input(input) {
        zenk_test::resetLayer();
        m_server.addObserver(&m_listener);
    }

    void run() {
        while (!m_input.isEmpty()) {
            step(m_input.below(12));
            check();
        }
    }

private:
    void step(unsigned kind) {
        if (kind < 4) return connect();
        if (kind == 4) return hostSpeaks();
        if (kind == 5) return hostChangesItsMind();
        if (m_peers.empty()) return;
        const std::size_t chosen = m_input.below(static_cast<unsigned>(m_peers.size()));
        kind < 9 ? message(m_peers[chosen]) : close(chosen);
    }

    /// Known beginnings make the interesting URIs likely; the rest is anything.
    std::string text() {
        static constexpr const char* kBeginnings[] = {
            "/local/hbbtv/",   "/remote/hbbtv/",       "/local/hbbtv/t/a", "/remote/hbbtv/t/a", "",
            "/local/hbbtv/t/", "/remote/hbbtv/token/", "/local/hbbtv",     "/css-cii/"};
        const std::string beginning = kBeginnings[m_input.below(std::size(kBeginnings))];
        return std::string(beginning + std::string(m_input.bytes(m_input.below(24)))).c_str();
    }

    std::optional<int> freeSocket() {
        const int first = static_cast<int>(m_input.below(kSockets));
        for (int i = 0; i < kSockets; ++i) {
            const int fd = (first + i) % kSockets;
            const auto holds = [fd](const Peer& peer) { return peer.fd == fd; };
            if (std::none_of(m_peers.begin(), m_peers.end(), holds)) return fd;
        }
        return std::nullopt;
    }

    int filter(lws* wsi) {
        m_server.m_wsi = wsi;
        return m_server.onFilterConnection();
    }

    void connect() {
        const std::optional<int> fd = freeSocket();
        if (!fd) return;
        const unsigned shape = m_input.byte();
        std::optional<std::string> path = text(), query;
        if (shape % 16 == 1) path.reset();
        if (shape % 4 == 2) query = text();
        const std::string uri = path.value_or("") + (query ? "?" + *query : "");
        const bool isPairing = uri.rfind("/local/hbbtv/", 0) == 0 || uri.rfind("/remote/hbbtv/", 0) == 0;
        const int refusal = m_listener.status == 1 ? 403 : m_listener.status == 2 ? 503 : 0;

        lws* const wsi = zenk_test::openConnection(*fd, path, query);
        require(filter(wsi) == (isPairing ? 0 : refusal), "wrong answer of the filter");
        if (!isPairing && refusal != 0) return;
        if (shape >= 0xF0) return;  // its handshake fails for another reason
        if (shape >= 0xE0) filter(zenk_test::openConnection(kSockets, "/another", shape % 2 ? "handshake" : ""));
        m_server.m_wsi = wsi;
        m_server.onConnect();
        m_peers.push_back({wsi, *fd, ++m_lastId, uri});
        if (!isPairing) {
            m_expectedNotes.push_back(note("new ", m_lastId, uri));
        } else {
            const std::size_t token = uri.find("/hbbtv/") + 7;
            const std::size_t endpoint = std::min(uri.find('/', token), uri.size());
            m_plain.connect(uri.substr(endpoint == uri.size() ? token : endpoint), uri[1] == 'r' ? 1 : 0, *fd, wsi);
        }
    }

    void message(const Peer& peer) {
        std::string bytes(m_input.piece(200));
        const bool isBinary = m_input.flag();
        m_server.m_wsi = peer.wsi;
        m_server.onMessage(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), isBinary);
        if (m_plain.message(peer.fd, bytes, isBinary) == 0) m_expectedNotes.push_back(note("message ", peer.id, bytes));
    }

    void close(std::size_t index) {
        const Peer peer = m_peers[index];
        m_peers.erase(m_peers.begin() + static_cast<std::ptrdiff_t>(index));
        m_server.m_wsi = peer.wsi;
        require(m_server.onClose() == 0, "wrong result of a close");
        require(m_server.onClose() == -1, "a connection was known after its close");
        if (m_plain.close(peer.fd) == 0) m_expectedNotes.push_back(note("left ", peer.id));
        std::string url;
        require(!m_server.copyUrl(peer.id, url), "an id outlived its connection");
        zenk_test::markClosed(peer.wsi);
    }

    void hostSpeaks() {
        const unsigned kind = m_input.below(3);
        const unsigned whom = m_input.below(kSockets + 2);
        const int id = whom == 0 ? -1 : whom <= m_peers.size() ? m_peers[whom - 1].id : kUnknownId;
        std::string bytes(m_input.bytes(m_input.below(8)));
        const int length = static_cast<int>(bytes.size());
        if (kind == 0) m_listener.sendMessage(bytes.data(), length, id);
        if (kind == 1) m_listener.sendMessageAll(bytes.data(), length, id);
        if (kind == 2) m_listener.closeClientConnection(id);
        for (const Peer& peer : m_peers) {  // in the order of their ids
            const bool isMeant = kind == 1 ? peer.id != id : id == -1 || peer.id == id;
            if (!isMeant) continue;
            m_plain.actions.push_back(kind == 2 ? Action{Action::kClose, peer.wsi, 1001, ""}
                                                : zenk_test::text(peer.wsi, bytes));
        }
    }

    void hostChangesItsMind() {
        m_listener.status = static_cast<int>(m_input.below(4));
        m_plain.isEnabled = m_server.enablePairing = !m_input.flag();
    }

    void check() {
        require(takeActions() == std::exchange(m_plain.actions, {}), "other writes and closes than the rules ask for");
        require(std::exchange(m_listener.heard, {}) == std::exchange(m_expectedNotes, {}), "the observer heard wrong");
        require(zenk_test::misdirectedActions() == 0, "a closed connection was written to");
        for (const Peer& peer : m_peers) {
            std::string url;
            require(m_server.copyUrl(peer.id, url) && url == peer.uri, "wrong URL of a client");
            checkPartner(peer.fd);
        }
    }

    /// A probing message shows whose partner a connection is, whatever the host has switched off.
    void checkPartner(int fd) {
        unsigned char probe[] = "p";
        const bool isEnabled = m_plain.isEnabled;
        m_plain.isEnabled = m_server.enablePairing = true;
        require(m_server.handlePairingMsg(probe, 1, fd, true) == m_plain.message(fd, "p", true), "wrong record");
        require(takeActions() == std::exchange(m_plain.actions, {}), "wrong partner");
        m_plain.isEnabled = m_server.enablePairing = isEnabled;
    }

    FuzzInput m_input;
    MediaSyncServer m_server;
    Listener m_listener;
    zenk_test::PlainPairing m_plain{{}, {}, false};
    std::vector<Peer> m_peers;
    int m_lastId = 0;
    Notes m_expectedNotes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Play(FuzzInput(data, size)).run();
    return 0;
}
