#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "log/zenk_export.h"
#include "platform/thread_annotations.h"
#include "wsserver/css_client_list.h"
#include "wsserver/media_sync_server.h"

/// @file
/// The CSS servers (ETSI TS 103 286-2) and the dispatcher that carries their events to the host.

namespace zenk {
class CssEventQueue;
class Trace;
template <typename Kind>
class CssServer;
}  // namespace zenk

// ---------------------------------------------------------------- event dispatcher

/// What has happened, as the host's callback gets it. Numbers 0 to 2 come from the CSS-CII server, 3 to 5 from CSS-TS.
enum ZenkCSSEvent : unsigned int {
    CSS_EVENT_CII_NEW_CLIENT = 0,    ///< a client of the server has connected; no message
    CSS_EVENT_CII_MESSAGE = 1,       ///< it has sent a message
    CSS_EVENT_CII_CLIENT_LEAVE = 2,  ///< it has gone, its id is free of meaning now; no message
    CSS_EVENT_TS_NEW_CLIENT = 3,     ///< as event 0
    CSS_EVENT_TS_MESSAGE = 4,        ///< as event 1
    CSS_EVENT_TS_CLIENT_LEAVE = 5,   ///< as event 2
};

/// An event on its way from a server to the event thread.
struct ZenkDispatcherInfo {
    ZenkCSSEvent event;  ///< what has happened
    void* server;        ///< a ZenkCSSCIIServer for events 0 to 2, a ZenkCSSTSServer for 3 to 5; only they tell which
    std::int32_t clientId;  ///< the client concerned
    std::string message;    ///< its message, NUL bytes included; empty when the event has none
};

/// What the host's callback gets. It belongs to the event thread and is good only until the callback returns.
struct ZenkCSSEevntInfo {
    std::int32_t clientId;  ///< the client concerned
    std::string message;    ///< the client's bytes, NUL bytes included; empty when the event has none
};

/// The host's callback: event, what came with it, and the pointer that was registered with the callback.
///
/// It runs on the event thread, which all servers share: one callback at a time, in the order in which the events
/// happened, and the next one waits until it has returned. It may send and close, build servers, destroy the dispatcher
/// or another server. It must not destroy its own server nor register or unregister a callback on it. An exception that
/// it throws ends here and is not reported.
using ZenkCSSEventCallback = void (*)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*);

/// Carries the events of the CSS servers to the host's callbacks: an unlimited first-in-first-out queue and one
/// detached thread, "zenk-css-event", that delivers. Whoever queues only copies its event and goes on, so that a slow
/// callback never holds up the network. The first CSS server that is built creates the dispatcher, the others share it.
///
/// Nothing is dropped but for want of memory. A client with more than 4 MiB in the queue is not read until the host has
/// taken half of it, and no client that sends is read while the queue holds more than 64 MiB in all, so that memory
/// stays bounded.
///
/// The host owns it. Destroyed or not, the servers stay usable: without a dispatcher they drop their events, and a
/// server built after its destruction creates a new one. No exception leaves it but std::bad_alloc of the constructor.
class ZENK_API ZenkCSSEventDispatcher {
public:
    /// Stores `this` in `m_instance` and starts the event thread. If the system gives no thread, events stay queued and
    /// startEventThread() may be tried again.
    ZenkCSSEventDispatcher();

    /// Ends the event thread; what is queued is released undelivered. Waits for a running callback to return, so the
    /// caller holds nothing that a callback waits for. On the event thread itself, that is from a callback, it does
    /// not wait: the thread ends by itself after that callback.
    virtual ~ZenkCSSEventDispatcher();

    /// Starts the event thread. Called by the constructor; the host needs it only after stopEventThread() or a failure.
    /// Does nothing while an event thread is alive, also one that has been stopped and is still inside a callback.
    /// @thread host threads; does not block
    void startEventThread();

    /// Asks the event thread to end, and does not wait for it. It ends before the next record or at once when idle,
    /// never inside a callback. Events queued from now on stay queued, and clients with too many of them are not read
    /// until startEventThread(). May be called twice, or when no thread is left.
    /// @thread any, also from a callback; does not block
    void stopEventThread();

