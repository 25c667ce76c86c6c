#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "wsserver/media_sync_server.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

/// The host's side of CSS-CII and CSS-TS: greets CII clients, gives TS clients the time of the content, and prints
/// "event N client ID bytes LEN" for each event.
///
/// Owns both servers. Built and destroyed while nobody serves; between that, its callbacks run on the library's event
/// thread, one at a time for both servers, so that what only they touch needs no lock.
class CompanionServices {
public:
    /// Both servers become observers of `server`; they refuse clients until enable(). `server`, `clock` and the event
    /// dispatcher must outlive this object.
    CompanionServices(MediaSyncServer& server, ZenkWallClock& clock);
    ~CompanionServices();
    CompanionServices(const CompanionServices&) = delete;
    CompanionServices& operator=(const CompanionServices&) = delete;

    /// Lets clients in. The URLs are what CII clients are told.
    void enable(const std::string& tsUrl, const std::string& wcUrl);

    /// Both leave `url` empty when the receiver has no IPv4 address.
    void getCiiUrl(std::string& url) { m_cii.getCssCiiEndpoint(url); }
    void getTsUrl(std::string& url) { m_ts.getCssTsEndpoint(url); }

private:
    static void onCiiEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self);
    static void onTsEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self);
    void answerTsMessage(int clientId, const std::string& message);
    std::int64_t wallClockNs();

    ZenkWallClock& m_clock;        // safe to read from any thread
    const std::int64_t m_startNs;  // wall-clock time at which the content began
    std::string m_ciiGreeting;     // constant from enable() on
    // Event thread: for each CSS-TS client, whether it asked for the timeline that we offer.
    std::map<int, bool> m_timelineIsOffered;

    // Last, so that they go first: no callback may find the members above destroyed.
    ZenkCSSCIIServer m_cii;
    ZenkCSSTSServer m_ts;
};
