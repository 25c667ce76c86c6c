// The reference host as a user meets it: what it prints, how it ends, what it says when it cannot serve.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>

#include "tests/support/receiver.h"
#include "tests/support/ws_client.h"

using namespace zenk_test;

namespace {

/// Whether `url` is `prefix`, one more path element, and "/".
bool hasToken(const std::string& url, const std::string& prefix) {
    const std::string token = url.starts_with(prefix) ? url.substr(prefix.size()) : std::string();
    return token.size() > 1 && token.find('/') == token.size() - 1;
}

TEST(ReceiverStart, PrintsItsUrlsInOrderAndIsReadyWhenItSaysSo) {
    Receiver receiver;
    const std::vector<std::string> names{"app2app-local", "app2app-remote", "css-cii", "css-ts", "css-wc"};
    EXPECT_EQ(receiver.printedNames(), names);
    const std::string clock = receiver.url("css-wc");
    const std::string host = clock.substr(6, clock.find(':', 6) - 6);  // behind "udp://"
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, host.c_str(), &address), 1) << clock;
    EXPECT_EQ(clock, "udp://" + host + ":" + std::to_string(receiver.wcPort()));
    const std::string base = "ws://" + host + ":" + std::to_string(receiver.port());
    EXPECT_EQ(receiver.url("css-ts"), base + "/css-ts/");
    EXPECT_TRUE(hasToken(receiver.url("app2app-local"), base + "/local/hbbtv/"));
    EXPECT_TRUE(hasToken(receiver.url("app2app-remote"), base + "/remote/hbbtv/"));
    EXPECT_TRUE(hasToken(receiver.url("css-cii"), base + "/css-cii/"));
    EXPECT_TRUE(connectTcp(receiver.port()).isOpen());
}

TEST(ReceiverStop, EndsWithZeroOnBothSignalsAndSaysGoodbye) {
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(strsignal(signal));
        Receiver receiver;
        WsClient waiting;
        ASSERT_TRUE(waiting.connect(receiver.port(), receiver.path("app2app-local") + "game"));
        receiver.process().signal(signal);
        EXPECT_EQ(waiting.closeCode(), 1001);
        EXPECT_EQ(receiver.process().exitCode(), 0);
    }
}

TEST(ReceiverStop, EndsWhenTheSignalComesBeforeItServes) {
    for (const int signal : {SIGINT, SIGTERM}) {
        ChildProcess process({ZENK_RECEIVER_PATH, "--port", std::to_string(freePort()), "--wc-port",
                              std::to_string(freePort()), "--no-sync"});
        // The first URL comes out about when the services start.
        ASSERT_TRUE(process.lineWith("app2app-local"));
        process.signal(signal);
        EXPECT_EQ(process.exitCode(), 0);
    }
}

TEST(ReceiverFailure, NamesThePortThatIsTaken) {
    const struct {
        int type;
        const char* name;
    } cases[] = {{SOCK_STREAM, "TCP"}, {SOCK_DGRAM, "UDP"}};
    for (const auto& taken : cases) {
        SCOPED_TRACE(taken.name);
        const int port = freePort();
        const Socket holder = bindPort(port, taken.type);
        ASSERT_TRUE(holder.isOpen());
        const std::string other = std::to_string(freePort());
        const bool isTcp = taken.type == SOCK_STREAM;
        ChildProcess process({ZENK_RECEIVER_PATH, "--port", isTcp ? std::to_string(port) : other, "--wc-port",
                              isTcp ? other : std::to_string(port)});
        EXPECT_EQ(process.exitCode(), 1);
        const std::string message = std::string(taken.name) + " port " + std::to_string(port) + ": ";
        EXPECT_NE(process.errorOutput().find(message), std::string::npos) << process.errorOutput();
        EXPECT_EQ(process.lineWith("ready"), std::nullopt);
    }
}

TEST(ReceiverFailure, RefusesWrongOptions) {
    ChildProcess help({ZENK_RECEIVER_PATH, "--help"});
    EXPECT_EQ(help.exitCode(), 0);
    for (const char* wrong : {"--port=0", "--port=65536", "--wc-port=x", "--unknown"}) {
        ChildProcess process({ZENK_RECEIVER_PATH, wrong});
        EXPECT_GT(process.exitCode().value_or(0), 0) << wrong;
    }
}

// A network namespace of its own has no route, so the receiver finds no address there.
TEST(ReceiverWithoutAddress, PrintsLoopbackUrlsAndSaysSo) {
    const std::string port = std::to_string(freePort());
    ChildProcess probe({"/usr/bin/unshare", "--net", "/bin/true"});
    if (probe.exitCode() != 0) GTEST_SKIP() << "this machine lets us make no network namespace";
    ChildProcess process({"/usr/bin/unshare", "--net", "/bin/sh", "-c",
                          "ip link set lo up && exec " ZENK_RECEIVER_PATH " --port " + port});
    EXPECT_EQ(process.lineWith("app2app-local"), "app2app-local ws://127.0.0.1:" + port + "/local/hbbtv/loopback/");
    EXPECT_EQ(process.lineWith("css-wc"), "css-wc udp://127.0.0.1:6677");
    EXPECT_TRUE(process.lineWith("ready"));
    process.signal(SIGTERM);
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_NE(process.errorOutput().find("no IPv4 address"), std::string::npos);
}

}  // namespace
