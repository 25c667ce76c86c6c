#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"
#include "tests/support/sanitizer.h"
#include "tests/support/server.h"

namespace zenk_test {

/// Of this process; 0 under a sanitizer.
inline std::size_t residentBytes() {
    std::size_t all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return kIsSanitized ? 0 : resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// A server with limits of the test's own: set them, then serve.
class Wire : public testing::Test {
protected:
    ~Wire() override {
        EXPECT_EQ(server->faults, 0);
        server.reset();  // it reads the limits
        zenk_ws::limits() = zenk_ws::Limits();
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

    std::optional<Server> server;
};

}  // namespace zenk_test
