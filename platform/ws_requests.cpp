// What other threads ask of connections, and how much the host may send to clients that do not take it.
#include <algorithm>
#include <exception>
#include <utility>

#include "platform/ws_context.h"
#include "platform/ws_limits.h"

namespace zenk_ws {

namespace {

/// The contexts that other threads can reach. Never destroyed, since threads may outlive main().
struct OpenContexts {
    zenk::Mutex mutex;  // taken before the lock of a context
    std::vector<Context*> list ZENK_GUARDED_BY(mutex);
};

OpenContexts& openContexts() {
    static OpenContexts* const contexts = new OpenContexts;
    return *contexts;
}

}  // namespace

void Context::beReachable() {
    OpenContexts& contexts = openContexts();
    zenk::MutexLock lock(contexts.mutex);
    contexts.list.push_back(this);
}

void Context::beUnreachable() {
    OpenContexts& contexts = openContexts();
    zenk::MutexLock lock(contexts.mutex);
    std::erase(contexts.list, this);
}

// ---------------------------------------------------------------- asking

int Context::postWrite(::lws* wsi, std::span<const std::uint8_t> payload, int type) {
    Request request{wsi, 0, Request::Kind::Write, type, {}};
    try {
        request.payload.assign(payload.begin(), payload.end());
    } catch (const std::exception&) {
        request.kind = Request::Kind::Lost;
    }
    return post(wsi, std::move(request));
}

void Context::postClose(::lws* wsi, int status) {
    post(wsi, {wsi, 0, Request::Kind::Close, status, {}});
}

void Context::postReading(::lws* wsi, bool isOn) {
    post(wsi, {wsi, 0, Request::Kind::Reading, isOn ? 1 : 0, {}});
}

int Context::post(::lws* wsi, Request request) {
    const int bytes = static_cast<int>(request.payload.size());
    OpenContexts& contexts = openContexts();
    zenk::MutexLock lock(contexts.mutex);
    for (Context* const context : contexts.list) {
        zenk::MutexLock contextLock(context->m_mutex);
        if (context->take(wsi, request)) return bytes;
    }
    return -1;
}

/// @return false when the connection is none of ours, or takes no such request any more
bool Context::take(::lws* wsi, Request& request) {
    Connection* const connection = find(wsi);
    if (connection == nullptr || !connection->acceptsWrites()) return false;
    request.serial = connection->serial();
    const bool isClose = request.kind == Request::Kind::Close;
    const bool isAdmitted = request.kind != Request::Kind::Write || admit(*connection, request.payload.size());
    if (isAdmitted && !keep(request)) cutLater(*connection, "no memory for what is asked of it");
    if (isClose) connection->setPhase(Connection::Phase::Closing);  // the writes behind this call are dropped
    wake();
    return true;
}

/// @return false when memory is short: a message, a close or a resumption would be missing for ever
bool Context::keep(Request& request) {
    if (request.kind == Request::Kind::Lost) return false;
    try {
        m_requests.push_back(std::move(request));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// The loop is woken once, not once per request.
void Context::wake() {
    if (!m_hasRequests.exchange(true, std::memory_order_acq_rel)) ::lws_cancel_service(m_lws);
}

// ---------------------------------------------------------------- serving

void Context::serveRequests() {
    if (!m_hasRequests.load(std::memory_order_acquire)) return;
    std::vector<Request> requests;
    bool hasThoseToCut = false;
    {
        zenk::MutexLock lock(m_mutex);
        requests.swap(m_requests);
        hasThoseToCut = std::exchange(m_hasThoseToCut, false);
        m_hasRequests.store(false, std::memory_order_release);
    }
    if (hasThoseToCut) cutThoseToBeCut();
    for (const Request& request : requests) serveRequest(request);
}

void Context::serveRequest(const Request& request) {
    Connection* const connection = find(request.wsi);
    if (connection == nullptr || connection->serial() != request.serial) return;
    if (connection->phase() == Connection::Phase::Ended) return;
    doFor(*connection, [&request](Connection& each) { serveRequest(each, request); });
}

void Context::serveRequest(Connection& connection, const Request& request) {
    switch (request.kind) {
        case Request::Kind::Write:
            connection.write(request.payload, request.value, nullptr);
            break;
        case Request::Kind::Close:
            connection.startClose(request.value);
            break;
        case Request::Kind::Reading:
            connection.setCallerHold(request.value == 0);
            break;
        case Request::Kind::Lost:
            break;  // never kept
    }
}

void Context::cutThoseToBeCut() {
    for (const auto& [wsi, connection] : m_connections) {
        const char* reason = nullptr;
        {
            zenk::MutexLock lock(m_mutex);
            reason = connection->m_cutReason;
        }
        if (reason == nullptr || connection->phase() == Connection::Phase::Ended) continue;
        _lws_log(kLogError, "cutting a client: %s\n", reason);
        connection->kill();
    }
}

// ---------------------------------------------------------------- what waits of the host's messages

std::size_t Context::hostMessageCost(std::size_t payloadBytes) {
    constexpr std::size_t kFixed = 128;
    static_assert(kFixed >= 2 * sizeof(Request), "the list of requests may be twice as long as what it holds");
    return kFixed + payloadBytes;
}

bool Context::admitHostMessage(Connection& to, std::size_t payloadBytes) {
    zenk::MutexLock lock(m_mutex);
    const bool isAdmitted = admit(to, payloadBytes);
    if (m_hasThoseToCut) wake();
    return isAdmitted;
}

/// A message that nothing waits before is always taken, whatever its length, and does not count for those behind it.
/// @return false if the connection is to be cut instead
bool Context::admit(Connection& to, std::size_t payloadBytes) {
    const std::size_t cost = hostMessageCost(payloadBytes);
    const bool isFirst = to.m_hostBytes == 0;
    if (isFirst) {
        to.m_hostFirstBytes = cost;
    } else if (to.m_hostBytes + cost > to.m_hostFirstBytes + limits().hostWriteBytes) {
        cutLater(to, "the host sent faster than the client took");
        return false;
    }
    to.m_hostBytes += cost;
    m_hostBytes += cost;
    keepTotal(isFirst ? &to : nullptr);
    return to.acceptsWrites();
}

/// @param spared  whose only message is of any length, so that it may not be another's end; null for none
void Context::keepTotal(const Connection* spared) {
    const std::size_t sparedBytes = spared == nullptr ? 0 : spared->m_hostBytes;
    while (m_hostBytes - sparedBytes > limits().hostTotalBytes) {
        Connection* most = nullptr;
        for (const auto& [wsi, each] : m_connections) {
            if (each.get() == spared || each->m_hostBytes == 0) continue;
            if (most == nullptr || each->m_hostBytes > most->m_hostBytes) most = each.get();
        }
        if (most == nullptr) return;
        cutLater(*most, "the host sent to all faster than they took, and most waits for this one");
    }
}

/// Its messages are dropped at once, as far as another thread can.
void Context::cutLater(Connection& connection, const char* reason) {
    connection.m_cutReason = reason;
    connection.setPhase(Connection::Phase::Closing);
    takeOffAll(connection);
    std::erase_if(m_requests, [&](const Request& request) { return request.serial == connection.serial(); });
    m_hasThoseToCut = true;
}

void Context::takeOff(Connection& connection, std::size_t hostBytes) {
    zenk::MutexLock lock(m_mutex);
    const std::size_t taken = std::min(hostBytes, connection.m_hostBytes);
    connection.m_hostBytes -= taken;
    connection.m_hostFirstBytes = std::min(connection.m_hostFirstBytes, connection.m_hostBytes);
    m_hostBytes -= taken;
}

void Context::takeOffAll(Connection& connection) {
    m_hostBytes -= std::exchange(connection.m_hostBytes, 0);
}

}  // namespace zenk_ws
