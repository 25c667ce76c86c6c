#include "examples/css_messages.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace css {
namespace {

using Json = nlohmann::ordered_json;

Json objectOf(const std::string& message) {
    Json object = Json::parse(message, nullptr, false);
    if (object.is_discarded()) throw std::runtime_error("is no JSON");
    if (!object.is_object()) throw std::runtime_error("is no JSON object");
    return object;
}

const std::string& textOf(const Json& object, const std::string& key) {
    const auto found = object.find(key);
    if (found == object.end()) throw std::runtime_error("has no " + key);
    if (!found->is_string()) throw std::runtime_error("has a " + key + " that is no text");
    return found->get_ref<const std::string&>();
}

// Times travel as decimal texts: a JSON number would lose digits in some clients.
bool isTime(const std::string& text) {
    constexpr std::size_t kMaxDigits = 20;  // what 64 bits may need
    const std::size_t sign = text.starts_with('-') ? 1 : 0;
    return text.size() > sign && text.size() <= kMaxDigits && text.find_first_not_of("0123456789", sign) == text.npos;
}

/// One of the three points of an AptEptLpt message. @param limit  the text for "without a limit", if it may be so
std::string readPoint(const Json& message, const std::string& name, const std::string& limit) {
    const auto point = message.find(name);
    if (point == message.end() || !point->is_object()) throw std::runtime_error("has no object " + name);
    const std::string& contentTime = textOf(*point, "contentTime");
    const std::string& wallClockTime = textOf(*point, "wallClockTime");
    if (!isTime(contentTime)) throw std::runtime_error("has no whole number as contentTime of " + name);
    if (!isTime(wallClockTime) && (limit.empty() || wallClockTime != limit))
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

bool isSetup(const std::string& message) {
    const Json object = Json::parse(message, nullptr, false);
    return object.is_object() && (object.contains("contentIdStem") || object.contains("timelineSelector"));
}

Setup readSetup(const std::string& message) {
    const Json object = objectOf(message);
    return {textOf(object, "contentIdStem"), textOf(object, "timelineSelector")};
}

std::string readAptEptLpt(const std::string& message) {
    const Json object = objectOf(message);
    const std::string actual = object.contains("actual") ? readPoint(object, "actual", "") + ", " : "";
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
