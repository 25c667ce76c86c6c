#include "examples/css_messages.h"

#include <nlohmann/json.hpp>

namespace css {
namespace {

using Json = nlohmann::ordered_json;

// Times travel as decimal strings: a JSON number would lose digits in some clients.
Json timestamp(Json contentTime, std::int64_t wallClockNs, Json speed) {
    return {{"contentTime", std::move(contentTime)},
            {"wallClockTime", std::to_string(wallClockNs)},
            {"timelineSpeedMultiplier", std::move(speed)}};
}

}  // namespace

std::string ciiGreeting(const std::string& tsUrl, const std::string& wcUrl) {
    const Json pts = {{"timelineSelector", kPtsTimeline},
                      {"timelineProperties", {{"unitsPerTick", 1}, {"unitsPerSecond", kPtsPerSecond}}}};
    const Json message = {{"protocolVersion", "1.1"},
                          {"contentId", "dvb://233a.1004.1044"},
                          {"contentIdStatus", "final"},
                          {"presentationStatus", "okay"},
                          {"wcUrl", wcUrl},
                          {"tsUrl", tsUrl},
                          {"timelines", Json::array({pts})}};
    return message.dump();
}

std::optional<std::string> requestedTimeline(const std::string& message) {
    const Json setup = Json::parse(message, nullptr, false);
    if (!setup.is_object()) return std::nullopt;
    const auto selector = setup.find("timelineSelector");
    if (selector == setup.end() || !selector->is_string()) return std::nullopt;
    return selector->get<std::string>();
}

std::string controlTimestamp(std::int64_t contentTime, std::int64_t wallClockNs) {
    return timestamp(std::to_string(contentTime), wallClockNs, 1.0).dump();
}

std::string timelineUnavailable(std::int64_t wallClockNs) {
    return timestamp(nullptr, wallClockNs, nullptr).dump();
}

}  // namespace css
