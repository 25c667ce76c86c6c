#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include "log/zenk_log.h"
#include "tests/support/sanitizer.h"

namespace {

class Log : public testing::Test {
protected:
    Log() {
        testing::internal::CaptureStdout();
        clear_modules_list();
        insert_modules_list("FULL", 1);
    }
    ~Log() override { testing::internal::GetCapturedStdout(); }

    /// What was printed since the last call, without the first prefix, if that is right in all but the level.
    static std::string take(pid_t process = getpid(), pid_t thread = gettid()) {
        std::string output = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        const std::size_t at = output.find("timestamp=");
        if (at == output.npos) return output;
        const std::time_t second = std::atol(&output[at + 10]);
        EXPECT_LT(std::time(nullptr) - second, 30);
        char time[99];
        const std::string format = "time=%-d/%-m/%Y %-H:%-M:%-S,timestamp=%s,pid=";  // GNU's
        std::strftime(time, sizeof time, format.c_str(), std::localtime(&second));
        const std::string prefix = time + std::to_string(process) + ",tid=" + std::to_string(thread) + ",logtype=";
        return output.replace(std::min(output.find(prefix), at), prefix.size(), "");
    }
    static void logError() { zenk_log_print(LOG_TYPE_ERROR, "OTHER", "a/b/file.cpp", "call", 7, nullptr, nullptr); }
    const std::string kError = "\033[31merror File:file.cpp Function: call(), line: 7\n\033[0m";
};

TEST_F(Log, ShapesEachLineByTypeLevelAndWhatIsMissing) {
    const int number = -42;
    const std::string green = "\033[32minfo File", end = "\n\033[0m", at = ":f Function: g(), line: 7";
    const std::tuple<int, const char*, const char*, const void*, std::string> cases[] = {
        {LOG_TYPE_ERROR, nullptr, nullptr, "v", "\033[31merror File:(null) Function: g(), line: 7" + end},
        {LOG_TYPE_INT, "FULL", "d/", &number, green + ": Function: g(), line: 7, n:-42" + end},
        {LOG_TYPE_INT, "FULL", "f", nullptr, green + at + ", n:(null)" + end},
        {LOG_TYPE_STRING, "FULL", "f", "v%s", green + at + ", n:v%s" + end},
        {LOG_TYPE_STRING, "OTHER", "f", "v", ""},
        {6, "OTHER", "f", "v", "log type set err, out of max enum value\n"}};
    for (const auto& [type, module, file, value, line] : cases) {
        zenk_log_print(type, module, file, "g", 7, "n", value);
        EXPECT_EQ(take(), line) << type;
    }
    for (std::size_t length = 800; length < 1000; ++length) {  // around the end of the buffer, and one far beyond it
        const std::string text(length == 999 ? 200'000 : length, 'x');
        zenk_log_print(LOG_TYPE_STRING, "FULL", "f", "g", 7, "n", text.c_str());
        ASSERT_EQ(take(), green + at + ", n:" + text + end);
    }
    const char* none = nullptr;
    zenk_log("FULL", "d/f", "g", 7, "%d %s", 1, std::string(3000, 'x').c_str());
    EXPECT_EQ(take(), "info File:f Function: g(), line: 7, 1 " + std::string(2045, 'x'));
    zenk_log("FULL", none, none, 7, none, 0);
    EXPECT_EQ(take(), "info File:(null) Function: (null)(), line: 7, (null)");
}

// Within the second of the line before, most likely: threads keep their prefix for a second.
TEST_F(Log, NamesThreadForkedChildAndTimeZoneAndKeepsErrno) {
    const auto expectError = [this] {
        logError();
        EXPECT_EQ(take(), kError);
    };
    expectError();
    std::thread([&] {
        expectError();
        const pid_t child = fork();
        if (child == 0) logError(), std::fflush(stdout), _exit(0);
        waitpid(child, nullptr, 0);
        EXPECT_EQ(take(child, child), kError);
    }).join();
    setenv("TZ", "XYZ-5:43", 1);
    tzset();
    std::thread(expectError).join();
    unsetenv("TZ");
    tzset();
    dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    errno = EDOM;
    zenk_log_print(LOG_TYPE_STRING, "FULL", "f", "g", 7, "n", std::string(200'000, 'x').c_str());
    EXPECT_EQ(errno, EDOM);
}

TEST_F(Log, TableFollowsItsModelInRandomSequences) {
    std::mt19937 random(20240607);
    std::map<std::string, int> model{{"FULL", 1}};
    for (int step = 0; step < 10'000; ++step) {
        std::string list, told, report, name;
        const int level = std::array{0, 1, 2, 255, -1}[random() % 5];
        bool isTaken = true;
        for (std::size_t left = random() % 12; left > 0; --left, list += name + "|") {
            name.assign(random() % 35, static_cast<char>('A' + random() % 4));
            const std::string refusal = "module:" + name + " set error, ";
            if (!isTaken || name.empty()) continue;
            if (name.size() > 32) {
                told += refusal + "length is " + std::to_string(name.size()) + ", out of max length:32\n";
            } else if (level == 0) {
                model.erase(name);
            } else if (isTaken = model.size() < 20; isTaken) {
                model[name] = level;
            } else {
                told += refusal + "module_list map has number:20\n";
            }
        }
        ASSERT_EQ(insert_modules_list(list.c_str(), level), 0);
        ASSERT_EQ(take(), told);
        if (step % 100 == 0) clear_modules_list(), model.clear();
        for (const auto& [stored, value] : model) {
            report += (report.empty() ? "" : "|") + stored;
            ASSERT_EQ(zenk_log_getLevel(stored.c_str()), value == 1 ? 2 : 1) << stored;
        }
        char seen[1025] = "";
        ASSERT_EQ(get_modules_list(seen), static_cast<int>(model.size()));
        ASSERT_EQ(seen, report);
        ASSERT_EQ(zenk_log_getLevel(name.c_str()), model.contains(name) && model[name] == 1 ? 2 : 1) << name;
    }
    EXPECT_EQ(insert_modules_list(nullptr, 1), -1);
    EXPECT_EQ(zenk_log_getLevel(nullptr), 1);
}

// Names come and go in three tables in turn, so that neither of the two copies keeps its contents. One stays, in
// another place each time: its level and its lines must be right at every moment.
TEST_F(Log, KeepsLinesWholeAndLevelsRightWhileTheTableChanges) {
    insert_modules_list("STEADY", 1);
    std::atomic<bool> isOver = false;
    std::atomic<int> wrongLevels = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500 || !isOver; ++i) {
                if (zenk_log_getLevel("STEADY") != 2 || zenk_log_getLevel("NEVER") != 1) ++wrongLevels;
                if (i < 500) zenk_log_print(LOG_TYPE_STRING, "STEADY", "d/f", "g", 7, "n", "v");
            }
        });
    }
    for (int i = 0; i < 3'400; ++i) {
        insert_modules_list("A|B|C|D|E|F|G|H|I|J|K|L|M|N|O|P|Q", 2);
        insert_modules_list("A|B|C|D|E|F|G|H", 0);
        insert_modules_list("I|J|K|L|M|N|O|P|Q", 0);
    }
    isOver = true;
    threads.clear();
    EXPECT_EQ(wrongLevels, 0);
    const std::regex line(
        "\033\\[32mtime=[^,\n]+,timestamp=\\d+,pid=\\d+,tid=\\d+,logtype=info "
        "File:f Function: g\\(\\), line: 7, n:v\n\033\\[0m");
    const std::string output = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_EQ(std::regex_replace(output, line, "."), std::string(8 * 500, '.'));
}

