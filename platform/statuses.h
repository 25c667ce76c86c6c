#pragma once

/// What refusals and closes say to a peer.
namespace zenk {

/// @{ HTTP statuses (RFC 9110).
inline constexpr int kHttpBadRequest = 400;
inline constexpr int kHttpForbidden = 403;
inline constexpr int kHttpNotFound = 404;
inline constexpr int kHttpUnavailable = 503;
/// @}

/// @{ Close statuses (RFC 6455, 7.4.1).
inline constexpr int kStatusNormal = 1000;         // the partner has gone
inline constexpr int kStatusGoingAway = 1001;      // the receiver ends the service
inline constexpr int kStatusInternalError = 1011;  // nobody would hear of the connection
/// @}

}  // namespace zenk
