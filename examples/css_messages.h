#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "examples/television.h"

/// The messages of ETSI TS 103 286-2 that the reference host speaks. Plain text in, plain text out.
namespace css {

/// What a CSS-TS client asks for.
struct Setup {
    std::string contentIdStem;     ///< it means all contents whose id begins so
    std::string timelineSelector;  ///< and this timeline of them
};

/// What a CSS-TS client tells about the times at which it can play, in words for people.
using Readiness = std::string;

/// @return a whole CII message: what is on, and where the other services are
std::string cii(const Scene& scene, const std::string& tsUrl, const std::string& wcUrl);

/// Reads what a CSS-TS client has sent: setup data by its keys, or else an AptEptLpt message.
/// @param isFirst  whether it is its first message, which must be setup data
/// @throw std::runtime_error with the reason why it is none
std::variant<Setup, Readiness> readTsMessage(const std::string& message, bool isFirst);

/// @return whether a client with this setup has a timeline to follow
bool isFollowing(const Setup& setup, const Scene& scene);

/// @param wallClockNs  time of which the message speaks
/// @return a control timestamp: where the timeline is and how fast it runs, or that it is not available
std::string controlTimestamp(const Setup& setup, const Scene& scene, std::int64_t wallClockNs);

}  // namespace css
