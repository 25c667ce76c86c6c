#include "platform/departures.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <exception>

#include "platform/ws_connection.h"

namespace zenk_ws {

void Departures::open(struct ev_loop* loop) {
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll < 0) return;
    m_loop = loop;
    ev_io_init(
        &m_watcher, [](struct ev_loop*, ev_io* watcher, int) { static_cast<Departures*>(watcher->data)->look(); },
        m_epoll, EV_READ);
    m_watcher.data = this;
    ev_set_priority(&m_watcher, EV_MAXPRI);  // before the reads of the same pass
    ev_io_start(m_loop, &m_watcher);
}

void Departures::close() {
    if (m_epoll < 0) return;
    ev_io_stop(m_loop, &m_watcher);
    ::close(m_epoll);
    m_epoll = -1;
}

void Departures::watch(Connection& connection, std::size_t present) {
    if (m_epoll < 0 || present < kCrowd) return;
    epoll_event event{};
    event.events = EPOLLRDHUP | EPOLLET;  // a reset comes unasked
    event.data.ptr = &connection;
    // If it fails, it leaves when it is read.
    connection.m_isInDepartures = epoll_ctl(m_epoll, EPOLL_CTL_ADD, connection.socket(), &event) == 0;
}

void Departures::forget(Connection& connection) {
    if (m_epoll < 0 || !connection.m_isInDepartures) return;
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, connection.socket(), nullptr);
    m_waiting.erase(&connection);
}

void Departures::look() {
    std::array<epoll_event, 256> events;
    int count = 0;
    do {
        count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 0);
        for (int i = 0; i < count; ++i) onGone(*static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr));
    } while (count == static_cast<int>(events.size()));
}

void Departures::onGone(Connection& connection) {
    if (m_room != 0) {
        --m_room;
        return;
    }
    try {
        if (m_waiting.insert(&connection).second) connection.setDeparting(true);
    } catch (const std::exception&) {
        // Without memory it leaves at once.
    }
}

void Departures::letNextGo() {
    m_room = kPortion;
    while (m_room != 0 && !m_waiting.empty()) {
        Connection& next = **m_waiting.begin();
        m_waiting.erase(m_waiting.begin());
        next.setDeparting(false);
        --m_room;
    }
}

}  // namespace zenk_ws
