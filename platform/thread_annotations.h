#pragma once

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

/// A std::mutex that clang's thread-safety analysis understands. Waits use std::condition_variable_any on it.
class ZENK_CAPABILITY("mutex") Mutex {
public:
    void lock() ZENK_ACQUIRE() { m_mutex.lock(); }
    void unlock() ZENK_RELEASE() { m_mutex.unlock(); }

private:
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

}  // namespace zenk
