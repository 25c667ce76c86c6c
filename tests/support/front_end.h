#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/recording_websockets.h"
#include "wsserver/media_sync_server.h"

namespace zenk_test {

/// A MediaSyncServer whose connections the test opens, feeds and closes by hand.
class FrontEnd : public testing::Test {
protected:
    FrontEnd() { resetLayer(); }

    int filter(lws* wsi) {
        server.m_wsi = wsi;
        return server.onFilterConnection();
    }
    void establish(lws* wsi) {
        server.m_wsi = wsi;
        server.onConnect();
    }
    lws* connect(const std::string& path, std::optional<std::string> query = std::nullopt) {
        lws* const wsi = openConnection(m_nextSocket++, path, std::move(query));
        EXPECT_EQ(filter(wsi), 0);
        establish(wsi);
        return wsi;
    }
    void message(lws* wsi, std::string text, bool binary = false) {
        server.m_wsi = wsi;
        server.onMessage(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()), binary);
    }
    int close(lws* wsi) {
        server.m_wsi = wsi;
        const int result = server.onClose();
        markClosed(wsi);
        return result;
    }

    MediaSyncServer server;

private:
    int m_nextSocket = 5;
};

}  // namespace zenk_test
