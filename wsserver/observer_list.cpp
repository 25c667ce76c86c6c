#include "wsserver/observer_list.h"

#include <algorithm>
#include <exception>

namespace zenk {

bool ObserverList::add(ClientObserver* observer) try {
    const MutexLock lock(m_mutex);
    m_observers.push_back(observer);
    return true;
} catch (const std::exception&) {
    return false;
}

void ObserverList::remove(ClientObserver* observer) {
    const MutexLock lock(m_mutex);
    // A walk under way goes on with the observer that it would have called next.
    const auto reached = m_observers.begin() + static_cast<std::ptrdiff_t>(std::min(m_next, m_observers.size()));
    m_next -= static_cast<std::size_t>(std::count(m_observers.begin(), reached, observer));
    std::erase(m_observers, observer);

    if (std::this_thread::get_id() == m_walkThread) return;
    ++m_waiting;
    while (m_running == observer) m_changed.wait(m_mutex);
    --m_waiting;
}

void ObserverList::setRunning(ClientObserver* observer) {
    m_running = observer;
    if (m_waiting > 0) m_changed.notifyAll();
}

ObserverList::Walk::Walk(ObserverList& list) : m_list(list) {
    const MutexLock lock(m_list.m_mutex);
    m_list.m_next = 0;
    m_list.m_walkThread = std::this_thread::get_id();
}

// An early end, or an exception, must not leave an observer marked as running.
ObserverList::Walk::~Walk() {
    if (m_isOver) return;
    const MutexLock lock(m_list.m_mutex);
    m_list.setRunning(nullptr);
}

ClientObserver* ObserverList::Walk::next() {
    const MutexLock lock(m_list.m_mutex);
    m_isOver = m_list.m_next >= m_list.m_observers.size();
    m_list.setRunning(m_isOver ? nullptr : m_list.m_observers[m_list.m_next++]);
    return m_list.m_running;
}

}  // namespace zenk
