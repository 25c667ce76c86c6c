#include "wsserver/css_event_line.h"

#include <type_traits>

#include "wsserver/zenk_dvbCss.h"

namespace zenk {

namespace {

// Guards the creation of the dispatcher and the end of m_instance. Nothing destroys it when the process exits.
constinit Mutex g_instanceMutex;
static_assert(std::is_trivially_destructible_v<Mutex>);

}  // namespace

bool CallGate::enter() {
    if ((m_state.fetch_add(1) & kClosed) == 0) return true;
    leave();
    return false;
}

void CallGate::leave() {
    if (m_state.fetch_sub(1) - 1 == kClosed) m_state.notify_all();
}

void CallGate::closeAndWait() {
    std::uint32_t state = m_state.fetch_or(kClosed) | kClosed;
    while (state != kClosed) {
        m_state.wait(state);
        state = m_state.load();
    }
}

CssEventLine::CssEventLine(ZenkCSSEventDispatcher& dispatcher) : m_dispatcher(dispatcher) {
}

// The dispatcher that m_instance names is alive: its destructor takes the lock to clear m_instance first of all.
std::shared_ptr<CssEventLine> CssEventLine::join(ZenkCSSEventDispatcher*& dispatcher) {
    const MutexLock lock(g_instanceMutex);
    dispatcher = std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load();
    if (dispatcher == nullptr) dispatcher = new ZenkCSSEventDispatcher;  // which stores itself in m_instance
    return dispatcher->m_line;
}

void CssEventLine::leaveInstance(ZenkCSSEventDispatcher& dispatcher) {
    const MutexLock lock(g_instanceMutex);
    ZenkCSSEventDispatcher* expected = &dispatcher;
    std::atomic_ref(ZenkCSSEventDispatcher::m_instance).compare_exchange_strong(expected, nullptr);
}

void CssEventLine::post(ZenkDispatcherInfo record) {
    if (!m_posts.enter()) return;
    m_dispatcher.queueEvent(&record);
    m_posts.leave();
}

void CssEventLine::detach(const void* server) {
    const MutexLock lock(m_mutex);
    if (m_isOpen) m_dispatcher.discardRecords(server);
    ++m_waitingDetaches;
    while (m_calledServer == server && pthread_equal(m_callingThread, pthread_self()) == 0) m_changed.wait(m_mutex);
    --m_waitingDetaches;
}

// The lock makes the new thread's id known before the thread can end.
pthread_t CssEventLine::startThread() {
    const MutexLock lock(m_mutex);
    if (m_isThreadAlive) return m_thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    m_isThreadAlive = pthread_create(&m_thread, &attributes, cssEventThread, &m_dispatcher) == 0;
    pthread_attr_destroy(&attributes);
    if (!m_isThreadAlive) return 0;
    pthread_setname_np(m_thread, "zenk-css-event");
    return m_thread;
}

void CssEventLine::cancelThread() {
    const MutexLock lock(m_mutex);
    // The id of a detached thread is worth nothing once the thread has ended.
    if (m_isThreadAlive) pthread_cancel(m_thread);
}

void CssEventLine::close() {
    m_posts.closeAndWait();
    const MutexLock lock(m_mutex);
    m_isOpen = false;
    m_dispatcher.discardRecords(nullptr);
    while (m_isThreadAlive && pthread_equal(m_thread, pthread_self()) == 0) m_changed.wait(m_mutex);
}

// Taking the record and naming its server are one step under the lock: detach() finds the record in the queue or the
// server called, and never misses one in between.
std::unique_ptr<ZenkDispatcherInfo> CssEventLine::beginCall() {
    const MutexLock lock(m_mutex);
    clearCall();
    if (!m_isOpen) return nullptr;
    std::unique_ptr<ZenkDispatcherInfo> record = m_dispatcher.takeRecord();
    if (record == nullptr) return nullptr;
    m_calledServer = record->server;
    m_callingThread = pthread_self();
    return record;
}

void CssEventLine::endCall() {
    const MutexLock lock(m_mutex);
    clearCall();
}

void CssEventLine::clearCall() {
    m_calledServer = nullptr;
    if (m_waitingDetaches > 0) m_changed.notify_all();
}

bool CssEventLine::isOpen() {
    const MutexLock lock(m_mutex);
    return m_isOpen;
}

void CssEventLine::threadEnds() {
    const MutexLock lock(m_mutex);
    if (!m_isThreadAlive || pthread_equal(m_thread, pthread_self()) == 0) return;
    m_isThreadAlive = false;
    m_changed.notify_all();
}

}  // namespace zenk