    /// Queues a copy of a record. The caller keeps its own and may reuse it at once.
    /// @param info  event, server, client and message. A record is dropped whose server has gone, has never been, is
    ///              not of the event's kind or was built with another dispatcher. Null is refused with an error trace
    ///              line; without memory the event is lost, with one
    /// @thread any, at any time before the destructor; never waits for a callback
    void queueEvent(ZenkDispatcherInfo* info);

    /// The event thread's loop; cssEventThread() calls it. Returns after the destructor has run or begun. One thread at
    /// a time, and any other thread that calls it keeps the dispatcher alive until it returns.
    void processEvent();

    /// The dispatcher built last; null before the first and after its destruction. The host only reads it.
    static ZenkCSSEventDispatcher* m_instance;

private:
    friend class zenk::CssEventQueue;
    friend ZENK_API void* cssEventThread(void* dispatcher);

    // Hosts are built with the size of this object. The four below hold its layout: what they stand for is in m_events.
    std::atomic<pthread_t> m_threadId;  // any thread; 0 when there is none to stop
    [[maybe_unused]] std::deque<ZenkDispatcherInfo*> m_queue;
    [[maybe_unused]] zenk::Mutex m_queueMutex;
    [[maybe_unused]] std::mutex m_wakeMutex;
    [[maybe_unused]] std::condition_variable m_wakeCond;
    std::atomic<bool> m_keepRunning;                      // any thread; false from the destructor on
    const std::shared_ptr<zenk::CssEventQueue> m_events;  // constant; has its own lock
};

/// The event thread's entry: runs processEvent() of `dispatcher`, a ZenkCSSEventDispatcher or null. Started by the
/// dispatcher; not for the host. @return null
ZENK_API void* cssEventThread(void* dispatcher);

// ---------------------------------------------------------------- CSS-CII server

/// The CSS-CII endpoint (ETSI TS 103 286-2): takes the WebSocket clients whose URI contains "/css-cii", up to a limit,
/// and hands their coming, their messages and their going to one callback of the host. It does not read the messages;
/// the host answers with ClientObserver::sendMessage().
///
/// To work it needs, from the host: MediaSyncServer::addObserver(), registerCIIEventCallback() with a non-null user
/// pointer, setEnableInterDevSync(true). A URI with both "/css-cii" and "/css-ts" makes a client of both servers.
///
/// The limit is the configuration's "MSMaxClientNum" in "HbbTV", read when the server is built, or 25. Every connection
/// outside App2App is refused while this server is disabled (HTTP 403) or full (503), CSS-TS clients too.
///
/// The host owns the server and destroys it when it likes, with the service running too, but not from inside its own
/// callback. All operations may be called from any thread, unless one says otherwise. No exception leaves them, nor the
/// constructors: without memory the server comes up without a dispatcher, with an error trace line; clients are served
/// then, but the host hears of none.
class ZENK_API ZenkCSSCIIServer : public ClientObserver {
public:
    /// Stores `this` in `m_instance`, creates the event dispatcher if there is none, reads the limit and prints it. The
    /// server is disabled and has no callback.
    ZenkCSSCIIServer();

    /// The same. @param initString  copied and kept; nothing reads it
    explicit ZenkCSSCIIServer(std::string& initString);

    /// Leaves MediaSyncServer, takes the server's events out of the queue and waits for a callback of it to return:
    /// then nothing calls the server any more. Clears `m_instance`, whatever server it names. Closes no connection.
    ~ZenkCSSCIIServer() override;

    /// Called by MediaSyncServer for each connection outside App2App; queues CSS_EVENT_CII_NEW_CLIENT if it is ours.
    /// @param uri       path and query, zero-terminated; null is refused with an error trace line
    /// @param clientId  an id that is not in the list; else an error trace line
    /// @thread service thread
    void onNewClient(char* uri, int clientId) override;

