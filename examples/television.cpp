#include "examples/television.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <thread>
#include <utility>

namespace {

constexpr double kNsPerSecond = 1e9;
constexpr double kMaxSpeed = 64;
constexpr double kMaxPositionS = 86'400;       // a day; keeps all sums far from their limits
constexpr std::size_t kMaxCommandBytes = 200;  // more than any command has

template <typename Number>
std::optional<Number> toNumber(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::string_view trimmed(std::string_view text) {
    const char* const blanks = " \t\r\n";
    const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::string inSeconds(std::int64_t ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(ns) / kNsPerSecond);
    return text;
}

std::string error(const std::string& reason) {
    return "error: " + reason;
}

}  // namespace

std::int64_t Scene::positionAt(std::int64_t wallClockNs) const {
    return positionNs + std::llround(static_cast<double>(wallClockNs - sinceNs) * speed);
}

Television::Television(std::vector<Service> services, Clock clock, int tuningMs)
    : m_services(std::move(services)), m_clock(std::move(clock)), m_tuningMs(tuningMs) {
    m_scene.service = m_services.front();
    m_scene.sinceNs = m_clock();
}

std::string Television::execute(std::string_view command) {
    command = trimmed(command);
    if (command.size() > kMaxCommandBytes) return error("the command is too long");
    const bool isPrintable = std::ranges::all_of(command, [](char c) { return c >= ' ' && c <= '~'; });
    if (!isPrintable) return error("the command has characters that no command has");
    const std::size_t blank = std::min(command.find(' '), command.size());
    const std::lock_guard lock(m_changeMutex);
    return carryOut(command.substr(0, blank), trimmed(command.substr(blank)));
}

std::string Television::carryOut(std::string_view verb, std::string_view argument) {
    if (verb == "speed") return setSpeed(argument);
    if (verb == "seek") return seek(argument);
    if (verb == "service") return zap(argument);
    if (verb == "blackout") return blackOut(argument);
    if (verb != "pause" && verb != "play" && verb != "status" && verb != "help")
        return error("no such command: \"" + std::string(verb) + "\"; \"help\" lists them");
    if (!argument.empty()) return error(std::string(verb) + " takes nothing behind it");
    if (verb == "pause") return setSpeed("0");
    if (verb == "play") return setSpeed("1");
    return verb == "help" ? "ok\n" + help() : summary();
}

std::string Television::help() {
    return "pause          stop where we are\n"
           "play           go on at normal speed\n"
           "speed 2        play at this speed, 0 to 64\n"
           "seek +10       jump by so many seconds, on or back (-10), or to a position (90)\n"
           "service 2      zap to this service\n"
           "blackout       take the timelines away, or give them back (or: blackout on, blackout off)\n"
           "status         what is on\n"
           "help           this list";
}

std::string Television::setSpeed(std::string_view argument) {
    const std::optional<double> speed = toNumber<double>(argument);
    // Written so that "nan" fails, too.
    if (!speed || !(*speed >= 0 && *speed <= kMaxSpeed)) return error("speed needs a number from 0 to 64");
    Scene scene = sceneNow();
    scene.speed = *speed + 0.0;  // no minus zero on the wire
    show(scene);
    return summary();
}

std::string Television::seek(std::string_view argument) {
    const bool isForward = argument.starts_with('+');
    const bool isRelative = isForward || argument.starts_with('-');
    const std::optional<double> seconds = toNumber<double>(argument.substr(isForward ? 1 : 0));
    if (!seconds || !(std::abs(*seconds) <= kMaxPositionS) || (isForward && std::signbit(*seconds)))
        return error("seek needs seconds, at most 86400: seek +10, seek -10 or seek 90");
    Scene scene = sceneNow();
    const double from = isRelative ? static_cast<double>(scene.positionNs) : 0;
    scene.positionNs = std::llround(std::clamp(from + *seconds * kNsPerSecond, 0.0, kMaxPositionS * kNsPerSecond));
    show(scene);
    return summary();
}

std::string Television::zap(std::string_view argument) {
    const std::optional<std::size_t> number = toNumber<std::size_t>(argument);
    if (!number || *number < 1 || *number > m_services.size())
        return error("service needs a number from 1 to " + std::to_string(m_services.size()));
    Scene scene;
    scene.number = static_cast<int>(*number);
    scene.service = m_services[*number - 1];
    scene.sinceNs = m_clock();
    scene.isTransitioning = true;
    show(scene);
    std::this_thread::sleep_for(std::chrono::milliseconds(m_tuningMs));
    scene.sinceNs = m_clock();
    scene.isTransitioning = false;
    show(scene);
    return summary();
}

std::string Television::blackOut(std::string_view argument) {
    if (!argument.empty() && argument != "on" && argument != "off") return error("blackout takes on, off or nothing");
    Scene scene = sceneNow();
    scene.isAvailable = argument.empty() ? !scene.isAvailable : argument == "off";
    show(scene);
    return summary();
}

std::string Television::summary() const {
    const Scene scene = sceneNow();
    char speed[32];
    std::snprintf(speed, sizeof speed, "%g", scene.speed);
    return "ok service " + std::to_string(scene.number) + " (" + scene.service.name + ") at " +
           inSeconds(scene.positionNs) + " s, speed " + speed + (scene.isAvailable ? "" : ", blackout");
}

/// The scene as if it had begun now.
Scene Television::sceneNow() const {
    const std::lock_guard lock(m_sceneMutex);
    Scene scene = m_scene;
    const std::int64_t now = m_clock();
    scene.positionNs = scene.positionAt(now);
    scene.sinceNs = now;
    return scene;
}

void Television::show(const Scene& scene) {
    {
        const std::lock_guard lock(m_sceneMutex);
        m_scene = scene;
    }
    if (m_listener) m_listener(scene);
}

void Television::listen(Listener listener) {
    const std::lock_guard lock(m_changeMutex);
    m_listener = std::move(listener);
    if (m_listener) m_listener(m_scene);
}

nlohmann::json Television::status() const {
    const Scene scene = sceneNow();
    nlohmann::json services = nlohmann::json::array();
    for (const Service& service : m_services)
        services.push_back({{"number", services.size() + 1}, {"name", service.name}, {"contentId", service.contentId}});
    nlohmann::json timelines = nlohmann::json::array();
    for (const Timeline& timeline : scene.service.timelines)
        timelines.push_back({{"timelineSelector", timeline.selector},
                             {"unitsPerSecond", timeline.unitsPerSecond},
                             {"contentTime", std::to_string(timeline.at(scene.positionNs))}});
    return {{"wallClockTime", std::to_string(scene.sinceNs)},
            {"service", scene.number},
            {"name", scene.service.name},
            {"services", std::move(services)},
            {"contentId", scene.contentId()},
            {"position", static_cast<double>(scene.positionNs) / kNsPerSecond},
            {"speed", scene.speed},
            {"available", scene.hasTimelines()},
            {"presentationStatus", scene.presentationStatus()},
            {"timelines", std::move(timelines)}};
}
