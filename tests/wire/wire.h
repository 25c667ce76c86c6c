#pragma once

#include <gtest/gtest.h>
#include <malloc.h>

#include <optional>

#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"
#include "tests/support/server.h"

namespace zenk_test {

/// A server with limits of the test's own: set them, then serve. At its end each close has been told once.
class Wire : public testing::Test {
protected:
    ~Wire() override {
        server->stop();  // it reads the limits
        limits = zenk_ws::Limits();
        EXPECT_EQ(server->closed, server->opened());
    }

    void serve() { server.emplace(); }
    /// A client that the server has let in.
    RawClient join(const std::string& target = "/x") { return {server->port, target}; }
    /// A write of the host's to the connection with that number.
    int write(int number, const std::string& text, int type = zenk_ws::kWriteText) {
        return zenk_ws::lws_write(server->connection(number), text.data(), static_cast<int>(text.size()), type);
    }
    void close(int number, int status) { zenk_ws::lws_close(server->connection(number), status); }
    void hold(int number) { zenk_ws::lws_rx_flow_control(server->connection(number), 0); }

    /// What the library and the test hold; 0 under a sanitizer.
    static std::size_t heapMiB() {
        const auto heap = mallinfo2();
        return (heap.uordblks + heap.hblkhd) / zenk_ws::kMiB;
    }

    zenk_ws::Limits& limits = zenk_ws::limits();
    std::optional<Server> server;
};

}  // namespace zenk_test
