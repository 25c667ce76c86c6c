#include "tests/support/server.h"

#include <algorithm>
#include <stdexcept>

namespace zenk_test {

Server::Server(int servedPort) : port(servedPort) {
    m_frontEnd.enablePairing = true;
    m_frontEnd.addObserver(this);
    m_thread = std::thread([this] {
        startWebSocketServer(port, &m_frontEnd);
        m_hasEnded = true;
    });
    if (!waitUntil([this] { return connectTcp(port).isOpen(); })) throw std::runtime_error("nobody listens");
}

void Server::stop() {
    if (!m_thread.joinable()) return;
    pthread_cancel(thread());
    m_thread.join();
}

lws* Server::connection(int number) {
    waitUntil([&] { return opened() >= number; });
    const std::lock_guard lock(m_mutex);
    return m_connections.at(static_cast<std::size_t>(number) - 1);
}

bool Server::isGone(int number, Milliseconds patience) {
    return waitUntil([&] { return opened() >= number && connection(number) == nullptr; }, patience);
}

int Server::opened() {
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_connections.size());
}

void Server::onMessage(unsigned char* message, int length, int client) {
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes < kMaxMessageBytes && message[bytes] != 0) ++m_faults;
    if (onText) onText(client, {reinterpret_cast<char*>(message), bytes});
}

void Server::FrontEnd::onConnect() {
    {
        const std::lock_guard lock(m_test.m_mutex);
        m_test.m_connections.push_back(m_wsi);
    }
    MediaSyncServer::onConnect();
}

int Server::FrontEnd::onClose() {
    {
        const std::lock_guard lock(m_test.m_mutex);
        const auto known = std::ranges::find(m_test.m_connections, m_wsi);
        ++(known == m_test.m_connections.end() ? m_test.m_faults : m_test.m_closed);
        if (known != m_test.m_connections.end()) *known = nullptr;
    }
    return MediaSyncServer::onClose();
}

}  // namespace zenk_test
