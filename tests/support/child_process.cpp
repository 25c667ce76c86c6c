#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace zenk_test {
namespace {

struct Pipe {
    Socket readEnd;
    Socket writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    return {Socket(ends[0]), Socket(ends[1])};
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Ours with `added` in front: a look-up finds the first entry of a name.
std::vector<std::string> environmentWith(std::vector<std::string> added) {
    for (char** entry = environ; *entry != nullptr; ++entry) added.emplace_back(*entry);
    return added;
}

/// Runs in the child between fork and exec, where only async-signal-safe calls are allowed.
[[noreturn]] void becomeProgram(char* const* arguments, char* const* environment, int out, int err) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves nobody behind
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    execve(arguments[0], arguments, environment);
    _exit(127);
}

std::string withoutColours(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const std::size_t escape = text.find("\033[");
        plain.append(text.substr(0, escape));
        if (escape == std::string_view::npos) break;
        text.remove_prefix(escape);
        const std::size_t end = text.find('m');
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return plain;
}

/// @return figure number `index` of /proc/PID/statm, which counts in pages
std::size_t memoryFigure(pid_t pid, std::size_t index) {
    std::array<std::size_t, 2> pages{};
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> pages[0] >> pages[1];
    return pages.at(index) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

std::size_t virtualBytes(pid_t pid) {
    return memoryFigure(pid, 0);
}

std::size_t residentBytes(pid_t pid) {
    return memoryFigure(pid, 1);
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    std::vector<std::string> argumentTexts = arguments;
    std::vector<std::string> environmentTexts = environmentWith(environment);
    const std::vector<char*> argumentPointers = pointersTo(argumentTexts);
    const std::vector<char*> environmentPointers = pointersTo(environmentTexts);
    Pipe out = makePipe();
    Pipe err = makePipe();
    m_pid = fork();
    if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (m_pid == 0) {
        becomeProgram(argumentPointers.data(), environmentPointers.data(), out.writeEnd.fd(), err.writeEnd.fd());
    }
    m_reader = std::thread([this, outEnd = std::move(out.readEnd), errEnd = std::move(err.readEnd)]() mutable {
        readOutput(std::move(outEnd), std::move(errEnd));
    });
}

ChildProcess::~ChildProcess() {
    if (!exitCode(Milliseconds(0))) {
        signal(SIGKILL);
        exitCode();
    }
    m_reader.join();
}

std::optional<std::string> ChildProcess::nextLine(Milliseconds patience) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, patience, [this] { return !m_lines.empty() || m_outputEnded; });
    if (m_lines.empty()) return std::nullopt;
    std::string line = std::move(m_lines.front());
    m_lines.pop_front();
    return line;
}

std::optional<std::string> ChildProcess::lineWith(std::string_view prefix, Milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (true) {
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - std::chrono::steady_clock::now());
        std::optional<std::string> line = nextLine(left);
        if (!line || line->starts_with(prefix)) return line;
    }
}

std::string ChildProcess::errorOutput(Milliseconds patience) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, patience, [this] { return m_outputEnded; });
    return m_error;
}

void ChildProcess::signal(int number) {
    if (!m_exitCode) kill(m_pid, number);
}

std::optional<int> ChildProcess::exitCode(Milliseconds patience) {
    waitUntil(
        [this] {
            int status = 0;
            if (m_exitCode || waitpid(m_pid, &status, WNOHANG) != m_pid) return m_exitCode.has_value();
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            return true;
        },
        patience);
    return m_exitCode;
}

std::size_t ChildProcess::openDescriptors() const {
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(m_pid) + "/fd", error);
    return error ? 0 : static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

void ChildProcess::readOutput(Socket out, Socket err) {
    std::string partial;
    std::array<char, 16384> buffer;
    while (out.isOpen() || err.isOpen()) {
        std::array<pollfd, 2> entries{pollfd{out.fd(), POLLIN, 0}, pollfd{err.fd(), POLLIN, 0}};  // -1 is passed over
        if (poll(entries.data(), entries.size(), -1) < 0) continue;
        for (Socket* stream : {&out, &err}) {
            if (entries[stream == &out ? 0 : 1].revents == 0) continue;
            const ssize_t count = read(stream->fd(), buffer.data(), buffer.size());
            if (count <= 0) {
                stream->close();
                continue;
            }
            const std::lock_guard lock(m_mutex);
            std::string& text = stream == &out ? partial : m_error;
            text.append(buffer.data(), static_cast<std::size_t>(count));
            if (stream == &out) takeLines(partial);
        }
        m_changed.notify_all();
    }
    const std::lock_guard lock(m_mutex);
    if (!partial.empty()) m_lines.push_back(withoutColours(partial));
    m_outputEnded = true;
    m_changed.notify_all();
}

void ChildProcess::takeLines(std::string& partial) {
    std::size_t begin = 0;
    for (std::size_t end; (end = partial.find('\n', begin)) != std::string::npos; begin = end + 1) {
        m_lines.push_back(withoutColours(std::string_view(partial).substr(begin, end - begin)));
    }
    partial.erase(0, begin);
}

}  // namespace zenk_test
