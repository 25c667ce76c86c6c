#include "examples/endpoints.h"

#include <cstdio>

#include "examples/screen.h"

namespace {

Endpoints loopbackEndpoints(int port, int wcPort) {
    const std::string base = "ws://127.0.0.1:" + std::to_string(port);
    // In place of the random tokens. The server compares them with nothing, so any text does.
    const std::string token = "/loopback/";
    return {base + "/local/hbbtv" + token, base + "/remote/hbbtv" + token, base + "/css-cii" + token, base + "/css-ts/",
            "udp://127.0.0.1:" + std::to_string(wcPort)};
}

}  // namespace

Endpoints askForEndpoints(MediaSyncServer& server, ZenkCSSWCServer& clockServer, int port, int wcPort) {
    Endpoints urls;
    server.getApp2AppLocalBaseUrl(urls.app2appLocal);
    server.getApp2AppRemoteBaseUrl(urls.app2appRemote);
    server.getInterDevSyncUrl(urls.cssCii);
    server.getCssTsEndpoint(urls.cssTs);
    clockServer.getCssWcEndpoint(urls.cssWc);
    // Each was looked up by itself, and the address may have come or gone meanwhile.
    if (!urls.app2appLocal.empty() && !urls.cssWc.empty()) return urls;
    std::fputs(
        "zenk_receiver: this machine has no IPv4 address; the URLs name 127.0.0.1 and serve local clients only\n",
        stderr);
    return loopbackEndpoints(port, wcPort);
}

void printEndpoints(const Endpoints& urls) {
    printLine("app2app-local " + urls.app2appLocal);
    printLine("app2app-remote " + urls.app2appRemote);
    printLine("css-cii " + urls.cssCii);
    printLine("css-ts " + urls.cssTs);
    printLine("css-wc " + urls.cssWc);
}
