#include "wsserver/zenk_dvbCss.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "wsserver/cancellation.h"
#include "wsserver/css_event_queue.h"
#include "wsserver/shared_value.h"
#include "wsserver/socket.h"
#include "wsserver/trace.h"
#include "wsserver/wall_clock.h"

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

constexpr char kWakeWord[] = "quitwc";
constexpr std::size_t kWCBufferBytes = 128;
constexpr useconds_t kIdlePollMicroseconds = 500'000;
constexpr int kResponse = 1;  // the message type of a reply that no follow-up corrects

// Plain bytes to their writers, atomic to the loop, which must see each change of them.
bool isSet(unsigned char& flag) {
    return std::atomic_ref(flag).load() != 0;
}

/// @return whether this call changed the flag
bool change(unsigned char& flag, bool value) {
    return (std::atomic_ref(flag).exchange(value ? 1 : 0) != 0) != value;
}

/// All interfaces, and the low-order 16 bits of the number that the text begins with (0 without a number).
sockaddr_in anyAddress(const std::string& port) {
    using IntLimits = std::numeric_limits<int>;
    const long number = std::clamp<long>(std::strtol(port.c_str(), nullptr, 10), IntLimits::min(), IntLimits::max());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(number));
    return address;
}

// The host's clock, or one of ours that lives as long as the process.
ZenkWallClock* takeWallClock() {
    ZenkWallClock* const clock = std::atomic_ref(ZenkWallClock::m_instance).load();
    return clock != nullptr ? clock : new (std::nothrow) ZenkWallClock;
}

/// One request at a time: receives it into its buffer, and answers it.
class WCExchange {
public:
    WCExchange(int fd, ZenkWallClock& clock) : m_fd(fd), m_clock(clock) {}

    bool receive();
    bool isWakeWord() const { return std::strcmp(m_received, kWakeWord) == 0; }
    void answer();

private:
    void fillReply(ZenkWCMessage& message, const timespec& receiveTime);

    const int m_fd;
    ZenkWallClock& m_clock;
    sockaddr_in m_sender{};
    socklen_t m_senderBytes = sizeof m_sender;
    int m_receivedBytes = 0;
    // Never cleared between requests. The last byte stays 0, so that even a full datagram ends as a text.
    char m_received[kWCBufferBytes + 1]{};
    char m_reply[kWCBufferBytes];
};

bool WCExchange::receive() {
    const ssize_t bytes =
        ::recvfrom(m_fd, m_received, kWCBufferBytes, 0, reinterpret_cast<sockaddr*>(&m_sender), &m_senderBytes);
    if (bytes < 0) return false;
    m_receivedBytes = static_cast<int>(bytes);
    std::printf("##MS## receive msg from wc client, len=%d,msg:%s\n", m_receivedBytes, m_received);
    return true;
}

// The receive time is cut by the tick measured for an earlier request, the transmit time by the one measured for this.
void WCExchange::fillReply(ZenkWCMessage& message, const timespec& receiveTime) {
    message.message_type = kResponse;
    message.precision = m_clock.GetPrecision();
    message.max_freq_error = static_cast<std::uint32_t>(m_clock.GetMaxFreqError());
    message.receive_timevalue_secs = static_cast<std::uint32_t>(receiveTime.tv_sec);
    message.receive_timevalue_nanos = static_cast<std::uint32_t>(receiveTime.tv_nsec);
    const timespec transmitTime = m_clock.GetWallClockTime();
    message.transmit_timevalue_secs = static_cast<std::uint32_t>(transmitTime.tv_sec);
    message.transmit_timevalue_nanos = static_cast<std::uint32_t>(transmitTime.tv_nsec);
}

// Called at once after the comparison: what comes before the receive time would count as time on the way.
void WCExchange::answer() {
    const timespec receiveTime = m_clock.GetWallClockTime();
    ZenkWCMessage message{};
    m_clock.StringToZenkWCMessage(m_received, m_receivedBytes, &message);
    fillReply(message, receiveTime);
    std::memset(m_reply, 0, sizeof m_reply);
    int replyBytes = 0;
    m_clock.ZenkWCMessageToString(&message, m_reply, &replyBytes);
    std::printf("##MS## send msg to wc client, len=%d\n", replyBytes);
    // A reply that cannot leave is a lost datagram like any other; the device asks again.
    ::sendto(m_fd, m_reply, static_cast<std::size_t>(replyBytes), 0, reinterpret_cast<const sockaddr*>(&m_sender),
             m_senderBytes);
}

