#pragma once

#include <cstdint>
#include <string>

#include "examples/television.h"

/// The messages of ETSI TS 103 286-2 that the reference host speaks. Plain text in, plain text out.
namespace css {

/// What a CSS-TS client asks for.
struct Setup {
    std::string contentIdStem;     ///< it means all contents whose id begins so
    std::string timelineSelector;  ///< and this timeline of them
};

/// @return a whole CII message: what is on, and where the other services are
std::string cii(const Scene& scene, const std::string& tsUrl, const std::string& wcUrl);

/// @return whether `message` is setup data by its keys, right or wrong; anything else must be an AptEptLpt message
bool isSetup(const std::string& message);

/// Reads setup data. @throw std::runtime_error with the reason why it is none
Setup readSetup(const std::string& message);

/// Reads what a client tells about the times at which it can play. @return the message in words for people
/// @throw std::runtime_error with the reason why it is none
std::string readAptEptLpt(const std::string& message);

/// @return whether a client with this setup has a timeline to follow
bool isFollowing(const Setup& setup, const Scene& scene);

/// @param wallClockNs  time of which the message speaks
/// @return a control timestamp: where the timeline is and how fast it runs, or that it is not available
std::string controlTimestamp(const Setup& setup, const Scene& scene, std::int64_t wallClockNs);

}  // namespace css
