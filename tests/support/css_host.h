#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/front_end.h"
#include "tests/support/net_util.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {

/// The two companion-screen servers under one set of names, for typed tests.
struct Cii {
    using Server = ZenkCSSCIIServer;
    static constexpr unsigned kNew = CSS_EVENT_CII_NEW_CLIENT;
    static constexpr const char* kUri = "/css-cii";
    static constexpr auto kAdd = &Server::addCiiClientId;
    static constexpr auto kRemove = &Server::removeCiiClientId;
    static constexpr auto kExists = &Server::ciiClientIdExists;
    static constexpr auto kRegister = &Server::registerCIIEventCallback;
    static constexpr auto kUnregister = &Server::unRegisterCIIEventCallback;
    static constexpr auto kEndpoint = &Server::getCssCiiEndpoint;
};
struct Ts {
    using Server = ZenkCSSTSServer;
    static constexpr unsigned kNew = CSS_EVENT_TS_NEW_CLIENT;
    static constexpr const char* kUri = "/css-ts";
    static constexpr auto kAdd = &Server::addTsClientId;
    static constexpr auto kRemove = &Server::removeTsClientId;
    static constexpr auto kExists = &Server::tsClientIdExists;
    static constexpr auto kRegister = &Server::registerTSEventCallback;
    static constexpr auto kUnregister = &Server::unRegisterTSEventCallback;
    static constexpr auto kEndpoint = &Server::getCssTsEndpoint;
};

/// A door that a callback can be held at.
struct Door {
    void open() { m_isOpen = true; }
    bool pass() {
        return waitUntil([this] { return m_isOpen.load(); });
    }
    std::atomic<bool> m_isOpen = false;
};

/// Event, client, message.
using Event = std::tuple<unsigned, int, std::string>;

/// A host that notes what its callback gets. Pass &host as the user pointer of host.note.
class Host {
public:
    static void note(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* self) {
        auto* const host = static_cast<Host*>(const_cast<void*>(self));
        const std::lock_guard lock(host->m_mutex);
        host->m_events.emplace_back(event, info->clientId, info->message);
        ++host->m_count;
    }

    /// The events since the last call, once there are `count` or the deadline has passed.
    std::vector<Event> take(std::size_t count) {
        waitUntil([&] { return m_count >= count; });
        const std::lock_guard lock(m_mutex);
        m_count = 0;
        return std::exchange(m_events, {});
    }

private:
    std::mutex m_mutex;
    std::vector<Event> m_events;  // guarded by m_mutex
    std::atomic<std::size_t> m_count = 0;
};

/// How many event threads the process has.
inline int eventThreads() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "zenk-css-event") ++count;
    }
    return count;
}

}  // namespace zenk_test
