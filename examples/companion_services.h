#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "examples/css_messages.h"
#include "examples/endpoints.h"
#include "examples/screen.h"
#include "examples/television.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/zenk_dvbCss.h"

/// A CSS server that tells when a client is refused because it is full: one that is full refuses the clients of the
/// other, too, and then nobody would know why.
/// @tparam Server  ZenkCSSCIIServer or ZenkCSSTSServer
template <typename Server>
class LimitedServer : public Server {
public:
    explicit LimitedServer(std::string name) : m_name(std::move(name)) {}

    /// Asked for each client that comes, on the service thread.
    int getCssServerStatus() override {
        const int status = Server::getCssServerStatus();
        constexpr int kFull = 2;
        if (status == kFull) printLine("refused a client: " + m_name + " has as many as MSMaxClientNum allows");
        return status;
    }

private:
    const std::string m_name;
};

/// The host's side of CSS-CII and CSS-TS: tells CII clients what the television shows and TS clients where its
/// timelines are, at first and after each change. Prints a line for each event: "event N client ID bytes LEN", what it
/// was, and the message.
///
/// Owns both servers. Built and destroyed while nobody serves. Between that, the library's event thread calls it, and
/// the threads on which the television changes.
class CompanionServices {
public:
    /// Both servers become observers of `server`; if not enabled they refuse all clients. `server`, `television`, what
    /// `clock` needs, and the event dispatcher must outlive this object.
    /// @param urls  what CII clients are told
    CompanionServices(MediaSyncServer& server, bool isEnabled, Television& television, Television::Clock clock,
                      const Endpoints& urls);
    ~CompanionServices();

private:
    struct Follower {
        std::optional<css::Setup> setup;  // none before its first message
        bool isFollowing = false;         // whether its last timestamp had a time in it
    };

    static void onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self);
    void onTsMessage(int clientId, const std::string& message);
    void onSceneChange(const Scene& scene);
    void sendCii(int clientId);
    void sendTimestamp(int clientId, Follower& follower, std::int64_t wallClockNs);

    Television& m_television;  // safe to use from any thread
    const Television::Clock m_clock;
    const Endpoints m_urls;

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
