#pragma once

#include <cstdio>
#include <optional>
#include <string>

/// The interface of the first complete line of a route table in the form of /proc/net/route, whichever route it is; at
/// most 19 characters, empty if no line is complete. Nothing if the table is empty, without even its header.
/// A read error ends the table. `table` is open for reading and stays the caller's.
std::optional<std::string> firstRouteInterface(std::FILE* table);
