#include "tests/support/receiver.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>

namespace zenk_test {

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
        const std::size_t blank = line->find(' ');
        const std::string name = line->substr(0, blank);
        if (name.starts_with("app2app-") || name.starts_with("css-"))
            m_urls.emplace_back(name, line->substr(blank + 1));
    }
    m_process->signal(SIGKILL);
    throw std::runtime_error("zenk_receiver did not get ready: " + m_process->errorOutput());
}

std::vector<std::string> Receiver::printedNames() const {
    std::vector<std::string> names;
    for (const auto& [name, url] : m_urls) names.push_back(name);
    return names;
}

std::string Receiver::url(const std::string& name) const {
    const auto found = std::ranges::find(m_urls, name, &std::pair<std::string, std::string>::first);
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
