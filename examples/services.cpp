#include "examples/services.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "examples/documents.h"

namespace {

using Json = nlohmann::json;

constexpr std::int64_t kNsPerSecond = 1'000'000'000;
constexpr std::int64_t kPtsPerSecond = 90'000;
constexpr std::int64_t kTemiPerSecond = 1'000;
constexpr std::uint64_t kMaxOrigin = (std::uint64_t{1} << 33) - 1;  // the greatest time stamp of an MPEG stream
constexpr std::uint64_t kMaxTag = 255;                              // tags and timeline ids are one byte
constexpr std::uintmax_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMaxServices = 100;
constexpr std::size_t kMaxTimelines = 20;
constexpr std::size_t kMaxTextBytes = 200;

void require(bool isTrue, const std::string& what) {
    if (!isTrue) throw std::runtime_error(what);
}

std::string textOf(const Json& object, const std::string& key) {
    const Json text = object.value(key, Json());
    require(text.is_string(), "needs a text \"" + key + "\"");
    const std::size_t bytes = text.get_ref<const std::string&>().size();
    require(bytes > 0 && bytes <= kMaxTextBytes, "\"" + key + "\" has no or too many characters");
    return text;
}

std::int64_t numberOf(const Json& object, const std::string& key, std::uint64_t max, const Json& otherwise = nullptr) {
    const Json number = object.value(key, otherwise);
    require(number.is_number_unsigned() && number.get<std::uint64_t>() <= max,
            "needs a whole number \"" + key + "\" from 0 to " + std::to_string(max));
    return number;
}

std::int64_t originOf(const Json& timeline) {
    return numberOf(timeline, "origin", kMaxOrigin, 0U);
}

Timeline readTemi(const Json& temi) {
    return temiTimeline(numberOf(temi, "componentTag", kMaxTag), numberOf(temi, "timelineId", kMaxTag), originOf(temi));
}

Service readService(const Json& object) {
    require(object.is_object(), "must be an object");
    Service service{textOf(object, "name"), textOf(object, "contentId"), {}};
    require(service.contentId.starts_with("dvb://"), "\"contentId\" must begin with dvb://");
    if (object.contains("pts")) service.timelines.push_back(ptsTimeline(originOf(object["pts"])));
    const Json temis = object.value("temi", Json::array());
    require(temis.is_array() && temis.size() <= kMaxTimelines, "\"temi\" must be a list, and no long one");
    for (const Json& temi : temis) service.timelines.push_back(readTemi(temi));
    return service;
}

Json readJson(const std::string& file) {
    std::error_code error;
    // A pipe could block and a device might never end.
    require(std::filesystem::is_regular_file(file, error), "cannot be read");
    require(std::filesystem::file_size(file, error) <= kMaxFileBytes, "is larger than 1 MiB");
    std::ifstream input(file);
    return Json::parse(input);
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

Timeline temiTimeline(std::int64_t componentTag, std::int64_t timelineId, std::int64_t origin) {
    const std::string tag = std::to_string(componentTag) + ":" + std::to_string(timelineId);
    return {"urn:dvb:css:timeline:temi:" + tag, kTemiPerSecond, origin};
}

std::vector<Service> readServices(const std::string& file) {
    std::vector<Service> services;
    for (const Json& builtIn : Json::parse(kServices)) services.push_back(readService(builtIn));
    if (file.empty()) return services;
    std::string where = file;
    try {
        const Json list = readJson(file);
        require(list.is_array() && list.size() <= kMaxServices, "must be a list of at most 100 services");
        for (std::size_t i = 0; i < list.size(); ++i) {
            where = file + " service " + std::to_string(i + 1);
            services.push_back(readService(list[i]));
        }
    } catch (const std::exception& wrong) {
        throw std::runtime_error(where + " " + wrong.what());
    }
    return services;
}
