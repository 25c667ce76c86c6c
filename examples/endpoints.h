#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "wsserver/media_sync_server.h"
#include "wsserver/zenk_dvbCss.h"

/// The URLs of the services, for applications and companions.
struct Endpoints {
    std::string app2appLocal;
    std::string app2appRemote;
    std::string cssCii;
    std::string cssTs;
    std::string cssWc;

    std::string host() const { return cssWc.substr(6, cssWc.find(':', 6) - 6); }  // behind "udp://"
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Endpoints, app2appLocal, app2appRemote, cssCii, cssTs, cssWc)

/// The URLs to publish; for this machine alone while it has no IPv4 address. A receiver that moves to another network
/// has to ask again.
Endpoints askForEndpoints(MediaSyncServer& server, ZenkCSSWCServer& clockServer, int port, int wcPort);

void printEndpoints(const Endpoints& urls);
