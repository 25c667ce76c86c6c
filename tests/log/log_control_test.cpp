#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "log/zenk_log.h"
#include "tests/support/net_util.h"
#include "tests/support/own_network.h"

namespace {

using Clock = std::chrono::steady_clock;

// The peer of this process's control thread, which starts once and never ends.
class LogControl : public testing::Test {
protected:
    static void SetUpTestSuite() {
        enterOwnNetwork();
        s_socket = zenk_test::bindPort(54321, SOCK_DGRAM);
        ASSERT_TRUE(s_socket.isOpen());
        for (int mode : {-1, 2}) EXPECT_EQ(zenk_log_initialize(mode), -1);
        EXPECT_EQ(zenk_log_initialize(0), 0);
        EXPECT_EQ(zenk_log_initialize(1), 0);
        EXPECT_EQ(zenk_log_initialize(1), 0);  // starts no second thread
    }
    static void TearDownTestSuite() { s_socket.close(); }

    // Waits for the beginning of a cycle: what is sent next is taken in the order of sending, from this cycle on.
    void SetUp() override {
        clear_modules_list();
        while (!nextReport().empty()) {
        }
    }

    static std::string nextReport() {
        std::array<char, 2000> bytes;
        socklen_t size = sizeof s_sender;
        const ssize_t length =
            recvfrom(s_socket.fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&s_sender), &size);
        return length < 0 ? "nothing came" : std::string(bytes.data(), static_cast<std::size_t>(length));
    }

    inline static zenk_test::Socket s_socket{-1};
    inline static sockaddr_in s_sender{};
};

std::string contents(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

}  // namespace

TEST_F(LogControl, ReportsOnceASecondFromOneThreadThatTakesNoSignals) {
    std::set<in_port_t> ports;
    const auto start = Clock::now();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nextReport(), "");
        ports.insert(s_sender.sin_port);
    }
    EXPECT_EQ(ports.size(), 1U);
    EXPECT_GT(Clock::now() - start, std::chrono::milliseconds(2500));
    int threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (contents(task.path() / "comm") != "zenk-log\n") continue;
        ++threads;
        // All but SIGKILL, SIGSTOP and the two that the C library keeps for itself.
        EXPECT_NE(contents(task.path() / "status").find("SigBlk:\tfffffffe7ffbfeff"), std::string::npos);
    }
    EXPECT_EQ(threads, 1);
    EXPECT_EQ(zenk_log_finalize(0) + zenk_log_finalize(1), 0);
    EXPECT_EQ(zenk_log_finalize(2), -1);
    EXPECT_EQ(nextReport(), "");
}
