#include "platform/ws_context.h"

#include <ev.h>

#include <algorithm>
#include <new>

#include "platform/receive_buffers.h"
#include "platform/statuses.h"
#include "platform/ws_limits.h"

namespace zenk_ws {

namespace {

constexpr lws_usec_t kTickMicroseconds = 10'000;
constexpr std::chrono::milliseconds kWatchEvery{100};
constexpr std::chrono::milliseconds kHeartbeatEvery{1'000};
// One send() takes no more than this.
constexpr std::size_t kSendBytes = kMiB;

thread_local Context* t_current = nullptr;

/// Marks the calling thread as the one that serves a context.
class ServiceScope {
public:
    explicit ServiceScope(Context* context) : m_before(t_current) { t_current = context; }
    ~ServiceScope() { t_current = m_before; }
    ServiceScope(const ServiceScope&) = delete;
    ServiceScope& operator=(const ServiceScope&) = delete;

private:
    Context* const m_before;
};

}  // namespace

Limits& limits() {
    static Limits limits;
    return limits;
}

Context* Context::current() {
    return t_current;
}

// ---------------------------------------------------------------- life

std::unique_ptr<Context> Context::create(const lws_context_creation_info& info) {
    std::unique_ptr<Context> context(new Context(info));
    if (!limits().mayUseLibev || !context->open(info, true)) {
        if (!context->open(info, false)) return nullptr;
        _lws_log(kLogNotice, "libwebsockets has no libev plug-in here; serving with poll, slower with many clients\n");
    }
    context->startTick();
    context->beReachable();
    return context;
}

Context::Context(const lws_context_creation_info& info)
    : m_upper(info.protocols),
      m_protocols{},
      m_records({m_upper->per_session_data_size, m_upper->message_area_offset, m_upper->message_area_size}) {
    if (!m_records.refill()) throw std::bad_alloc();
    m_protocols[0].name = m_upper->name;
    m_protocols[0].callback = onEvent;
    m_protocols[0].rx_buffer_size = std::max<std::size_t>(m_upper->rx_buffer_size, kReadBytes);
    m_protocols[0].id = m_upper->id;
    m_protocols[0].tx_packet_size = kSendBytes;
}

bool Context::open(const lws_context_creation_info& info, bool isWithLibev) {
    installReceiveBuffers();
    ::lws_context_creation_info ours{};
    ours.port = info.port;
    ours.iface = info.iface;
    ours.protocols = m_protocols.data();
    ours.gid = static_cast<decltype(ours.gid)>(info.gid);
    ours.uid = static_cast<decltype(ours.uid)>(info.uid);
    ours.options = info.options & ~kOptionValidateUtf8;  // done in Connection, faster and without the library's gaps
    ours.pt_serv_buf_size = kReadBytes;
    ours.timeout_secs = static_cast<unsigned int>(limits().handshake.count());
    ours.timeout_secs_ah_idle = ours.timeout_secs;  // replaces the other from the first byte on; 10 s by itself
    ours.retry_and_idle_policy = &m_noIdlePolicy;   // Connection::heartbeat() does it
    ours.user = this;
    void* loops[1] = {nullptr};
    if (isWithLibev) {
        m_loop = ev_loop_new(EVFLAG_AUTO);
        if (m_loop == nullptr) return false;
        loops[0] = m_loop;
        ours.foreign_loops = loops;
        ours.options |= LWS_SERVER_OPTION_LIBEV;
    }
    m_lws = ::lws_create_context(&ours);
    if (m_lws == nullptr && m_loop != nullptr) {
        ev_loop_destroy(m_loop);
        m_loop = nullptr;
    }
    if (m_loop != nullptr) m_departures.open(m_loop);
    return m_lws != nullptr;
}

/// libwebsockets ignores the time that a service call is given, and with libev re-arms its timer wrongly when a far
/// time-out stands before a near one. A timer that is always near cures both.
void Context::startTick() {
    m_tick.context = this;
    ::lws_sul_schedule(
        m_lws, 0, &m_tick.timer,
        [](lws_sorted_usec_list_t* timer) { reinterpret_cast<Tick*>(timer)->context->onTick(); }, kTickMicroseconds);
}

Context::~Context() {
    if (m_lws != nullptr) stop();
}

void Context::stop() {
    const ServiceScope scope(this);
    beUnreachable();
    sayGoodbye();
    m_isStopping = true;
    ::lws_sul_cancel(&m_tick.timer);
    ::lws_context_destroy(m_lws);  // raises the close events that are left
    m_lws = nullptr;
    if (m_loop == nullptr) return;
    m_departures.close();
    constexpr int kPassesToLetGo = 4;  // libev frees what was closed in the passes behind it
    for (int i = 0; i < kPassesToLetGo; ++i) ev_run(m_loop, EVRUN_NOWAIT);
    ev_loop_destroy(m_loop);
}

void Context::sayGoodbye() {
    for (const auto& [wsi, connection] : m_connections) {
        if (connection->phase() != Connection::Phase::Open) continue;
        doFor(*connection, [](Connection& open) { open.startClose(zenk::kStatusGoingAway); });
    }
    using Clock = std::chrono::steady_clock;  // the host waits, so this is real time
    const auto end = Clock::now() + limits().goodbye;
    while (m_announced != 0 && Clock::now() < end && service()) continue;
}

// ---------------------------------------------------------------- the loop

bool Context::service() {
    const ServiceScope scope(this);
    m_departures.letNextGo();
    const bool canGoOn = runLoopOnce();
    serveRequests();
    flushAll();
    return canGoOn;
}

bool Context::runLoopOnce() {
    if (m_loop == nullptr) return ::lws_service(m_lws, 0) >= 0;
    ev_run(m_loop, EVRUN_ONCE);
    return true;
}

void Context::onTick() {
    m_clock.tick();
    if (now() >= m_nextWatch) {
        m_nextWatch = now() + kWatchEvery;
        lookAfterWatched();
    }
    if (now() >= m_nextHeartbeat) {
        m_nextHeartbeat = now() + kHeartbeatEvery;
        sendHeartbeats();
    }
    startTick();
}

void Context::lookAfterWatched() {
    std::erase_if(m_watched, [this](Connection* connection) {
        doFor(*connection, [this](Connection& watched) { watched.m_isWatched = watched.tick(now()); });
        return !connection->m_isWatched;
    });
}

void Context::sendHeartbeats() {
    for (const auto& [wsi, connection] : m_connections) {
        doFor(*connection, [this](Connection& silent) { silent.heartbeat(now()); });
    }
}

void Context::watch(Connection& connection) {
    if (connection.m_isWatched) return;
    m_watched.insert(&connection);
    connection.m_isWatched = true;
}

void Context::flushLater(Connection& connection) {
    if (connection.m_flushIndex >= 0) return;
    m_flushList.push_back(&connection);
    connection.m_flushIndex = static_cast<std::ptrdiff_t>(m_flushList.size()) - 1;
}

void Context::flushThrough(Connection& last) {
    if (last.m_flushIndex >= 0) flushUpTo(static_cast<std::size_t>(last.m_flushIndex) + 1);
}

void Context::flushAll() {
    flushUpTo(m_flushList.size());
}

void Context::flushUpTo(std::size_t end) {
    while (m_flushHead < end) {
        Connection* const connection = m_flushList[m_flushHead++];
        if (connection == nullptr) continue;
        connection->m_flushIndex = -1;
        doFor(*connection, [](Connection& waiting) { waiting.pump(); });
    }
    if (m_flushHead < m_flushList.size()) return;
    m_flushList.clear();
    m_flushHead = 0;
}

// ---------------------------------------------------------------- the service thread's operations

Connection* Context::find(::lws* wsi) {
    const auto found = m_connections.find(wsi);
    return found == m_connections.end() ? nullptr : found->second.get();
}

int Context::write(Connection& connection, std::span<const std::uint8_t> payload, int type) {
    serveRequests();  // they were made before this call
    const bool isTheHosts = m_receiving == nullptr;
    if (!connection.acceptsWrites() || (isTheHosts && !admitHostMessage(connection, payload.size()))) return -1;
    const bool isQueued = doFor(connection, [&](Connection& to) { to.write(payload, type, m_receiving); });
    return isQueued ? static_cast<int>(payload.size()) : -1;
}

void Context::close(Connection& connection, int status) {
    serveRequests();
    if (connection.acceptsWrites()) doFor(connection, [status](Connection& open) { open.startClose(status); });
}

void Context::setReading(Connection& connection, bool isOn) {
    serveRequests();  // or an earlier one would undo this
    doFor(connection, [isOn](Connection& each) { each.setCallerHold(!isOn); });
}

void Context::setPhase(Connection& connection, Connection::Phase phase) {
    zenk::MutexLock lock(m_mutex);
    connection.setPhase(phase);
    if (phase == Connection::Phase::Ended) takeOffAll(connection);
}

}  // namespace zenk_ws
