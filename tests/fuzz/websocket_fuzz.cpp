// Any bytes into the port of a running server: instead of a handshake, or behind one as a client that has a partner,
// waits for one, or talks to an observer. The bytes are a script of pieces, each sent by itself. What the partner gets
// must be what a server may send, the connection must end when the client has gone, and an innocent pair is served.
#include <thread>

#include "tests/fuzz/fuzz_input.h"
#include "tests/support/net_util.h"
#include "tests/support/raw_client.h"
#include "wsserver/media_sync_server.h"

namespace {

using zenk_test::FuzzInput;
using zenk_test::RawClient;
using zenk_test::require;

constexpr std::size_t kMaxBytes = 600'000;
constexpr std::size_t kMaxRepeats = 64;
constexpr std::size_t kLongPayload = 65'500;  // three of them and some repeats pass the limit

struct Listener : ClientObserver {
    void onMessage(unsigned char* message, int length, int id) override {
        sendMessage(reinterpret_cast<char*>(message), length, id);  // every byte is looked at, and copied
    }
};

/// The server of the process, and a pair that is never attacked.
class Victim {
public:
    Victim() : m_port(zenk_test::freePort()) {
        MediaSyncServer& server = *MediaSyncServer::getInstance();
        server.enablePairing = true;
        server.addObserver(new Listener);
        // It serves as long as the process lives.
        std::thread([this] { startWebSocketServer(m_port, MediaSyncServer::getInstance()); }).detach();
        require(zenk_test::waitUntil([this] { return m_left.connect(m_port); }), "the server does not listen");
        require(m_left.upgrade(m_port, "/local/hbbtv/t/innocent"), "no innocent client");
        require(m_right.upgrade(m_port, "/remote/hbbtv/t/innocent"), "no innocent partner");
        for (RawClient* const client : {&m_left, &m_right}) client->receiveUntil("pairingcompleted");
    }

    int port() const { return m_port; }
    void checkInnocentPair() {
        checkMessage(m_left, m_right);
        checkMessage(m_right, m_left);
    }

private:
    static void checkMessage(RawClient& from, RawClient& to) {
        require(from.send(zenk_test::clientFrame(0x81, "hello")), "an innocent client was cut");
        require(to.receive(7) == "\x81\x05hello", "a message of an innocent pair was lost");
    }

    const int m_port;
    RawClient m_left, m_right;
};

bool isUtf8(const std::string& text) {
    static constexpr std::uint32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000};
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        if (lead < 0x80) continue;
        const int length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        std::uint32_t code = lead & (0xFFU >> (length + 1));
        for (int k = 1; k < length; ++k) {
            if (i == text.size() || (text[i] & 0xC0) != 0x80) return false;
            code = code << 6 | (static_cast<unsigned char>(text[i++]) & 0x3F);
        }
        const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
        if (lead < 0xC0 || lead >= 0xF8 || code < kLowest[length] || code > 0x10FFFF || isSurrogate) return false;
    }
    return true;
}

/// What the server sends is a row of whole unmasked frames that RFC 6455 allows it, up to a close frame with 1000.
class PartnerStream {
public:
    explicit PartnerStream(RawClient& client) : m_client(client) {}

    void checkToItsEnd() {
        while (checkFrame()) {
        }
    }

private:
    std::string take(std::size_t count) {
        std::string taken = m_client.receive(count);
        require(taken.size() == count, "a partner was not told that the client has gone");
        return taken;
    }
    std::size_t number(std::size_t bytes) {
        std::size_t value = 0;
        for (const char byte : take(bytes)) value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }
    /// @return false behind the close frame
    bool checkFrame() {
        const std::size_t first = number(1);
        std::size_t length = number(1);
        require(length < 128, "the server masked a frame");
        if (length == 126) length = number(2);
        if (length == 127) length = number(8);
        require(length <= kMaxMessageBytes, "a message beyond the limit was relayed");
        const std::string payload = take(length);
        if (first == 0x88) {
            require(payload == "\x03\xE8", "a partner was closed with another status than 1000");
            return false;
        }
        require(first == 0x81 || first == 0x82, "a frame that no relay sends");
        require(first == 0x82 || isUtf8(payload), "bad text was relayed");
        return true;
    }

    RawClient& m_client;
};

/// Frames that are right but for what the input says; random bytes rarely hit the length or the mask.
std::string frame(FuzzInput& input) {
    const auto first = static_cast<std::uint8_t>(input.byte());
    std::string payload;
    const std::string_view unit = input.bytes(input.below(16));
    for (std::size_t repeats = input.below(kMaxRepeats); repeats > 0; --repeats) payload += unit;
    const unsigned shape = input.byte();
    if (shape < 4) payload.resize(payload.size() + shape * kLongPayload, 'x');
    return zenk_test::clientFrame(first, payload);
}

// Bounded by what the sockets hold, since nobody reads meanwhile. Stops when the server has ended the connection.
void sendPieces(RawClient& client, FuzzInput& input) {
    for (std::size_t left = kMaxBytes; left > 0 && !input.isEmpty();) {
        std::string piece = input.flag() ? frame(input) : std::string(input.bytes(input.byte()));
        piece.resize(std::min(piece.size(), left));
        left -= piece.size();
        if (!client.send(piece)) return;
    }
}

void attack(int port, FuzzInput& input) {
    RawClient client, partner;
    const unsigned kind = input.below(8);
    const bool hasPartner = kind >= 3;
    if (hasPartner) require(partner.upgrade(port, "/remote/hbbtv/t/victim"), "no partner");
    if (kind == 0) require(client.connect(port), "no connection");
    if (kind == 1) require(client.upgrade(port, "/css-ts/"), "no CSS client");
    if (kind == 2) require(client.upgrade(port, "/local/hbbtv/t/alone"), "no lonely client");
    if (hasPartner) require(client.upgrade(port, "/local/hbbtv/t/victim"), "no client");
    sendPieces(client, input);
    client.finishSending();
    // First the partner: until it has read, the server may rightly hold the client.
    if (hasPartner) PartnerStream(partner).checkToItsEnd();
    require(client.waitForEnd(), "the connection of a client that has gone stays open");
    partner.reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Victim& victim = *new Victim;
    FuzzInput input(data, size);
    attack(victim.port(), input);
    victim.checkInnocentPair();
    return 0;
}