    /// Called by MediaSyncServer for each message outside App2App; queues CSS_EVENT_CII_MESSAGE with its bytes copied.
    /// @param message   `length` bytes; null gives an error trace line
    /// @param length    bytes, not negative
    /// @param clientId  an id of the list; a message of any other client gives an error trace line
    /// @thread service thread
    void onMessage(unsigned char* message, int length, int clientId) override;

    /// Called by MediaSyncServer when a client has gone: frees its place and queues CSS_EVENT_CII_CLIENT_LEAVE. An id
    /// that is not in the list, or not any more, gives an error trace line and no event.
    /// @thread service thread
    void onClientLeave(int clientId) override;

    /// @return 0 when clients are welcome, 1 when the server is disabled, 2 when the list is full
    int getCssServerStatus() override;

    /// Sets the callback in place of any earlier one. Waits for a running callback of this server.
    /// @param callback  called on the event thread, see ZenkCSSEventCallback; null for none
    /// @param userData  handed back to the callback, not owned; null means that the callback is never called
    /// @thread any but a callback of this server, which would wait for itself
    void registerCIIEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*), void const* userData);

    /// Clears the callback. When it returns, no callback of this server runs any more.
    /// @thread any but a callback of this server, which would wait for itself
    void unRegisterCIIEventCallback();

    /// Admits clients and delivers events, or stops both; what is queued counts by the flag at its delivery.
    /// @param enable  false also empties the list and closes every connection that MediaSyncServer holds, those of
    ///                CSS-TS and App2App clients too. For the swept clients no leave event comes.
    ///                Before addObserver() it closes nothing
    void setEnableInterDevSync(bool enable);

    /// Gives the URL for CII clients, see MediaSyncServer::getInterDevSyncUrl(). Works in every state.
    /// @param endpoint  replaced; empty when the receiver has no address
    void getCssCiiEndpoint(std::string& endpoint);

    /// Puts an id in the list, whatever the limit.
    /// @return 1 when it was added, 0 when it was present, with an error trace line
    int addCiiClientId(int clientId);

    /// Takes an id out of the list and closes its connection; no leave event comes for it.
    /// @param clientId  an id, or -1 for all ids of this server
    /// @return 1 when that id was removed; 0 otherwise, also for -1. An empty list gives an error trace line
    int removeCiiClientId(int clientId);

    /// @return 1 when the id is in the list, 0 when it is not
    int ciiClientIdExists(int clientId);

    /// Calls the host's callback, if the server is enabled (else an error trace line) and the callback and its user
    /// pointer are not null.
    /// @param info  the caller's; good during the call
    /// @thread event thread; takes as long as the callback
    void dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info);

    /// The server built last; null before the first and after the destruction of any. For the host.
    static ZenkCSSCIIServer* m_instance;

private:
    template <typename Kind>
    friend class zenk::CssServer;

    zenk::CssClientList m_clientIds;  // has its own lock
    ZenkCSSEventCallback m_eventCallback ZENK_GUARDED_BY(m_mutex) = nullptr;
    void const* m_eventUserData ZENK_GUARDED_BY(m_mutex) = nullptr;
    std::string m_initString;                        // constant after construction
    ZenkCSSEventDispatcher* m_dispatcher = nullptr;  // constant until the destructor; not owned
    std::atomic<bool> m_enableInterDevSync = false;  // any thread
    zenk::Mutex m_mutex;                             // the callback pair; held all through the callback
    std::int32_t m_maxClientNum = 0;                 // constant after construction; positive then
    std::shared_ptr<zenk::CssEventQueue> m_events;   // constant after construction; outlives m_dispatcher
};

// ---------------------------------------------------------------- CSS-TS server

