#pragma once

#include <map>
#include <string>
#include <thread>

#include "examples/page_server.h"

/// How a companion finds the host: the part of DIAL that ETSI TS 102 796, clause 14.7 uses. A device sends M-SEARCH to
/// a multicast group; the answer names the device description, whose Application-URL leads to the application resource
/// with the URLs of our services.
class Discovery {
public:
    /// The documents that the answer leads to, by path.
    /// @param httpUrl where they are served, with "/" at its end
    static std::map<std::string, Resource> documents(const std::string& httpUrl, const std::string& app2appUrl,
                                                     const std::string& ciiUrl);

    /// Answers from now on to its destruction on the interface that has `address`, and says nothing unasked.
    /// @throw std::system_error when the port cannot be served
    Discovery(const std::string& address, const std::string& httpUrl);
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

private:
    void serve(const std::stop_token& end) const;

    // Constant after construction.
    const std::string m_answer;
    const int m_socket;
    std::jthread m_thread;
};
