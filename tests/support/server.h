#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/scope_exit.h"
#include "tests/support/raw_client.h"
#include "wsserver/media_sync_server.h"

namespace zenk_test {

/// The library in this process, over real sockets: it serves from construction to destruction. Connections are numbered
/// in the order of their coming, from 1 on, as the library does it with a fresh front end, which this is. As an
/// observer it is the host, too: it hears of all connections outside pairing. Members of CSS servers end before it.
class Server : public MediaSyncServer, public ClientObserver {
public:
    explicit Server(int servedPort = freePort()) : port(servedPort) {
        enablePairing = true;
        addObserver(this);
        m_thread = std::thread([this] { startWebSocketServer(port, this); });
        waitUntil([this] { return RawClient().connect(port); });
    }
    ~Server() override { stop(); }

    /// Cancels the service thread, and waits for its end.
    void stop() {
        if (!m_thread.joinable()) return;
        pthread_cancel(thread());
        m_thread.join();
    }
    pthread_t thread() { return m_thread.native_handle(); }

    /// The connection with this number, waited for; null once it has closed. For calls of the layer.
    lws* connection(int number) {
        waitUntil([&] { return opened() >= number; });
        return m_connections.at(static_cast<std::size_t>(number) - 1);
    }
    /// Waits until the connection has come and gone.
    bool isGone(int number, Milliseconds patience = kPatience) {
        return waitUntil([&] { return connection(number) == nullptr; }, patience);
    }
    int opened() const { return m_opened; }

    /// Called on the service thread with each message of a client outside pairing. To be set before they come.
    std::function<void(int client, const std::string& message)> onText = [](int, const std::string&) {};
    /// What the filter answers to every handshake, if it is not 0.
    std::atomic<int> refusal = 0;
    std::atomic<int> closed = 0;  ///< close events
    const int port;

private:
    using MediaSyncServer::onMessage;  // the other one is overridden below
    int onFilterConnection() override { return refusal != 0 ? refusal.load() : MediaSyncServer::onFilterConnection(); }
    void onConnect() override {
        m_connections.at(static_cast<std::size_t>(opened())) = m_wsi;
        const zenk::ScopeExit end([this] { ++m_opened; });  // it is known, or found no memory
        MediaSyncServer::onConnect();
    }
    int onClose() override {
        std::replace(m_connections.begin(), m_connections.end(), m_wsi, static_cast<lws*>(nullptr));
        ++closed;
        return MediaSyncServer::onClose();
    }
    void onMessage(unsigned char* message, int length, int client) override {
        onText(client, {reinterpret_cast<char*>(message), static_cast<std::size_t>(length)});
    }

    // Room for all of them, since what a test lets fail is to be the library's memory. Null: it has closed.
    std::vector<std::atomic<lws*>> m_connections{10'000};
    std::atomic<int> m_opened = 0;
    std::thread m_thread;
};

/// Two App2App clients that talk to each other.
struct Pair {
    RawClient local, remote;
    int number = 0;

    /// @return true when both sides have heard of each other
    bool connect(int port, const std::string& endpoint = "witness") {
        return local.upgrade(port, "/local/hbbtv/t/" + endpoint) &&
               remote.upgrade(port, "/remote/hbbtv/t/" + endpoint) && local.receiveText() == "pairingcompleted" &&
               remote.receiveText() == "pairingcompleted";
    }
    /// One message there and one back. @return false when either is lost or altered
    bool exchange() {
        const std::string text = "message " + std::to_string(++number);
        return local.sendText(text) && remote.receiveText() == text && remote.sendText(text) &&
               local.receiveText() == text;
    }
};

}  // namespace zenk_test
