// What all peers share: their command line, the paths that make a pair, and the handshake's arithmetic.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zenk_bench {

/// Sent to both sides when a pair is complete, as the server under test does.
constexpr std::string_view kGreeting = "pairingcompleted";

/// Connections that may wait to be accepted; the load generator opens many at once.
constexpr int kListenBacklog = 4096;

/// Which side of which pair a request is for.
struct Endpoint {
    std::string key;  // token and name; both sides have the same
    bool isRemote;
};

/// Takes "/local/hbbtv/TOKEN/NAME" or "/remote/hbbtv/TOKEN/NAME" apart; nothing for any other path.
std::optional<Endpoint> parsePath(std::string_view path);

/// The value of Sec-WebSocket-Accept for a client's Sec-WebSocket-Key.
std::string acceptValue(std::string_view key);

/// The port of "--port N". Ends the process with a message when it is missing or no port.
std::uint16_t portFrom(int argc, char** argv);

/// Tells the driver that connections are accepted from now on.
void announceReady();

}  // namespace zenk_bench
