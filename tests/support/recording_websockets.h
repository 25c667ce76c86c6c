#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/zenk_websockets.h"

/// A connection of the layer's stand-in: another body of platform/zenk_websockets.h, which opens no sockets and notes
/// what the library does to connections. Tests make them by hand, and nobody may reach one that is not open any more.
struct lws {
    int socketFd;
    std::optional<std::string> path = {}, query = {};
    bool isOpen = true, isFinal = true, isBinary = false;
};

namespace zenk_test {

/// What the library did to a connection.
struct Action {
    enum Kind { kWrite, kClose, kReception } kind;
    lws* wsi;
    int code;           ///< frame type, close status, or whether reception is on
    std::string bytes;  ///< payload of a write
    bool operator==(const Action&) const = default;
};

std::vector<Action> takeActions();        ///< since the last call, in order
inline std::optional<int> g_writeResult;  ///< what lws_write answers; by default the length
inline zenk_ws::EventCallback g_raise;    ///< of the last context that was created
inline std::function<void()> g_onHold;    ///< called before a client is held, if it is set

}  // namespace zenk_test
