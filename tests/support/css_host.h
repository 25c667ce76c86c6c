#pragma once

#include <dirent.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/front_end.h"
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

/// WebSocket clients by their ids, as the observers of the real front end see them.
class Clients : public zenk_test::FrontEnd {
protected:
    using Hold = std::pair<int, bool>;

    int newClient(const std::string& uri) {
        const int id = static_cast<int>(m_clients.size()) + 1;
        m_clients.push_back(zenk_test::openConnection(id, uri));  // the front end knows them apart by their sockets
        establish(m_clients.back());
        return id;
    }
    lws* client(int id) { return m_clients.at(static_cast<std::size_t>(id) - 1); }

    /// The clients that were asked to close since the last call, in that order; forgets the holds.
    std::vector<int> takeClosed() {
        std::vector<int> ids;
        for (const auto& [id, action] : take(zenk_test::Action::kClose)) ids.push_back(id);
        return ids;
    }
    /// Those that were held (true) and resumed (false) since the last call, in that order; forgets the closes.
    std::vector<Hold> takeHolds() {
        std::vector<Hold> holds;
        for (const auto& [id, action] : take(zenk_test::Action::kReception)) holds.emplace_back(id, action.code == 0);
        return holds;
    }

private:
    std::vector<std::pair<int, zenk_test::Action>> take(zenk_test::Action::Kind kind) {
        std::vector<std::pair<int, zenk_test::Action>> taken;
        for (const zenk_test::Action& action : zenk_test::takeActions()) {
            const auto place = std::ranges::find(m_clients, action.wsi);
            if (action.kind == kind) taken.emplace_back(place - m_clients.begin() + 1, action);
        }
        return taken;
    }

    std::vector<lws*> m_clients;
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
