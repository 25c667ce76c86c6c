#include "wsserver/zenk_dvbCss.h"

#include <sys/socket.h>

#include <cstdio>
#include <exception>
#include <new>
#include <type_traits>

#include "log/trace.h"
#include "platform/cancellation.h"
#include "platform/scope_exit.h"
#include "platform/shared_value.h"
#include "platform/socket.h"
#include "wsserver/constants.h"
#include "wsserver/css_event_queue.h"
#include "wsserver/css_server.h"
#include "wsserver/local_address.h"
#include "wsserver/wall_clock.h"
#include "wsserver/wc_exchange.h"

using Addition = zenk::CssClientList::Addition;
using Removal = zenk::CssClientList::Removal;
using zenk::loadShared;
using zenk::storeShared;
using zenk::Trace;

// ---------------------------------------------------------------- what differs between the CII and the TS server

namespace {

struct Cii {
    using Server = ZenkCSSCIIServer;
    static constexpr const char *kName = "CII", *kPath = zenk::kCiiPath;
    static constexpr ZenkCSSEvent kFirstEvent = CSS_EVENT_CII_NEW_CLIENT;
    static constexpr auto kExists = &Server::ciiClientIdExists, kAdd = &Server::addCiiClientId;
};

struct Ts {
    using Server = ZenkCSSTSServer;
    static constexpr const char *kName = "TS", *kPath = zenk::kTsPath;
    static constexpr ZenkCSSEvent kFirstEvent = CSS_EVENT_TS_NEW_CLIENT;
    static constexpr auto kExists = &Server::tsClientIdExists, kAdd = &Server::addTsClientId;
};

using CiiServer = zenk::CssServer<Cii>;
using TsServer = zenk::CssServer<Ts>;

}  // namespace

// ---------------------------------------------------------------- event dispatcher

ZenkCSSEventDispatcher* ZenkCSSEventDispatcher::m_instance = nullptr;

namespace {

// Guards the creation of the dispatcher and the end of m_instance. Nothing destroys it when the process exits.
constinit zenk::Mutex g_creationMutex;
static_assert(std::is_trivially_destructible_v<zenk::Mutex>);

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
    if (m_keepRunning) events->run();
    trace.fail();
    trace.leave();
}

void* cssEventThread(void* argument) {
    // The thread is stopped where it is safe, and nowhere else.
    const zenk::Cancellation forbidden(PTHREAD_CANCEL_DISABLE);
    auto* const dispatcher = static_cast<ZenkCSSEventDispatcher*>(argument);
    const std::shared_ptr<zenk::CssEventQueue> events = dispatcher != nullptr ? dispatcher->m_events : nullptr;
    // After the last trace line, so that the dispatcher's destructor has the last word.
    const zenk::ScopeExit end([&events] {
        if (events != nullptr) events->onThreadEnd();
    });
    const Trace trace;
    if (dispatcher != nullptr) dispatcher->processEvent();
    trace.leave();
    return nullptr;
}

// ---------------------------------------------------------------- CSS-CII and CSS-TS server

ZenkCSSCIIServer* ZenkCSSCIIServer::m_instance = nullptr;
ZenkCSSTSServer* ZenkCSSTSServer::m_instance = nullptr;

ZenkCSSCIIServer::ZenkCSSCIIServer() {
    CiiServer::setUp(*this, {}, Trace());
}

ZenkCSSTSServer::ZenkCSSTSServer() {
    TsServer::setUp(*this, {}, Trace());
}

ZenkCSSCIIServer::ZenkCSSCIIServer(std::string& initString) {
    CiiServer::setUp(*this, initString, Trace());
}

ZenkCSSTSServer::ZenkCSSTSServer(std::string& initString) {
    TsServer::setUp(*this, initString, Trace());
}

ZenkCSSCIIServer::~ZenkCSSCIIServer() {
    CiiServer::tearDown(*this, Trace());
}

ZenkCSSTSServer::~ZenkCSSTSServer() {
    TsServer::tearDown(*this, Trace());
}

void ZenkCSSCIIServer::onNewClient(char* uri, int clientId) {
    CiiServer::newClient(*this, uri, clientId, Trace());
}

void ZenkCSSTSServer::onNewClient(char* uri, int clientId) {
    TsServer::newClient(*this, uri, clientId, Trace());
}

void ZenkCSSCIIServer::onMessage(unsigned char* message, int length, int clientId) {
    CiiServer::message(*this, message, length, clientId, Trace());
}

