#include "examples/companion_services.h"

#include <stdexcept>
#include <string_view>
#include <utility>

#include "examples/print_line.h"

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

/// The library hands the user pointer back as it got it, only const.
CompanionServices& fromUserData(void const* self) {
    return *const_cast<CompanionServices*>(static_cast<const CompanionServices*>(self));
}

}  // namespace

CompanionServices::CompanionServices(MediaSyncServer& server, Television& television, Television::Clock clock)
    : m_television(television), m_clock(std::move(clock)) {
    server.addObserver(&m_cii);
    server.addObserver(&m_ts);
    // Without a user pointer the library never calls back.
    m_cii.registerCIIEventCallback(&CompanionServices::onCiiEvent, this);
    m_ts.registerTSEventCallback(&CompanionServices::onTsEvent, this);
    m_television.listen([this](const Scene& scene) { onSceneChange(scene); });
}

CompanionServices::~CompanionServices() {
    // When these return, no callback is running and none will come.
    m_television.listen(nullptr);
    m_cii.unRegisterCIIEventCallback();
    m_ts.unRegisterTSEventCallback();
}

void CompanionServices::enable(const std::string& tsUrl, const std::string& wcUrl) {
    m_tsUrl = tsUrl;
    m_wcUrl = wcUrl;
    // A disabled server refuses the clients of the other one too, so both are enabled or none.
    m_cii.setEnableInterDevSync(true);
    m_ts.setEnableInterDevSync(true);
}

// A callback must not register or unregister callbacks, destroy its server, or keep `info` after its return. While it
// runs, all later events of both servers wait.
void CompanionServices::onCiiEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
    CompanionServices& host = fromUserData(self);
    printEvent(event, *info);
    const std::lock_guard lock(host.m_mutex);
    if (event == CSS_EVENT_CII_CLIENT_LEAVE) host.m_ciiClients.erase(info->clientId);
    if (event != CSS_EVENT_CII_NEW_CLIENT) return;
    host.m_ciiClients.insert(info->clientId);
    host.sendCii(info->clientId);
}

void CompanionServices::onTsEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
    CompanionServices& host = fromUserData(self);
    printEvent(event, *info);
    const std::lock_guard lock(host.m_mutex);
    if (event == CSS_EVENT_TS_NEW_CLIENT) host.m_followers.try_emplace(info->clientId);
    if (event == CSS_EVENT_TS_CLIENT_LEAVE) host.m_followers.erase(info->clientId);
    if (event == CSS_EVENT_TS_MESSAGE) host.onTsMessage(info->clientId, info->message);
}

/// The first message must be setup data. Later ones tell what the client can play, which a host that coordinates
/// several devices would take into account; or they are setup data anew.
void CompanionServices::onTsMessage(int clientId, const std::string& message) try {
    const auto client = m_followers.find(clientId);
    if (client == m_followers.end()) return;  // sent away, but some of its messages had come before
    Follower& follower = client->second;
    if (follower.setup && !css::isSetup(message)) {
        printLine("ts client " + std::to_string(clientId) + " can play: " + css::readAptEptLpt(message));
        return;
    }
    follower.setup = css::readSetup(message);
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
    send(m_cii, clientId, css::cii(m_scene, m_tsUrl, m_wcUrl));
}

void CompanionServices::sendTimestamp(int clientId, Follower& follower, std::int64_t wallClockNs) {
    follower.isFollowing = css::isFollowing(*follower.setup, m_scene);
    send(m_ts, clientId, css::controlTimestamp(*follower.setup, m_scene, wallClockNs));
}
