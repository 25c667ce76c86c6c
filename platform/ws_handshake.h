#pragma once

#include <optional>
#include <string>

struct lws;

namespace zenk_ws {

/// The path and the query of a handshake's request, readable in the protocol filter event.
struct RequestTarget {
    std::optional<std::string> path;
    std::optional<std::string> query;  ///< without the "?"; empty is not the same as absent
};
RequestTarget readRequestTarget(::lws* wsi);

/// Looks at a request for an upgrade and answers those that are none of ours.
/// @return 0 to go on, or what the event has to return to end the connection
int checkUpgrade(::lws* wsi, const char* upgradeTo);

/// Writes an answer that ends the connection. @return what the event has to return for that
int refuseHandshake(::lws* wsi, int result);
int refusePlainHttp(::lws* wsi);
int refuseRawConnection(::lws* wsi);

}  // namespace zenk_ws
