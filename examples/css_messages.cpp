#include "examples/css_messages.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>
#include <utility>

namespace css {
namespace {

using Json = nlohmann::ordered_json;

std::string textOf(const Json& object, const std::string& key) {
    const Json text = object.value(key, Json());
    if (!text.is_string()) throw std::runtime_error("has no text " + key);
    return text;
}

/// One of the three points of an AptEptLpt message. @param limit  the text for "without a limit", if it may be so
std::string readPoint(const Json& message, const std::string& name, const std::string& limit = "") {
    // Times travel as decimal texts, since a JSON number would lose digits in some clients; so many may 64 bits need.
    static const std::regex time("-?[0-9]{1,19}");
    const Json point = message.value(name, Json());
    if (!point.is_object()) throw std::runtime_error("has no object " + name);
    const std::string contentTime = textOf(point, "contentTime");
    const std::string wallClockTime = textOf(point, "wallClockTime");
    if (!std::regex_match(contentTime, time)) throw std::runtime_error("has no whole number as contentTime of " + name);
    if (!std::regex_match(wallClockTime, time) && (limit.empty() || wallClockTime != limit))
        throw std::runtime_error("has no time as wallClockTime of " + name);
    return name + " " + contentTime + " at " + wallClockTime;
}

const Timeline* timelineOf(const Setup& setup, const Scene& scene) {
    if (!scene.hasTimelines() || !scene.contentId().starts_with(setup.contentIdStem)) return nullptr;
    const auto found = std::ranges::find(scene.service.timelines, setup.timelineSelector, &Timeline::selector);
    return found == scene.service.timelines.end() ? nullptr : &*found;
}

}  // namespace

// Always whole, though the standard lets us leave out what has not changed: some clients forget what they do not see.
std::string cii(const Scene& scene, const std::string& tsUrl, const std::string& wcUrl) {
    Json timelines = Json::array();
    for (const Timeline& timeline : scene.service.timelines)
        timelines.push_back(
            {{"timelineSelector", timeline.selector},
             {"timelineProperties", {{"unitsPerTick", 1}, {"unitsPerSecond", timeline.unitsPerSecond}}}});
    const Json message = {{"protocolVersion", "1.1"},
                          {"contentId", scene.contentId()},
                          {"contentIdStatus", scene.isTransitioning ? "partial" : "final"},
                          {"presentationStatus", scene.presentationStatus()},
                          {"wcUrl", wcUrl},
                          {"tsUrl", tsUrl},
                          {"timelines", std::move(timelines)}};
    return message.dump();
}

std::variant<Setup, Readiness> readTsMessage(const std::string& message, bool isFirst) {
    const Json object = Json::parse(message, nullptr, false);
    if (object.is_discarded()) throw std::runtime_error("is no JSON");
    if (!object.is_object()) throw std::runtime_error("is no JSON object");
    if (isFirst || object.contains("contentIdStem") || object.contains("timelineSelector"))
        return Setup{textOf(object, "contentIdStem"), textOf(object, "timelineSelector")};
    const std::string actual = object.contains("actual") ? readPoint(object, "actual") + ", " : "";
    return actual + readPoint(object, "earliest", "minusinfinity") + ", " + readPoint(object, "latest", "plusinfinity");
}

bool isFollowing(const Setup& setup, const Scene& scene) {
    return timelineOf(setup, scene) != nullptr;
}

std::string controlTimestamp(const Setup& setup, const Scene& scene, std::int64_t wallClockNs) {
    Json message = {
        {"contentTime", nullptr}, {"wallClockTime", std::to_string(wallClockNs)}, {"timelineSpeedMultiplier", nullptr}};
    if (const Timeline* const timeline = timelineOf(setup, scene)) {
        message["contentTime"] = std::to_string(timeline->at(scene.positionAt(wallClockNs)));
        message["timelineSpeedMultiplier"] = scene.speed;
    }
    return message.dump();
}

}  // namespace css
