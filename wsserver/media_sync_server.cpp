#include "wsserver/media_sync_server.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/zenk_websockets.h"
#include "wsserver/client_ids.h"
#include "wsserver/paired_apps.h"
#include "wsserver/route_table.h"
#include "wsserver/trace.h"
#include "wsserver/url_token.h"

namespace {

constexpr int kEveryClient = -1;
constexpr int kStatusNormal = 1000;     // RFC 6455, 7.4.1: the partner has gone
constexpr int kStatusGoingAway = 1001;  // the receiver ends the service
constexpr int kHttpForbidden = 403;
constexpr int kHttpUnavailable = 503;
constexpr int kCssDisabled = 1;
constexpr int kCssFull = 2;

// Plain members that the host writes from its own threads are read as if they were atomic.
template <typename T>
T loadShared(T& member) {
    return std::atomic_ref<T>(member).load(std::memory_order_acquire);
}

template <typename T>
void storeShared(T& member, T value) {
    std::atomic_ref<T>(member).store(value, std::memory_order_release);
}

std::string fullUri(lws* wsi) {
    const char* const path = zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenPath);
    const char* const query = zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenQuery);
    std::string uri;
    if (path != nullptr) uri = path;
    // An empty query still has its "?".
    if (query != nullptr) uri.append("?").append(query);
    return uri;
}

void sendText(lws* wsi, const char* message, int length) {
    zenk_ws::lws_write(wsi, message, length, zenk_ws::kWriteText);
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
    return 0;
}

ClientObserver::~ClientObserver() {
    MediaSyncServer* const server = loadShared(m_server);
    if (server != nullptr) server->removeObserver(this);
}

void ClientObserver::sendMessage(char* message, int length, int clientId) {
    ZENK_TRACE_ENTER();
    MediaSyncServer* const server = loadShared(m_server);
    if (server == nullptr) {
        ZENK_TRACE_ERROR();
        return;
    }
    server->observerSendMessage(message, length, clientId);
    ZENK_TRACE_LEAVE();
}

void ClientObserver::sendMessageAll(char* message, int length, int clientId) {
    ZENK_TRACE_ENTER();
    MediaSyncServer* const server = loadShared(m_server);
    if (server == nullptr) {
        ZENK_TRACE_ERROR();
        return;
    }
    server->observerSendMessageAll(message, length, clientId);
    ZENK_TRACE_LEAVE();
}

