#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "tests/support/pair.h"
#include "tests/support/receiver.h"
#include "tests/support/sanitizer.h"

namespace {

using namespace zenk_test;

/// Leaves a running process that much memory beyond what it has.
bool leaveMemory(const ChildProcess& process, std::size_t bytes) {
    const rlim_t value = virtualBytes(process.pid()) + bytes;
    const rlimit limits{value, value};
    return prlimit(process.pid(), RLIMIT_AS, &limits, nullptr) == 0;
}

// No memory for a receive buffer: the connection is refused, the others are served, and there is room again later.
TEST(Memory, MayRunOut) {
    if (kIsSanitized) GTEST_SKIP() << "a sanitizer needs all addresses";
    Receiver receiver;
    Pair pair;
    ASSERT_TRUE(pair.connect(receiver.port()));
    ASSERT_TRUE(leaveMemory(receiver.process(), std::size_t{2} * 1024 * 1024));  // for some 14 connections

    std::vector<WsClient> crowd(120);  // the buffers of 64 are there already
    int accepted = 0, refused = 0;
    for (WsClient& client : crowd) {
        if (client.connect(receiver.port(), "/other")) {
            ++accepted;
        } else if (client.httpStatus() == 503) {
            ++refused;
        }
    }
    EXPECT_GT(accepted, 5);
    EXPECT_GT(refused, 5);
    EXPECT_EQ(accepted + refused, static_cast<int>(crowd.size()));
    EXPECT_TRUE(pair.exchange());

    crowd.clear();
    WsClient later;
    EXPECT_TRUE(waitUntil([&] { return later.connect(receiver.port(), "/other"); }));
    EXPECT_EQ(receiver.end(SIGTERM), 0);
}

}  // namespace
