#pragma once

#include <libwebsockets.h>

#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/departures.h"
#include "platform/thread_annotations.h"
#include "platform/ws_connection.h"
#include "platform/zenk_websockets.h"

namespace zenk_ws {

/// One server: its loop, its live connections, and what other threads have asked of them.
///
/// The service thread is the one inside service() or stop(). It alone calls libwebsockets, but for
/// lws_cancel_service(). Other threads come in through the static operations, leave their request and wake the loop.
class Context {
public:
    /// @return null when the port cannot be served
    static std::unique_ptr<Context> create(const lws_context_creation_info& info);
    ~Context();

    /// @return false when the loop cannot go on
    bool service();

    /// The context that the calling thread serves at the moment, or null.
    static Context* current();

    /// From any thread that serves no context.
    static int postWrite(::lws* wsi, std::span<const std::uint8_t> payload, int type);
    static void postClose(::lws* wsi, int status);
    static void postReading(::lws* wsi, bool isOn);

    // For the service thread.
    Connection* find(::lws* wsi);
    int write(Connection& connection, std::span<const std::uint8_t> payload, int type);
    void close(Connection& connection, int status);
    void setReading(Connection& connection, bool isOn);

    // For Connection.
    BufferPool& pool() { return m_pool; }
    RecordPool& records() { return m_records; }
    LoopClock::time_point now() const { return m_clock.now(); }
    LoopClock::time_point exactNow() const { return m_clock.exactNow(); }
    bool isStopping() const { return m_isStopping; }
    void flushLater(Connection& connection);
    /// Flushes everything that was first written to before `last`, then `last`.
    void flushThrough(Connection& last);
    void watch(Connection& connection);
    void setPhase(Connection& connection, Connection::Phase phase);
    /// What a host message counts for while it waits: an empty one takes memory, too.
    static std::size_t hostMessageCost(std::size_t payloadBytes);
    /// So much of what the host has sent does not wait any more.
    void takeOff(Connection& connection, std::size_t hostBytes);

private:
    struct Request {
        enum class Kind { Write, Close, Reading, Lost };
        ::lws* wsi;
        std::uint64_t serial;  // the address can name a newer connection by the time the request is served
        Kind kind;
        int value;  // frame type, close status, or reception on
        std::vector<std::uint8_t> payload;
    };
    struct Tick {
        lws_sorted_usec_list_t timer;  // first, so that the library's pointer to it is the pointer to this
        Context* context;
    };

    explicit Context(const lws_context_creation_info& info);
    bool open(const lws_context_creation_info& info, bool isWithLibev);
    void startTick();
    void sayGoodbye();
    void stop();

    static int onEvent(::lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);
    int dispatch(::lws* wsi, lws_callback_reasons reason, void* in, std::size_t len);
    int onAccept(::lws* wsi, int fd);
    int onHandshake(::lws* wsi);
    void onEstablished(Connection& connection);
    void onReceive(Connection& connection, void* in, std::size_t len);
    void onClosed(Connection& connection);
    void forget(Connection& connection);
    int tellUp(::lws* wsi, int reason, void* user, void* in, std::size_t len) const;
    int tellUp(Connection& connection, int reason, void* in = nullptr, std::size_t len = 0) const;
    template <typename Work>
    static bool doFor(Connection& connection, Work&& work);

    void beReachable();
    void beUnreachable();

    bool runLoopOnce();
    void flushAll();
    void flushUpTo(std::size_t end);
    void onTick();
    void lookAfterWatched();
    void sendHeartbeats();

    static int post(::lws* wsi, Request request);
    bool take(::lws* wsi, Request& request) ZENK_REQUIRES(m_mutex);
    bool keep(Request& request) ZENK_REQUIRES(m_mutex);
    void wake();
    void serveRequests();
    void serveRequest(const Request& request);
    static void serveRequest(Connection& connection, const Request& request);

    bool admitHostMessage(Connection& to, std::size_t payloadBytes) ZENK_EXCLUDES(m_mutex);
    bool admit(Connection& to, std::size_t payloadBytes) ZENK_REQUIRES(m_mutex);
    void keepTotal(const Connection* spared) ZENK_REQUIRES(m_mutex);
    void cutLater(Connection& connection, const char* reason) ZENK_REQUIRES(m_mutex);
    void takeOffAll(Connection& connection) ZENK_REQUIRES(m_mutex);
    void cutThoseToBeCut();

    const lws_protocols* const m_upper;
    std::array<::lws_protocols, 2> m_protocols;
    lws_retry_bo_t m_noIdlePolicy{};
    struct ev_loop* m_loop = nullptr;  // null: the library's own poll loop
    ::lws_context* m_lws = nullptr;
    Tick m_tick{};

    // Taken after any lock of a caller. Guards what other threads reach: the requests and what waits of the host's
    // messages; the map and the phases against changes, which the service thread makes under it while it reads them
    // without.
    zenk::Mutex m_mutex;
    std::vector<Request> m_requests ZENK_GUARDED_BY(m_mutex);
    std::size_t m_hostBytes ZENK_GUARDED_BY(m_mutex) = 0;  // of all connections
    bool m_hasThoseToCut ZENK_GUARDED_BY(m_mutex) = false;
    std::atomic<bool> m_hasRequests{false};

    // The rest is the service thread's.
    std::unordered_map<::lws*, std::unique_ptr<Connection>> m_connections;
    std::uint64_t m_lastSerial = 0;
    Departures m_departures;
    BufferPool m_pool;
    RecordPool m_records;
    std::vector<Connection*> m_flushList;  // in the order in which they were first written to; null where one has gone
    std::size_t m_flushHead = 0;
    std::unordered_set<Connection*> m_watched;
    Connection* m_receiving = nullptr;  // whose receive event is with the upper layer
    LoopClock m_clock;
    LoopClock::time_point m_nextWatch;
    LoopClock::time_point m_nextHeartbeat;
    LoopClock::time_point m_nextShortageLine;
    std::size_t m_announced = 0;
    bool m_isStopping = false;
};

/// What fails for a connection is memory. Then it is ended, since its peer would miss something; the others go on.
template <typename Work>
bool Context::doFor(Connection& connection, Work&& work) {
    try {
        work(connection);
        return true;
    } catch (const std::exception& error) {
        _lws_log(kLogError, "ending a connection: %s\n", error.what());
        connection.kill();
        return false;
    }
}

}  // namespace zenk_ws
