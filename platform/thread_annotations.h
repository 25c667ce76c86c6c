#pragma once

#include <condition_variable>
#include <mutex>

// Clang checks these at compile time (-Wthread-safety); other compilers see nothing.
#if defined(__clang__)
#define ZENK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ZENK_THREAD_ATTRIBUTE(x)
#endif

#define ZENK_CAPABILITY(x) ZENK_THREAD_ATTRIBUTE(capability(x))
#define ZENK_SCOPED_CAPABILITY ZENK_THREAD_ATTRIBUTE(scoped_lockable)
#define ZENK_GUARDED_BY(x) ZENK_THREAD_ATTRIBUTE(guarded_by(x))
#define ZENK_REQUIRES(...) ZENK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZENK_EXCLUDES(...) ZENK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ZENK_ACQUIRE(...) ZENK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZENK_RELEASE(...) ZENK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZENK_NO_THREAD_SAFETY_ANALYSIS ZENK_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace zenk {

/// A std::mutex that clang's thread-safety analysis understands. Waits use a Condition on it.
class ZENK_CAPABILITY("mutex") Mutex {
public:
    void lock() ZENK_ACQUIRE() { m_mutex.lock(); }
    void unlock() ZENK_RELEASE() { m_mutex.unlock(); }

private:
    friend class Condition;
    std::mutex m_mutex;
};

/// Holds a Mutex from construction to destruction.
class ZENK_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ZENK_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() ZENK_RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

/// A std::condition_variable that waits on a Mutex: without the lock and the allocation of condition_variable_any.
class Condition {
public:
    /// Returns when notified, and at times for no reason.
    void wait(Mutex& mutex) ZENK_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();  // the caller holds it still
    }
    void notifyAll() { m_condition.notify_all(); }

private:
    std::condition_variable m_condition;
};

}  // namespace zenk
