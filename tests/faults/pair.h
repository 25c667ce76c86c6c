#pragma once

#include <string>

#include "tests/support/ws_client.h"

namespace zenk_test {

/// Two App2App clients that talk to each other: the witnesses that a server goes on.
class Pair {
public:
    /// @return true when both sides have heard of each other
    bool connect(int port, const std::string& endpoint = "witness") {
        return m_local.connect(port, "/local/hbbtv/t/" + endpoint) &&
               m_remote.connect(port, "/remote/hbbtv/t/" + endpoint) && m_local.receiveText() == "pairingcompleted" &&
               m_remote.receiveText() == "pairingcompleted";
    }

    /// One message there and one back. @return false when either is lost or altered
    bool exchange() {
        const std::string text = "message " + std::to_string(++m_number);
        return m_local.sendText(text) && m_remote.receiveText() == text && m_remote.sendText(text) &&
               m_local.receiveText() == text;
    }

private:
    WsClient m_local;
    WsClient m_remote;
    int m_number = 0;
};

}  // namespace zenk_test
