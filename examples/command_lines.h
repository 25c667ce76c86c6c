#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <thread>

/// Reads commands from standard input, one a line, and prints the answers. The end of the input ends the reading and
/// nothing else. Built while standard input is open or the null device.
class CommandLines {
public:
    using Execute = std::function<std::string(std::string_view command)>;

    /// @param execute  called on a thread of ours until the destructor returns
    explicit CommandLines(Execute execute);
    ~CommandLines();
    CommandLines(const CommandLines&) = delete;
    CommandLines& operator=(const CommandLines&) = delete;

private:
    void run();
    bool waitForInput() const;
    void take(std::string_view bytes);

    const Execute m_execute;
    std::string m_line;  // our thread's: what has come of a line
    const int m_end;     // an eventfd; readable when we shall end
    std::thread m_thread;
};
