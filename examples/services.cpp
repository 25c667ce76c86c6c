#include "examples/services.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

using Json = nlohmann::json;

constexpr std::int64_t kNsPerSecond = 1'000'000'000;
constexpr std::int64_t kPtsPerSecond = 90'000;
constexpr std::int64_t kTemiPerSecond = 1'000;
constexpr std::int64_t kMaxOrigin = (std::int64_t{1} << 33) - 1;  // the greatest time stamp of an MPEG stream
constexpr int kMaxTag = 255;                                      // tags and timeline ids are one byte
constexpr std::uintmax_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMaxServices = 100;
constexpr std::size_t kMaxTimelines = 20;
constexpr std::size_t kMaxTextBytes = 200;
// Deeper than a list of services ever is; the library's way of reading has no limit of its own.
constexpr int kMaxDepth = 8;

void require(bool isTrue, const std::string& what) {
    if (!isTrue) throw std::runtime_error(what);
}

std::string textOf(const Json& object, const char* key) {
    const auto found = object.find(key);
    require(found != object.end() && found->is_string(), std::string("needs a text \"") + key + "\"");
    auto text = found->get<std::string>();
    require(!text.empty() && text.size() <= kMaxTextBytes,
            std::string("\"") + key + "\" has no or too many characters");
    return text;
}

std::int64_t numberOf(const Json& object, const char* key, std::int64_t max) {
    const auto found = object.find(key);
    const bool isGood = found != object.end() && found->is_number_unsigned() &&
                        found->get<std::uint64_t>() <= static_cast<std::uint64_t>(max);
    require(isGood, std::string("needs a whole number \"") + key + "\" from 0 to " + std::to_string(max));
    return found->get<std::int64_t>();
}

std::int64_t originOf(const Json& timeline) {
    return timeline.contains("origin") ? numberOf(timeline, "origin", kMaxOrigin) : 0;
}

Timeline readTemi(const Json& temi) {
    require(temi.is_object(), "each of \"temi\" must be an object");
    return temiTimeline(static_cast<int>(numberOf(temi, "componentTag", kMaxTag)),
                        static_cast<int>(numberOf(temi, "timelineId", kMaxTag)), originOf(temi));
}

Service readService(const Json& object) {
    require(object.is_object(), "must be an object");
    Service service{textOf(object, "name"), textOf(object, "contentId"), {}};
    require(service.contentId.starts_with("dvb://"), "\"contentId\" must begin with dvb://");
    if (const auto pts = object.find("pts"); pts != object.end()) {
        require(pts->is_object(), "\"pts\" must be an object");
        service.timelines.push_back(ptsTimeline(originOf(*pts)));
    }
    if (const auto temi = object.find("temi"); temi != object.end()) {
        require(temi->is_array() && temi->size() <= kMaxTimelines, "\"temi\" must be a list, and no long one");
        for (const Json& timeline : *temi) service.timelines.push_back(readTemi(timeline));
    }
    return service;
}

Json readJson(const std::string& file) {
    std::error_code error;
    // A pipe could block and a device might never end.
    require(std::filesystem::is_regular_file(file, error), "cannot be read");
    require(std::filesystem::file_size(file, error) <= kMaxFileBytes, "is larger than 1 MiB");
    std::ifstream input(file);
    const auto limitDepth = [](int depth, Json::parse_event_t, const Json&) {
        require(depth <= kMaxDepth, "is nested too deeply");
        return true;
    };
    try {
        return Json::parse(input, limitDepth);
    } catch (const Json::exception& wrong) {
        throw std::runtime_error(std::string("is no JSON: ") + wrong.what());
    }
}

}  // namespace

// In two parts, since the product of nanoseconds and units would leave 64 bits.
std::int64_t Timeline::at(std::int64_t positionNs) const {
    return origin + positionNs / kNsPerSecond * unitsPerSecond +
           positionNs % kNsPerSecond * unitsPerSecond / kNsPerSecond;
}

Timeline ptsTimeline(std::int64_t origin) {
    return {"urn:dvb:css:timeline:pts", kPtsPerSecond, origin};
}

Timeline temiTimeline(int componentTag, int timelineId, std::int64_t origin) {
    const std::string tag = std::to_string(componentTag) + ":" + std::to_string(timelineId);
    return {"urn:dvb:css:timeline:temi:" + tag, kTemiPerSecond, origin};
}

std::vector<Service> builtInServices() {
    return {
        {"Zenk One", "dvb://233a.1004.1044;363a~20130218T0915Z--PT00H45M", {ptsTimeline(0), temiTimeline(128, 1, 0)}},
        {"Zenk Two",
         "dvb://233a.1004.1080;21af~20131004T1015Z--PT01H00M",
         {ptsTimeline(900'000), temiTimeline(128, 1, 5'000), temiTimeline(129, 2, 0)}},
        {"Zenk Radio", "dvb://233a.1004.10c0;0b01~20140101T0600Z--PT03H00M", {temiTimeline(130, 1, 3'600'000)}}};
}

std::vector<Service> readServices(const std::string& file) try {
    const Json list = readJson(file);
    require(list.is_array() && list.size() <= kMaxServices, "must be a list of at most 100 services");
    std::vector<Service> services;
    for (const Json& object : list) {
        try {
            services.push_back(readService(object));
        } catch (const std::runtime_error& wrong) {
            const std::string number = std::to_string(services.size() + 1);
            throw std::runtime_error("service " + number + " " + wrong.what());
        }
    }
    return services;
} catch (const std::runtime_error& wrong) {
    throw std::runtime_error(file + " " + wrong.what());
}
