#pragma once

#include <system_error>

/// What a host can find out about ports of its own machine.

/// @param type SOCK_STREAM for TCP, SOCK_DGRAM for UDP
/// @return why `port` cannot be served on all interfaces, no error when it can
std::error_code whyNotServable(int type, int port);

/// @return true when somebody accepts TCP connections on 127.0.0.1
bool acceptsConnections(int port);
