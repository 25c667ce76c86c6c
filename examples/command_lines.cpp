#include "examples/command_lines.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "examples/print_line.h"

namespace {

constexpr std::size_t kMaxLineBytes = 4096;  // far more than a command; what is longer is cut, and refused for it

int newEvent() {
    const int event = eventfd(0, EFD_CLOEXEC);
    if (event < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return event;
}

}  // namespace

CommandLines::CommandLines(Execute execute) : m_execute(std::move(execute)), m_end(newEvent()) {
    // A program in the background of a terminal would be stopped as a whole where it only wants to read.
    std::signal(SIGTTIN, SIG_IGN);
    m_thread = std::thread([this] { run(); });
}

CommandLines::~CommandLines() {
    eventfd_write(m_end, 1);
    m_thread.join();
    close(m_end);
}

void CommandLines::run() {
    char bytes[kMaxLineBytes];
    while (waitForInput()) {
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        take({bytes, static_cast<std::size_t>(count)});
    }
}

bool CommandLines::waitForInput() const {
    pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {m_end, POLLIN, 0}};
    while (poll(sources, 2, -1) < 0) {
        if (errno != EINTR) return false;
    }
    return sources[1].revents == 0;
}

void CommandLines::take(std::string_view bytes) {
    for (const char c : bytes) {
        if (c != '\n') {
            if (m_line.size() < kMaxLineBytes) m_line += c;
            continue;
        }
        if (m_line.find_first_not_of(" \t\r") != std::string::npos) printLine(m_execute(m_line));
        m_line.clear();
    }
}
