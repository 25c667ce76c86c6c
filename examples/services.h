#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// What is on: broadcast services, each with the content that it shows and the timelines that it carries.

struct Timeline {
    std::string selector;  ///< how companions ask for it
    std::int64_t unitsPerSecond = 0;
    std::int64_t origin = 0;  ///< its value, in units, where the content begins

    std::int64_t at(std::int64_t positionNs) const;
};

struct Service {
    std::string name;
    std::string contentId;  ///< "dvb://" with network, stream and service; and behind ";" the event
    std::vector<Timeline> timelines;

    /// What is known of the content id before the event is: the part without it.
    std::string partialContentId() const { return contentId.substr(0, contentId.find(';')); }
};

Timeline ptsTimeline(std::int64_t origin);
Timeline temiTimeline(std::int64_t componentTag, std::int64_t timelineId, std::int64_t origin);

/// The services that are built in and, behind them, those that a JSON file lists:
///
///     [{"name": "Four", "contentId": "dvb://1.2.3;4~20260101T2000Z--PT01H00M",
///       "pts": {"origin": 900000}, "temi": [{"componentTag": 1, "timelineId": 2, "origin": 0}]}]
///
/// Both kinds of timeline may be missing, and so may an origin, which is 0 then.
/// @param file  its name; empty for none
/// @throw std::runtime_error with the file, the service and the reason
std::vector<Service> readServices(const std::string& file);
