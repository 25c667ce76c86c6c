#include "wsserver/zenk_dvbCss.h"

#include <cxxabi.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "wsserver/cancellation.h"
#include "wsserver/css_event_queue.h"
#include "wsserver/local_address.h"
#include "wsserver/shared_value.h"
#include "wsserver/socket.h"
#include "wsserver/trace.h"
#include "wsserver/wall_clock.h"
#include "wsserver/wc_exchange.h"

using zenk::exchangeShared;
using zenk::loadShared;
using zenk::storeShared;
using zenk::Trace;

// ---------------------------------------------------------------- event dispatcher

ZenkCSSEventDispatcher* ZenkCSSEventDispatcher::m_instance = nullptr;

namespace {

// Guards the creation of the dispatcher and the end of m_instance. Nothing destroys it when the process exits.
constinit zenk::Mutex g_creationMutex;
static_assert(std::is_trivially_destructible_v<zenk::Mutex>);

// The message moves on: nobody else looks at the record any more.
void deliver(ZenkDispatcherInfo& record) {
    ZenkCSSEevntInfo info{record.clientId, std::move(record.message)};
    if (record.event <= CSS_EVENT_CII_CLIENT_LEAVE) {
        static_cast<ZenkCSSCIIServer*>(record.server)->dispatchEventToMS(record.event, &info);
    } else {
        static_cast<ZenkCSSTSServer*>(record.server)->dispatchEventToMS(record.event, &info);
    }
}

// A callback that throws loses its event only. The unwinding of a thread that ends must go on to the thread's bottom;
// it is no C++ object, so that the compiler's check for null references misfires.
__attribute__((noinline, no_sanitize("null"))) void deliverAndContain(ZenkDispatcherInfo& record) {
    try {
        deliver(record);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

// Without the dispatcher itself: a server's may go meanwhile.
void queueEvent(zenk::CssEventQueue& events, const ZenkDispatcherInfo* record) {
    const Trace trace;
    if (record == nullptr) return trace.fail();
    try {
        events.add(*record);
    } catch (const std::exception&) {
        return trace.fail();  // no memory: this event is lost
    }
    trace.leave();
}

}  // namespace

ZenkCSSEventDispatcher::ZenkCSSEventDispatcher()
    : m_threadId(0), m_keepRunning(true), m_events(std::make_shared<zenk::CssEventQueue>()) {
    const Trace trace;
    zenk::storeShared(m_instance, this);
    startEventThread();
    trace.leave();
}

ZenkCSSEventDispatcher::~ZenkCSSEventDispatcher() {
    const Trace trace;
    {
        const zenk::MutexLock lock(g_creationMutex);
        zenk::replaceShared(m_instance, this, nullptr);
    }
    m_threadId = 0;
    m_keepRunning = false;
    m_events->close();
    trace.leave();
}

// The dispatcher that m_instance names is alive: its destructor takes the lock to clear m_instance first of all.
std::shared_ptr<zenk::CssEventQueue> zenk::CssEventQueue::join(ZenkCSSEventDispatcher*& dispatcher) {
    const MutexLock lock(g_creationMutex);
    dispatcher = loadShared(ZenkCSSEventDispatcher::m_instance);
    if (dispatcher == nullptr) dispatcher = new ZenkCSSEventDispatcher;  // which stores itself in m_instance
    return dispatcher->m_events;
}

void zenk::queueEvent(CssEventQueue& events, const ZenkDispatcherInfo& record) {
    if (events.isOpen()) ::queueEvent(events, &record);
}

void ZenkCSSEventDispatcher::startEventThread() {
    const Trace trace;
    m_threadId = m_events->startThread(*this);
    trace.leave();
}

void ZenkCSSEventDispatcher::stopEventThread() {
    const Trace trace;
    if (m_threadId != 0) m_events->stopThread();
    trace.leave();
}

void ZenkCSSEventDispatcher::queueEvent(ZenkDispatcherInfo* info) {
    ::queueEvent(*m_events, info);
}

void ZenkCSSEventDispatcher::processEvent() {
    const Trace trace;
    // From the first delivery on this object may be gone, destroyed by a callback.
    const std::shared_ptr<zenk::CssEventQueue> events = m_events;
    if (m_keepRunning) events->run(deliverAndContain);
    trace.fail();
    trace.leave();
}

void* cssEventThread(void* argument) {
    // The thread is stopped where it is safe, and nowhere else.
    const zenk::Cancellation forbidden(PTHREAD_CANCEL_DISABLE);
    auto* const dispatcher = static_cast<ZenkCSSEventDispatcher*>(argument);
    // Outlives the last trace line, so that the dispatcher's destructor has the last word.
    const zenk::CssEventQueue::ThreadLife life(dispatcher != nullptr ? dispatcher->m_events : nullptr);
    const Trace trace;
    if (dispatcher != nullptr) dispatcher->processEvent();
    trace.leave();
    return nullptr;
}

// What both servers do in the same way.
namespace {

constexpr int kEveryClient = -1;

/// Prints the limit, and `refusal` too when the list is full.
bool hasRoom(const zenk::CssClientList& clients, std::int32_t limit, const char* refusal) {
    std::printf("m_maxClientNum = %d\n", limit);
    if (!clients.holds(limit)) return true;
    std::puts(refusal);
    return false;
}

/// Copies `length` bytes; throws when it is negative.
std::string copyMessage(const unsigned char* message, int length) {
    return {reinterpret_cast<const char*>(message), static_cast<std::size_t>(length)};
}

/// Takes one id, or all of them for -1, out of the list, and then closes what was taken out.
/// @return kRemoved for a single id only
zenk::CssClientList::Removal removeAndClose(zenk::CssClientList& clients, ClientObserver& server, int clientId) {
    using Removal = zenk::CssClientList::Removal;
    if (clientId != kEveryClient) {
        const Removal removal = clients.remove(clientId);
        if (removal == Removal::kRemoved) server.closeClientConnection(clientId);
        return removal;
    }
    const std::vector<std::int32_t> taken = clients.takeAll();
    for (const std::int32_t id : taken) server.closeClientConnection(id);
    return taken.empty() ? Removal::kListWasEmpty : Removal::kNotInList;
}

/// Leaves both sides that call the server; after this nobody does.
void disconnect(MediaSyncServer* webSocketServer, ClientObserver& observer, zenk::CssEventQueue& events,
                const void* server) {
    if (webSocketServer != nullptr) webSocketServer->removeObserver(&observer);
    events.leave(server);
}

}  // namespace

// ---------------------------------------------------------------- CSS-CII server

ZenkCSSCIIServer* ZenkCSSCIIServer::m_instance = nullptr;

ZenkCSSCIIServer::ZenkCSSCIIServer() {
    ZENK_TRACE_ENTER();
    setUp();
    ZENK_TRACE_LEAVE();
}

ZenkCSSCIIServer::ZenkCSSCIIServer(std::string& initString) : m_initString(initString) {
    ZENK_TRACE_ENTER();
    setUp();
    ZENK_TRACE_LEAVE();
}

// No trace of its own, so that each constructor writes its two lines once.
void ZenkCSSCIIServer::setUp() {
    m_events = zenk::CssEventQueue::join(m_dispatcher);
    std::atomic_ref(m_instance).store(this);
    m_maxClientNum = zenk::readCssClientLimit();
    std::printf("CII m_maxClientNum = %d\n", m_maxClientNum);
    m_events->enter(this, m_server, CSS_EVENT_CII_NEW_CLIENT);  // last: nothing can fail behind it
}

ZenkCSSCIIServer::~ZenkCSSCIIServer() {
    ZENK_TRACE_ENTER();
    disconnect(std::atomic_ref(m_server).load(), *this, *m_events, this);
    m_dispatcher = nullptr;
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = nullptr;
        m_eventUserData = nullptr;
    }
    m_enableInterDevSync = false;
    std::atomic_ref(m_instance).store(nullptr);
    ZENK_TRACE_LEAVE();
}

void ZenkCSSCIIServer::onNewClient(char* uri, int clientId) try {
    ZENK_TRACE_ENTER();
    if (uri == nullptr || ciiClientIdExists(clientId) != 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    if (!hasRoom(m_clientIds, m_maxClientNum, "CII Client num reach max number, can't connect")) return;
    const std::string requrl(uri);
    ZENK_TRACE_STRING("requrl", requrl.c_str());
    if (requrl.find("/css-cii") != std::string::npos) {
        if (addCiiClientId(clientId) != 0) post(CSS_EVENT_CII_NEW_CLIENT, clientId, {});
    }
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

void ZenkCSSCIIServer::onMessage(unsigned char* message, int length, int clientId) try {
    ZENK_TRACE_ENTER();
    if (message == nullptr || ciiClientIdExists(clientId) == 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    std::string msg = copyMessage(message, length);
    ZENK_TRACE_STRING("msg", msg.c_str());
    post(CSS_EVENT_CII_MESSAGE, clientId, std::move(msg));
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

// The place becomes free before the host hears of it, so that a host that answers at once sees the list without it.
void ZenkCSSCIIServer::onClientLeave(int clientId) {
    ZENK_TRACE_ENTER();
    if (ciiClientIdExists(clientId) == 0 || m_clientIds.remove(clientId) != zenk::CssClientList::Removal::kRemoved) {
        ZENK_TRACE_ERROR();
        return;
    }
    post(CSS_EVENT_CII_CLIENT_LEAVE, clientId, {});
    ZENK_TRACE_LEAVE();
}

void ZenkCSSCIIServer::post(ZenkCSSEvent event, int clientId, std::string message) {
    if (m_dispatcher != nullptr) zenk::queueEvent(*m_events, {event, this, clientId, std::move(message)});
}

int ZenkCSSCIIServer::getCssServerStatus() {
    ZENK_TRACE_ENTER();
    if (!m_enableInterDevSync) return 1;
    if (m_clientIds.holds(m_maxClientNum)) return 2;
    ZENK_TRACE_LEAVE();
    return 0;
}

void ZenkCSSCIIServer::registerCIIEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*),
                                                void const* userData) {
    ZENK_TRACE_ENTER();
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = callback;
        m_eventUserData = userData;
    }
    ZENK_TRACE_LEAVE();
}

void ZenkCSSCIIServer::unRegisterCIIEventCallback() {
    ZENK_TRACE_ENTER();
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = nullptr;
        m_eventUserData = nullptr;
    }
    ZENK_TRACE_LEAVE();
}

// Emptied before the closing: a client that connects in between is then listed and closed like any other, and one that
// connects later is listed.
void ZenkCSSCIIServer::setEnableInterDevSync(bool enable) {
    ZENK_TRACE_ENTER();
    m_enableInterDevSync = enable;
    if (!enable) {
        m_clientIds.takeAll();
        closeClientConnection(kEveryClient);
    }
    ZENK_TRACE_LEAVE();
}

void ZenkCSSCIIServer::getCssCiiEndpoint(std::string& endpoint) try {
    ZENK_TRACE_ENTER();
    MediaSyncServer* const server = MediaSyncServer::getInstance();
    if (server == nullptr) {
        ZENK_TRACE_ERROR();
        return;
    }
    std::string url;
    server->getInterDevSyncUrl(url);
    endpoint = url;
    ZENK_TRACE_STRING("url.c_str()", url.c_str());
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

int ZenkCSSCIIServer::addCiiClientId(int clientId) try {
    ZENK_TRACE_ENTER();
    if (!m_clientIds.add(clientId)) {
        ZENK_TRACE_ERROR();
        return 0;
    }
    ZENK_TRACE_LEAVE();
    return 1;
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
    return 0;
}

// The close event of a client that is closed here finds its id gone, and so makes no event.
int ZenkCSSCIIServer::removeCiiClientId(int clientId) {
    using Removal = zenk::CssClientList::Removal;
    ZENK_TRACE_ENTER();
    const Removal removal = removeAndClose(m_clientIds, *this, clientId);
    if (removal == Removal::kListWasEmpty) ZENK_TRACE_ERROR();
    return removal == Removal::kRemoved ? 1 : 0;
}

int ZenkCSSCIIServer::ciiClientIdExists(int clientId) {
    ZENK_TRACE_ENTER();
    const bool isListed = m_clientIds.contains(clientId);
    ZENK_TRACE_LEAVE();
    return isListed ? 1 : 0;
}

void ZenkCSSCIIServer::dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info) {
    ZENK_TRACE_ENTER();
    if (!m_enableInterDevSync) {
        ZENK_TRACE_ERROR();
        return;
    }
    {
        const zenk::MutexLock lock(m_mutex);
        if (m_eventCallback != nullptr && m_eventUserData != nullptr) m_eventCallback(event, info, m_eventUserData);
    }
    ZENK_TRACE_LEAVE();
}

// ---------------------------------------------------------------- CSS-TS server

ZenkCSSTSServer* ZenkCSSTSServer::m_instance = nullptr;

ZenkCSSTSServer::ZenkCSSTSServer() {
    ZENK_TRACE_ENTER();
    setUp();
    ZENK_TRACE_LEAVE();
}

ZenkCSSTSServer::ZenkCSSTSServer(std::string& initString) : m_initString(initString) {
    ZENK_TRACE_ENTER();
    setUp();
    ZENK_TRACE_LEAVE();
}

// No trace of its own, so that each constructor writes its two lines once.
void ZenkCSSTSServer::setUp() {
    m_events = zenk::CssEventQueue::join(m_dispatcher);
    std::atomic_ref(m_instance).store(this);
    m_maxClientNum = zenk::readCssClientLimit();
    std::printf("TS m_maxClientNum = %d\n", m_maxClientNum);
    m_events->enter(this, m_server, CSS_EVENT_TS_NEW_CLIENT);  // last: nothing can fail behind it
}

ZenkCSSTSServer::~ZenkCSSTSServer() {
    ZENK_TRACE_ENTER();
    disconnect(std::atomic_ref(m_server).load(), *this, *m_events, this);
    m_dispatcher = nullptr;
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = nullptr;
        m_eventUserData = nullptr;
    }
    m_enableInterDevSync = false;
    std::atomic_ref(m_instance).store(nullptr);
    ZENK_TRACE_LEAVE();
}

