#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

struct ZenkDispatcherInfo;

namespace zenk {

/// Knows what the event queue holds of each client, and bounds it: the queue refuses and drops nothing, so a client
/// that sends faster than the host takes is not read until the host has caught up. TCP then slows the client down.
///
/// Guarded by the lock of the queue that it counts, in which clients are held and resumed too: the last of two threads'
/// decisions is also the last to take effect. Behind that lock come those of MediaSyncServer and of the layer.
class CssBacklog {
public:
    /// From this on a client is not read, from half of it down it is read again.
    static constexpr std::size_t kClientBytes = std::size_t{4} * 1024 * 1024;
    /// The same for all clients together: one that comes, floods and leaves over and over has a new id each time.
    static constexpr std::size_t kTotalBytes = std::size_t{64} * 1024 * 1024;

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

    void resumeAll();
    Clients::iterator resumeIfDrained(Clients::iterator client);

    Clients m_clients;  // those with records in the queue, those that are held, and some that may soon send again
    std::size_t m_totalBytes = 0;
    bool m_isFull = false;  // whoever sends is held
};

}  // namespace zenk
