// Any bytes into the port of a running server: instead of a handshake, or behind one as a client that has a partner,
// waits for one, or talks to an observer. The partner gets what a server may send, the connection ends when the client
// has gone, and an innocent pair is served.
#undef NDEBUG
#include <fuzzer/FuzzedDataProvider.h>

#include <cassert>

#include "platform/utf8_checker.h"
#include "tests/support/server.h"

using namespace zenk_test;

/// Bytes as they come, or a frame of them: random bytes rarely hit the length or the mask.
static std::string piece(FuzzedDataProvider& input) {
    std::string bytes = input.ConsumeRandomLengthString(1000);
    if (input.ConsumeBool()) return bytes;
    const int first = input.ConsumeIntegral<std::uint8_t>();
    bytes.resize(bytes.size() + input.PickValueInArray({0u, 65'500u, 131'000u}), 'x');  // close to the limit
    return clientFrame(first, bytes);
}

static void checkUpToItsEnd(RawClient& partner) {
    for (;;) {
        const std::optional<Frame> frame = partner.receiveFrame();
        assert(frame && frame->payload.size() <= kMaxMessageBytes);
        if (frame->first == (kFin | kClose)) return assert(frame->payload == "\x03\xE8");
        zenk_ws::Utf8Checker text;
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(frame->payload.data());
        const bool isText = text.feed({bytes, frame->payload.size()}) && text.isComplete();
        assert(frame->first == (kFin | kBinary) || (frame->first == (kFin | kText) && isText));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Server& server = *new Server;
    static Pair& innocents = *new Pair;
    if (innocents.number == 0) {
        assert(innocents.connect(server.port));
        server.onText = [](int client, std::string text) {
            server.sendMessage(text.data(), static_cast<int>(text.size()), client);
        };
    }
    FuzzedDataProvider input(data, size);
    RawClient client, partner;
    const std::string path = input.PickValueInArray({"", "/css-ts/", "/local/hbbtv/t/alone", "/local/hbbtv/t/x"});
    const bool hasPartner = path.ends_with("x");
    if (hasPartner) assert(partner.upgrade(server.port, "/remote/hbbtv/t/x"));
    assert(path.empty() ? client.connect(server.port) : client.upgrade(server.port, path));
    // What the sockets hold, since nobody reads meanwhile; false when the server has ended the connection.
    for (std::size_t left = 600'000; left > 0 && input.remaining_bytes() > 0;) {
        const std::string bytes = piece(input).substr(0, left);
        left -= bytes.size();
        if (!client.send(bytes)) break;
    }
    client.finishSending();
    // First the partner: until it has read, the server may rightly hold the client.
    if (hasPartner) checkUpToItsEnd(partner);
    assert(client.waitForEnd() && innocents.exchange());
    return 0;
}
