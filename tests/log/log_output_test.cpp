#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "log/zenk_log.h"
#include "tests/support/captured_output.h"

namespace {

using zenk_test::CapturedOutput;

constexpr int kNumber = -42;

// Replaces a prefix by its last word, after a look at everything in it: the rest of a line does not change.
std::string withoutPrefix(const std::string& output) {
    const std::size_t start = std::min(output.find("time="), output.size());
    long second = 0;
    long pid = 0;
    long tid = 0;
    char word[8];
    int length = 0;
    if (std::sscanf(output.c_str() + start, "time=%*[^,],timestamp=%ld,pid=%ld,tid=%ld,logtype=%7[a-z]%n", &second,
                    &pid, &tid, word, &length) != 4) {
        return output;
    }
    EXPECT_NEAR(static_cast<double>(second), static_cast<double>(std::time(nullptr)), 30);
    EXPECT_EQ(pid, getpid());
    EXPECT_EQ(tid, syscall(SYS_gettid));
    const std::tm* parts = std::localtime(&second);
    char prefix[100];
    std::snprintf(prefix, sizeof prefix, "time=%d/%d/%d %d:%d:%d,timestamp=%ld,pid=%ld,tid=%ld,logtype=%s",
                  parts->tm_mday, parts->tm_mon + 1, parts->tm_year + 1900, parts->tm_hour, parts->tm_min,
                  parts->tm_sec, second, pid, tid, word);
    EXPECT_EQ(output.substr(start, static_cast<std::size_t>(length)), prefix);
    return output.substr(0, start) + "<" + word + ">" + output.substr(start + static_cast<std::size_t>(length));
}

class LogOutput : public testing::Test {
protected:
    LogOutput() { insert_modules_list("FULL", 1); }

    std::string print(int type, const char* module, const char* file = "a/b/file.cpp", const char* function = "call",
                      const char* name = nullptr, const void* value = nullptr) {
        zenk_log_print(type, module, file, function, 7, name, value);
        return withoutPrefix(m_output.take());
    }

private:
    CapturedOutput m_output;
};

}  // namespace

TEST_F(LogOutput, ShapesEachTypeByTheLevel) {
    EXPECT_EQ(print(LOG_TYPE_ENTER, "FULL"), "\033[32m<info> File: file.cpp Function: call() Enter!\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_LEAVE, "FULL"), "\033[32m<info> File: file.cpp Function: call() Leave!\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_ERROR, "FULL"), "\033[31m<info> File:file.cpp Function: call(), line: 7\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_ERROR, "OTHER"), "\033[31m<error> File:file.cpp Function: call(), line: 7\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_INT, "FULL", "f", "g", "n", &kNumber),
              "\033[32m<info> File:f Function: g(), line: 7, n:-42\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_STRING, "FULL", "f", "g", "n", "v%s"),
              "\033[32m<info> File:f Function: g(), line: 7, n:v%s\n\033[0m");
    for (int silent : {LOG_TYPE_ENTER, LOG_TYPE_LEAVE, LOG_TYPE_INT, LOG_TYPE_STRING}) {
        EXPECT_EQ(print(silent, "OTHER"), "") << silent;
    }
    for (int unknown : {5, -1}) EXPECT_EQ(print(unknown, "FULL"), "") << unknown;
    for (const char* module : {"FULL", "OTHER"}) {
        EXPECT_EQ(print(6, module), "log type set err, out of max enum value\n");
    }
}

TEST_F(LogOutput, TakesAnyFileNullAndLongText) {
    EXPECT_EQ(print(LOG_TYPE_ERROR, "A", "dir/"), "\033[31m<error> File: Function: call(), line: 7\n\033[0m");
    EXPECT_EQ(print(LOG_TYPE_ERROR, nullptr, nullptr, nullptr),
              "\033[31m<error> File:(null) Function: (null)(), line: 7\n\033[0m");
    for (int type : {LOG_TYPE_INT, LOG_TYPE_STRING}) {
        EXPECT_EQ(print(type, "FULL", "f", "g"),
                  "\033[32m<info> File:f Function: g(), line: 7, (null):(null)\n\033[0m");
    }
    // Each length at the edge of the stack buffer, and one far beyond it.
    for (std::size_t length = 800; length < 1000; ++length) {
        const std::string text(length == 999 ? 200'000 : length, 'x');
        ASSERT_EQ(print(LOG_TYPE_STRING, "FULL", "f", "g", "n", text.c_str()),
                  "\033[32m<info> File:f Function: g(), line: 7, n:" + text + "\n\033[0m");
    }
}

TEST(LogFreeText, IsPrintedAtFullLevelOnlyAndCut) {
    insert_modules_list("FULL", 1);
    CapturedOutput output;
    zenk_log("OTHER", "d/f", "g", 7, "%s\n", "x");
    EXPECT_EQ(output.take(), "");
    zenk_log("FULL", "d/f", "g", 7, "%d %s", 1, "x");
    EXPECT_EQ(withoutPrefix(output.take()), "<info> File:f Function: g(), line: 7, 1 x");
    zenk_log("FULL", "d/f", "g", 7, "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(withoutPrefix(output.take()), "<info> File:f Function: g(), line: 7, " + std::string(2047, 'x'));
    const char* none = nullptr;
    zenk_log("FULL", none, none, 7, none, 0);
    EXPECT_EQ(withoutPrefix(output.take()), "<info> File:(null) Function: (null)(), line: 7, (null)");
}

TEST_F(LogOutput, NamesTheIdsOfAForkedChildAndOfAThread) {
    const std::string line = "\033[31m<error> File:file.cpp Function: call(), line: 7\n\033[0m";
    EXPECT_EQ(print(LOG_TYPE_ERROR, "OTHER"), line);
    std::thread([&] {
        EXPECT_EQ(print(LOG_TYPE_ERROR, "OTHER"), line);
        const pid_t child = fork();  // within the second of the line above, most likely
        if (child == 0) _exit(print(LOG_TYPE_ERROR, "OTHER") == line && !HasFailure() ? 0 : 1);
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }).join();
}

TEST_F(LogOutput, FollowsTheTimeZoneAndKeepsErrno) {
    setenv("TZ", "XYZ-5:43", 1);
    tzset();
    std::thread([&] {  // a new thread has no text of this second yet
        errno = EDOM;
        zenk_log_print(LOG_TYPE_ENTER, "OTHER", "f", "g", 7, nullptr, nullptr);
        EXPECT_EQ(errno, EDOM);
        EXPECT_EQ(print(LOG_TYPE_ERROR, "OTHER"), "\033[31m<error> File:file.cpp Function: call(), line: 7\n\033[0m");
    })
        .join();
    unsetenv("TZ");
    tzset();
}