void ZenkCSSTSServer::onNewClient(char* uri, int clientId) try {
    ZENK_TRACE_ENTER();
    if (uri == nullptr || tsClientIdExists(clientId) != 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    if (!hasRoom(m_clientIds, m_maxClientNum, "TS Client num reach max number, can't connect")) return;
    const std::string requrl(uri);
    ZENK_TRACE_STRING("requrl", requrl.c_str());
    if (requrl.find("/css-ts") != std::string::npos) {
        if (addTsClientId(clientId) != 0) post(CSS_EVENT_TS_NEW_CLIENT, clientId, {});
    }
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

void ZenkCSSTSServer::onMessage(unsigned char* message, int length, int clientId) try {
    ZENK_TRACE_ENTER();
    if (message == nullptr || tsClientIdExists(clientId) == 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    std::string msg = copyMessage(message, length);
    ZENK_TRACE_STRING("msg", msg.c_str());
    post(CSS_EVENT_TS_MESSAGE, clientId, std::move(msg));
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

// The place becomes free before the host hears of it, so that a host that answers at once sees the list without it.
void ZenkCSSTSServer::onClientLeave(int clientId) {
    ZENK_TRACE_ENTER();
    if (tsClientIdExists(clientId) == 0 || m_clientIds.remove(clientId) != zenk::CssClientList::Removal::kRemoved) {
        ZENK_TRACE_ERROR();
        return;
    }
    post(CSS_EVENT_TS_CLIENT_LEAVE, clientId, {});
    ZENK_TRACE_LEAVE();
}

void ZenkCSSTSServer::post(ZenkCSSEvent event, int clientId, std::string message) {
    if (m_dispatcher != nullptr) zenk::queueEvent(*m_events, {event, this, clientId, std::move(message)});
}

int ZenkCSSTSServer::getCssServerStatus() {
    ZENK_TRACE_ENTER();
    if (!m_enableInterDevSync) return 1;
    if (m_clientIds.holds(m_maxClientNum)) return 2;
    ZENK_TRACE_LEAVE();
    return 0;
}

void ZenkCSSTSServer::registerTSEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*),
                                              void const* userData) {
    ZENK_TRACE_ENTER();
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = callback;
        m_eventUserData = userData;
    }
    ZENK_TRACE_LEAVE();
}

void ZenkCSSTSServer::unRegisterTSEventCallback() {
    ZENK_TRACE_ENTER();
    {
        const zenk::MutexLock lock(m_mutex);
        m_eventCallback = nullptr;
        m_eventUserData = nullptr;
    }
    ZENK_TRACE_LEAVE();
}

// Emptied before the closing: a client that connects in between is then listed and closed like any other, and one that
// connects later is listed.
void ZenkCSSTSServer::setEnableInterDevSync(bool enable) {
    ZENK_TRACE_ENTER();
    m_enableInterDevSync = enable;
    if (!enable) {
        m_clientIds.takeAll();
        closeClientConnection(kEveryClient);
    }
    ZENK_TRACE_LEAVE();
}

void ZenkCSSTSServer::getCssTsEndpoint(std::string& endpoint) try {
    ZENK_TRACE_ENTER();
    MediaSyncServer* const server = MediaSyncServer::getInstance();
    if (server == nullptr) {
        ZENK_TRACE_ERROR();
        return;
    }
    std::string url;
    server->getCssTsEndpoint(url);
    endpoint = url;
    ZENK_TRACE_STRING("url.c_str()", url.c_str());
    ZENK_TRACE_LEAVE();
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
}

int ZenkCSSTSServer::addTsClientId(int clientId) try {
    ZENK_TRACE_ENTER();
    return m_clientIds.add(clientId) ? 1 : 0;
} catch (const std::exception&) {
    ZENK_TRACE_ERROR();
    return 0;
}

// The close event of a client that is closed here finds its id gone, and so makes no event.
int ZenkCSSTSServer::removeTsClientId(int clientId) {
    using Removal = zenk::CssClientList::Removal;
    ZENK_TRACE_ENTER();
    const Removal removal = removeAndClose(m_clientIds, *this, clientId);
    if (removal == Removal::kListWasEmpty) {
        ZENK_TRACE_ERROR();
        return 0;
    }
    if (removal == Removal::kRemoved) return 1;
    ZENK_TRACE_LEAVE();
    return 0;
}

int ZenkCSSTSServer::tsClientIdExists(int clientId) {
    ZENK_TRACE_ENTER();
    const bool isListed = m_clientIds.contains(clientId);
    return isListed ? 1 : 0;
}

void ZenkCSSTSServer::dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info) {
    ZENK_TRACE_ENTER();
    if (!m_enableInterDevSync) {
        ZENK_TRACE_ERROR();
        return;
    }
    {
        const zenk::MutexLock lock(m_mutex);
        if (m_eventCallback != nullptr && m_eventUserData != nullptr) m_eventCallback(event, info, m_eventUserData);
    }
    ZENK_TRACE_LEAVE();
}

