#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "tests/support/recording_websockets.h"
#include "wsserver/media_sync_server.h"

namespace zenk_test {

/// A MediaSyncServer whose connections the test opens, feeds and closes by hand.
class FrontEnd : public testing::Test {
protected:
    using Text = std::optional<std::string>;

    FrontEnd() { takeActions(); }  // an earlier test's

    lws* open(int socketFd, Text path, Text query = {}) {
        return &m_connections.emplace_back(lws{socketFd, std::move(path), std::move(query)});
    }
    int filter(lws* wsi) { return serverOn(wsi).onFilterConnection(); }
    void establish(lws* wsi) { serverOn(wsi).onConnect(); }
    lws* connect(const std::string& path, Text query = {}) {
        lws* const wsi = open(m_nextSocket++, path, std::move(query));
        EXPECT_EQ(filter(wsi), 0);
        establish(wsi);
        return wsi;
    }
    void message(lws* wsi, std::string text, bool binary = false) {
        serverOn(wsi).onMessage(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()), binary);
    }
    int close(lws* wsi) {
        const int result = serverOn(wsi).onClose();
        wsi->isOpen = false;
        return result;
    }

private:
    MediaSyncServer& serverOn(lws* wsi) {
        server.m_wsi = wsi;
        return server;
    }

    std::deque<lws> m_connections;
    int m_nextSocket = 5;

protected:
    MediaSyncServer server;
};

}  // namespace zenk_test
