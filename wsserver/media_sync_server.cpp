#include "wsserver/media_sync_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "log/trace.h"
#include "platform/shared_value.h"
#include "platform/socket.h"
#include "platform/statuses.h"
#include "platform/zenk_websockets.h"
#include "wsserver/constants.h"
#include "wsserver/local_address.h"
#include "wsserver/paired_apps.h"

using zenk::loadShared;
using zenk::Trace;

namespace {

void sendText(lws* wsi, const char* message, int length) {
    zenk_ws::lws_write(wsi, message, length, zenk_ws::kWriteText);
}

/// Runs `call` with the server of an observer, if it has one.
template <typename Call>
void withServer(MediaSyncServer* server, const Trace& trace, const Call& call) {
    if (server == nullptr) return trace.fail();
    call(*server);
    trace.leave();
}

}  // namespace

// ---------------------------------------------------------------- observers

ClientObserver::ClientObserver() : m_server(nullptr) {
}

void ClientObserver::onNewClient(char* /*uri*/, int /*clientId*/) {
}

void ClientObserver::onMessage(unsigned char* /*message*/, int /*length*/, int /*clientId*/) {
}

void ClientObserver::onClientLeave(int /*clientId*/) {
}

int ClientObserver::getCssServerStatus() {
    return zenk::kCssAvailable;
}

ClientObserver::~ClientObserver() {
    MediaSyncServer* const server = loadShared(m_server);
    if (server != nullptr) server->removeObserver(this);
}

void ClientObserver::sendMessage(char* message, int length, int clientId) {
    withServer(loadShared(m_server), Trace(),
               [&](MediaSyncServer& server) { server.observerSendMessage(message, length, clientId); });
}

void ClientObserver::sendMessageAll(char* message, int length, int clientId) {
    withServer(loadShared(m_server), Trace(),
               [&](MediaSyncServer& server) { server.observerSendMessageAll(message, length, clientId); });
}

void ClientObserver::closeClientConnection(int clientId) {
    withServer(loadShared(m_server), Trace(),
               [&](MediaSyncServer& server) { server.observerCloseClientConnection(clientId); });
}

const char* ClientObserver::getUrl(int clientId) {
    MediaSyncServer* const server = loadShared(m_server);
    const char* const url = server == nullptr ? nullptr : server->urlOf(clientId);
    return url == nullptr ? "NONE" : url;
}

bool ClientObserver::copyUrl(int clientId, std::string& url) {
    MediaSyncServer* const server = loadShared(m_server);
    return server != nullptr && server->copyUrl(clientId, url);
}

// ---------------------------------------------------------------- routing

MediaSyncServer* MediaSyncServer::getInstance() {
    const Trace trace;
    MediaSyncServer* const instance = instanceOrNewOne();
    return instance == nullptr ? trace.fail(instance) : trace.leave(instance);
}

int MediaSyncServer::onFilterConnection() {
    const Trace trace;
    beginHandshake();
    if (isPairingUri(m_handshakeUri)) return 0;

    zenk::ObserverList::Walk walk(m_observerList);
    while (ClientObserver* const observer = walk.next()) {
        const int status = observer->getCssServerStatus();
        if (status == zenk::kCssDisabled) return zenk::kHttpForbidden;
        if (status == zenk::kCssFull) return zenk::kHttpUnavailable;
    }
    return trace.leave(0);
}

void MediaSyncServer::onConnect() {
    const Trace trace;
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    std::string fulluri = takeHandshakeUri();
    const int id = registerConnection(socketFd, fulluri);
    trace.text("fulluri.c_str()", fulluri.c_str());
    if (isPairingUri(fulluri)) {
        handlePairingConnection(fulluri, socketFd, m_wsi);
        return;
    }
    zenk::ObserverList::Walk walk(m_observerList);
    while (ClientObserver* const observer = walk.next()) observer->onNewClient(fulluri.data(), id);
    if (wasSwept()) zenk_ws::lws_close(m_wsi, zenk::kStatusGoingAway);
    trace.leave();
}