// ---------------------------------------------------------------- CSS-WC server

ZenkCSSWCServer* ZenkCSSWCServer::m_instance = nullptr;

namespace {

// The host's clock, or one of ours that lives as long as the process.
ZenkWallClock* takeWallClock() {
    ZenkWallClock* const clock = loadShared(ZenkWallClock::m_instance);
    return clock != nullptr ? clock : new (std::nothrow) ZenkWallClock;
}

}  // namespace

ZenkCSSWCServer::ZenkCSSWCServer() : m_running(0), m_enableInterDevSync(0) {
    const Trace trace;
    zenk::CssEventQueue::join(m_dispatcher);
    storeShared(m_instance, this);
    trace.leave();
}

ZenkCSSWCServer::ZenkCSSWCServer(std::string& port) : ZenkCSSWCServer() {
    m_port = port;
}

ZenkCSSWCServer::~ZenkCSSWCServer() {
    const Trace trace;
    m_dispatcher = nullptr;
    storeShared(m_instance, nullptr);
    storeShared(m_running, 0);
    trace.leave();
}

// Each end has an error line of its own: the line number tells which it was.
void ZenkCSSWCServer::startWCServer() {
    using End = zenk::WCExchange::End;
    const Trace trace;
    if (loadShared(m_running) != 0 || m_port.empty()) return trace.fail();
    zenk::Socket socket(SOCK_DGRAM);
    if (!socket.isOpen()) return trace.fail();
    if (!zenk::WCExchange::bindSocket(socket.fd(), m_port)) {
        std::perror("bind");
        return trace.fail();
    }
    // Of two starts at the same moment the bind lets one through; on port 0, where both get one, the flag does.
    if (exchangeShared(m_running, 1) != 0) return trace.fail();
    ZenkWallClock* const clock = takeWallClock();
    if (clock == nullptr) {
        trace.fail();
        socket.close();
        return storeShared(m_running, 0);
    }
    switch (zenk::WCExchange(socket.fd(), *clock).run(m_running, m_enableInterDevSync)) {
        case End::kReceiveFailed:
            trace.fail();
            socket.close();
            return storeShared(m_running, 0);
        case End::kToldToQuit:
            trace.fail();
            storeShared(m_running, 0);
            break;
        case End::kStopped:
            trace.fail();
            break;
    }
    socket.close();
    trace.leave();
}

// The flag goes first: the loop ends even if it takes the datagram for a request.
void ZenkCSSWCServer::stopWCServer() {
    const Trace trace;
    if (exchangeShared(m_running, 0) == 0) return trace.fail();
    zenk::Socket socket(SOCK_DGRAM);
    if (!socket.isOpen()) return trace.fail();
    zenk::WCExchange::sendWakeWord(socket.fd(), m_port);
    socket.close();
    trace.leave();
}

void ZenkCSSWCServer::getCssWcEndpoint(std::string& url) {
    const Trace trace;
    zenk::AddressText address;
    if (getLocalIpAddr(address.text, zenk::AddressText::kLongest) < 0) return trace.fail();
    try {
        url = "udp://" + std::string(address.text) + ":" + m_port;
    } catch (const std::exception&) {
        return trace.fail();
    }
    trace.leave();
}
