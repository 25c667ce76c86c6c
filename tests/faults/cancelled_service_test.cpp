#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "tests/support/raw_client.h"
#include "wsserver/websocket_service.h"

namespace {

using namespace zenk_test;
using namespace std::string_view_literals;

TEST(CancelledService, SaysGoodbyeAndLeavesThePort) {
    const int port = freePort();
    Client client;
    for (int i = 0; i < 2; ++i) {
        std::thread service([&] { startWebSocketServer(port, &client); });
        RawClient peer;
        ASSERT_TRUE(waitUntil([&] { return peer.upgrade(port, "/"); })) << i;
        pthread_cancel(service.native_handle());
        service.join();
        EXPECT_EQ(peer.receive(4), "\x88\x02\x03\xE9"sv);
    }
}

}  // namespace
