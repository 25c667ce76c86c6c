#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include "log/zenk_log.h"
#include "tests/support/environment.h"

namespace {

class Log : public testing::Test {
protected:
    Log() {
        testing::internal::CaptureStdout();
        clear_modules_list();
        insert_modules_list("FULL", 1);
    }
    ~Log() override { testing::internal::GetCapturedStdout(); }

    /// What was printed since the last call; of what the main thread of that process printed without the prefixes.
    static std::string take(pid_t process = getpid()) {
        const std::string output = testing::internal::GetCapturedStdout(), id = std::to_string(process);
        testing::internal::CaptureStdout();
        const std::regex prefix("time=[\\d/]+ [\\d:]+,timestamp=\\d+,pid=" + id + ",tid=" + id + ",logtype=");
        return std::regex_replace(output, prefix, "");
    }
    static void logError() { zenk_log_print(LOG_TYPE_ERROR, "OTHER", "a/b/file.cpp", "call", 7, nullptr, nullptr); }
};

TEST_F(Log, ShapesEachLineByTypeLevelAndWhatIsMissing) {
    const int number = -42;
    const std::string info = "info File:f Function: g(), line: 7, ", green = "\033[32m" + info, end = "\n\033[0m";
    const std::tuple<int, const char*, const char*, const void*, std::string> cases[] = {
        {LOG_TYPE_ERROR, nullptr, nullptr, "v", "\033[31merror File:(null) Function: g(), line: 7" + end},
        {LOG_TYPE_INT, "FULL", "d/f", &number, green + "n:-42" + end},
        {LOG_TYPE_INT, "FULL", "f", nullptr, green + "n:(null)" + end},
        {LOG_TYPE_STRING, "OTHER", "f", "v", ""},
        {6, "OTHER", "f", "v", "log type set err, out of max enum value\n"}};
    for (const auto& [type, module, file, value, line] : cases) {
        zenk_log_print(type, module, file, "g", 7, "n", value);
        EXPECT_EQ(take(), line) << type;
    }
    for (std::size_t length = 800; length < 1000; ++length) {  // around the end of the buffer
        const std::string text(length, 'x');
        zenk_log_print(LOG_TYPE_STRING, "FULL", "f", "g", 7, "n", text.c_str());
        ASSERT_EQ(take(), green + "n:" + text + end);
    }
    zenk_log("FULL", "d/f", "g", 7, "%d %s", 1, std::string(3000, 'x').c_str());
    EXPECT_EQ(take(), info + "1 " + std::string(2045, 'x'));
}

// Within the second of the line before, most likely: threads keep their prefix for a second.
TEST_F(Log, NamesAForkedChildAndKeepsErrno) {
    logError();
    take();
    const pid_t child = fork();
    if (child == 0) {
        logError();
        std::fflush(stdout);
        _exit(insert_modules_list("B", 1));
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(take(child), "\033[31merror File:file.cpp Function: call(), line: 7\n\033[0m");
    dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    errno = EDOM;
    zenk_log_print(LOG_TYPE_STRING, "FULL", "f", "g", 7, "n", std::string(200'000, 'x').c_str());
    EXPECT_EQ(errno, EDOM);
}

// Meanwhile others log under the one name that stays, in another place of the table each time: its level and its lines
// must be right at every moment.
TEST_F(Log, TableFollowsItsModelInRandomSequencesWhileItIsRead) {
    std::atomic<int> wrongLevels = 0;
    std::vector<std::jthread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&](const std::stop_token& end) {
            for (int line = 0; line < 500; ++line) logError();
            while (!end.stop_requested()) wrongLevels += zenk_log_getLevel("FULL") != 2 || zenk_log_getLevel("E") != 1;
        });
    }
    std::mt19937 random(20240607);
    std::map<std::string, int> model{{"FULL", 1}};
    for (int step = 0; step < 10'000; ++step) {
        std::string list, report;
        const int level = std::array{0, 0, 0, 1, 2, 255, -1}[random() % 7];
        for (std::size_t left = random() % 12; left > 0; --left) {
            const std::string name(std::array{0u, 1u, 2u, 3u, 31u, 32u, 33u}[random() % 7], "ABCDG"[random() % 5]);
            list += name + "|";
            if (level == 0) {
                model.erase(name);
            } else if (!name.empty() && name.size() <= 32 && model.size() < 20) {
                model[name] = level;
            }
        }
        insert_modules_list(list.c_str(), level);
        for (const auto& [name, stored] : model) {
            report += (report.empty() ? "" : "|") + name;
            ASSERT_EQ(zenk_log_getLevel(name.c_str()), stored == 1 ? 2 : 1) << name;
        }
        char seen[1025] = "";
        ASSERT_EQ(get_modules_list(seen), static_cast<int>(model.size()));
        ASSERT_EQ(seen, report);
    }
    readers.clear();
    EXPECT_EQ(wrongLevels, 0);
    const std::regex whole(
        "\033\\[31mtime=[^\n]+ line: 7\n\033\\[0m|module:\\w+ set error, (length is 33, out of max "
        "length:32|module_list map has number:20)\n");
    EXPECT_EQ(std::regex_replace(take(), whole, ""), "");
    clear_modules_list();
    EXPECT_EQ(zenk_log_getLevel("FULL"), 1);
}

TEST_F(Log, LetsAProcessForkThatWaitsForTheReaderOfItsOutput) {
    if (zenk_test::kIsSanitized) GTEST_SKIP() << "the thread sanitizer flushes at _exit, and waits for the reader";
    const auto forkBesideAFullPipe = [] {
        alarm(20);  // ends it where the fork hangs
        int ends[2];
        dup2(pipe(ends) == 0 ? ends[1] : -1, STDOUT_FILENO);
        std::thread([] { insert_modules_list((std::string(200'000, 'x') + "|A").c_str(), 1); }).detach();
        while (zenk_log_getLevel("A") != 2) sched_yield();
        _exit(fork() < 0);
    };
    EXPECT_EXIT(forkBesideAFullPipe(), testing::ExitedWithCode(0), "");
}

// The log at the end of the process: registered before the constructors of all statics, this is called behind their
// destructors. It fails whatever test has run.
[[gnu::constructor(101)]] void askInTheEnd() {
    std::atexit([] {
        insert_modules_list("A", 1);
        if (zenk_log_getLevel("A") != 1) std::_Exit(1);
    });
}

}  // namespace
