#pragma once

#include <ev.h>

#include <cstddef>
#include <unordered_set>

namespace zenk_ws {

class Connection;

/// Lets peers that go at once leave in portions, so that who stays is served in between: libwebsockets takes some 50 us
/// to end a connection, more the more there are, and would end all that have gone in one pass.
///
/// Whose peer has gone is known before the loop reads it, by an epoll set of its own that the loop serves first. Beyond
/// the portion of a pass they are not read until it is their turn. A few connections are worth no such set: as long as
/// no crowd is there, who comes is not watched, and leaves when it is read.
///
/// For the service thread; must outlive its loop's last pass.
class Departures {
public:
    Departures() = default;
    ~Departures() { close(); }
    Departures(const Departures&) = delete;
    Departures& operator=(const Departures&) = delete;

    /// Without a descriptor for it, and until it is called, everybody leaves at once.
    void open(struct ev_loop* loop);
    void close();

    /// To be called when a connection has come. @param present  how many there are
    void watch(Connection& connection, std::size_t present);
    void forget(Connection& connection);

    /// To be called once in a pass.
    void letNextGo();

private:
    static constexpr std::size_t kPortion = 16;
    static constexpr std::size_t kCrowd = 128;  // from here on all leaving at once would be felt

    void look();
    void onGone(Connection& connection);

    struct ev_loop* m_loop = nullptr;
    ev_io m_watcher{};
    int m_epoll = -1;
    std::size_t m_room = kPortion;  // how many more may leave in this pass
    std::unordered_set<Connection*> m_waiting;
};

}  // namespace zenk_ws
