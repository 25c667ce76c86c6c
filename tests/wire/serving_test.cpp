// When the library cannot serve.
#include <gtest/gtest.h>

#include "tests/support/server.h"

namespace {

using namespace zenk_test;

TEST(Serving, TakesNoPortThatIsNone) {
    for (const int port : {-1, 65536, 65536 + freePort()}) {
        SCOPED_TRACE(port);
        MediaSyncServer frontEnd;
        std::atomic<int> result = 1;
        std::thread service([&] { result = startWebSocketServer(port, &frontEnd); });
        EXPECT_TRUE(waitUntil([&] { return result == -1; }, Milliseconds(2000)));
        pthread_cancel(service.native_handle());
        service.join();
    }
}

}  // namespace