void ClientObserver::closeClientConnection(int clientId) {
    ZENK_TRACE_ENTER();
    MediaSyncServer* const server = loadShared(m_server);
    if (server == nullptr) {
        ZENK_TRACE_ERROR();
        return;
    }
    server->observerCloseClientConnection(clientId);
    ZENK_TRACE_LEAVE();
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

/// One walk of the service thread over the observers, with the registry lock held between the calls but not during
/// them. Observers may come and go meanwhile, from any thread and from inside the calls.
class MediaSyncServer::ObserverWalk {
public:
    explicit ObserverWalk(MediaSyncServer& server) : m_server(server) {
        zenk::MutexLock lock(m_server.m_registryMutex);
        m_server.m_walkNext = 0;
        m_server.m_walkThread = std::this_thread::get_id();
    }

    // An early end, or an exception, must not leave an observer marked as running.
    ~ObserverWalk() {
        if (m_isOver) return;
        zenk::MutexLock lock(m_server.m_registryMutex);
        setRunning(nullptr);
    }

    ObserverWalk(const ObserverWalk&) = delete;
    ObserverWalk& operator=(const ObserverWalk&) = delete;

    /// The next observer to call, or null at the end. The call of the one before counts as finished.
    ClientObserver* next() {
        zenk::MutexLock lock(m_server.m_registryMutex);
        m_isOver = m_server.m_walkNext >= m_server.m_observers.size();
        setRunning(m_isOver ? nullptr : m_server.m_observers[m_server.m_walkNext++]);
        return m_server.m_runningObserver;
    }

private:
    void setRunning(ClientObserver* observer) ZENK_REQUIRES(m_server.m_registryMutex) {
        m_server.m_runningObserver = observer;
        if (m_server.m_waitingRemovals > 0) m_server.m_observerIdle.notify_all();
    }

    MediaSyncServer& m_server;
    bool m_isOver = false;
};

void MediaSyncServer::addObserver(ClientObserver* observer) {
    if (observer == nullptr) return;
    zenk::MutexLock lock(m_registryMutex);
    try {
        m_observers.push_back(observer);
    } catch (const std::exception&) {
        return;  // no memory: it stays without a server, and its operations say so
    }
    storeShared(observer->m_server, this);
}

void MediaSyncServer::removeObserver(ClientObserver* observer) {
    if (observer == nullptr) return;
    zenk::MutexLock lock(m_registryMutex);
    // A walk under way goes on with the observer that it would have called next.
    const auto reached = m_observers.begin() + static_cast<std::ptrdiff_t>(std::min(m_walkNext, m_observers.size()));
    m_walkNext -= static_cast<std::size_t>(std::count(m_observers.begin(), reached, observer));
    std::erase(m_observers, observer);
    leaveServer(*observer);

    if (std::this_thread::get_id() == m_walkThread) return;
    ++m_waitingRemovals;
    while (m_runningObserver == observer) m_observerIdle.wait(m_registryMutex);
    --m_waitingRemovals;
}

// An observer that has been given to another server meanwhile keeps that one.
void MediaSyncServer::leaveServer(ClientObserver& observer) {
    if (loadShared(observer.m_server) == this) storeShared<MediaSyncServer*>(observer.m_server, nullptr);
}

// ---------------------------------------------------------------- life

MediaSyncServer* MediaSyncServer::m_instance = nullptr;

/// Keeps two first calls of getInstance() from building two instances, and the instance alive while the event thread
/// holds or resumes one of its clients. Taken before the registry lock.
static zenk::Mutex& instanceMutex() {
    static zenk::Mutex mutex;
    return mutex;
}

MediaSyncServer::MediaSyncServer()
    : mClientIdIndex(0), m_port(0), enablePairing(false), m_pairing(std::make_unique<PairedApps>(m_pairedApps)) {
    storeShared(m_instance, this);
    createRandom();
}

MediaSyncServer::~MediaSyncServer() {
    {
        zenk::MutexLock lock(m_registryMutex);
        mClientIdIndex = 0;
        for (ClientObserver* observer : m_observers) leaveServer(*observer);
    }
    storeShared(m_port, 0);
    {
        zenk::MutexLock lock(instanceMutex());
        storeShared<MediaSyncServer*>(m_instance, nullptr);
    }
    m_pairing->clear();
    storeShared(enablePairing, false);
}

MediaSyncServer* MediaSyncServer::getInstance() {
    ZENK_TRACE_ENTER();
    zenk::MutexLock lock(instanceMutex());
    MediaSyncServer* instance = loadShared(m_instance);
    if (instance == nullptr) {
        try {
            instance = new MediaSyncServer;
        } catch (const std::exception&) {
            ZENK_TRACE_ERROR();
            return nullptr;
        }
        storeShared(m_instance, instance);
    }
    ZENK_TRACE_LEAVE();
    return instance;
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
    m_nextRetired = (m_nextRetired + 1) % m_retiredUrls.size();
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

std::string MediaSyncServer::takeHandshakeUri() {
    const bool isBuilt = m_handshakeWsi == m_wsi;
    m_handshakeWsi = nullptr;
    return isBuilt ? std::move(m_handshakeUri) : fullUri(m_wsi);
}

// ---------------------------------------------------------------- routing

int MediaSyncServer::onFilterConnection() {
    ZENK_TRACE_ENTER();
    m_handshakeUri = fullUri(m_wsi);
    m_handshakeWsi = m_wsi;
    if (isPairingUri(m_handshakeUri)) return 0;

    ObserverWalk walk(*this);
    while (ClientObserver* const observer = walk.next()) {
        const int status = observer->getCssServerStatus();
        if (status == kCssDisabled) return kHttpForbidden;
        if (status == kCssFull) return kHttpUnavailable;
    }
    ZENK_TRACE_LEAVE();
    return 0;
}

void MediaSyncServer::onConnect() {
    ZENK_TRACE_ENTER();
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    std::string fulluri = takeHandshakeUri();
    const int id = registerConnection(socketFd, fulluri);
    ZENK_TRACE_STRING("fulluri.c_str()", fulluri.c_str());
    if (isPairingUri(fulluri)) {
        handlePairingConnection(fulluri, socketFd, m_wsi);
        return;
    }
    ObserverWalk walk(*this);
    while (ClientObserver* const observer = walk.next()) observer->onNewClient(fulluri.data(), id);
    ZENK_TRACE_LEAVE();
}

void MediaSyncServer::onMessage(unsigned char* message, int length, bool binary) {
    ZENK_TRACE_ENTER();
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    if (handlePairingMsg(message, length, socketFd, binary) != 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    const int id = clientIdOf(socketFd);
    if (id == 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    ObserverWalk walk(*this);
    while (ClientObserver* const observer = walk.next()) observer->onMessage(message, length, id);
    ZENK_TRACE_LEAVE();
}

int MediaSyncServer::onClose() {
    ZENK_TRACE_ENTER();
    const int socketFd = zenk_ws::lws_get_socket_fd(m_wsi);
    const int id = forgetConnection(socketFd);
    if (id == 0) {
        std::puts("###can't find client id");
        return -1;
    }
    // Pairing clients are no business of the observers, and every other client is.
    if (handlePairingClose(socketFd) == 0) {
        ObserverWalk walk(*this);
        while (ClientObserver* const observer = walk.next()) observer->onClientLeave(id);
    }
    ZENK_TRACE_LEAVE();
    return 0;
}

// ---------------------------------------------------------------- outbound

// The lock is held across writes and closes: a connection must not go, and its address be used again, in between.

int MediaSyncServer::observerSendMessage(char* message, int length, int clientId) {
    ZENK_TRACE_ENTER();
    bool isKnown = true;
    {
        zenk::MutexLock lock(m_registryMutex);
        if (clientId == kEveryClient) {
            for (const auto& [id, wsi] : m_clientMap) sendText(wsi, message, length);
        } else {
            const auto client = m_clientMap.find(clientId);
            isKnown = client != m_clientMap.end();
            if (isKnown) sendText(client->second, message, length);
        }
    }
    if (!isKnown) {
        ZENK_TRACE_ERROR();
        return 1;
    }
    ZENK_TRACE_LEAVE();
    return 0;
}

int MediaSyncServer::observerSendMessageAll(char* message, int length, int clientId) {
    ZENK_TRACE_ENTER();
    {
        zenk::MutexLock lock(m_registryMutex);
        for (const auto& [id, wsi] : m_clientMap) {
            if (id != clientId) sendText(wsi, message, length);
        }
    }
    ZENK_TRACE_LEAVE();
    return 0;
}

void MediaSyncServer::observerCloseClientConnection(int clientId) {
    ZENK_TRACE_ENTER();
    bool isKnown = true;
    {
        zenk::MutexLock lock(m_registryMutex);
        const auto close = [](lws* wsi) {
            if (wsi != nullptr) zenk_ws::lws_close(wsi, kStatusGoingAway);
        };
        if (clientId == kEveryClient) {
            for (const auto& [id, wsi] : m_clientMap) close(wsi);
        } else {
            const auto client = m_clientMap.find(clientId);
            isKnown = client != m_clientMap.end();
            if (isKnown) close(client->second);
        }
    }
    if (!isKnown) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}

void MediaSyncServer::holdClient(int clientId, bool isHeld) {
    zenk::MutexLock instanceLock(instanceMutex());
    MediaSyncServer* const instance = loadShared(m_instance);
    if (instance == nullptr) return;
    zenk::MutexLock lock(instance->m_registryMutex);
    const auto client = instance->m_clientMap.find(clientId);
    if (client != instance->m_clientMap.end()) zenk_ws::lws_rx_flow_control(client->second, isHeld ? 0 : 1);
}

// ---------------------------------------------------------------- pairing

int MediaSyncServer::handlePairingConnection(const std::string& uri, int socketFd, lws* wsi) {
    ZENK_TRACE_ENTER();
    const auto [side, endpoint] = cutPairingUri(uri.c_str());
    ZENK_TRACE_STRING("endpoint.c_str()", endpoint.c_str());
    if (socketFd == 0) {
        // Stands for an absent side in the records: nobody could find this connection again.
        ZENK_TRACE_LEAVE();
        return 1;
    }
    _pairedApp* const app = m_pairing->findWaiting(endpoint, side);
    if (app == nullptr) {
        m_pairing->start(endpoint, side, socketFd, wsi);
        ZENK_TRACE_LEAVE();
        return 1;
    }
    m_pairing->complete(*app, side, socketFd, wsi);
    if (side == PairSide::kLocal) {
        ZENK_TRACE_STRING("\"local paired\"", "local paired");
    } else {
        ZENK_TRACE_STRING("\"remote paired\"", "remote paired");
    }
    if (loadShared(enablePairing)) {
        constexpr std::string_view kNotice = "pairingcompleted";
        sendText(app->localWsi, kNotice.data(), static_cast<int>(kNotice.size()));
        sendText(app->remoteWsi, kNotice.data(), static_cast<int>(kNotice.size()));
    }
    ZENK_TRACE_LEAVE();
    return 1;
}

int MediaSyncServer::handlePairingMsg(unsigned char* message, int length, int socketFd, bool binary) {
    ZENK_TRACE_ENTER();
    const _pairedApp* const app = m_pairing->findBySocket(socketFd);
    if (app == nullptr) {
        ZENK_TRACE_LEAVE();
        return 0;
    }
    const int isEnabled = loadShared(enablePairing) ? 1 : 0;
    if (isEnabled == 0) {
        ZENK_TRACE_INT("enablePairing", isEnabled);
        return 1;
    }
    const int type = binary ? zenk_ws::kWriteBinary : zenk_ws::kWriteText;
    if (app->localFd == socketFd && app->remoteWsi != nullptr) {
        zenk_ws::lws_write(app->remoteWsi, message, length, type);
    }
    if (app->remoteFd == socketFd && app->localWsi != nullptr) {
        zenk_ws::lws_write(app->localWsi, message, length, type);
    }
    ZENK_TRACE_LEAVE();
    return 1;
}

int MediaSyncServer::handlePairingClose(int socketFd) {
    ZENK_TRACE_ENTER();
    _pairedApp* const app = m_pairing->findBySocket(socketFd);
    if (app == nullptr) {
        ZENK_TRACE_LEAVE();
        return 0;
    }
    const bool isLocal = app->localFd == socketFd;
    const bool isRemote = app->remoteFd == socketFd;
    if ((isLocal && app->remoteWsi == nullptr) || (isRemote && app->localWsi == nullptr)) {
        m_pairing->end(*app);
    } else {
        // The record is in its final state before the partner hears of it, and is not touched after.
        lws* const partner = isLocal ? app->remoteWsi : app->localWsi;
        m_pairing->leave(*app, isLocal ? PairSide::kLocal : PairSide::kRemote);
        zenk_ws::lws_close(partner, kStatusNormal);
    }
    ZENK_TRACE_LEAVE();
    return 1;
}

// ---------------------------------------------------------------- URLs and tokens

std::string MediaSyncServer::m_local_random;
std::string MediaSyncServer::m_remote_random;
std::string MediaSyncServer::m_sync_random;
std::string MediaSyncServer::m_css_random;

namespace {

constexpr int kAddressChars = 15;  // "255.255.255.255"

/// An address text as getLocalIpAddr() wants it: it stays terminated when all 15 characters are taken.
struct AddressText {
    char text[kAddressChars + 1] = {};
};

/// "ws://ADDRESS:PORT" followed by the pieces, with the receiver's address of the moment.
/// @return false without an address or memory; `url` is unchanged then
bool makeUrl(std::string& url, int port, std::string_view path, std::string_view token, std::string_view end) {
    AddressText address;
    if (getLocalIpAddr(address.text, kAddressChars) < 0) return false;
    try {
        std::string made = "ws://";
        made.append(address.text).append(":").append(std::to_string(port));
        made.append(path).append(token).append(end);
        url = std::move(made);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Owns a socket.
class Socket {
public:
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return m_fd; }

private:
    const int m_fd;
};

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

/// The IPv4 address of an interface as text; empty if it has none.
std::string addressOf(const Socket& socket, const std::string& interface) {
    ifreq request = {};
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_addr.sa_family = AF_INET;
    if (::ioctl(socket.get(), SIOCGIFADDR, &request) != 0) return {};
    sockaddr_in address = {};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    char text[INET_ADDRSTRLEN] = {};
    return ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr ? "" : text;
}

}  // namespace

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

int getLocalIpAddr(char* ip_addr, int len) {
    ZENK_TRACE_ENTER();
    const std::size_t bound = static_cast<std::size_t>(std::max(len, 0));
    File table(std::fopen("/proc/net/route", "re"), std::fclose);
    if (table == nullptr) {
        ZENK_TRACE_ERROR();
        return -1;
    }
    const std::optional<std::string> found = firstRouteInterface(table.get());
    table.reset();
    if (!found) {
        ZENK_TRACE_ERROR();
        return -1;
    }
    const std::string iface_name = found->substr(0, bound);
    ZENK_TRACE_STRING("iface_name", iface_name.c_str());

    const Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) {
        ZENK_TRACE_ERROR();
        return -1;
    }
    const std::string address = addressOf(socket, iface_name);
    if (address.empty()) {
        ZENK_TRACE_STRING("ip_addr", ip_addr);
        return -1;
    }
    const std::size_t copied = address.copy(ip_addr, bound);
    std::fill(ip_addr + copied, ip_addr + bound, '\0');
    ZENK_TRACE_STRING("ip_addr", address.c_str());
    return 0;
}

void MediaSyncServer::getApp2AppLocalBaseUrl(std::string& url) {
    ZENK_TRACE_ENTER();
    if (!makeUrl(url, loadShared(m_port), "/local/hbbtv/", m_local_random, "/")) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}

void MediaSyncServer::getApp2AppRemoteBaseUrl(std::string& url) {
    ZENK_TRACE_ENTER();
    if (!makeUrl(url, loadShared(m_port), "/remote/hbbtv/", m_remote_random, "/")) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}

void MediaSyncServer::getInterDevSyncUrl(std::string& url) {
    ZENK_TRACE_ENTER();
    if (!makeUrl(url, loadShared(m_port), "/css-cii/", m_sync_random, "/")) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}

void MediaSyncServer::getCssTsEndpoint(std::string& url) {
    ZENK_TRACE_ENTER();
    if (!makeUrl(url, loadShared(m_port), "/css-ts/", "", "")) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}
