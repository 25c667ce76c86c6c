#pragma once

#include <pthread.h>

namespace zenk {

/// Whether a cancellation may take effect on this thread, from construction to destruction.
class Cancellation {
public:
    explicit Cancellation(int state) { pthread_setcancelstate(state, &m_before); }
    ~Cancellation() { pthread_setcancelstate(m_before, nullptr); }
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    int before() const { return m_before; }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

/// Lets a cancellation in, here and nowhere else. @param state  PTHREAD_CANCEL_DISABLE lets none in
inline void endHereIfCancelled(int state = PTHREAD_CANCEL_ENABLE) {
    const Cancellation allowed(state);
    pthread_testcancel();
}

}  // namespace zenk
