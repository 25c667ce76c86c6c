#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"

namespace zenk_test {

/// A running zenk_receiver (ZENK_RECEIVER_PATH) on ports of its own, with what it printed up to "ready".
class Receiver {
public:
    /// Starts it and waits until it is ready. Throws when it does not get there.
    /// @param arguments    options besides the ports
    /// @param environment  "NAME=VALUE" entries
    explicit Receiver(std::vector<std::string> arguments = {}, const std::vector<std::string>& environment = {});

    int port() const { return m_port; }
    int wcPort() const { return m_wcPort; }
    ChildProcess& process() { return *m_process; }

    /// The printed URL behind `name`, "" when it was not printed.
    std::string url(const std::string& name) const;
    /// Path of that URL: what stands behind host and port.
    std::string path(const std::string& name) const;
    /// Names of the URLs in the order of printing.
    std::vector<std::string> printedNames() const;

    /// The next "event" line, "" when none comes in time.
    std::string nextEvent() { return m_process->lineWith("event ").value_or(""); }
    /// Ends it by `signal`. @return its exit code, nothing when it does not end
    std::optional<int> end(int signal);

private:
    void readLinesUntilReady();

    int m_port;
    int m_wcPort;
    std::unique_ptr<ChildProcess> m_process;
    std::vector<std::pair<std::string, std::string>> m_urls;  // names and URLs
};

}  // namespace zenk_test
