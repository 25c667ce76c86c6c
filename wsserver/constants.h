#pragma once

/// Numbers and texts that several files of the library must agree on.
namespace zenk {

/// In the place of a client id: every connection of the server.
inline constexpr int kEveryClient = -1;

/// @{ Results of ClientObserver::getCssServerStatus().
inline constexpr int kCssAvailable = 0;
inline constexpr int kCssDisabled = 1;
inline constexpr int kCssFull = 2;
/// @}

/// @{ Paths of the endpoints: in the URLs, and what tells the clients apart.
inline constexpr char kLocalPath[] = "/local/hbbtv/";
inline constexpr char kRemotePath[] = "/remote/hbbtv/";
inline constexpr char kCiiPath[] = "/css-cii";
inline constexpr char kTsPath[] = "/css-ts";
/// @}

}  // namespace zenk
