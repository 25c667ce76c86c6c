#include "platform/ws_connection.h"

#include <libwebsockets.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/ws_context.h"
#include "platform/ws_limits.h"
#include "platform/zenk_websockets.h"

namespace zenk_ws {

namespace {

constexpr std::size_t kMaxControlBytes = 125;  // RFC 6455, 5.5; libwebsockets takes no longer ones

/// @return the status that tells a peer what is wrong with its close frame (RFC 6455, 5.5.1 and 7.4); 0 if nothing is
int answerToClose(std::span<const std::uint8_t> body) {
    if (body.empty()) return 0;
    if (body.size() == 1) return LWS_CLOSE_STATUS_PROTOCOL_ERR;
    const int status = body[0] << 8 | body[1];
    const auto isBetween = [status](int first, int last) { return first <= status && status <= last; };
    if (!isBetween(1000, 1003) && !isBetween(1007, 1014) && !isBetween(3000, 4999)) {
        return LWS_CLOSE_STATUS_PROTOCOL_ERR;
    }
    Utf8Checker reason;
    return reason.feed(body.subspan(2)) && reason.isComplete() ? 0 : LWS_CLOSE_STATUS_INVALID_PAYLOAD;
}

}  // namespace

Connection::Connection(Context& context, ::lws* wsi, std::uint64_t serial)
    : m_context(context),
      m_wsi(wsi),
      m_serial(serial),
      m_recordFields(std::make_unique<std::uint8_t[]>(context.records().shape().fieldBytes())),
      m_queue(context.pool()) {
}

// ---------------------------------------------------------------- events

void Connection::onEstablished() {
    m_isAnnounced = true;
    onHeard();
    m_context.setPhase(*this, Phase::Open);
}

void Connection::onHeard() {
    m_heardAt = m_context.now();
    m_isPingOut = false;
}

bool Connection::onReceive(std::span<const std::uint8_t> piece) {
    onHeard();
    // Once its close was asked for, a peer is read for its answer only. What else it sends would pass by every hold.
    if (phase() != Phase::Open) return false;
    if (!m_isMessageBegun) {
        m_utf8 = Utf8Checker();
        m_isMessageBegun = true;
    }
    const bool isGood = ::lws_frame_is_binary(m_wsi) != 0 || checkText(piece);
    if (::lws_is_final_fragment(m_wsi) != 0) m_isMessageBegun = false;
    if (isGood) return true;
    startClose(LWS_CLOSE_STATUS_INVALID_PAYLOAD);
    return false;
}

bool Connection::checkText(std::span<const std::uint8_t> piece) {
    if (!m_utf8.feed(piece)) return false;
    return ::lws_is_final_fragment(m_wsi) == 0 || m_utf8.isComplete();
}

int Connection::onWriteable() {
    constexpr int kSendCloseFrame = -1;
    if (m_isCloseStarted) applyReading();  // libwebsockets comes once more when the close frame is out
    if (m_isCloseStarted || m_isDead) return 0;
    if (!pump() || m_closeStatus == 0) return 0;
    m_isCloseStarted = true;
    m_progressAt = m_context.exactNow();
    ::lws_close_reason(m_wsi, static_cast<lws_close_status>(m_closeStatus), nullptr, 0);
    return kSendCloseFrame;
}

/// libwebsockets would send back any frame that it does not know to be wrong, and only in another pass.
int Connection::onPeerClose(std::span<const std::uint8_t> body) {
    constexpr int kSendItBack = 0, kEndAtOnce = -1;
    const bool hasAllGone = pump();  // whole frames that were written before the peer's close came are still welcome
    const int status = answerToClose(body);
    if (hasAllGone) answerClose(status, body);
    endSending();
    return hasAllGone || status != 0 ? kEndAtOnce : kSendItBack;
}

/// @param status  what is wrong with the peer's frame; 0 if nothing is, and it gets the same back (RFC 6455, 5.5.1)
void Connection::answerClose(int status, std::span<const std::uint8_t> body) {
    const std::uint8_t complaint[] = {static_cast<std::uint8_t>(status >> 8), static_cast<std::uint8_t>(status)};
    if (status != 0) body = complaint;
    std::array<std::uint8_t, 2 + kMaxControlBytes> frame = {0x88, static_cast<std::uint8_t>(body.size())};
    std::ranges::copy(body, frame.begin() + 2);
    sendRaw({frame.data(), 2 + body.size()});
}

/// libwebsockets ends the connection of itself, perhaps with a close frame. Before that can leave, it may read once
/// more what came behind the request or was held back, and drop everything for the breach that it finds there again. So
/// it is kept from reading until then.
void Connection::onEnding() {
    if (m_isCloseStarted || m_isDead) return;
    pump();
    endSending();
    if (m_isDead || m_context.isStopping()) return;
    m_isReading = false;
    ::lws_rx_flow_control(m_wsi, 0);
}

void Connection::endSending() {
    m_isCloseStarted = true;
    m_progressAt = m_context.exactNow();
    m_context.setPhase(*this, Phase::Ended);
    m_queue.clear();
    releaseSenders();
    leaveHolders();
}

void Connection::onGone() {
    m_isCloseStarted = true;
    m_isDead = true;
    m_isAnnounced = false;
    m_context.setPhase(*this, Phase::Ended);
    m_queue.clear();
    m_inLibrary = 0;
    dropMessage();
    releaseSenders();
    leaveHolders();
}

// ---------------------------------------------------------------- the session record

void* Connection::borrowRecord() {
    if (m_record == nullptr) {
        m_record = m_context.records().take();
        m_record->setFields(m_recordFields.get());
    }
    return m_record->data();
}

void Connection::returnRecord() {
    if (m_isMessageBegun) {
        // The next event, whosever it is, needs another.
        if (m_context.records().refill()) return;
        _lws_log(kLogError, "ending a connection: no memory for the rest of its message\n");
        dropMessage();
        kill();
    }
    m_record->getFields(m_recordFields.get());
    m_context.records().giveBack(std::move(m_record));
}

/// The rest of it will not come.
void Connection::dropMessage() {
    m_isMessageBegun = false;
    if (m_record == nullptr) return;
    m_record->getFields(m_recordFields.get());
    m_record->clear();
    m_record->setFields(m_recordFields.get());
}

// ---------------------------------------------------------------- sending

void Connection::write(std::span<const std::uint8_t> payload, int type, Connection* sender) {
    const FrameHeader header = makeFrameHeader(payload.size(), type);
    const std::size_t frameBytes = header.size + payload.size();
    if (sender == nullptr) m_hostQueued += Context::hostMessageCost(payload.size());
    if (frameBytes < limits().earlyFlushBytes || !writeInPlace(header, payload, sender)) {
        m_queue.append(header, payload, limits().earlyFlushBytes);
        m_context.flushLater(*this);
        if (m_queue.bytes() >= limits().earlyFlushBytes && m_inLibrary == 0) m_context.flushThrough(*this);
    }
    if (sender != nullptr) limitBacklog(*sender);
}

/// Sends a large message from the sender's record, without a copy: the few bytes in front of it are lent for the
/// header.
bool Connection::writeInPlace(const FrameHeader& header, std::span<const std::uint8_t> payload,
                              const Connection* sender) {
    if (sender == nullptr || m_isDead) return false;
    std::uint8_t* const frame = const_cast<std::uint8_t*>(payload.data()) - header.size;
    const std::size_t frameBytes = header.size + payload.size();
    if (sender->m_record == nullptr || !sender->m_record->holds(frame, frameBytes)) return false;
    m_context.flushThrough(*this);
    if (!m_queue.isEmpty() || ::lws_partial_buffered(m_wsi) != 0) return false;

    std::uint8_t lent[FrameHeader::kMaxBytes];
    std::memcpy(lent, frame, header.size);
    std::memcpy(frame, header.bytes, header.size);
    sendRaw({frame, frameBytes});
    std::memcpy(frame, lent, header.size);
    return true;
}

/// Hands whole frames to libwebsockets, which keeps what the kernel does not take.
bool Connection::sendRaw(std::span<std::uint8_t> bytes) {
    m_progressAt = m_context.now();
    if (::lws_write(m_wsi, bytes.data(), bytes.size(), LWS_WRITE_RAW) < 0) {
        kill();
        return false;
    }
    m_inLibrary = ::lws_partial_buffered(m_wsi) != 0 ? bytes.size() : 0;
    if (m_inLibrary != 0) m_context.watch(*this);
    return true;
}

bool Connection::pump() {
    const bool hasAllGone = sendQueue();
    settleHostBytes();
    return hasAllGone;
}

bool Connection::sendQueue() {
    std::size_t turn = limits().turnBytes;
    // Never more than one raw write into what libwebsockets holds: a second one would corrupt the stream.
    while (!m_isDead && ::lws_partial_buffered(m_wsi) == 0) {
        m_inLibrary = 0;
        if (backlog() < limits().lowWaterBytes) releaseSenders();
        if (m_queue.isEmpty()) return true;
        if (turn == 0) {
            ::lws_callback_on_writable(m_wsi);
            return false;
        }
        const std::span<std::uint8_t> bytes = m_queue.front();
        turn -= std::min(turn, bytes.size());
        if (!sendRaw(bytes)) return false;
        m_queue.popFront();
    }
    return false;  // libwebsockets raises a writeable event when it has sent its rest
}

std::size_t Connection::backlog() const {
    return m_queue.bytes() + m_inLibrary;
}

void Connection::limitBacklog(Connection& sender) {
    const std::size_t mark = sender.m_hasPeerFinished ? limits().finishedSenderBytes : limits().highWaterBytes;
    if (backlog() > mark) holdSender(sender);
}

/// Frames of the host and of a partner wait in one queue; what is left of it counts as the host's up to what was.
void Connection::settleHostBytes() {
    const std::size_t left = std::min(m_hostQueued, backlog());
    if (left == m_hostQueued) return;
    m_context.takeOff(*this, m_hostQueued - left);
    m_hostQueued = left;
}

// ---------------------------------------------------------------- back-pressure

void Connection::holdSender(Connection& sender) {
    if (std::find(m_heldSenders.begin(), m_heldSenders.end(), &sender) != m_heldSenders.end()) return;
    sender.m_holders.reserve(sender.m_holders.size() + 1);  // both lists change, or none
    m_heldSenders.push_back(&sender);
    sender.m_holders.push_back(this);
    sender.applyReading();
}

void Connection::releaseSenders() {
    std::vector<Connection*> senders;
    senders.swap(m_heldSenders);
    for (Connection* const sender : senders) {
        std::erase(sender->m_holders, this);
        sender->applyReading();
    }
}

void Connection::leaveHolders() {
    for (Connection* const holder : m_holders) std::erase(holder->m_heldSenders, this);
    m_holders.clear();
    applyReading();
}

void Connection::setCallerHold(bool isHeld) {
    m_isCallerHold = isHeld;
    applyReading();
}

void Connection::setDeparting(bool isDeparting) {
    // A reason that libwebsockets has for another protocol, and keeps apart from ours of applyReading().
    constexpr int kReason = LWS_RXFLOW_REASON_H2_PPS_PENDING;
    const int change = isDeparting ? LWS_RXFLOW_REASON_APPLIES_DISABLE : LWS_RXFLOW_REASON_APPLIES_ENABLE;
    if (::lws_rx_flow_control(m_wsi, change | kReason) < 0) kill();
}

int Connection::socket() const {
    return ::lws_get_socket_fd(m_wsi);
}

void Connection::applyReading() {
    // A connection that is to be closed is read, or the peer's answer would never be seen.
    const bool isWanted = phase() != Phase::Open || (!m_isCallerHold && m_holders.empty());
    if (isWanted == m_isReading || m_isDead) return;
    m_isReading = isWanted;
    onHeard();  // its silence so far was ours
    if (::lws_rx_flow_control(m_wsi, isWanted ? 1 : 0) < 0) {
        kill();
        return;
    }
    if (isWanted) return;
    askForKeepAlive();
    m_context.watch(*this);
}

// ---------------------------------------------------------------- closing

void Connection::startClose(int status) {
    if (m_closeStatus != 0 || m_isDead || m_isCloseStarted) return;
    m_closeStatus = status;
    m_closeAskedAt = m_progressAt = m_context.exactNow();
    m_context.setPhase(*this, Phase::Closing);
    releaseSenders();
    applyReading();
    if (m_context.isStopping()) return;
    ::lws_callback_on_writable(m_wsi);
    m_context.watch(*this);
}

void Connection::kill() {
    if (m_isDead) return;
    m_isDead = true;
    m_context.setPhase(*this, Phase::Ended);
    ::lws_set_timeout(m_wsi, static_cast<pending_timeout>(PENDING_TIMEOUT_USER_REASON_BASE), LWS_TO_KILL_ASYNC);
}

}  // namespace zenk_ws
