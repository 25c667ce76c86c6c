#pragma once

#include <atomic>
#include <optional>
#include <string>

/// The system calls whose failures have exits of their own, in the test's hand through the linker's wrap.
namespace outside {

inline std::atomic<bool> noSockets = false;             ///< socket() fails
inline std::atomic<bool> receiveFails = false;          ///< recvmsg() fails
inline std::atomic<int> receives = 0;                   ///< how often it was called
inline auto& routes = *new std::optional<std::string>;  ///< the route table; none: it cannot be opened
inline auto& address = *new std::string;  ///< of every interface; empty: there is none. Test's thread only

}  // namespace outside
