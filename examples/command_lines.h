#pragma once

#include <stop_token>
#include <string>
#include <thread>

#include "examples/television.h"

/// Reads commands from standard input, one a line, and prints the answers. The end of the input ends the reading and
/// nothing else; the last line needs no newline. In the background of a terminal, where reading fails, it waits until
/// the host is brought back. Built while standard input is open or the null device.
class CommandLines {
public:
    /// `television` gets the commands on a thread of ours, and must outlive this object.
    explicit CommandLines(Television& television);

private:
    void run(const std::stop_token& end);
    void take(char c);

    Television& m_television;
    std::string m_line;     // our thread's: what has come of a line
    std::jthread m_thread;  // last, so that it ends first
};
