#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// The few messages of ETSI TS 103 286-2 that the reference host speaks. Plain text in, plain text out.
namespace css {

/// The one timeline that the host offers: MPEG presentation time stamps, 90,000 a second.
inline constexpr const char* kPtsTimeline = "urn:dvb:css:timeline:pts";
inline constexpr std::int64_t kPtsPerSecond = 90000;

/// @return the CII message that greets a new client: what is on, and where the other services are
std::string ciiGreeting(const std::string& tsUrl, const std::string& wcUrl);

/// @return the timeline that a CSS-TS client asks for in its setup data, nothing when `message` is no setup data
std::optional<std::string> requestedTimeline(const std::string& message);

/// @return a control timestamp: the content is at `contentTime` (in ticks of its timeline) at `wallClockNs`
std::string controlTimestamp(std::int64_t contentTime, std::int64_t wallClockNs);

/// @return the control timestamp that says that the timeline is not available
std::string timelineUnavailable(std::int64_t wallClockNs);

}  // namespace css
