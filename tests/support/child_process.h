#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/net_util.h"

namespace zenk_test {

/// @{ Of a process, from /proc; 0 when it has gone.
std::size_t virtualBytes(pid_t pid = getpid());
std::size_t residentBytes(pid_t pid = getpid());
/// @}

/// A program under test. Its output is read all the time, so that it never waits for us; lines are kept in order.
/// Terminal colours are taken out: the reset of a log line stands at the beginning of the line that follows it.
class ChildProcess {
public:
    /// Starts `arguments[0]` with nothing on its standard input. `environment` holds "NAME=VALUE" entries that are
    /// added to ours. Throws when no process can be made; a program that cannot be run exits with 127.
    explicit ChildProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});
    ~ChildProcess();  ///< kills it if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// @return the next line of standard output; nothing at its end or at the deadline
    std::optional<std::string> nextLine(Milliseconds patience = kPatience);
    /// Skips lines of standard output. @return the first that begins with `prefix`, or nothing
    std::optional<std::string> lineWith(std::string_view prefix, Milliseconds patience = kPatience);
    /// Waits for the program's end first. @return all of its standard error
    std::string errorOutput(Milliseconds patience = kPatience);

    void signal(int number);
    /// @return the exit code, or -N when signal N ended it; nothing at the deadline
    std::optional<int> exitCode(Milliseconds patience = kPatience);

    pid_t pid() const { return m_pid; }
    std::size_t residentBytes() const { return zenk_test::residentBytes(m_pid); }
    std::size_t openDescriptors() const;  ///< 0 when it has gone

private:
    void readOutput(Socket out, Socket err);
    void takeLines(std::string& partial);

    pid_t m_pid = -1;
    std::optional<int> m_exitCode;  // the owner's thread only

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_lines;  // guarded by m_mutex
    std::string m_error;              // guarded by m_mutex
    bool m_outputEnded = false;       // guarded by m_mutex

    std::thread m_reader;
};

}  // namespace zenk_test