enum class WCEnd { kFlagCleared, kToldToQuit, kReceiveFailed };

WCEnd answerRequests(WCExchange& exchange, unsigned char& running, unsigned char& enabled) {
    while (isSet(running)) {
        if (!isSet(enabled)) {
            ::usleep(kIdlePollMicroseconds);
            continue;
        }
        if (!exchange.receive()) {
            std::perror("recvfrom");
            return WCEnd::kReceiveFailed;
        }
        if (exchange.isWakeWord()) return WCEnd::kToldToQuit;
        exchange.answer();
    }
    return WCEnd::kFlagCleared;
}

}  // namespace

ZenkCSSWCServer::ZenkCSSWCServer() : m_running(0), m_enableInterDevSync(0) {
    ZENK_TRACE_ENTER();
    zenk::CssEventQueue::join(m_dispatcher);
    std::atomic_ref(m_instance).store(this);
    ZENK_TRACE_LEAVE();
}

ZenkCSSWCServer::ZenkCSSWCServer(std::string& port) : ZenkCSSWCServer() {
    m_port = port;
}

ZenkCSSWCServer::~ZenkCSSWCServer() {
    ZENK_TRACE_ENTER();
    m_dispatcher = nullptr;
    std::atomic_ref(m_instance).store(nullptr);
    change(m_running, false);
    ZENK_TRACE_LEAVE();
}

// Each end has an error line of its own: the line number tells which it was.
void ZenkCSSWCServer::startWCServer() {
    ZENK_TRACE_ENTER();
    if (isSet(m_running) || m_port.empty()) {
        ZENK_TRACE_ERROR();
        return;
    }
    const sockaddr_in address = anyAddress(m_port);
    zenk::Socket socket(SOCK_DGRAM);
    if (!socket.isOpen()) {
        ZENK_TRACE_ERROR();
        return;
    }
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        std::perror("bind");
        ZENK_TRACE_ERROR();
        return;
    }
    // Of two starts at the same moment the bind lets one through; on port 0, where both get one, the flag does.
    if (!change(m_running, true)) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZenkWallClock* const clock = takeWallClock();
    if (clock == nullptr) {
        ZENK_TRACE_ERROR();
        socket.close();
        change(m_running, false);
        return;
    }
    WCExchange exchange(socket.fd(), *clock);
    switch (answerRequests(exchange, m_running, m_enableInterDevSync)) {
        case WCEnd::kReceiveFailed:
            ZENK_TRACE_ERROR();
            socket.close();
            change(m_running, false);
            return;
        case WCEnd::kToldToQuit:
            ZENK_TRACE_ERROR();
            change(m_running, false);
            break;
        case WCEnd::kFlagCleared:
            ZENK_TRACE_ERROR();
            break;
    }
    socket.close();
    ZENK_TRACE_LEAVE();
}

// The flag goes first: the loop ends even if it takes the datagram for a request.
void ZenkCSSWCServer::stopWCServer() {
    ZENK_TRACE_ENTER();
    if (!change(m_running, false)) {
        ZENK_TRACE_ERROR();
        return;
    }
    const sockaddr_in address = anyAddress(m_port);
    zenk::Socket socket(SOCK_DGRAM);
    if (!socket.isOpen()) {
        ZENK_TRACE_ERROR();
        return;
    }
    ::sendto(socket.fd(), kWakeWord, std::strlen(kWakeWord), 0, reinterpret_cast<const sockaddr*>(&address),
             sizeof address);
    socket.close();
    ZENK_TRACE_LEAVE();
}

void ZenkCSSWCServer::getCssWcEndpoint(std::string& url) {
    ZENK_TRACE_ENTER();
    constexpr int kAddressChars = 15;
    char address[kAddressChars + 1]{};
    if (getLocalIpAddr(address, kAddressChars) < 0) {
        ZENK_TRACE_ERROR();
        return;
    }
    try {
        url = "udp://" + std::string(address) + ":" + m_port;
    } catch (const std::exception&) {
        ZENK_TRACE_ERROR();
        return;
    }
    ZENK_TRACE_LEAVE();
}
