#include "examples/companion_services.h"

#include "examples/css_messages.h"
#include "examples/print_line.h"

namespace {

void printEvent(ZenkCSSEvent event, const ZenkCSSEevntInfo& info) {
    printLine("event " + std::to_string(static_cast<int>(event)) + " client " + std::to_string(info.clientId) +
              " bytes " + std::to_string(info.message.size()));
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

CompanionServices::CompanionServices(MediaSyncServer& server, ZenkWallClock& clock)
    : m_clock(clock), m_startNs(wallClockNs()) {
    server.addObserver(&m_cii);
    server.addObserver(&m_ts);
    // Without a user pointer the library never calls back.
    m_cii.registerCIIEventCallback(&CompanionServices::onCiiEvent, this);
    m_ts.registerTSEventCallback(&CompanionServices::onTsEvent, this);
}

CompanionServices::~CompanionServices() {
    // When these return, no callback is running and none will come.
    m_cii.unRegisterCIIEventCallback();
    m_ts.unRegisterTSEventCallback();
}

void CompanionServices::enable(const std::string& tsUrl, const std::string& wcUrl) {
    m_ciiGreeting = css::ciiGreeting(tsUrl, wcUrl);
    // A disabled server refuses the clients of the other one too, so both are enabled or none.
    m_cii.setEnableInterDevSync(true);
    m_ts.setEnableInterDevSync(true);
}

// A callback must not register or unregister callbacks, destroy its server, or keep `info` after its return. While it
// runs, all later events of both servers wait.
void CompanionServices::onCiiEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
    CompanionServices& host = fromUserData(self);
    printEvent(event, *info);
    // Nothing is kept for a CII client, so nothing has to be forgotten when it leaves.
    if (event == CSS_EVENT_CII_NEW_CLIENT) send(host.m_cii, info->clientId, host.m_ciiGreeting);
}

void CompanionServices::onTsEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
    CompanionServices& host = fromUserData(self);
    printEvent(event, *info);
    if (event == CSS_EVENT_TS_MESSAGE) host.answerTsMessage(info->clientId, info->message);
    if (event == CSS_EVENT_TS_CLIENT_LEAVE) host.m_timelineIsOffered.erase(info->clientId);
}

/// The first message of a client is its setup data; what follows tells what the client can play, which a host that
/// coordinates several devices would take into account. Each is answered with where the content is now.
void CompanionServices::answerTsMessage(int clientId, const std::string& message) {
    const auto [client, isFirst] = m_timelineIsOffered.try_emplace(clientId, true);
    if (isFirst) client->second = css::requestedTimeline(message).value_or(css::kPtsTimeline) == css::kPtsTimeline;

    const std::int64_t now = wallClockNs();
    const std::int64_t elapsedMicroseconds = (now - m_startNs) / 1000;
    const std::int64_t contentTime = elapsedMicroseconds * css::kPtsPerSecond / 1000000;
    send(m_ts, clientId, client->second ? css::controlTimestamp(contentTime, now) : css::timelineUnavailable(now));
}

std::int64_t CompanionServices::wallClockNs() {
    const timespec now = m_clock.GetWallClockTime();
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}