void MediaSyncServer::onMessage(unsigned char* message, int length, bool binary) {
    const Trace trace;
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    if (handlePairingMsg(message, length, socketFd, binary) != 0) return trace.fail();
    const int id = clientIdOf(socketFd);
    if (id == 0) return trace.fail();
    zenk::ObserverList::Walk walk(m_observerList);
    while (ClientObserver* const observer = walk.next()) observer->onMessage(message, length, id);
    trace.leave();
}

int MediaSyncServer::onClose() {
    const Trace trace;
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    const int id = forgetConnection(socketFd);
    if (id == 0) {
        std::puts("###can't find client id");
        return -1;
    }
    // Pairing clients are no business of the observers, and every other client is.
    if (handlePairingClose(socketFd) == 0) {
        zenk::ObserverList::Walk walk(m_observerList);
        while (ClientObserver* const observer = walk.next()) observer->onClientLeave(id);
    }
    return trace.leave(0);
}

// ---------------------------------------------------------------- outbound

/// Runs `action` for one client or for every one, the oldest first. The lock is held across it: a connection must not
/// go, and its address be used again, before a write or close has reached it.
/// @return false when the id names nobody
template <typename Action>
bool MediaSyncServer::forClients(int clientId, const Action& action) {
    zenk::MutexLock lock(m_registryMutex);
    if (clientId == zenk::kEveryClient) {
        for (const auto& [id, wsi] : m_clientMap) action(id, wsi);
        return true;
    }
    const auto client = m_clientMap.find(clientId);
    if (client == m_clientMap.end()) return false;
    action(clientId, client->second);
    return true;
}

int MediaSyncServer::observerSendMessage(char* message, int length, int clientId) {
    const Trace trace;
    const bool isKnown = forClients(clientId, [&](int, lws* wsi) { sendText(wsi, message, length); });
    return isKnown ? trace.leave(0) : trace.fail(1);
}

int MediaSyncServer::observerSendMessageAll(char* message, int length, int clientId) {
    const Trace trace;
    forClients(zenk::kEveryClient, [&](int id, lws* wsi) {
        if (id != clientId) sendText(wsi, message, length);
    });
    return trace.leave(0);
}

void MediaSyncServer::observerCloseClientConnection(int clientId) {
    const Trace trace;
    if (clientId == zenk::kEveryClient) sweepHandshake();  // first, so that it is seen there or found registered
    const bool isKnown = forClients(clientId, [](int, lws* wsi) {
        if (wsi != nullptr) zenk_ws::lws_close(wsi, zenk::kStatusGoingAway);
    });
    return isKnown ? trace.leave() : trace.fail();
}

// ---------------------------------------------------------------- pairing

int MediaSyncServer::handlePairingConnection(const std::string& uri, int socketFd, lws* wsi) {
    const Trace trace;
    const auto [side, endpoint] = cutPairingUri(uri.c_str());
    trace.text("endpoint.c_str()", endpoint.c_str());
    // Socket 0 stands for an absent side in the records: nobody could find this connection again.
    if (socketFd == 0) return trace.leave(1);
    _pairedApp* const app = m_pairing->findWaiting(endpoint, side);
    if (app == nullptr) {
        m_pairing->start(endpoint, side, socketFd, wsi);
        return trace.leave(1);
    }
    m_pairing->complete(*app, side, socketFd, wsi);
    const bool isLocal = side == PairSide::kLocal;
    trace.text(isLocal ? "\"local paired\"" : "\"remote paired\"", isLocal ? "local paired" : "remote paired");
    if (loadShared(enablePairing)) {
        constexpr std::string_view kNotice = "pairingcompleted";
        for (lws* const partner : {app->localWsi, app->remoteWsi}) {
            sendText(partner, kNotice.data(), static_cast<int>(kNotice.size()));
        }
    }
    return trace.leave(1);
}

