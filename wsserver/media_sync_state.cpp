// What a MediaSyncServer keeps: its instance, observers, connections and tokens. Nothing here writes to the log.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/shared_value.h"
#include "platform/zenk_websockets.h"
#include "wsserver/client_ids.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/paired_apps.h"
#include "wsserver/url_token.h"

using zenk::loadShared;
using zenk::replaceShared;
using zenk::storeShared;

// ---------------------------------------------------------------- life

MediaSyncServer* MediaSyncServer::m_instance = nullptr;

namespace {

// Keeps two first calls of getInstance() from building two instances. Nothing destroys it when the process exits.
constinit zenk::Mutex g_instanceMutex;
static_assert(std::is_trivially_destructible_v<zenk::Mutex>);

/// Keeps a server alive while another thread holds or resumes one of its clients.
struct LivingServers {
    zenk::Mutex mutex;  // taken before the registry lock of a server
    std::vector<MediaSyncServer*> list ZENK_GUARDED_BY(mutex);
};

LivingServers& livingServers() {
    static LivingServers* const servers = new LivingServers;  // never destroyed: threads may outlive main()
    return *servers;
}

}  // namespace

MediaSyncServer::MediaSyncServer()
    : mClientIdIndex(0),
      m_port(0),
      enablePairing(false),
      m_observerList(m_observers, m_registryMutex),
      m_pairing(std::make_unique<PairedApps>(m_pairedApps)) {
    {
        LivingServers& living = livingServers();
        const zenk::MutexLock lock(living.mutex);
        living.list.push_back(this);
    }
    storeShared(m_instance, this);
    createRandom();
}

MediaSyncServer::~MediaSyncServer() {
    {
        LivingServers& living = livingServers();
        const zenk::MutexLock lock(living.mutex);
        std::erase(living.list, this);
    }
    {
        zenk::MutexLock lock(m_registryMutex);
        mClientIdIndex = 0;
        for (ClientObserver* observer : m_observers) leaveServer(*observer);
    }
    storeShared(m_port, 0);
    storeShared(m_instance, nullptr);
    m_pairing->clear();
    storeShared(enablePairing, false);
}

MediaSyncServer* MediaSyncServer::instanceOrNewOne() try {
    const zenk::MutexLock lock(g_instanceMutex);
    MediaSyncServer* const instance = loadShared(m_instance);
    return instance != nullptr ? instance : new MediaSyncServer;  // which stores itself in m_instance
} catch (const std::exception&) {
    return nullptr;
}

// ---------------------------------------------------------------- observers

void MediaSyncServer::addObserver(ClientObserver* observer) {
    if (observer == nullptr) return;
    storeShared(observer->m_server, this);
    if (!m_observerList.add(observer)) leaveServer(*observer);
}

void MediaSyncServer::removeObserver(ClientObserver* observer) {
    if (observer == nullptr) return;
    leaveServer(*observer);
    m_observerList.remove(observer);
}

// An observer that has been given to another server meanwhile keeps that one.
void MediaSyncServer::leaveServer(ClientObserver& observer) {
    replaceShared(observer.m_server, this, nullptr);
}

// ---------------------------------------------------------------- registry

int MediaSyncServer::registerConnection(int socketFd, const std::string& uri) {
    zenk::MutexLock lock(m_registryMutex);
    const int id = nextClientId(mClientIdIndex, m_clientMap);
    try {
        m_clientMap.emplace(id, m_wsi);
        m_fdMap.emplace(socketFd, id);
        m_urlMap[id] = uri;
    } catch (const std::exception&) {
        m_clientMap.erase(id);
        m_fdMap.erase(socketFd);
        m_urlMap.erase(id);
        throw;
    }
    mClientIdIndex = id;
    m_handshakeWsi = nullptr;
    return id;
}

/// @return the id that the connection had, or 0
int MediaSyncServer::forgetConnection(int socketFd) {
    zenk::MutexLock lock(m_registryMutex);
    const auto entry = m_fdMap.find(socketFd);
    if (entry == m_fdMap.end()) return 0;
    const int id = entry->second;
    m_clientMap.erase(id);
    m_fdMap.erase(entry);
    // A text that getUrl() has just given out must not vanish under its reader.
    m_retiredUrls[m_nextRetired] = m_urlMap.extract(id);
    m_nextRetired = (m_nextRetired + 1) % kRetiredUrls;
    return id;
}

/// @return 0 for a socket that is not registered
int MediaSyncServer::clientIdOf(int socketFd) {
    zenk::MutexLock lock(m_registryMutex);
    const auto entry = m_fdMap.find(socketFd);
    return entry == m_fdMap.end() ? 0 : entry->second;
}

const char* MediaSyncServer::urlOf(int clientId) {
    zenk::MutexLock lock(m_registryMutex);
    const auto entry = m_urlMap.find(clientId);
    return entry == m_urlMap.end() ? nullptr : entry->second.c_str();
}

bool MediaSyncServer::copyUrl(int clientId, std::string& url) {
    zenk::MutexLock lock(m_registryMutex);
    const auto entry = m_urlMap.find(clientId);
    if (entry == m_urlMap.end()) return false;
    try {
        url = entry->second;
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

static std::string fullUri(lws* wsi) {
    const char* const path = zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenPath);
    const char* const query = zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenQuery);
    std::string uri = path != nullptr ? path : "";
    // An empty query still has its "?".
    if (query != nullptr) uri.append("?").append(query);
    return uri;
}

void MediaSyncServer::beginHandshake() {
    m_handshakeUri = fullUri(m_wsi);
    const zenk::MutexLock lock(m_registryMutex);
    m_handshakeWsi = m_wsi;
    m_isHandshakeSwept = false;
}

std::string MediaSyncServer::takeHandshakeUri() {
    const zenk::MutexLock lock(m_registryMutex);
    return m_handshakeWsi == m_wsi ? std::move(m_handshakeUri) : fullUri(m_wsi);
}

void MediaSyncServer::sweepHandshake() {
    const zenk::MutexLock lock(m_registryMutex);
    m_isHandshakeSwept = m_handshakeWsi != nullptr;
}

bool MediaSyncServer::wasSwept() {
    const zenk::MutexLock lock(m_registryMutex);
    return std::exchange(m_isHandshakeSwept, false);
}

void MediaSyncServer::holdClient(MediaSyncServer* server, int clientId, bool isHeld) {
    LivingServers& living = livingServers();
    const zenk::MutexLock livingLock(living.mutex);
    if (std::ranges::find(living.list, server) == living.list.end()) return;
    const zenk::MutexLock lock(server->m_registryMutex);
    const auto client = server->m_clientMap.find(clientId);
    if (client != server->m_clientMap.end()) zenk_ws::lws_rx_flow_control(client->second, isHeld ? 0 : 1);
}

// ---------------------------------------------------------------- tokens

// Never destroyed: a callback may ask for a URL while the process exits.
std::string& MediaSyncServer::m_local_random = *new std::string;
std::string& MediaSyncServer::m_remote_random = *new std::string;
std::string& MediaSyncServer::m_sync_random = *new std::string;
std::string& MediaSyncServer::m_css_random = *new std::string;

void MediaSyncServer::createRandom() {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    try {
        std::string local = randomToken(), remote = randomToken(), sync = randomToken();
        m_local_random.swap(local);
        m_remote_random.swap(remote);
        m_sync_random.swap(sync);
    } catch (const std::exception&) {
        // No memory: all of them stay as they are, since partners must differ in nothing else.
    }
}