/// The CSS-TS endpoint (ETSI TS 103 286-2): takes the WebSocket clients whose URI contains "/css-ts", up to a limit,
/// and hands their coming, their messages and their going to one callback of the host. It does not read the messages;
/// the host answers with ClientObserver::sendMessage().
///
/// To work it needs, from the host: MediaSyncServer::addObserver(), registerTSEventCallback() with a non-null user
/// pointer, setEnableInterDevSync(true). A URI with both "/css-cii" and "/css-ts" makes a client of both servers.
///
/// The limit is the configuration's "MSMaxClientNum" in "HbbTV", read when the server is built, or 25. Every connection
/// outside App2App is refused while this server is disabled (HTTP 403) or full (503), CSS-CII clients too.
///
/// The host owns the server and destroys it when it likes, with the service running too, but not from inside its own
/// callback. All operations may be called from any thread, unless one says otherwise. No exception leaves them, nor the
/// constructors: without memory the server comes up without a dispatcher, with an error trace line; clients are served
/// then, but the host hears of none.
class ZENK_API ZenkCSSTSServer : public ClientObserver {
public:
    /// Stores `this` in `m_instance`, creates the event dispatcher if there is none, reads the limit and prints it. The
    /// server is disabled and has no callback.
    ZenkCSSTSServer();

    /// The same. @param initString  copied and kept; nothing reads it
    explicit ZenkCSSTSServer(std::string& initString);

    /// Leaves MediaSyncServer, takes the server's events out of the queue and waits for a callback of it to return:
    /// then nothing calls the server any more. Clears `m_instance`, whatever server it names. Closes no connection.
    ~ZenkCSSTSServer() override;

    /// Called by MediaSyncServer for each connection outside App2App; queues CSS_EVENT_TS_NEW_CLIENT if it is ours.
    /// @param uri       path and query, zero-terminated; null is refused with an error trace line
    /// @param clientId  an id that is not in the list; else an error trace line
    /// @thread service thread
    void onNewClient(char* uri, int clientId) override;

    /// Called by MediaSyncServer for each message outside App2App; queues CSS_EVENT_TS_MESSAGE with its bytes copied.
    /// @param message   `length` bytes; null gives an error trace line
    /// @param length    bytes, not negative
    /// @param clientId  an id of the list; a message of any other client gives an error trace line
    /// @thread service thread
    void onMessage(unsigned char* message, int length, int clientId) override;

    /// Called by MediaSyncServer when a client has gone: frees its place and queues CSS_EVENT_TS_CLIENT_LEAVE. An id
    /// that is not in the list, or not any more, gives an error trace line and no event.
    /// @thread service thread
    void onClientLeave(int clientId) override;

    /// @return 0 when clients are welcome, 1 when the server is disabled, 2 when the list is full
    int getCssServerStatus() override;

    /// Sets the callback in place of any earlier one. Waits for a running callback of this server.
    /// @param callback  called on the event thread, see ZenkCSSEventCallback; null for none
    /// @param userData  handed back to the callback, not owned; null means that the callback is never called
    /// @thread any but a callback of this server, which would wait for itself
    void registerTSEventCallback(void (*callback)(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*), void const* userData);

    /// Clears the callback. When it returns, no callback of this server runs any more.
    /// @thread any but a callback of this server, which would wait for itself
    void unRegisterTSEventCallback();

    /// Admits clients and delivers events, or stops both; what is queued counts by the flag at its delivery.
    /// @param enable  false also empties the list and closes every connection that MediaSyncServer holds, those of
    ///                CSS-CII and App2App clients too. For the swept clients no leave event comes.
    ///                Before addObserver() it closes nothing
    void setEnableInterDevSync(bool enable);

    /// Gives the URL for TS clients, see MediaSyncServer::getCssTsEndpoint(). Works in every state.
    /// @param endpoint  replaced; empty when the receiver has no address
    void getCssTsEndpoint(std::string& endpoint);

    /// Puts an id in the list, whatever the limit.
    /// @return 1 when it was added, 0 when it was present
    int addTsClientId(int clientId);

    /// Takes an id out of the list and closes its connection; no leave event comes for it.
    /// @param clientId  an id, or -1 for all ids of this server
    /// @return 1 when that id was removed; 0 otherwise, also for -1. An empty list gives an error trace line
    int removeTsClientId(int clientId);

    /// @return 1 when the id is in the list, 0 when it is not
    int tsClientIdExists(int clientId);

    /// Calls the host's callback, if the server is enabled (else an error trace line) and the callback and its user
    /// pointer are not null.
    /// @param info  the caller's; good during the call
    /// @thread event thread; takes as long as the callback
    void dispatchEventToMS(ZenkCSSEvent event, ZenkCSSEevntInfo* info);