int MediaSyncServer::handlePairingMsg(unsigned char* message, int length, int socketFd, bool binary) {
    const Trace trace;
    const _pairedApp* const app = m_pairing->findBySocket(socketFd);
    if (app == nullptr) return trace.leave(0);
    if (!loadShared(enablePairing)) {
        trace.number("enablePairing", 0);
        return 1;
    }
    const int type = binary ? zenk_ws::kWriteBinary : zenk_ws::kWriteText;
    if (app->localFd == socketFd && app->remoteWsi != nullptr) {
        zenk_ws::lws_write(app->remoteWsi, message, length, type);
    }
    if (app->remoteFd == socketFd && app->localWsi != nullptr) {
        zenk_ws::lws_write(app->localWsi, message, length, type);
    }
    return trace.leave(1);
}

int MediaSyncServer::handlePairingClose(int socketFd) {
    const Trace trace;
    _pairedApp* const app = m_pairing->findBySocket(socketFd);
    if (app == nullptr) return trace.leave(0);
    const bool isLocal = app->localFd == socketFd;
    const bool isRemote = app->remoteFd == socketFd;
    if ((isLocal && app->remoteWsi == nullptr) || (isRemote && app->localWsi == nullptr)) {
        m_pairing->end(*app);
    } else {
        // The record is in its final state before the partner hears of it, and is not touched after.
        lws* const partner = isLocal ? app->remoteWsi : app->localWsi;
        m_pairing->leave(*app, isLocal ? PairSide::kLocal : PairSide::kRemote);
        zenk_ws::lws_close(partner, zenk::kStatusNormal);
    }
    return trace.leave(1);
}

// ---------------------------------------------------------------- URLs and tokens

int getLocalIpAddr(char* ip_addr, int len) {
    const Trace trace;
    const std::size_t bound = static_cast<std::size_t>(std::max(len, 0));
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> table(std::fopen("/proc/net/route", "re"), std::fclose);
    if (table == nullptr) return trace.fail(-1);
    std::optional<zenk::InterfaceName> iface_name = zenk::firstRouteInterface(table.get());
    table.reset();
    if (!iface_name) return trace.fail(-1);
    iface_name->text[std::min(bound, sizeof iface_name->text - 1)] = '\0';
    trace.text("iface_name", iface_name->text);

    const zenk::Socket socket(SOCK_STREAM);
    if (!socket.isOpen()) return trace.fail(-1);
    const zenk::AddressText address = zenk::addressOf(socket.fd(), *iface_name);
    const bool isFound = address.text[0] != '\0';
    if (isFound) std::strncpy(ip_addr, address.text, bound);  // a text of 15 characters gets no terminator
    trace.text("ip_addr", isFound ? address.text : ip_addr);
    return isFound ? 0 : -1;
}

namespace {

/// Gives "ws://ADDRESS:PORT" followed by the pieces, with the receiver's address of the moment.
void giveUrl(const Trace& trace, std::string& url, int port, std::initializer_list<std::string_view> pieces) try {
    zenk::AddressText address;
    if (getLocalIpAddr(address.text, zenk::AddressText::kLongest) < 0) return trace.fail();
    std::string made = "ws://";
    made.append(address.text).append(":").append(std::to_string(port));
    for (const std::string_view piece : pieces) made.append(piece);
    url = std::move(made);
    trace.leave();
} catch (const std::exception&) {
    trace.fail();
}

}  // namespace

void MediaSyncServer::getApp2AppLocalBaseUrl(std::string& url) {
    giveUrl(Trace(), url, loadShared(m_port), {zenk::kLocalPath, m_local_random, "/"});
}

void MediaSyncServer::getApp2AppRemoteBaseUrl(std::string& url) {
    giveUrl(Trace(), url, loadShared(m_port), {zenk::kRemotePath, m_remote_random, "/"});
}

void MediaSyncServer::getInterDevSyncUrl(std::string& url) {
    giveUrl(Trace(), url, loadShared(m_port), {zenk::kCiiPath, "/", m_sync_random, "/"});
}

void MediaSyncServer::getCssTsEndpoint(std::string& url) {
    giveUrl(Trace(), url, loadShared(m_port), {zenk::kTsPath, "/"});
}
