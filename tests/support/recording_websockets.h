#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/zenk_websockets.h"

/// Another body of platform/zenk_websockets.h: it opens no sockets, records what the server does and plays what the
/// test says. Its connections are addresses that only it understands.
namespace zenk_test {

/// Plays one thing that happens on a connection, or records one thing that the server did to it.
struct Action {
    enum Kind { kWrite, kClose, kReception } kind;
    lws* wsi;
    int code;           ///< frame type, close status, or whether reception is on
    std::string bytes;  ///< payload of a write
    bool operator==(const Action&) const = default;
};

/// @{ Connections. A closed one stays known, so that a write to it is found out; its address is not used again.
lws* openConnection(int socketFd, std::optional<std::string> path, std::optional<std::string> query = std::nullopt);
void markClosed(lws* wsi);
void setFragment(lws* wsi, bool isFinal, bool isBinary);
/// @}

std::vector<Action> takeActions();           ///< what was done since the last call, in order
std::vector<std::string> takeLayerTrace();   ///< calls around the service loop and lines of _lws_log, in order
int misdirectedActions();                    ///< writes and closes for connections that were closed already
void setWriteResult(std::optional<int> n);   ///< what lws_write answers; by default the length
void setRecording(bool isOn);                ///< off: writes leave no trace and allocate nothing
void setListening(bool succeeds);            ///< whether lws_create_context gives a context
void setService(std::function<int()> body);  ///< runs inside each lws_service; its result is that call's
const zenk_ws::lws_context_creation_info& lastCreationInfo();
void resetLayer();

}  // namespace zenk_test
