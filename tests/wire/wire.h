#pragma once

#include <gtest/gtest.h>

#include <fstream>
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
        zenk_ws::limits() = zenk_ws::Limits();
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
    bool areAllGone() {
        return waitUntil([this] { return server->closed == server->opened(); });
    }
    void hold(int number) { zenk_ws::lws_rx_flow_control(server->connection(number), 0); }

    /// What has come to the memory of this process since the test began; 0 under a sanitizer.
    long grownMiB() const { return kIsSanitized ? 0 : (residentPages() - m_pagesBefore) * sysconf(_SC_PAGESIZE) >> 20; }

    std::optional<Server> server;

private:
    static long residentPages() {
        long all = 0, resident = 0;
        std::ifstream("/proc/self/statm") >> all >> resident;
        return resident;
    }
    const long m_pagesBefore = residentPages();
};

}  // namespace zenk_test
