#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/child_process.h"
#include "tests/support/pair.h"

namespace {

using namespace zenk_test;

// A receiver's log goes nowhere: the disk is full, the reader has gone, or there never was an output.
TEST(StandardOutput, MayFailWithoutHarm) {
    for (const std::string output : {"> /dev/full", "> >(sed -n '/^ready/q')", ">&-", ">&- 2>&- <&-"}) {
        SCOPED_TRACE(output);
        const int port = freePort();
        const std::string command = std::string("exec ") + ZENK_RECEIVER_PATH + " --port " + std::to_string(port) +
                                    " --wc-port " + std::to_string(freePort()) + " " + output;
        ChildProcess receiver({"/bin/bash", "-c", command});
        ASSERT_TRUE(waitUntil([&] { return connectTcp(port).isOpen(); }));
        Pair pair;
        ASSERT_TRUE(pair.connect(port));
        for (int i = 0; i < 20; ++i) {  // each coming and going prints event lines
            WsClient css;
            ASSERT_TRUE(css.connect(port, "/css-cii/t/"));
            EXPECT_NE(css.receiveText(), "");
            EXPECT_TRUE(css.sendText("{}"));
            EXPECT_TRUE(css.close());
        }
        EXPECT_TRUE(pair.exchange()) << "and no line of the log comes between";
        receiver.signal(SIGTERM);
        EXPECT_EQ(receiver.exitCode(), 0);
    }
}

}  // namespace
