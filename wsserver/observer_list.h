#pragma once

#include <cstddef>
#include <thread>
#include <vector>

#include "platform/thread_annotations.h"

class ClientObserver;

namespace zenk {

/// The observers of one MediaSyncServer in order of registration, and the service thread's walks over them. Observers
/// may come and go during a walk, from any thread and from inside the calls.
class ObserverList {
public:
    /// Keeps `observers`, under `mutex`; both outlive this object. The lock is never held while an observer is called.
    ObserverList(std::vector<ClientObserver*>& observers, Mutex& mutex) : m_observers(observers), m_mutex(mutex) {}

    /// @return false when there is no memory
    bool add(ClientObserver* observer);

    /// Takes every registration out and waits for a call of the observer that is running, unless this thread walks.
    void remove(ClientObserver* observer);

    /// One walk, by the service thread; there is one at a time.
    class Walk {
    public:
        explicit Walk(ObserverList& list);
        ~Walk();
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;

        /// The next observer to call, or null at the end. The call of the one before counts as finished.
        ClientObserver* next();

    private:
        ObserverList& m_list;
        bool m_isOver = false;
    };

private:
    void setRunning(ClientObserver* observer) ZENK_REQUIRES(m_mutex);

    std::vector<ClientObserver*>& m_observers;  // under m_mutex, as is all below
    Mutex& m_mutex;
    std::size_t m_next ZENK_GUARDED_BY(m_mutex) = 0;  // of the walk under way
    ClientObserver* m_running ZENK_GUARDED_BY(m_mutex) = nullptr;
    std::thread::id m_walkThread ZENK_GUARDED_BY(m_mutex);
    int m_waiting ZENK_GUARDED_BY(m_mutex) = 0;  // removals that wait for a call
    Condition m_changed;                         // m_running has
};

}  // namespace zenk