TEST_F(Log, LetsAProcessForkThatWaitsForTheReaderOfItsOutput) {
    if (zenk_test::kIsSanitized) GTEST_SKIP() << "the thread sanitizer flushes at _exit, and waits for the reader";
    const auto hostWithAFullPipe = [] {
        alarm(20);  // ends it where the fork hangs
        int ends[2];
        if (pipe2(ends, O_NONBLOCK) != 0) _exit(2);
        while (write(ends[1], ends, 1) == 1) continue;
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        std::thread([] { insert_modules_list((std::string(33, 'x') + "|A").c_str(), 1); }).detach();
        while (zenk_log_getLevel("A") != 2) sched_yield();
        const pid_t child = fork();
        if (child == 0) _exit(insert_modules_list("B", 1));
        int status = 1;
        waitpid(child, &status, 0);
        _exit(status);
    };
    EXPECT_EXIT(hostWithAFullPipe(), testing::ExitedWithCode(0), "");
}

// The log at the end of the process: registered before the constructors of all statics, this is called behind their
// destructors. It fails whatever test has run.
[[gnu::constructor(101)]] void askInTheEnd() {
    std::atexit([] {
        const bool isEmpty = insert_modules_list("A", 1) == 0 && get_modules_list(nullptr) == 0;
        if (!isEmpty || zenk_log_getLevel("A") != 1) std::_Exit(1);
    });
}

}  // namespace
