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
    explicit Server(int servedPort = freePort());
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
    int closed() const { return m_closed; }
    /// Close events of connections that were none, and short messages without a zero behind them: there should be none.
    int faults() const { return m_faults; }

    /// Called on the service thread with each message of a client outside pairing. To be set before they come.
    std::function<void(int client, const std::string& message)> onText;
    /// What the filter answers to every handshake, if it is not 0.
    std::atomic<int> refusal = 0;
    const int port;

private:
    struct FrontEnd : MediaSyncServer {
        explicit FrontEnd(Server& server) : m_test(server) {}
        int onFilterConnection() override {
            return m_test.refusal != 0 ? m_test.refusal.load() : MediaSyncServer::onFilterConnection();
        }
        void onConnect() override;
        int onClose() override;
        Server& m_test;
    };

    void onMessage(unsigned char* message, int length, int client) override;

    FrontEnd m_frontEnd{*this};
    std::mutex m_mutex;
    std::vector<lws*> m_connections;  // guarded by m_mutex; null: it has closed
    std::atomic<int> m_closed = 0, m_faults = 0;
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
