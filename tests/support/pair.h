#pragma once

#include <string>

#include "tests/support/ws_client.h"

namespace zenk_test {

/// Two App2App clients that talk to each other.
struct Pair {
    WsClient local, remote;
    int number = 0;

    /// @return true when both sides have been let in. They have answered the handshake, so the server knows them.
    bool open(int port, const std::string& endpoint) {
        return local.connect(port, "/local/hbbtv/t/" + endpoint) && remote.connect(port, "/remote/hbbtv/t/" + endpoint);
    }
    /// @return true when both sides have heard of each other
    bool connect(int port, const std::string& endpoint = "witness") {
        return open(port, endpoint) && local.receiveText() == "pairingcompleted" &&
               remote.receiveText() == "pairingcompleted";
    }
    /// One message there and one back. @return false when either is lost or altered
    bool exchange() {
        const std::string text = "message " + std::to_string(++number);
        return local.sendText(text) && remote.receiveText() == text && remote.sendText(text) &&
               local.receiveText() == text;
    }
};

}  // namespace zenk_test
