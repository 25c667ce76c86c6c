#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/loop_clock.h"
#include "platform/send_queue.h"
#include "platform/session_record.h"
#include "platform/utf8_checker.h"
#include "platform/ws_handshake.h"

struct lws;

namespace zenk_ws {

class Context;

/// One WebSocket connection: what waits to be sent to it, whether it is read, how it ends.
///
/// Everything here belongs to the service thread, but for phase(), which other threads read under the context's lock.
/// The context owns the object, from the handshake to the close event.
class Connection {
public:
    enum class Phase : std::uint8_t {
        Handshake,  // not open yet
        Open,
        Closing,  // its close was asked for, and startClose() comes: no more writes, but what is queued leaves
        Ended,    // nothing leaves any more
    };

    Connection(Context& context, ::lws* wsi, std::uint64_t serial);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    ::lws* wsi() const { return m_wsi; }
    std::uint64_t serial() const { return m_serial; }
    std::optional<RequestTarget>& target() { return m_target; }

    Phase phase() const { return m_phase.load(std::memory_order_relaxed); }
    void setPhase(Phase phase) { m_phase.store(phase, std::memory_order_relaxed); }
    bool acceptsWrites() const { return phase() == Phase::Open; }
    /// True from the event that told the upper layer of the connection to the one that takes it back.
    bool isAnnounced() const { return m_isAnnounced; }

    // Events of libwebsockets.
    void onEstablished();
    /// @return true if the piece is to be delivered
    bool onReceive(std::span<const std::uint8_t> piece);
    void onHeard();
    int onWriteable();
    /// @return what the event has to return
    int onPeerClose(std::span<const std::uint8_t> body);
    void onEnding();
    void onGone();

    /// Puts one frame behind what waits. `sender` is the connection whose receive event writes, or null.
    void write(std::span<const std::uint8_t> payload, int type, Connection* sender);
    /// Sends what waits as far as the peer takes it. @return true when all has gone
    bool pump();

    void startClose(int status);
    /// Ends the connection from the loop, without a closing handshake.
    void kill();

    void setCallerHold(bool isHeld);
    /// Its peer has gone and it is not its turn to leave yet: then it is not read, whatever else holds it.
    void setDeparting(bool isDeparting);
    int socket() const;

    /// The session record that is lent for the current event, with this connection's fields in it.
    void* borrowRecord();
    /// Ends the loan. While a message is in progress the connection keeps the record.
    void returnRecord();

    /// Looks after what no event tells. @return false when there is nothing to look after any more
    bool tick(LoopClock::time_point now);
    /// Finds peers that have vanished without a word.
    void heartbeat(LoopClock::time_point now);

    // For the context: the places in its lists; and, under the context's lock, what the host has sent and the client
    // has not taken, how much of it is one message that nothing waits before, and why the client is to be cut, if so.
    std::ptrdiff_t m_flushIndex = -1;
    bool m_isWatched = false;
    bool m_isInDepartures = false;
    std::size_t m_hostBytes = 0;
    std::size_t m_hostFirstBytes = 0;
    const char* m_cutReason = nullptr;

private:
    bool writeInPlace(const FrameHeader& header, std::span<const std::uint8_t> payload, const Connection* sender);
    void answerClose(int status, std::span<const std::uint8_t> body);
    bool sendRaw(std::span<std::uint8_t> bytes);
    bool sendQueue();
    std::size_t backlog() const;
    void limitBacklog(Connection& sender);
    void settleHostBytes();

    void holdSender(Connection& sender);
    void releaseSenders();
    void leaveHolders();
    void applyReading();
    void askForKeepAlive();
    void checkStoppedPeer();

    void endSending();
    void dropMessage();
    bool checkText(std::span<const std::uint8_t> piece);
    void checkProgress(LoopClock::time_point now);
    void checkClose(LoopClock::time_point now);
    bool hasPeerTakenMore();
    void sendPing();

    Context& m_context;
    ::lws* const m_wsi;
    const std::uint64_t m_serial;
    std::atomic<Phase> m_phase{Phase::Handshake};    // changed under the context's lock
    std::unique_ptr<SessionRecord> m_record;         // during an event, and while a message is in progress
    std::unique_ptr<std::uint8_t[]> m_recordFields;  // what of the record is kept between events
    std::optional<RequestTarget> m_target;           // until the connection is established

    // Sending.
    SendQueue m_queue;
    std::size_t m_hostQueued = 0;        // what of m_hostBytes is queued here, as far as that can be told
    std::size_t m_inLibrary = 0;         // bytes of the last raw write while libwebsockets holds a rest of it
    std::uint64_t m_bytesAcked = 0;      // as the kernel counted them at the last look
    LoopClock::time_point m_progressAt;  // when the peer last took something

    // Receiving.
    Utf8Checker m_utf8;
    bool m_isMessageBegun = false;
    LoopClock::time_point m_heardAt;
    bool m_isPingOut = false;
    LoopClock::time_point m_pingedAt;  // or when something last waited in front of the ping

    // Back-pressure. Both lists name each other's owner, so that either side can leave.
    std::vector<Connection*> m_heldSenders;  // not read because of our backlog
    std::vector<Connection*> m_holders;      // whose backlog keeps us from being read
    bool m_isCallerHold = false;
    bool m_isReading = true;
    bool m_isKeptAlive = false;
    bool m_hasPeerFinished = false;  // it will send nothing more, but may have unread bytes

    // Closing.
    bool m_isAnnounced = false;
    bool m_isCloseStarted = false;  // our close frame is out, or the peer's is in
    bool m_isDead = false;          // killed, its close event is under way
    int m_closeStatus = 0;
    LoopClock::time_point m_closeAskedAt;
};

}  // namespace zenk_ws
