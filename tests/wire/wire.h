#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"
#include "tests/support/sanitizer.h"
#include "tests/support/server.h"

namespace zenk_test {

/// A server with limits of the test's own: set them, then serve.
class Wire : public testing::Test {
protected:
    ~Wire() override {
        server.reset();  // it reads the limits
        zenk_ws::limits() = zenk_ws::Limits();
    }

    void serve() { server.emplace(); }
    /// A write of the host's to the connection with that number.
    int write(int number, const std::string& text, int type = zenk_ws::kWriteText) {
        return zenk_ws::lws_write(server->connection(number), text.data(), static_cast<int>(text.size()), type);
    }
    void close(int number, int status) { zenk_ws::lws_close(server->connection(number), status); }
    void hold(int number) { zenk_ws::lws_rx_flow_control(server->connection(number), 0); }

    std::optional<Server> server;
};

}  // namespace zenk_test
