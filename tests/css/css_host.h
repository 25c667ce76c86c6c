#pragma once

#include <dirent.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/net_util.h"
#include "wsserver/zenk_dvbCss.h"

/// A door that a callback can be held at.
class Door {
public:
    void open() {
        const std::lock_guard lock(m_mutex);
        m_isOpen = true;
        m_changed.notify_all();
    }
    bool pass() {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, zenk_test::kPatience, [this] { return m_isOpen; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isOpen = false;
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
        host->m_changed.notify_all();
    }

    /// The events since the last call, once there are `count` or the deadline has passed.
    std::vector<Event> take(std::size_t count) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, zenk_test::kPatience, [&] { return m_events.size() >= count; });
        return std::exchange(m_events, {});
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Event> m_events;
};

/// How many event threads the process has.
inline int eventThreads() {
    int count = 0;
    DIR* const tasks = opendir("/proc/self/task");
    while (const dirent* task = readdir(tasks)) {
        std::string name;
        std::ifstream(std::string("/proc/self/task/") + task->d_name + "/comm") >> name;
        if (name == "zenk-css-event") ++count;
    }
    closedir(tasks);
    return count;
}
