#include "examples/companion_services.h"

#include <stdexcept>
#include <variant>

namespace {

constexpr const char* kEventNames[] = {"cii client joined", "cii message", "cii client left",
                                       "ts client joined",  "ts message",  "ts client left"};

void printEvent(ZenkCSSEvent event, const ZenkCSSEevntInfo& info) {
    const auto number = static_cast<unsigned>(event);
    const std::string message = info.message.empty() ? "" : " " + printable(info.message);
    printLine("event " + std::to_string(number) + " client " + std::to_string(info.clientId) + " bytes " +
              std::to_string(info.message.size()) + " " + kEventNames[number] + message);
}

/// One text frame. May be called from any thread; a client that has gone is no error.
void send(ClientObserver& server, int clientId, std::string text) {
    server.sendMessage(text.data(), static_cast<int>(text.size()), clientId);
}

}  // namespace

CompanionServices::CompanionServices(MediaSyncServer& server, bool isEnabled, Television& television,
                                     Television::Clock clock, const Endpoints& urls)
    : m_television(television), m_clock(std::move(clock)), m_urls(urls) {
    server.addObserver(&m_cii);
    server.addObserver(&m_ts);
    // Without a user pointer the library never calls back.
    m_cii.registerCIIEventCallback(&CompanionServices::onEvent, this);
    m_ts.registerTSEventCallback(&CompanionServices::onEvent, this);
    m_television.listen([this](const Scene& scene) { onSceneChange(scene); });
    if (!isEnabled) return;
    // A disabled server refuses the clients of the other one too, so both are enabled or none.
    m_cii.setEnableInterDevSync(true);
    m_ts.setEnableInterDevSync(true);
}

CompanionServices::~CompanionServices() {
    // When these return, no callback is running and none will come.
    m_television.listen(nullptr);
    m_cii.unRegisterCIIEventCallback();
    m_ts.unRegisterTSEventCallback();
}

// A callback must not register or unregister callbacks, destroy its server, or keep `info` after its return. While it
// runs, all later events of both servers wait.
void CompanionServices::onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
    // The library hands the user pointer back as it got it, only const.
    auto& host = *static_cast<CompanionServices*>(const_cast<void*>(self));
    const int clientId = info->clientId;
    printEvent(event, *info);
    const std::lock_guard lock(host.m_mutex);
    if (event == CSS_EVENT_CII_CLIENT_LEAVE) host.m_ciiClients.erase(clientId);
    if (event == CSS_EVENT_TS_CLIENT_LEAVE) host.m_followers.erase(clientId);
    if (event == CSS_EVENT_TS_NEW_CLIENT) host.m_followers.try_emplace(clientId);
    if (event == CSS_EVENT_TS_MESSAGE) host.onTsMessage(clientId, info->message);
    if (event != CSS_EVENT_CII_NEW_CLIENT) return;
    host.m_ciiClients.insert(clientId);
    host.sendCii(clientId);
}

/// The first message must be setup data. Later ones tell what the client can play, which a host that coordinates
/// several devices would take into account; or they are setup data anew.
void CompanionServices::onTsMessage(int clientId, const std::string& message) try {
    const auto client = m_followers.find(clientId);
    if (client == m_followers.end()) return;  // sent away, but some of its messages had come before
    Follower& follower = client->second;
    const auto content = css::readTsMessage(message, !follower.setup);
    if (const auto* const readiness = std::get_if<css::Readiness>(&content)) {
        printLine("ts client " + std::to_string(clientId) + " can play: " + *readiness);
        return;
    }
    follower.setup = std::get<css::Setup>(content);
    sendTimestamp(clientId, follower, m_clock());
} catch (const std::runtime_error& wrong) {
    printLine("ts client " + std::to_string(clientId) + " is sent away: its message " + wrong.what());
    m_followers.erase(clientId);
    m_ts.closeClientConnection(clientId);
}

void CompanionServices::onSceneChange(const Scene& scene) {
    const std::lock_guard lock(m_mutex);
    m_scene = scene;
    for (const int clientId : m_ciiClients) sendCii(clientId);
    for (auto& [clientId, follower] : m_followers) {
        // A client that has no timeline still need not hear it again.
        const bool isTold = follower.isFollowing || (follower.setup && css::isFollowing(*follower.setup, scene));
        if (isTold) sendTimestamp(clientId, follower, scene.sinceNs);
    }
}

void CompanionServices::sendCii(int clientId) {
    send(m_cii, clientId, css::cii(m_scene, m_urls.cssTs, m_urls.cssWc));
}

void CompanionServices::sendTimestamp(int clientId, Follower& follower, std::int64_t wallClockNs) {
    follower.isFollowing = css::isFollowing(*follower.setup, m_scene);
    send(m_ts, clientId, css::controlTimestamp(*follower.setup, m_scene, wallClockNs));
}
