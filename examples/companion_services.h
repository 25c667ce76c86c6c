#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "examples/css_messages.h"
#include "examples/limited_server.h"
#include "examples/television.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/zenk_dvbCss.h"

/// The host's side of CSS-CII and CSS-TS: tells CII clients what the television shows and TS clients where its
/// timelines are, at first and after each change. Prints a line for each event: "event N client ID bytes LEN", what it
/// was, and the message.
///
/// Owns both servers. Built and destroyed while nobody serves. Between that, the library's event thread calls it, and
/// the threads on which the television changes.
class CompanionServices {
public:
    /// Both servers become observers of `server`; they refuse clients until enable(). `server`, `television`, what
    /// `clock` needs, and the event dispatcher must outlive this object.
    CompanionServices(MediaSyncServer& server, Television& television, Television::Clock clock);
    ~CompanionServices();
    CompanionServices(const CompanionServices&) = delete;
    CompanionServices& operator=(const CompanionServices&) = delete;

    /// Lets clients in. The URLs are what CII clients are told.
    void enable(const std::string& tsUrl, const std::string& wcUrl);

    /// Both leave `url` empty when the receiver has no IPv4 address.
    void getCiiUrl(std::string& url) { m_cii.getCssCiiEndpoint(url); }
    void getTsUrl(std::string& url) { m_ts.getCssTsEndpoint(url); }

private:
    struct Follower {
        std::optional<css::Setup> setup;  // none before its first message
        bool isFollowing = false;         // whether its last timestamp had a time in it
    };

    static void onCiiEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self);
    static void onTsEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self);
    void onTsMessage(int clientId, const std::string& message);
    void onSceneChange(const Scene& scene);
    void sendCii(int clientId);
    void sendTimestamp(int clientId, Follower& follower, std::int64_t wallClockNs);

    Television& m_television;  // safe to use from any thread
    const Television::Clock m_clock;
    std::string m_tsUrl;  // constant from enable() on, before anybody is served
    std::string m_wcUrl;  // the same

    // Guards what follows. Held through sending, which never waits, so that each client gets its messages in the order
    // of the changes; never while the library waits for a callback of ours.
    std::mutex m_mutex;
    Scene m_scene;  // what the clients have been told
    std::set<int> m_ciiClients;
    std::map<int, Follower> m_followers;  // CSS-TS clients that have not been sent away

    // Last, so that they go first: no callback may find the members above destroyed.
    LimitedServer<ZenkCSSCIIServer> m_cii{"css-cii"};
    LimitedServer<ZenkCSSTSServer> m_ts{"css-ts"};
};
