#pragma once

#include <string>
#include <utility>

#include "examples/print_line.h"

/// A CSS server that tells when a client is refused because it is full: one that is full refuses the clients of the
/// other, too, and then nobody would know why.
/// @tparam Server  ZenkCSSCIIServer or ZenkCSSTSServer
template <typename Server>
class LimitedServer : public Server {
public:
    explicit LimitedServer(std::string name) : m_name(std::move(name)) {}

    // Before our own part of the object goes: when this returns, the service thread asks us no more.
    ~LimitedServer() override {
        if (this->m_server != nullptr) this->m_server->removeObserver(this);
    }

    /// Asked for each client that comes, on the service thread.
    int getCssServerStatus() override {
        const int status = Server::getCssServerStatus();
        constexpr int kFull = 2;
        if (status == kFull) printLine("refused a client: " + m_name + " has as many as MSMaxClientNum allows");
        return status;
    }

private:
    const std::string m_name;
};
