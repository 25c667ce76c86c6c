// What libwebsockets tells us, and what of it goes up.
#include <sys/resource.h>

#include <exception>

#include "platform/receive_buffers.h"
#include "platform/statuses.h"
#include "platform/ws_context.h"
#include "platform/ws_handshake.h"

namespace zenk_ws {

namespace {

constexpr int kRefuse = -1;
// For the host and for ourselves: a URL or a configuration value takes one or two for a moment.
constexpr rlim_t kSpareDescriptors = 16;
constexpr std::chrono::minutes kTellShortageEvery{1};

Connection* connectionOf(::lws* wsi) {
    return static_cast<Connection*>(::lws_get_opaque_user_data(wsi));
}

/// The system gives the lowest free number, so a high one means that nearly all below it are taken.
bool leavesSpareDescriptors(int fd) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return true;
    return static_cast<rlim_t>(fd) + kSpareDescriptors < limit.rlim_cur;
}

/// The session record, lent to a connection for one event.
class RecordLoan {
public:
    explicit RecordLoan(Connection& connection) : m_connection(connection), m_record(connection.borrowRecord()) {}
    ~RecordLoan() { m_connection.returnRecord(); }
    RecordLoan(const RecordLoan&) = delete;
    RecordLoan& operator=(const RecordLoan&) = delete;
    void* record() const { return m_record; }

private:
    Connection& m_connection;
    void* const m_record;
};

}  // namespace

int Context::onEvent(::lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len) {
    auto* const context = static_cast<Context*>(::lws_context_user(::lws_get_context(wsi)));
    try {
        if (reason == LWS_CALLBACK_FILTER_NETWORK_CONNECTION) {
            return context->onAccept(wsi, static_cast<lws_filter_network_conn_args*>(user)->accept_fd);
        }
        return context->dispatch(wsi, reason, in, len);
    } catch (const std::exception& error) {
        // Out of memory for one connection must not end the others.
        _lws_log(kLogError, "ending a connection: %s\n", error.what());
        return kRefuse;
    }
}

int Context::dispatch(::lws* wsi, lws_callback_reasons reason, void* in, std::size_t len) {
    if (reason == LWS_CALLBACK_HTTP_CONFIRM_UPGRADE) return checkUpgrade(wsi, static_cast<const char*>(in));
    if (reason == LWS_CALLBACK_HTTP) return refusePlainHttp(wsi);
    if (reason == LWS_CALLBACK_RAW_ADOPT) return refuseRawConnection(wsi);
    if (reason == LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION) return onHandshake(wsi);
    // Events of the library's housekeeping come with a connection that is none.
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED:
        case LWS_CALLBACK_RECEIVE:
        case LWS_CALLBACK_RECEIVE_PONG:
        case LWS_CALLBACK_SERVER_WRITEABLE:
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
        case LWS_CALLBACK_WS_SERVER_DROP_PROTOCOL:
        case LWS_CALLBACK_CLOSED:
        case LWS_CALLBACK_WSI_DESTROY:
            break;
        default:
            return 0;
    }
    Connection* const connection = connectionOf(wsi);
    if (connection == nullptr) return 0;
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED:
            onEstablished(*connection);
            return 0;
        case LWS_CALLBACK_RECEIVE:
            onReceive(*connection, in, len);
            return 0;
        case LWS_CALLBACK_RECEIVE_PONG:
            connection->onHeard();
            return 0;
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return connection->onWriteable();
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
            return connection->onPeerClose({static_cast<const std::uint8_t*>(in), len});
        case LWS_CALLBACK_WS_SERVER_DROP_PROTOCOL:
            connection->onEnding();
            return 0;
        default:
            onClosed(*connection);
            return 0;
    }
}

/// The upper callback throws nothing: that is part of its contract.
int Context::tellUp(::lws* wsi, int reason, void* user, void* in, std::size_t len) const {
    return m_upper->callback(wsi, reason, user, in, len);
}

int Context::tellUp(Connection& connection, int reason, void* in, std::size_t len) const {
    const RecordLoan loan(connection);
    return tellUp(connection.wsi(), reason, loan.record(), in, len);
}

/// A connection that libwebsockets cannot accept keeps its listening socket ready: it would spin and fill the system
/// log until somebody leaves. So the last ones are accepted and ended.
int Context::onAccept(::lws* wsi, int fd) {
    if (leavesSpareDescriptors(fd)) return tellUp(wsi, LWS_CALLBACK_FILTER_NETWORK_CONNECTION, nullptr, nullptr, 0);
    if (now() >= m_nextShortageLine) {
        m_nextShortageLine = now() + kTellShortageEvery;
        _lws_log(kLogError, "ending new connections: the process is short of descriptors\n");
    }
    return kRefuse;
}

int Context::onHandshake(::lws* wsi) {
    if (!reserveReceiveBuffer()) return refuseHandshake(wsi, zenk::kHttpUnavailable);
    auto made = std::make_unique<Connection>(*this, wsi, ++m_lastSerial);
    made->target() = readRequestTarget(wsi);
    Connection& connection = *made;
    {
        zenk::MutexLock lock(m_mutex);
        m_connections[wsi] = std::move(made);
    }
    ::lws_set_opaque_user_data(wsi, &connection);
    ::lws_set_wsi_user(wsi, &connection);  // or there would be no LWS_CALLBACK_WS_SERVER_DROP_PROTOCOL
    const int result = tellUp(connection, kEventFilterProtocolConnection);
    if (result == 0) return 0;
    forget(connection);
    return refuseHandshake(wsi, result);
}

void Context::onEstablished(Connection& connection) {
    ++m_announced;
    m_departures.watch(connection, m_announced);
    connection.onEstablished();
    tellUp(connection, kEventEstablished);
    connection.target().reset();
}

void Context::onReceive(Connection& connection, void* in, std::size_t len) {
    if (!connection.onReceive({static_cast<const std::uint8_t*>(in), len})) return;
    m_receiving = &connection;
    tellUp(connection, kEventReceive, in, len);
    m_receiving = nullptr;
}

/// Comes for refused handshakes too, and a second time when the library frees what it has closed.
void Context::onClosed(Connection& connection) {
    const bool isAnnounced = connection.isAnnounced();
    connection.onGone();
    if (isAnnounced) {
        --m_announced;
        tellUp(connection, kEventClosed);
    }
    forget(connection);
}

void Context::forget(Connection& connection) {
    ::lws* const wsi = connection.wsi();
    ::lws_set_opaque_user_data(wsi, nullptr);
    ::lws_set_wsi_user(wsi, nullptr);
    if (connection.m_flushIndex >= 0) m_flushList[static_cast<std::size_t>(connection.m_flushIndex)] = nullptr;
    if (connection.m_isWatched) m_watched.erase(&connection);
    m_departures.forget(connection);
    decltype(m_connections)::node_type gone;
    zenk::MutexLock lock(m_mutex);
    gone = m_connections.extract(wsi);
}

}  // namespace zenk_ws
