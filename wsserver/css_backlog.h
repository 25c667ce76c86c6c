#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

class MediaSyncServer;
struct ZenkDispatcherInfo;

namespace zenk {

/// Knows what the event queue holds of each client, and bounds it: the queue refuses and drops nothing, so a client
/// that sends faster than the host takes is not read until the host has caught up. TCP then slows the client down.
///
/// It only decides, under the lock of the queue that it counts; the queue takes the decisions out, and acts without
/// the lock.
class CssBacklog {
public:
    /// From this on a client is not read, from half of it down it is read again.
    static constexpr std::size_t kClientBytes = std::size_t{4} * 1024 * 1024;
    /// The same for all clients together: one that comes, floods and leaves over and over has a new id each time.
    static constexpr std::size_t kTotalBytes = std::size_t{64} * 1024 * 1024;

    /// The server that a client came to, which may be gone by now or null, and its id there.
    using ClientName = std::pair<MediaSyncServer*, std::int32_t>;

    /// A decision: the client is to be held, or read again.
    struct Change {
        ClientName client;
        bool isHeld;
    };

    /// What is known of one client. It stays where it is while the queue holds a record of it.
    struct Client {
        std::size_t bytes = 0;
        bool isHeld = false;
        bool hasChanged = false;  // isHeld has, and nobody knows yet
    };
    using Entry = std::map<ClientName, Client>::value_type;

    /// Throws std::bad_alloc.
    Entry& client(const ClientName& name) { return *m_clients.try_emplace(name).first; }

    /// Counts a record that goes into the queue.
    void add(Entry& client, const ZenkDispatcherInfo& record);
    /// Takes back what add() has counted for it; the client may be forgotten then.
    void remove(Entry& client, const ZenkDispatcherInfo& record);

    /// @return a decision that is still to be acted upon; the last one for its client
    std::optional<Change> takeChange();

private:
    void setHeld(Client& client, bool isHeld);
    void resumeAll();
    void resumeIfDrained(Client& client);
    void forgetIfIdle(const Entry& client);

    std::map<ClientName, Client> m_clients;  // with records in the queue, held, or likely to send again soon
    std::size_t m_totalBytes = 0;
    std::size_t m_changes = 0;  // clients with hasChanged
    bool m_isFull = false;      // whoever sends is held
};

}  // namespace zenk
