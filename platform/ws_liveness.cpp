// What no event tells of a connection: whether its peer is still there, takes what waits, and comes to an end.
#include <libwebsockets.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/ws_connection.h"
#include "platform/ws_context.h"
#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"

namespace zenk_ws {

bool Connection::tick(LoopClock::time_point now) {
    if (m_isDead) return false;
    if (!m_isReading) checkStoppedPeer();
    if (hasPeerTakenMore()) m_progressAt = now;
    if (m_closeStatus != 0 || m_isCloseStarted) {
        checkClose(now);
    } else {
        checkProgress(now);
    }
    return !m_isDead && (!m_isReading || backlog() != 0 || phase() != Phase::Open);
}

void Connection::checkProgress(LoopClock::time_point now) {
    if (backlog() != 0 && now - m_progressAt > limits().backlogStall) kill();
}

void Connection::checkClose(LoopClock::time_point now) {
    const bool isStalled = now - m_progressAt > limits().closeStall;
    const bool isOverdue = m_closeStatus != 0 && now - m_closeAskedAt > limits().closeTotal;
    if (isStalled || isOverdue) kill();
}

/// libwebsockets drains its rest without a word, so the kernel is asked how far the peer has come.
bool Connection::hasPeerTakenMore() {
    if (backlog() == 0) return false;
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(socket(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
    const bool hasMoved = info.tcpi_bytes_acked != m_bytesAcked;
    m_bytesAcked = info.tcpi_bytes_acked;
    return hasMoved;
}

void Connection::heartbeat(LoopClock::time_point now) {
    // Who is not read cannot be heard, and who has a backlog cannot hear. For the one the kernel asks, and the other
    // has to take something; tick() looks after both.
    if (phase() != Phase::Open || !m_isReading) return;
    if (backlog() != 0) {
        m_pingedAt = now;
    } else if (m_isPingOut) {
        if (now - m_pingedAt >= limits().hangUpAfter - limits().pingAfter) kill();
    } else if (now - m_heardAt >= limits().pingAfter) {
        sendPing();
    }
}

void Connection::sendPing() {
    static constexpr std::uint8_t kPayload[] = {'?'};  // libwebsockets raises no event for an empty answer
    FrameHeader ping = makeFrameHeader(sizeof kPayload, kWriteText);
    ping.bytes[0] = 0x89;
    m_queue.append(ping, kPayload, limits().earlyFlushBytes);
    m_context.flushLater(*this);
    m_isPingOut = true;
    m_pingedAt = m_context.exactNow();
}

/// Nobody hears the answers to our pings while a connection is not read. The kernel then asks in their place.
void Connection::askForKeepAlive() {
    if (m_isKeptAlive) return;
    m_isKeptAlive = true;
    constexpr int kProbes = 3;
    const auto seconds = [](std::chrono::milliseconds time) {
        return std::max(1, static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(time).count()));
    };
    const int fd = socket();
    const auto set = [fd](int level, int option, int value) { ::setsockopt(fd, level, option, &value, sizeof value); };
    set(IPPROTO_TCP, TCP_KEEPIDLE, seconds(limits().pingAfter));
    set(IPPROTO_TCP, TCP_KEEPINTVL, seconds((limits().hangUpAfter - limits().pingAfter) / kProbes));
    set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
}

/// The loop sees nothing of a connection that is not read, not even a reset.
void Connection::checkStoppedPeer() {
    pollfd peer{socket(), POLLRDHUP, 0};
    if (::poll(&peer, 1, 0) <= 0) return;
    if ((peer.revents & (POLLHUP | POLLERR)) != 0) {
        kill();
    } else if (!m_hasPeerFinished) {
        // What it has sent lies in the socket. It is read to the end, so that its partner gets every byte.
        m_hasPeerFinished = true;
        leaveHolders();
    }
}

}  // namespace zenk_ws
