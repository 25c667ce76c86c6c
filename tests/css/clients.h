#pragma once

#include <string>
#include <utility>
#include <vector>

#include "wsserver/media_sync_server.h"

/// WebSocket clients as the observers of MediaSyncServer::getInstance() see them. The calls that reach observers take
/// turns, as on the service thread.
namespace clients {

/// A new connection. @return its client id
int connect(const std::string& uri);
void send(int clientId, const std::string& message);
void leave(int clientId);

/// The ids that were asked to close since the last call, in that order.
std::vector<int> takeClosed();

/// The clients that were held (true) and resumed (false) since the last call, in that order.
using Hold = std::pair<int, bool>;
std::vector<Hold> takeHolds();

/// The text that both URL operations give.
extern std::string url;

}  // namespace clients
