#pragma once

#include <atomic>
#include <optional>
#include <string>

/// The system calls whose failures have exits of their own, in the test's hand through the linker's wrap.
namespace outside {

inline std::atomic<bool> noSockets = false;     ///< socket() fails
inline std::atomic<bool> receiveFails = false;  ///< recvfrom() fails
inline std::atomic<int> receives = 0;           ///< how often it was called
inline std::optional<std::string> routes;       ///< the route table; none: it cannot be opened. Test's thread only
inline std::string address;                     ///< of every interface; empty: there is none. Test's thread only
inline std::string interface;                   ///< whose address was asked for last. Test's thread only

/// A route table whose first interface is eth0.
inline constexpr char kRoutes[] = "header\neth0\t0\t0\t3\t0\t0\t0\t0\t0\t0\t0\n";

}  // namespace outside
