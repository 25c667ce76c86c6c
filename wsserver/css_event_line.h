#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>

#include "platform/thread_annotations.h"
#include "wsserver/css_backlog.h"

class ZenkCSSEventDispatcher;
struct ZenkDispatcherInfo;

namespace zenk {

/// Counts the calls that are inside an object, so that its destructor can shut the door and wait for them. Entering
/// and leaving cost one atomic step each and never wait.
class CallGate {
public:
    /// @return false once the gate is closed; else the caller is inside until it calls leave()
    bool enter();
    void leave();

    /// Lets nobody in from now on, and returns when everybody has left.
    void closeAndWait();

private:
    static constexpr std::uint32_t kClosed = 1U << 31;
    std::atomic<std::uint32_t> m_state = 0;  // kClosed, plus the number of calls inside
};

/// What lies between the CSS servers, the dispatcher and its thread. Each of them may be destroyed before the others,
/// by any thread; they all hold this object, which outlives them and knows who is still there:
///
/// - a server posts through it, and the record is dropped when the dispatcher has gone;
/// - a server that goes takes its records out and waits for its callback;
/// - a dispatcher that goes waits for posts and for its thread;
/// - the thread finds out that its dispatcher has gone, also when one of its own callbacks destroyed it.
///
/// Lock order: m_mutex, then the dispatcher's m_queueMutex.
class CssEventLine {
public:
    explicit CssEventLine(ZenkCSSEventDispatcher& dispatcher);
    CssEventLine(const CssEventLine&) = delete;
    CssEventLine& operator=(const CssEventLine&) = delete;

    /// Finds the dispatcher of the process, or creates it; two threads do not create two.
    /// @param dispatcher  takes the dispatcher that the line belongs to
    static std::shared_ptr<CssEventLine> join(ZenkCSSEventDispatcher*& dispatcher);

    /// Makes sure that join() does not find a dispatcher which is about to go.
    static void leaveInstance(ZenkCSSEventDispatcher& dispatcher);

    /// Queues a record, or drops it when the dispatcher has gone. Any thread; never waits for a callback.
    void post(ZenkDispatcherInfo record);

    /// Takes the records of `server` out of the queue and waits for a callback of it that is running, unless it is
    /// this thread that runs it. No call reaches the server afterwards.
    void detach(const void* server);

    // For the dispatcher.

    /// What the queue holds of each client; for who holds m_queueMutex.
    CssBacklog& backlog() { return m_backlog; }

    /// Starts the event thread unless it is alive. @return its id, or 0 when the system gives no thread
    pthread_t startThread();

    /// Asks for the cancellation of the event thread if it is alive.
    void cancelThread();

    /// Drops what is queued and from now on posted, and waits until the event thread has ended, unless this is it.
    void close();

    // For the event thread.

    /// Ends the call of the record before, and begins the next one.
    /// @return the oldest record, or null when none waits or the dispatcher has gone
    std::unique_ptr<ZenkDispatcherInfo> beginCall();

    /// Ends the call under way, if there is one.
    void endCall();

    /// Whether the dispatcher is still there; the event thread must not touch it otherwise.
    bool isOpen();

    /// Called by the event thread last of all.
    void threadEnds();

private:
    void clearCall() ZENK_REQUIRES(m_mutex);

    ZenkCSSEventDispatcher& m_dispatcher;  // touched while m_isOpen, or from inside m_posts
    CallGate m_posts;
    CssBacklog m_backlog;

    Mutex m_mutex;                          // held briefly; never during a callback
    std::condition_variable_any m_changed;  // with m_mutex: a call has ended that somebody waits for, or the thread has
    bool m_isOpen ZENK_GUARDED_BY(m_mutex) = true;
    bool m_isThreadAlive ZENK_GUARDED_BY(m_mutex) = false;
    pthread_t m_thread ZENK_GUARDED_BY(m_mutex) = 0;                // good while m_isThreadAlive
    const void* m_calledServer ZENK_GUARDED_BY(m_mutex) = nullptr;  // whose callback runs now
    pthread_t m_callingThread ZENK_GUARDED_BY(m_mutex) = 0;         // good while m_calledServer is not null
    int m_waitingDetaches ZENK_GUARDED_BY(m_mutex) = 0;
};

}  // namespace zenk
