#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>

namespace zenk {

/// The name of a network interface, zero-terminated. It holds its text itself: looking an address up takes no memory.
struct InterfaceName {
    static constexpr int kLongest = 19;
    char text[kLongest + 1] = {};
};

/// A dotted IPv4 address, zero-terminated; empty where there is none.
struct AddressText {
    static constexpr int kLongest = 15;  // "255.255.255.255"
    char text[kLongest + 1] = {};
};

/// The interface of the first complete line of a route table in the form of /proc/net/route, whichever route it is;
/// empty if no line is complete. Nothing if the table is empty, without even its header. A read error ends the table.
/// @param table  open for reading; stays the caller's
std::optional<InterfaceName> firstRouteInterface(std::FILE* table);

/// The IPv4 address of an interface.
/// @param socket  any open IPv4 socket
AddressText addressOf(int socket, const InterfaceName& interface);

}  // namespace zenk
