#include "examples/television.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <iomanip>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

namespace {

constexpr double kNsPerSecond = 1e9;
constexpr double kMaxSpeed = 64;
constexpr double kMaxPositionS = 86'400;       // a day; keeps all sums far from their limits
constexpr std::size_t kMaxCommandBytes = 200;  // more than any command has

constexpr const char* kHelp =
    "pause          stop where we are\n"
    "play           go on at normal speed\n"
    "speed 2        play at this speed, 0 to 64\n"
    "seek +10       jump by so many seconds, on or back (-10), or to a position (90)\n"
    "service 2      zap to this service\n"
    "blackout       take the timelines away, or give them back (or: blackout on, blackout off)\n"
    "status         what is on\n"
    "help           this list";

template <typename Number>
std::optional<Number> toNumber(std::string_view text, Number min, Number max) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    // Written so that "nan" fails, too.
    return number >= min && number <= max ? std::optional(number) : std::nullopt;
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
    if (command.size() > kMaxCommandBytes) return "error: the command is too long";
    std::istringstream words{std::string(command)};
    std::string verb;
    std::string argument;
    std::string more;
    words >> verb >> argument >> more;
    const bool isPrintable = std::ranges::all_of(verb + argument, [](char c) { return c > ' ' && c <= '~'; });
    if (!isPrintable) return "error: the command has characters that no command has";
    if (!more.empty()) return "error: no command has more than two words";
    const std::lock_guard lock(m_changeMutex);
    return carryOut(verb, argument);
}

std::string Television::carryOut(const std::string& verb, const std::string& argument) {
    if (verb == "speed") return setSpeed(argument);
    if (verb == "seek") return seek(argument);
    if (verb == "service") return zap(argument);
    if (verb == "blackout") return blackOut(argument);
    const std::string command = argument.empty() ? verb : verb + " " + argument;
    if (command == "pause") return setSpeed("0");
    if (command == "play") return setSpeed("1");
    if (command == "status") return summary();
    if (command == "help") return std::string("ok\n") + kHelp;
    return "error: no such command: \"" + command + "\"; \"help\" lists them";
}

std::string Television::setSpeed(std::string_view argument) {
    const auto speed = toNumber<double>(argument, 0, kMaxSpeed);
    if (!speed) return "error: speed needs a number from 0 to 64";
    Scene scene = sceneNow();
    scene.speed = *speed + 0.0;  // no minus zero on the wire
    return show(scene);
}

std::string Television::seek(std::string_view argument) {
    const bool isForward = argument.starts_with('+');
    const bool isRelative = isForward || argument.starts_with('-');
    if (isForward) argument.remove_prefix(1);
    const auto seconds = toNumber<double>(argument, isForward ? 0 : -kMaxPositionS, kMaxPositionS);
    if (!seconds) return "error: seek needs seconds, at most 86400: seek +10, seek -10 or seek 90";
    Scene scene = sceneNow();
    const double from = isRelative ? static_cast<double>(scene.positionNs) : 0;
    scene.positionNs = std::llround(std::clamp(from + *seconds * kNsPerSecond, 0.0, kMaxPositionS * kNsPerSecond));
    return show(scene);
}

std::string Television::zap(std::string_view argument) {
    const auto number = toNumber<std::size_t>(argument, 1, m_services.size());
    if (!number) return "error: service needs a number from 1 to " + std::to_string(m_services.size());
    Scene scene{.number = *number, .service = m_services[*number - 1], .sinceNs = m_clock(), .isTransitioning = true};
    show(scene);
    std::this_thread::sleep_for(std::chrono::milliseconds(m_tuningMs));
    scene.sinceNs = m_clock();
    scene.isTransitioning = false;
    return show(scene);
}

std::string Television::blackOut(std::string_view argument) {
    if (!argument.empty() && argument != "on" && argument != "off") return "error: blackout takes on, off or nothing";
    Scene scene = sceneNow();
    scene.isAvailable = argument.empty() ? !scene.isAvailable : argument == "off";
    return show(scene);
}

std::string Television::summary() const {
    const Scene scene = sceneNow();
    std::ostringstream text;
    text << "ok service " << scene.number << " (" << scene.service.name << ") at " << std::fixed << std::setprecision(3)
         << static_cast<double>(scene.positionNs) / kNsPerSecond << " s, speed " << std::defaultfloat
         << std::setprecision(6) << scene.speed << (scene.isAvailable ? "" : ", blackout");
    return text.str();
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

/// @return what a command answers that has led here
std::string Television::show(const Scene& scene) {
    {
        const std::lock_guard lock(m_sceneMutex);
        m_scene = scene;
    }
    if (m_listener) m_listener(scene);
    return summary();
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
