#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/raw_client.h"
#include "wsserver/media_sync_server.h"

namespace zenk_test {

/// The library in this process, over real sockets: it serves from construction to destruction. Connections are numbered
/// in the order of their coming, from 1 on, as the library does it with a fresh front end. As an observer it is the
/// host: it hears of all connections outside pairing. Members of CSS servers end before it.
class Server : public ClientObserver {
public:
    Server();
    ~Server() override { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void stop();  ///< cancels the service thread, and waits for its end
    pthread_t thread() { return m_thread.native_handle(); }
    bool hasEnded() const { return m_hasEnded; }

    MediaSyncServer& frontEnd() { return m_frontEnd; }
    /// The connection with this number, waited for; null once it has closed. For calls of the layer.
    lws* connection(int number);
    /// Waits until the connection has come and gone.
    bool isGone(int number, Milliseconds patience = kPatience);
    int opened();
    int closed() const { return m_closed; }  ///< close events of connections that were known
    int strays() const { return m_strays; }  ///< those of others: never should there be one

    /// Called on the service thread with each message of a client outside pairing. To be set before they come.
    std::function<void(int client, const std::string& message)> onText;
    /// What handshakes outside pairing are refused with: 1 is 403, 2 is 503.
    std::atomic<int> refusal = 0;
    const int port = freePort();

private:
    struct FrontEnd : MediaSyncServer {
        explicit FrontEnd(Server& server) : m_test(server) {}
        void onConnect() override;
        int onClose() override;
        Server& m_test;
    };

    void onMessage(unsigned char* message, int length, int client) override {
        if (onText) onText(client, {reinterpret_cast<char*>(message), static_cast<std::size_t>(length)});
    }
    int getCssServerStatus() override { return refusal; }

    FrontEnd m_frontEnd{*this};
    std::mutex m_mutex;
    std::vector<lws*> m_connections;  // guarded by m_mutex; null: it has closed
    std::atomic<int> m_closed = 0, m_strays = 0;
    std::atomic<bool> m_hasEnded = false;
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
