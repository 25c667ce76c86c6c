#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tests/support/net_util.h"
#include "tests/support/own_network.h"

namespace {

// Exit code and everything printed of one run of the tool, as "0:..."
std::string run(const std::string& arguments) {
    FILE* const pipe = popen((ZENK_LOGCTL " " + arguments + " 2>&1").c_str(), "r");
    std::string output;
    for (int c; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
    return std::to_string(WEXITSTATUS(pclose(pipe))) + ":" + output;
}

std::string exitCode(const std::string& arguments) {
    const std::string result = run(arguments);
    return result.substr(0, result.find(':'));
}

class LogctlTest : public testing::Test {
protected:
    static void SetUpTestSuite() { enterOwnNetwork(); }
};

// A receiver that runs until the end of its input.
class Host {
public:
    Host() : m_input(popen(LOG_HOST, "w")) {}
    ~Host() { pclose(m_input); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

private:
    FILE* const m_input;
};

// A receiver that reports what it is told to and takes no command.
class DeafReceiver {
public:
    explicit DeafReceiver(std::string report) : m_thread([this, report = std::move(report)] { sendReports(report); }) {}
    ~DeafReceiver() {
        m_isOver = true;
        m_thread.join();
    }
    DeafReceiver(const DeafReceiver&) = delete;
    DeafReceiver& operator=(const DeafReceiver&) = delete;

private:
    void sendReports(const std::string& report) {
        const zenk_test::Socket socket = zenk_test::connectUdp(54321);
        while (!m_isOver) {
            ::send(socket.fd(), report.data(), report.size(), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    std::atomic<bool> m_isOver = false;
    std::thread m_thread;
};

}  // namespace

TEST_F(LogctlTest, ChangesTheTableOfARunningReceiver) {
    const Host host;
    EXPECT_EQ(run("list"), "0:the table is empty\n");
    EXPECT_EQ(run("set 1 PLUGIN b"), "0:PLUGIN\nb\n");
    EXPECT_EQ(run("set 2 a PLUGIN"),
              "0:PLUGIN was in the table before: its new level cannot be confirmed\n"
              "PLUGIN\na\nb\n");
    EXPECT_EQ(run("remove a none"), "0:PLUGIN\nb\n");
    EXPECT_EQ(exitCode("set 1 $(seq 19)"), "5");
    EXPECT_EQ(exitCode("set 1 $(seq 18)"), "0");
    EXPECT_EQ(exitCode("set 1 PLUGIN"), "5");
    EXPECT_EQ(run("clear"), "0:the table is empty\n");
}

TEST_F(LogctlTest, TellsWhatIsWrongByItsExitCode) {
    for (const char* usage : {"", "unknown", "set", "set 1", "set 0 A", "set 256 A", "set x A", "remove", "list A"}) {
        EXPECT_EQ(exitCode(usage), "2") << usage;
    }
    EXPECT_EQ(exitCode("--help"), "0");
    for (const char* name : {"123456789012345678901234567890123", "'A|B'", "''", "A __CLIEAR_LOG_MODULES__"}) {
        EXPECT_EQ(exitCode("set 1 " + std::string(name)), "4") << name;
    }
    EXPECT_EQ(exitCode("list"), "3");
    const DeafReceiver receiver("A|\033[31mB");
    EXPECT_EQ(run("list"), "0:?[31mB\nA\n");
    EXPECT_EQ(exitCode("set 1 B"), "7");
    EXPECT_EQ(exitCode("remove A"), "7");
}

TEST_F(LogctlTest, WatchesChangesAndOwnsThePort) {
    FILE* const watch = popen("exec timeout 60 " ZENK_LOGCTL " watch", "r");
    const auto nextLine = [&] {
        char line[200] = {};
        return std::fgets(line, sizeof line, watch) == nullptr ? "end" : std::string(line).substr(21);
    };
    {
        const DeafReceiver first("A|B");
        EXPECT_EQ(nextLine(), "A|B\n");
        EXPECT_EQ(exitCode("list"), "6");
    }
    EXPECT_EQ(nextLine(), "no report for 3 seconds\n");
    {
        const DeafReceiver second("");
        EXPECT_EQ(nextLine(), "(empty)\n");
    }
    pclose(watch);  // the next line that it prints finds no reader and ends it
}
