#include "tests/receiver/receiver.h"

#include <array>
#include <csignal>
#include <stdexcept>

namespace zenk_test {
namespace {

constexpr std::array<const char*, 5> kUrlNames{"app2app-local", "app2app-remote", "css-cii", "css-ts", "css-wc"};

}  // namespace

Receiver::Receiver(std::vector<std::string> arguments, const std::vector<std::string>& environment)
    : m_port(freePort()), m_wcPort(freePort()) {
    arguments.insert(arguments.begin(),
                     {ZENK_RECEIVER_PATH, "--port", std::to_string(m_port), "--wc-port", std::to_string(m_wcPort)});
    m_process = std::make_unique<ChildProcess>(arguments, environment);
    readLinesUntilReady();
}

void Receiver::readLinesUntilReady() {
    while (const std::optional<std::string> line = m_process->nextLine()) {
        if (*line == "ready") return;
        for (const std::string name : kUrlNames) {
            if (!line->starts_with(name + " ")) continue;
            m_names.push_back(name);
            m_urls[name] = line->substr(name.size() + 1);
        }
    }
    m_process->signal(SIGKILL);
    throw std::runtime_error("zenk_receiver did not get ready: " + m_process->errorOutput());
}

std::string Receiver::url(const std::string& name) const {
    const auto found = m_urls.find(name);
    return found == m_urls.end() ? std::string() : found->second;
}

std::string Receiver::path(const std::string& name) const {
    const std::string whole = url(name);
    const std::size_t authority = whole.find("://");
    const std::size_t path = authority == std::string::npos ? authority : whole.find('/', authority + 3);
    return path == std::string::npos ? std::string() : whole.substr(path);
}

std::optional<int> Receiver::end(int signal) {
    m_process->signal(signal);
    return m_process->exitCode();
}

}  // namespace zenk_test
