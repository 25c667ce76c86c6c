#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "platform/thread_annotations.h"

struct ZenkDispatcherInfo;

namespace zenk {

/// Knows what the event queue holds of each client, and bounds it: the queue refuses and drops nothing, so a client
/// that sends faster than the host takes is not read until the host has caught up. TCP then slows the client down.
///
/// Any thread. Clients are held and resumed under the lock, so that the last of two threads' decisions is also the last
/// to take effect. Behind the lock come those of MediaSyncServer and of the WebSocket layer.
class CssBacklog {
public:
    /// From this on a client is not read, from half of it down it is read again.
    static constexpr std::size_t kClientBytes = 4 * 1024 * 1024;
    /// The same for all clients together: one that comes, floods and leaves over and over has a new id each time.
    static constexpr std::size_t kTotalBytes = 64 * 1024 * 1024;

    /// Counts a record that goes into the queue.
    void add(const ZenkDispatcherInfo& record);
    /// Takes back what add() has counted for it.
    void remove(const ZenkDispatcherInfo& record);

private:
    struct Client {
        std::size_t bytes = 0;
        bool isHeld = false;
    };
    using Clients = std::unordered_map<std::int32_t, Client>;

    void resumeAll() ZENK_REQUIRES(m_mutex);
    Clients::iterator resumeIfDrained(Clients::iterator client) ZENK_REQUIRES(m_mutex);

    Mutex m_mutex;
    Clients m_clients ZENK_GUARDED_BY(m_mutex);  // those with records in the queue, and those that are held
    std::size_t m_totalBytes ZENK_GUARDED_BY(m_mutex) = 0;
    bool m_isFull ZENK_GUARDED_BY(m_mutex) = false;  // whoever sends is held
};

}  // namespace zenk
