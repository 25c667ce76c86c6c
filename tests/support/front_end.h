#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/zenk_websockets.h"
#include "wsserver/media_sync_server.h"

/// A connection of the layer's stand-in: another body of platform/zenk_websockets.h, which opens no sockets and notes
/// what the library does to connections. Tests make them by hand, and nobody may reach one that is not open any more.
struct lws {
    int socketFd;
    std::string uri = {};
    bool isOpen = true, isFinal = true;
};

namespace zenk_test {

/// What the library did to a connection.
struct Action {
    enum Kind { kWrite, kClose, kReception } kind;
    lws* wsi;
    int code;           ///< frame type, close status, or whether reception is on
    std::string bytes;  ///< payload of a write
    bool operator==(const Action&) const = default;
};

std::vector<Action> takeActions();        ///< since the last call, in order
inline std::optional<int> g_writeResult;  ///< what lws_write answers; by default the length
inline zenk_ws::EventCallback g_raise;    ///< of the last context that was created
inline std::function<void()> g_onHold;    ///< called before a client is held, if it is set

/// A MediaSyncServer whose connections the test opens, feeds and closes by hand.
class FrontEnd : public testing::Test {
protected:
    FrontEnd() { takeActions(); }  // an earlier test's

    lws* open(int socketFd, const std::string& uri) { return &m_connections.emplace_back(lws{socketFd, uri}); }
    int filter(lws* wsi) { return on(wsi).onFilterConnection(); }
    void establish(lws* wsi) { on(wsi).onConnect(); }
    lws* connect(const std::string& uri) {
        lws* const wsi = open(m_nextSocket++, uri);
        EXPECT_EQ(filter(wsi), 0);
        establish(wsi);
        return wsi;
    }
    void message(lws* wsi, std::string text, bool binary = false) {
        on(wsi).onMessage(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()), binary);
    }
    int close(lws* wsi) {
        const int result = on(wsi).onClose();
        wsi->isOpen = false;
        return result;
    }
    MediaSyncServer& on(lws* wsi) {
        server.m_wsi = wsi;
        return server;
    }

    std::deque<lws> m_connections;
    int m_nextSocket = 5;
    MediaSyncServer server;
};

}  // namespace zenk_test
