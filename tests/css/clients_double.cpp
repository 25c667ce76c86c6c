#include <algorithm>
#include <mutex>
#include <set>
#include <utility>

#include "tests/css/clients.h"
#include "wsserver/paired_apps.h"

namespace {

std::mutex g_turn;  // guards all below; held while observers are called
std::vector<ClientObserver*> g_observers;
std::set<int> g_live;
int g_lastId = 0;
std::mutex g_closedMutex;  // guards the next two
std::vector<int> g_closed;
std::vector<clients::Hold> g_holds;

}  // namespace

std::string clients::url = "ws://host/";
MediaSyncServer* MediaSyncServer::m_instance = nullptr;

int clients::connect(const std::string& uri) {
    const std::lock_guard lock(g_turn);
    const int id = ++g_lastId;
    g_live.insert(id);
    std::string text = uri;
    for (ClientObserver* observer : g_observers) observer->onNewClient(text.data(), id);
    return id;
}

void clients::send(int clientId, const std::string& message) {
    const std::lock_guard lock(g_turn);
    std::vector<unsigned char> bytes(message.begin(), message.end());
    bytes.push_back(0);
    for (ClientObserver* observer : g_observers) {
        observer->onMessage(bytes.data(), static_cast<int>(message.size()), clientId);
    }
}

void clients::leave(int clientId) {
    const std::lock_guard lock(g_turn);
    g_live.erase(clientId);
    for (ClientObserver* observer : g_observers) observer->onClientLeave(clientId);
}

std::vector<int> clients::takeClosed() {
    const std::lock_guard lock(g_closedMutex);
    return std::exchange(g_closed, {});
}

std::vector<clients::Hold> clients::takeHolds() {
    const std::lock_guard lock(g_closedMutex);
    return std::exchange(g_holds, {});
}

Client::~Client() = default;
int Client::onFilterConnection() {
    return 0;
}
void Client::onConnect() {
}
void Client::onMessage(unsigned char*, int, bool) {
}
int Client::onClose() {
    return 0;
}

ClientObserver::ClientObserver() : m_server(nullptr) {
}
ClientObserver::~ClientObserver() = default;
void ClientObserver::onNewClient(char*, int) {
}
void ClientObserver::onMessage(unsigned char*, int, int) {
}
void ClientObserver::onClientLeave(int) {
}
int ClientObserver::getCssServerStatus() {
    return 0;
}
void ClientObserver::closeClientConnection(int clientId) {
    if (m_server == nullptr) return;
    const std::lock_guard lock(g_closedMutex);
    if (clientId != -1) return g_closed.push_back(clientId);
    g_closed.insert(g_closed.end(), g_live.begin(), g_live.end());
}

MediaSyncServer::MediaSyncServer() = default;
MediaSyncServer::~MediaSyncServer() = default;
int MediaSyncServer::onFilterConnection() {
    return 0;
}
void MediaSyncServer::onConnect() {
}
void MediaSyncServer::onMessage(unsigned char*, int, bool) {
}
int MediaSyncServer::onClose() {
    return 0;
}
MediaSyncServer* MediaSyncServer::getInstance() {
    static MediaSyncServer instance;
    return &instance;
}
void MediaSyncServer::addObserver(ClientObserver* observer) {
    const std::lock_guard lock(g_turn);
    observer->m_server = this;
    g_observers.push_back(observer);
}
void MediaSyncServer::removeObserver(ClientObserver* observer) {
    const std::lock_guard lock(g_turn);
    std::erase(g_observers, observer);
}
void MediaSyncServer::holdClient(int clientId, bool isHeld) {
    const std::lock_guard lock(g_closedMutex);
    g_holds.emplace_back(clientId, isHeld);
}
void MediaSyncServer::getInterDevSyncUrl(std::string& text) {
    text = clients::url;
}
void MediaSyncServer::getCssTsEndpoint(std::string& text) {
    text = clients::url;
}

int getLocalIpAddr(char*, int) {
    return -1;
}
