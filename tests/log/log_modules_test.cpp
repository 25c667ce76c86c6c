#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/zenk_log.h"
#include "tests/support/captured_output.h"

namespace {

using zenk_test::CapturedOutput;

std::string table() {
    char list[1025] = "untouched";
    const int count = get_modules_list(list);
    return std::to_string(count) + ":" + list;
}

std::string numberedNames(int first, int last) {
    std::string names;
    for (int i = first; i <= last; ++i) names += "M" + std::to_string(i) + "|";
    return names;
}

class LogModules : public testing::Test {
protected:
    LogModules() { clear_modules_list(); }

    // What inserting a list prints.
    std::string insert(const std::string& modules, int level) {
        EXPECT_EQ(insert_modules_list(modules.c_str(), level), 0);
        return m_output.take();
    }

private:
    CapturedOutput m_output;
};

// Looks at the table after all of the program's own objects are gone.
struct AfterExit {
    ~AfterExit() {
        if (!isAsked) return;
        const bool isEmpty = zenk_log_getLevel("A") == 1 && insert_modules_list("A", 1) == 0 &&
                             get_modules_list(nullptr) == 0 && clear_modules_list() == 0;
        _exit(isEmpty ? 42 : 1);
    }
    bool isAsked = false;
} g_afterExit __attribute__((init_priority(101)));

}  // namespace

TEST_F(LogModules, TellWhatTheyRefuse) {
    EXPECT_EQ(insert_modules_list(nullptr, 1), -1);
    EXPECT_EQ(zenk_log_getLevel(nullptr), 1);
    const std::string longest(32, 'x');
    const std::string message = "module:" + longest + "y set error, length is 33, out of max length:32\n";
    EXPECT_EQ(insert("a|" + longest + "y|" + longest, 1), message);
    EXPECT_EQ(table(), "2:a|" + longest);
    EXPECT_EQ(insert(longest + "y|a", 0), message);
    EXPECT_EQ(table(), "1:" + longest);
    EXPECT_EQ(insert(numberedNames(1, 30), 2), "module:M20 set error, module_list map has number:20\n");

    clear_modules_list();
    std::string full;
    for (char c = 'a'; c < 'a' + 20; ++c) full += (full.empty() ? "" : "|") + std::string(32, c);
    EXPECT_EQ(insert(full, 1), "");
    EXPECT_EQ(table(), "20:" + full);
}

TEST_F(LogModules, CountAsNoneAfterTheirDestruction) {
    EXPECT_EXIT(
        {
            insert_modules_list("A", 1);
            g_afterExit.isAsked = true;
            std::exit(0);
        },
        testing::ExitedWithCode(42), "");
}

// Two names come and go, one stays: its level and its lines must be right at every moment.
TEST(LogModulesAndThreads, LinesStayWholeAndLevelsRightWhileTheTableChanges) {
    clear_modules_list();
    insert_modules_list("STEADY", 1);
    CapturedOutput output;
    std::atomic<bool> isOver = false;
    std::atomic<int> wrongLevels = 0;
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500 || !isOver; ++i) {
                if (zenk_log_getLevel("STEADY") != 2 || zenk_log_getLevel("NEVER") != 1) ++wrongLevels;
                if (i < 500) zenk_log_print(LOG_TYPE_STRING, "STEADY", "d/f", "g", 7, "n", "v");
            }
        });
    }
    // Three tables in turn, so that neither of the two copies keeps its contents; the steady name moves in each.
    const std::string ahead = numberedNames(1, 19);
    for (int i = 0; i < 3'400; ++i) {
        insert_modules_list(ahead.c_str(), 2);
        insert_modules_list("M1|M2|M3|M4|M5|M6|M7|M8|M9", 0);
        insert_modules_list(ahead.c_str(), 0);
    }
    isOver = true;
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(wrongLevels, 0);
    std::istringstream lines(output.take());
    int count = 0;
    for (std::string line; std::getline(lines, line) && line != "\033[0m"; ++count) {
        if (line.starts_with("\033[0m")) line.erase(0, 4);  // of the line before
        int length = 0;
        std::sscanf(line.c_str(),
                    "\033[32mtime=%*d/%*d/%*d %*d:%*d:%*d,timestamp=%*d,pid=%*d,tid=%*d,logtype=info File:f "
                    "Function: g(), line: 7, n:v%n",
                    &length);
        ASSERT_EQ(static_cast<std::size_t>(length), line.size()) << line;
    }
    EXPECT_EQ(count, 8 * 500);
}
