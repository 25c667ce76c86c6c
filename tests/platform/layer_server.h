#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"
#include "tests/support/net_util.h"

namespace zenk_test {

/// A small relay on the layer, on a thread of its own: "/l/NAME" and "/r/NAME" are partners, whole messages go from one
/// to the other, those above 128 KiB in fragments. It counts every event.
class LayerServer {
public:
    explicit LayerServer(int port);
    ~LayerServer() { stop(); }
    LayerServer(const LayerServer&) = delete;
    LayerServer& operator=(const LayerServer&) = delete;

    bool isServing() const { return m_context != nullptr; }
    void stop();

    struct Counts {
        int filtered = 0, established = 0, closed = 0, closedUnannounced = 0, finalFragments = 0;
        int dirtyRecords = 0;  // lent to a connection although somebody's message stood in it
    };
    Counts counts();
    /// The path and query that the last handshake showed, "-" where one was absent.
    std::string lastTarget();
    /// The connection of "/l/NAME" or "/r/NAME", or null; for calls from the test's thread.
    lws* connection(const std::string& path);

    /// What the filter answers from now on.
    std::atomic<int> filterResult{0};
    /// Called on the service thread in place of the relay, if set before clients come.
    std::function<void(lws* wsi, const std::string& path, const std::string& piece)> onPiece;

private:
    static int onEvent(lws* wsi, int reason, void* user, void* in, std::size_t len);
    void serve();
    int filter(lws* wsi, const void* user);
    void checkRecord(const void* user);
    void relay(lws* wsi, void* user, const void* in, std::size_t len);
    lws* partnerOf(const std::string& path);

    static LayerServer* s_server;

    zenk_ws::lws_protocols m_protocols[2];
    zenk_ws::lws_context* m_context = nullptr;
    std::atomic<bool> m_isStopping{false};
    std::mutex m_mutex;  // guards what follows; order: this, then the layer's own
    Counts m_counts;
    std::string m_lastTarget;
    std::map<lws*, std::string> m_paths;
    std::map<std::string, lws*> m_live;
    std::thread m_thread;
};

/// A served port with limits of the test's own.
class LayerTest : public testing::Test {
public:
    ~LayerTest() override {
        m_server.reset();  // it reads the limits
        zenk_ws::limits() = zenk_ws::Limits();
    }

protected:
    void serve() {
        m_server = std::make_unique<LayerServer>(m_port);
        ASSERT_TRUE(m_server->isServing());
    }
    /// The server hears of a connection a moment after the client does.
    lws* connectionOf(const std::string& path) {
        waitUntil([&] { return m_server->connection(path) != nullptr; });
        return m_server->connection(path);
    }

    const int m_port = freePort();
    std::unique_ptr<LayerServer> m_server;
};

}  // namespace zenk_test