void ZenkCSSTSServer::onMessage(unsigned char* message, int length, int clientId) {
    TsServer::message(*this, message, length, clientId, Trace());
}

void ZenkCSSCIIServer::onClientLeave(int clientId) {
    CiiServer::clientLeave(*this, clientId, Trace());
}

void ZenkCSSTSServer::onClientLeave(int clientId) {
    TsServer::clientLeave(*this, clientId, Trace());
}

int ZenkCSSCIIServer::getCssServerStatus() {
    return CiiServer::status(*this, Trace());
}

int ZenkCSSTSServer::getCssServerStatus() {
    return TsServer::status(*this, Trace());
}

void ZenkCSSCIIServer::registerCIIEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*),
                                                void const* userData) {
    CiiServer::setCallback(*this, callback, userData, Trace());
}

void ZenkCSSTSServer::registerTSEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*),
                                              void const* userData) {
    TsServer::setCallback(*this, callback, userData, Trace());
}

void ZenkCSSCIIServer::unRegisterCIIEventCallback() {
    CiiServer::setCallback(*this, nullptr, nullptr, Trace());
}

void ZenkCSSTSServer::unRegisterTSEventCallback() {
    TsServer::setCallback(*this, nullptr, nullptr, Trace());
}

void ZenkCSSCIIServer::setEnableInterDevSync(bool enable) {
    CiiServer::enable(*this, enable, Trace());
}

void ZenkCSSTSServer::setEnableInterDevSync(bool enable) {
    TsServer::enable(*this, enable, Trace());
}

void ZenkCSSCIIServer::getCssCiiEndpoint(std::string& endpoint) {
    CiiServer::giveEndpoint(endpoint, &MediaSyncServer::getInterDevSyncUrl, Trace());
}

void ZenkCSSTSServer::getCssTsEndpoint(std::string& endpoint) {
    TsServer::giveEndpoint(endpoint, &MediaSyncServer::getCssTsEndpoint, Trace());
}

int ZenkCSSCIIServer::addCiiClientId(int clientId) {
    const Trace trace;
    return m_clientIds.add(clientId) == Addition::kAdded ? trace.leave(1) : trace.fail(0);
}

// This server's operations on its list write other ends to the trace than those of the CSS-CII server.
int ZenkCSSTSServer::addTsClientId(int clientId) {
    const Trace trace;
    const Addition addition = m_clientIds.add(clientId);
    if (addition == Addition::kNoMemory) trace.fail();
    return addition == Addition::kAdded ? 1 : 0;
}

int ZenkCSSCIIServer::removeCiiClientId(int clientId) {
    const Trace trace;
    const Removal removal = CiiServer::remove(*this, clientId);
    if (removal == Removal::kListWasEmpty) trace.fail();
    return removal == Removal::kRemoved ? 1 : 0;
}

int ZenkCSSTSServer::removeTsClientId(int clientId) {
    const Trace trace;
    switch (TsServer::remove(*this, clientId)) {
        case Removal::kListWasEmpty:
            return trace.fail(0);
        case Removal::kRemoved:
            return 1;
        case Removal::kNotInList:
            break;
    }
    return trace.leave(0);
}

int ZenkCSSCIIServer::ciiClientIdExists(int clientId) {
    const Trace trace;
    return trace.leave(m_clientIds.contains(clientId) ? 1 : 0);
}

int ZenkCSSTSServer::tsClientIdExists(int clientId) {
    const Trace trace;
    return m_clientIds.contains(clientId) ? 1 : 0;
}

void ZenkCSSCIIServer::dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info) {
    CiiServer::dispatch(*this, event, info, Trace());
}

void ZenkCSSTSServer::dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info) {
    TsServer::dispatch(*this, event, info, Trace());
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
    setUp({}, Trace());
}

ZenkCSSWCServer::ZenkCSSWCServer(std::string& port) : m_running(0), m_enableInterDevSync(0) {
    setUp(port, Trace());
}

void ZenkCSSWCServer::setUp(const std::string& port, const Trace& trace) {
    try {
        m_port = port;
        zenk::CssEventQueue::join(m_dispatcher);
    } catch (const std::exception&) {
        trace.fail();
    }
    storeShared(m_instance, this);
    trace.leave();
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
    if (zenk::exchangeShared(m_running, 1) != 0) return trace.fail();
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
    if (zenk::exchangeShared(m_running, 0) == 0) return trace.fail();
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
