#pragma once

#include <pthread.h>

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "platform/thread_annotations.h"
#include "wsserver/css_backlog.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk {

/// What CSS servers, dispatcher and event thread share: the records on their way, and who is alive. Each of them may go
/// before the others, on any thread; all of them hold this object, which outlives them.
///
/// A record is in the queue only while its server is alive, so that nobody looks at the pointer of one that has gone.
class CssEventQueue {
public:
    // For the servers.

    /// Finds the dispatcher of the process, or creates it; two threads do not create two. @return its queue
    static std::shared_ptr<CssEventQueue> join(ZenkCSSEventDispatcher*& dispatcher);

    /// A server is alive from now on. Throws std::bad_alloc.
    /// @param webSocketServer  where the server's clients come to; written by any thread, as if atomic
    /// @param firstEvent       its events are this one and the two behind it
    void enter(const void* server, MediaSyncServer*& webSocketServer, ZenkCSSEvent firstEvent);

    /// It is not any more: takes its records out and waits for a callback of it that is running, unless it is this
    /// thread that runs it.
    void leave(const void* server);

    /// Queues a record, or drops it: when the dispatcher has gone, when no such server is alive, when it is no event of
    /// that server. Never waits for a callback. Throws std::bad_alloc.
    void add(ZenkDispatcherInfo record);

    /// Whether the dispatcher is still there.
    bool isOpen();

    // For the dispatcher.

    /// Starts the event thread unless it is alive. @return its id, or 0 when the system gives no thread
    pthread_t startThread(ZenkCSSEventDispatcher& dispatcher);

    /// Asks the event thread to end, if it is alive: before the next record.
    void stopThread();

    /// Drops what is queued and from now on added, and waits until the event thread has ended, unless this is it.
    void close();

    // For the thread that delivers.

    /// Hands the records to their servers without a lock, one at a time, until the queue is closed. The event thread
    /// ends in here when it is told to stop.
    void run();

    /// The last that the event thread does.
    void onThreadEnd();

private:
    struct Server {
        const void* address;
        MediaSyncServer** webSocketServer;
        ZenkCSSEvent firstEvent;

        bool isMeantBy(const ZenkDispatcherInfo& record) const;
    };
    struct Record {
        ZenkDispatcherInfo info;
        CssBacklog::Entry* client;
    };

    std::optional<ZenkDispatcherInfo> beginCall();
    ZenkDispatcherInfo takeRecord() ZENK_REQUIRES(m_mutex);
    void endCall() ZENK_REQUIRES(m_mutex);
    void discardRecords(const void* server) ZENK_REQUIRES(m_mutex);
    void actOnBacklog() ZENK_REQUIRES(m_mutex);
    bool isEventThread() const ZENK_REQUIRES(m_mutex);

    Mutex m_mutex;  // guards all of this; held briefly, and no other lock is taken under it
    Condition m_changed;
    std::deque<Record> m_records ZENK_GUARDED_BY(m_mutex);    // oldest in front
    std::vector<Server> m_servers ZENK_GUARDED_BY(m_mutex);   // that are alive
    CssBacklog m_backlog ZENK_GUARDED_BY(m_mutex);            // counts m_records
    bool m_isActing ZENK_GUARDED_BY(m_mutex) = false;         // one thread acts on the backlog's decisions at a time
    bool m_isOpen ZENK_GUARDED_BY(m_mutex) = true;            // the dispatcher is alive
    bool m_isThreadAlive ZENK_GUARDED_BY(m_mutex) = false;    // the event thread
    bool m_isStopWanted ZENK_GUARDED_BY(m_mutex) = false;     // of the event thread
    bool m_isIdle ZENK_GUARDED_BY(m_mutex) = false;           // who delivers waits, and has not been woken
    pthread_t m_thread ZENK_GUARDED_BY(m_mutex) = 0;          // good while m_isThreadAlive
    const void* m_called ZENK_GUARDED_BY(m_mutex) = nullptr;  // the server whose callback runs
    pthread_t m_calling ZENK_GUARDED_BY(m_mutex) = 0;         // good while m_called is not null
    int m_waitingLeaves ZENK_GUARDED_BY(m_mutex) = 0;         // servers that wait for their callback
};

/// As ZenkCSSEventDispatcher::queueEvent(), for the servers; when the dispatcher has gone, nothing happens.
void queueEvent(CssEventQueue& events, const ZenkDispatcherInfo& record);

}  // namespace zenk
