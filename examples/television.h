#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "examples/services.h"

/// What the television shows, from one change to the next.
struct Scene {
    std::size_t number = 1;  ///< of the service, from 1
    Service service;
    double speed = 1;              ///< 0 is paused
    std::int64_t positionNs = 0;   ///< from the beginning of the content, at `sinceNs`
    std::int64_t sinceNs = 0;      ///< wall-clock time of the change
    bool isAvailable = true;       ///< false: the timelines cannot be read, though the content goes on
    bool isTransitioning = false;  ///< a service has been chosen and is not on yet

    std::int64_t positionAt(std::int64_t wallClockNs) const;
    std::string contentId() const { return isTransitioning ? service.partialContentId() : service.contentId; }
    std::string presentationStatus() const { return isTransitioning ? "transitioning" : "okay"; }
    bool hasTimelines() const { return isAvailable && !isTransitioning; }
};

/// A television without a screen: services to zap through, content that plays, pauses and jumps. Every change is one
/// command. All operations may be called from any thread, and none throws but for want of memory.
class Television {
public:
    /// Gives the wall-clock time in nanoseconds. Called from any thread.
    using Clock = std::function<std::int64_t()>;
    /// Hears of changes one at a time and in their order, on the thread that makes them. Must not give commands.
    using Listener = std::function<void(const Scene&)>;

    /// @param services  not empty
    /// @param tuningMs  how long zapping takes; the command returns behind it
    Television(std::vector<Service> services, Clock clock, int tuningMs = 300);

    /// Carries out one command, "help" lists them; the next one waits until its listener has returned.
    /// @param command  any bytes
    /// @return a text for people, without a newline at its end: "ok ...", or "error: " and the reason
    std::string execute(std::string_view command);

    /// Everything about this instant, for a page.
    nlohmann::json status() const;

    /// Tells the listener what is on, and from then on of each change. Waits for a running listener to return.
    /// @param listener  in place of any earlier one; null for none
    void listen(Listener listener);

private:
    std::string carryOut(const std::string& verb, const std::string& argument);
    std::string setSpeed(std::string_view argument);
    std::string seek(std::string_view argument);
    std::string zap(std::string_view argument);
    std::string blackOut(std::string_view argument);
    std::string summary() const;
    Scene sceneNow() const;
    std::string show(const Scene& scene);

    const std::vector<Service> m_services;
    const Clock m_clock;
    const int m_tuningMs;
    std::mutex m_changeMutex;         // held through a command, its listener included: changes are told in their order
    Listener m_listener;              // under m_changeMutex
    mutable std::mutex m_sceneMutex;  // held briefly, behind m_changeMutex
    Scene m_scene;                    // under m_sceneMutex; written under both
};
