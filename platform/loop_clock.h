#pragma once

#include <algorithm>
#include <chrono>

#include "platform/ws_limits.h"

namespace zenk_ws {

/// The time in which the loop ran. Peers are given their time by it: while the process stands still, frozen or in a
/// long callback, nobody can be heard, so a pass counts for no more than Limits::longestPass. Where each pass takes
/// longer than that, everybody gets more time. For the service thread.
class LoopClock {
public:
    using time_point = std::chrono::steady_clock::time_point;

    /// As of the last tick; costs nothing, and is at most one pass behind.
    time_point now() const { return m_now; }
    /// For what begins here and must not be given less than its time.
    time_point exactNow() const { return m_now + sinceTick(std::chrono::steady_clock::now()); }

    void tick() {
        const time_point tickedAt = std::chrono::steady_clock::now();
        m_now += sinceTick(tickedAt);
        m_tickedAt = tickedAt;
    }

private:
    time_point::duration sinceTick(time_point at) const {
        return std::min<time_point::duration>(at - m_tickedAt, limits().longestPass);
    }

    time_point m_tickedAt = std::chrono::steady_clock::now();
    time_point m_now = m_tickedAt;
};

}  // namespace zenk_ws
