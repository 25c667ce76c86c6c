#pragma once

#include <stop_token>
#include <string>
#include <thread>

#include "examples/endpoints.h"
#include "examples/page_server.h"
#include "examples/socket.h"

/// How a companion finds the host: the part of DIAL that ETSI TS 102 796, clause 14.7 uses. A device sends M-SEARCH to
/// a multicast group; the answer names the device description, whose Application-URL leads to the application resource
/// with the URLs of our services.
class Discovery {
public:
    /// Answers from now on to its destruction on the interface that has `address`, and says nothing unasked.
    /// @param pageUrl  where documents() are served; with "/" at its end
    /// @throw std::system_error when the port cannot be served
    Discovery(const std::string& address, const std::string& pageUrl);

    /// What the answer leads to.
    Documents documents(const Endpoints& urls) const;

private:
    void serve(const std::stop_token& end) const;

    // Constant after construction.
    const std::string m_deviceId;
    const std::string m_pageUrl;
    const Socket m_socket;
    std::jthread m_thread;  // last, so that it ends first
};
