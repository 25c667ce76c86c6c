#include "examples/command_lines.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "examples/screen.h"

namespace {

constexpr std::size_t kMaxLineBytes = 4096;        // far more than a command; what is longer is cut, and refused for it
constexpr std::chrono::milliseconds kGlance{100};  // how often the thread looks whether it shall end

}  // namespace

CommandLines::CommandLines(Television& television) : m_television(television) {
    // A program in the background of a terminal would be stopped as a whole where it only wants to read.
    std::signal(SIGTTIN, SIG_IGN);
    m_thread = std::jthread([this](const std::stop_token& end) { run(end); });
}

void CommandLines::run(const std::stop_token& end) {
    char bytes[kMaxLineBytes];
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (!end.stop_requested()) {
        if (poll(&input, 1, kGlance.count()) <= 0) continue;
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count == 0) return take('\n');
        if (count < 0) std::this_thread::sleep_for(kGlance);
        for (ssize_t i = 0; i < count; ++i) take(bytes[i]);
    }
}

void CommandLines::take(char c) {
    if (c != '\n') {
        if (m_line.size() < kMaxLineBytes) m_line += c;
        return;
    }
    if (m_line.find_first_not_of(" \t\r") != std::string::npos) printLine(m_television.execute(m_line));
    m_line.clear();
}
