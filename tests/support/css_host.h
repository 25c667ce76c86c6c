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
