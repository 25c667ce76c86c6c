#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>
#include <utility>

#include "examples/screen.h"
#include "examples/socket.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/websocket_service.h"
#include "wsserver/zenk_dvbCss.h"

/// The two threads that the host lends the library, for as long as these objects live.

/// Serves WebSockets. `server` and its observers must outlive this object.
class WebSocketService {
public:
    WebSocketService(int port, MediaSyncServer& server)
        : m_port(port), m_result(std::async(std::launch::async, startWebSocketServer, port, &server)) {}

    ~WebSocketService() {
        sighandler(SIGTERM);  // asks the service loop to end; the future then waits for it
    }

    /// Returns when clients can connect: true, or false when the server has ended instead.
    bool waitUntilServing() {
        while (m_result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
            if (Socket(SOCK_STREAM).connect("127.0.0.1", m_port)) return true;
        }
        return false;
    }

    /// Blocks until the server ends. @return 0, or -1 when it could not be started
    int wait() { return m_result.get(); }

private:
    const int m_port;
    std::future<int> m_result;
};

/// Serves the wall clock. Any device may tell the server to quit, so it is started again. `server` must outlive this
/// object.
class ClockService {
public:
    explicit ClockService(ZenkCSSWCServer& server) : m_server(server) {
        std::packaged_task<void()> serve([this] { serveUntilEnd(); });
        m_ended = serve.get_future();
        m_thread = std::jthread(std::move(serve));
    }

    ~ClockService() {
        m_isEnding = true;
        m_server.stopWCServer();
        // Needs repetition: a stop that comes before the server has bound its port does nothing. An idle server takes
        // half a second to see it.
        while (m_ended.wait_for(kPause) != std::future_status::ready) {
            // The library wakes the server by a datagram, which cannot travel while the loopback interface is down.
            // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): has a handler
            pthread_kill(m_thread.native_handle(), SIGTERM);
            m_server.stopWCServer();
        }
    }

private:
    static constexpr std::chrono::seconds kPause{1};  // long enough that nobody can keep us busy with it

    void serveUntilEnd() {
        while (!m_isEnding) {
            m_server.startWCServer();
            if (m_isEnding) return;
            printLine("the wall clock was told to quit; it is started again");
            std::this_thread::sleep_for(kPause);
        }
    }

    ZenkCSSWCServer& m_server;
    std::atomic<bool> m_isEnding = false;
    std::future<void> m_ended;
    std::jthread m_thread;
};