    /// The server built last; null before the first and after the destruction of any. For the host.
    static ZenkCSSTSServer* m_instance;

private:
    template <typename Kind>
    friend class zenk::CssServer;

    zenk::CssClientList m_clientIds;  // has its own lock
    ZenkCSSEventCallback m_eventCallback ZENK_GUARDED_BY(m_mutex) = nullptr;
    void const* m_eventUserData ZENK_GUARDED_BY(m_mutex) = nullptr;
    std::string m_initString;                        // constant after construction
    ZenkCSSEventDispatcher* m_dispatcher = nullptr;  // constant until the destructor; not owned
    std::atomic<bool> m_enableInterDevSync = false;  // any thread
    std::int32_t m_maxClientNum = 0;                 // constant after construction; positive then
    zenk::Mutex m_mutex;                             // the callback pair; held all through the callback
    std::shared_ptr<zenk::CssEventQueue> m_events;   // constant after construction; outlives m_dispatcher
};

// ---------------------------------------------------------------- CSS-WC server

/// The wall-clock server (CSS-WC of ETSI TS 103 286-2): answers each UDP request of a companion device with the
/// receiver's time.
///
/// startWCServer() lends the server a thread of the host and blocks there; the other operations are for any other
/// thread. Each request gets one reply, whatever it holds; a pass of the loop allocates nothing. Two "##MS##" lines per
/// request go to standard output, so nobody may leave a pipe there unread.
///
/// Nothing tells who sent a datagram: "quitwc" from any device on the network ends the server, as stopWCServer() does.
/// The host owns the server and destroys it only after startWCServer() has returned. No exception leaves the
/// operations, nor the constructors: without memory for its port the server comes up without one, with an error trace
/// line.
class ZENK_API ZenkCSSWCServer {
public:
    /// Stores `this` in `m_instance` and takes the event dispatcher, which is built if there is none yet. Without a
    /// port: startWCServer() refuses. Servers are built one after another, not by two threads at once.
    ZenkCSSWCServer();

    /// The same, with a port.
    /// @param port  decimal text, copied; what follows the number is ignored by the sockets but stays in the URL; a
    ///              text that does not begin with a number counts as 0, which listens on a port that nobody can know
    explicit ZenkCSSWCServer(std::string& port);

    /// Clears `m_instance`, whatever server it names. Neither wakes a running loop nor destroys the dispatcher.
    ~ZenkCSSWCServer();

    /// Serves on all IPv4 interfaces until stopWCServer(), a "quitwc" or a failure to receive, and blocks until then.
    /// Creates a ZenkWallClock when ZenkWallClock::m_instance is null; the clock found at the start serves to the end.
    ///
    /// Returns at once, with an error log line, when the server runs already, the port is empty, or the socket cannot
    /// be had or bound. After it has returned it may be called again.
    void startWCServer();

    /// Ends a running server; any thread. Does not wait: the server ends at once when it is answering, within half a
    /// second when it is idle. An error log line is all that happens when none runs.
    void stopWCServer();

    /// Gives the URL to publish, "udp://ADDRESS:PORT", with the receiver's own IPv4 address and the port text. Any
    /// thread; reads the system's route table.
    /// @param url  replaced; left alone, with an error log line, when there is no address
    void getCssWcEndpoint(std::string& url);

    /// The server that was constructed last; null before the first and after the destruction of any.
    static ZenkCSSWCServer* m_instance;

private:
    ZENK_HIDDEN void setUp(const std::string& port, const zenk::Trace& trace);

    unsigned char m_running;  // any thread, as an atomic byte; set from the bind to the end of the loop
    std::string m_port;       // constant after construction
    ZenkCSSEventDispatcher* m_dispatcher = nullptr;  // constant after construction; held, not used

public:
    /// Non-zero lets the server answer; 0, as it is built, lets it stay idle with the datagrams waiting in its socket.
    /// The host may write it at any time, from one thread. A running server sees the change after its next datagram,
    /// or within half a second when it is idle.
    unsigned char m_enableInterDevSync;
};
