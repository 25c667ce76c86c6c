// WebSocket clients on raw sockets, one epoll set for all of them, one thread.
#pragma once

#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bench/load/frame.h"

namespace zenk_bench {

class Client;

/// The epoll set and the receive buffer that all clients share.
class Poller {
public:
    Poller();
    ~Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    /// The sockets that are ready now, or within `timeoutMs`.
    std::span<const epoll_event> wait(int timeoutMs);

    /// @param operation  that of epoll_ctl()
    void watch(int operation, int fd, std::uint32_t events, Client* client);
    std::span<std::uint8_t> buffer() { return m_buffer; }

private:
    int m_epoll;
    std::vector<epoll_event> m_events;
    std::vector<std::uint8_t> m_buffer;
};

/// The client that an event is about.
inline Client& clientOf(const epoll_event& event) {
    return *static_cast<Client*>(event.data.ptr);
}

enum class Side { local, remote };

/// One connection, from the TCP connect to the end of its life. All failures are std::runtime_error.
class Client {
public:
    /// Begins to connect to 127.0.0.1; advance() carries the handshake on. `name` is the endpoint that partners share.
    Client(Poller& poller, std::uint16_t port, Side side, const std::string& name);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// One step of the handshake, then of waiting for the greeting that tells a pair is complete.
    void advance(std::uint32_t events);
    bool isOpen() const { return m_isOpen; }
    bool isGreeted() const { return m_isGreeted; }

    /// What has arrived, in the shared buffer; empty when nothing has. The server must not have closed.
    std::span<const std::uint8_t> receive();

    /// Reads and drops what has arrived. @return whether the server has closed
    bool drainUntilClosed();

    /// Hands over as many bytes as the system takes now. @return their number
    std::size_t send(std::string_view bytes);
    /// Hands over all bytes, busily waiting for room.
    void sendAll(std::string_view bytes);

    /// Whether events tell of room in the socket too.
    void watchRoom(bool wanted);
    bool watchesRoom() const { return m_watchesRoom; }

    FrameReader& reader() { return m_reader; }
    bool isRemote() const { return m_side == Side::remote; }

    /// The caller's own number for this client.
    std::size_t tag = 0;

private:
    void sendRequest();
    void readAnswer(std::span<const std::uint8_t> bytes);
    void readGreeting(std::span<const std::uint8_t> bytes);

    Poller& m_poller;
    const Side m_side;
    int m_fd;
    std::string m_request;  // empty once sent
    std::string m_answer;   // the server's handshake, as far as it has come
    FrameReader m_reader;
    bool m_isOpen = false;
    bool m_isGreeted = false;
    bool m_watchesRoom = true;
};

/// A local and a remote client of one endpoint; the fleet owns them.
struct Pair {
    Client* local;
    Client* remote;
};

/// Opens connections many at a time and keeps them open.
class Fleet {
public:
    Fleet(Poller& poller, std::uint16_t port) : m_poller(poller), m_port(port) {}

    /// Returns when both sides of each pair have their greeting. Each client's tag is its pair's index.
    std::vector<Pair> openPairs(std::size_t count, const std::string& prefix);

    /// Pairs that stay silent: their tag is kSilent.
    void openSilentPairs(std::size_t count);
    static constexpr std::size_t kSilent = SIZE_MAX;

    /// Local clients that no partner ever joins: their tag is kSilent.
    void openWaiting(std::size_t count);

private:
    Client& add(Side side, const std::string& name, std::size_t tag);
    void settle(std::size_t first, bool untilGreeted);

    Poller& m_poller;
    const std::uint16_t m_port;
    std::vector<std::unique_ptr<Client>> m_clients;
    std::size_t m_underWay = 0;
};

}  // namespace zenk_bench
