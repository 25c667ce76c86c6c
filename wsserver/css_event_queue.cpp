#include "wsserver/css_event_queue.h"

#include <cxxabi.h>

#include <algorithm>
#include <utility>

#include "platform/scope_exit.h"
#include "platform/shared_value.h"

namespace zenk {

// ---------------------------------------------------------------- servers

bool CssEventQueue::Server::isMeantBy(const ZenkDispatcherInfo& record) const {
    constexpr unsigned kEventsOfAServer = 3;
    return record.server == address && record.event - firstEvent < kEventsOfAServer;
}

void CssEventQueue::enter(const void* server, MediaSyncServer*& webSocketServer, ZenkCSSEvent firstEvent) {
    const MutexLock lock(m_mutex);
    m_servers.push_back({server, &webSocketServer, firstEvent});
}

void CssEventQueue::leave(const void* server) {
    const MutexLock lock(m_mutex);
    std::erase_if(m_servers, [server](const Server& each) { return each.address == server; });
    discardRecords(server);
    ++m_waitingLeaves;
    while (m_called == server && pthread_equal(m_calling, pthread_self()) == 0) m_changed.wait(m_mutex);
    --m_waitingLeaves;
}

void CssEventQueue::add(ZenkDispatcherInfo record) {
    bool wasIdle = false;
    {
        const MutexLock lock(m_mutex);
        const auto server = std::ranges::find_if(m_servers, [&](const Server& each) { return each.isMeantBy(record); });
        if (!m_isOpen || server == m_servers.end()) return;
        CssBacklog::Entry& client = m_backlog.client({loadShared(*server->webSocketServer), record.clientId});
        m_records.push_back({std::move(record), &client});
        m_backlog.add(client, m_records.back().info);
        wasIdle = std::exchange(m_isIdle, false);
        actOnBacklog();
    }
    // Without the lock, which the woken thread takes at once; and once for a burst.
    if (wasIdle) m_changed.notifyAll();
}

bool CssEventQueue::isOpen() {
    const MutexLock lock(m_mutex);
    return m_isOpen;
}

// ---------------------------------------------------------------- dispatcher

// The lock makes the new thread's id known before the thread can end.
pthread_t CssEventQueue::startThread(ZenkCSSEventDispatcher& dispatcher) {
    const MutexLock lock(m_mutex);
    if (m_isThreadAlive) return m_thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    m_isThreadAlive = pthread_create(&m_thread, &attributes, cssEventThread, &dispatcher) == 0;
    pthread_attr_destroy(&attributes);
    if (!m_isThreadAlive) return 0;
    m_isStopWanted = false;
    pthread_setname_np(m_thread, "zenk-css-event");
    return m_thread;
}

void CssEventQueue::stopThread() {
    const MutexLock lock(m_mutex);
    m_isStopWanted = true;
    m_changed.notifyAll();
}

void CssEventQueue::close() {
    const MutexLock lock(m_mutex);
    m_isOpen = false;
    m_changed.notifyAll();
    discardRecords(nullptr);
    while (m_isThreadAlive && !isEventThread()) m_changed.wait(m_mutex);
}

void CssEventQueue::onThreadEnd() {
    const MutexLock lock(m_mutex);
    if (!isEventThread()) return;
    m_isThreadAlive = false;
    m_changed.notifyAll();
}

// ---------------------------------------------------------------- delivery

namespace {

// The message moves on: nobody else looks at the record any more.
void callServer(ZenkDispatcherInfo& record) {
    ZenkCSSEevntInfo info{record.clientId, std::move(record.message)};
    if (record.event <= CSS_EVENT_CII_CLIENT_LEAVE) {
        static_cast<ZenkCSSCIIServer*>(record.server)->dispatchEventToMS(record.event, &info);
    } else {
        static_cast<ZenkCSSTSServer*>(record.server)->dispatchEventToMS(record.event, &info);
    }
}

// A callback that throws loses its event only. The unwinding of a thread that ends must go on to the thread's bottom;
// it is no C++ object, so that the compiler's check for null references misfires.
__attribute__((noinline, no_sanitize("null"))) void deliver(ZenkDispatcherInfo& record) {
    try {
        callServer(record);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

}  // namespace

void CssEventQueue::run() {
    const ScopeExit end([this] {
        const MutexLock lock(m_mutex);
        endCall();
    });
    while (std::optional<ZenkDispatcherInfo> record = beginCall()) deliver(*record);
}

/// Ends the call of the record before, waits for the next one and begins its call. @return nothing when closed
std::optional<ZenkDispatcherInfo> CssEventQueue::beginCall() {
    const MutexLock lock(m_mutex);
    endCall();
    while (m_isOpen) {
        if (m_isStopWanted && isEventThread()) pthread_exit(nullptr);  // which unwinds, and leaves no trace line
        if (!m_records.empty()) return takeRecord();
        m_isIdle = true;
        m_changed.wait(m_mutex);
    }
    return std::nullopt;
}

// Taking the record and naming its server are one step: who leaves finds the record in the queue or the server called.
ZenkDispatcherInfo CssEventQueue::takeRecord() {
    ZenkDispatcherInfo record = std::move(m_records.front().info);
    m_backlog.remove(*m_records.front().client, record);
    m_records.pop_front();
    m_called = record.server;
    m_calling = pthread_self();
    actOnBacklog();
    return record;
}

void CssEventQueue::endCall() {
    m_called = nullptr;
    if (m_waitingLeaves > 0) m_changed.notifyAll();
}

/// Drops the records of one server, or all of them if `server` is null.
void CssEventQueue::discardRecords(const void* server) {
    const auto isDropped = [server](const Record& record) { return server == nullptr || record.info.server == server; };
    for (const Record& record : m_records)
        if (isDropped(record)) m_backlog.remove(*record.client, record.info);
    std::erase_if(m_records, isDropped);
    actOnBacklog();
}

// Whoever decides while another thread acts leaves it to that one: of two decisions for a client, the last is also the
// last to take effect.
void CssEventQueue::actOnBacklog() {
    if (std::exchange(m_isActing, true)) return;
    while (const std::optional<CssBacklog::Change> change = m_backlog.takeChange()) {
        m_mutex.unlock();
        MediaSyncServer::holdClient(change->client.first, change->client.second, change->isHeld);
        m_mutex.lock();
    }
    m_isActing = false;
}

bool CssEventQueue::isEventThread() const {
    return m_isThreadAlive && pthread_equal(m_thread, pthread_self()) != 0;
}

}  // namespace zenk
