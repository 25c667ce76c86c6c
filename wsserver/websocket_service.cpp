#include "wsserver/websocket_service.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>

#include "platform/cancellation.h"
#include "platform/scope_exit.h"
#include "platform/statuses.h"
#include "platform/utf8_cut.h"
#include "platform/zenk_websockets.h"
#include "wsserver/constants.h"

static_assert(kSessionHeadroom == zenk_ws::kHeadroom);

namespace {

constexpr int kServiceWaitMs = 10;  // also how long a stop may go unnoticed

Client* g_client = nullptr;       // written by startWebSocketServer before it serves, read on the service thread
std::atomic<int> g_forceExit{0};  // set by sighandler, never cleared
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

unsigned char* payloadOf(ClientSessionData& session) {
    return session.buf + kSessionHeadroom;
}

// A length that is kept for others to read must not turn negative, whatever a peer sends.
template <typename Target, typename Value>
Target clampedTo(Value value) {
    return static_cast<Target>(std::min<std::uint64_t>(value, std::numeric_limits<Target>::max()));
}

/// Only what the message wrote needs clearing: the rest of the record is zero already.
void bringToRest(ClientSessionData& session) {
    std::memset(payloadOf(session), 0, std::min<std::size_t>(session.rx, kMaxMessageBytes));
    session.rx = 0;
}

void appendFragment(ClientSessionData& session, const void* in, std::size_t len) {
    if (session.rx > kMaxMessageBytes) {
        std::puts("#####, receive max length playload data!");
        session.rx = kMaxMessageBytes;
    }
    // `rx` goes on counting what arrives, so that the next fragment of an overlong message is reported too.
    const std::size_t kept = std::min<std::size_t>(len, kMaxMessageBytes - session.rx);
    if (kept > 0) std::memcpy(payloadOf(session) + session.rx, in, kept);
    session.len = clampedTo<std::int32_t>(len);
    session.rx = clampedTo<std::uint32_t>(std::uint64_t{session.rx} + len);
}

void deliverMessage(ClientSessionData& session) {
    const zenk::ScopeExit end([&session] { bringToRest(session); });
    unsigned char* const message = payloadOf(session);
    std::size_t length = std::min<std::size_t>(session.rx, kMaxMessageBytes);
    // A text that was cut must not end inside a character, or its relay would be an invalid frame. One that just fills
    // the area may have been cut too: the next fragment has set `rx` back. A whole one ends with a character anyway.
    if (session.rx >= kMaxMessageBytes && session.binary == 0) {
        length = wholeUtf8Length(message, length);
        std::memset(message + length, 0, kMaxMessageBytes - length);
    }
    g_client->onMessage(message, static_cast<int>(length), session.binary != 0);
}

int onReceive(lws* wsi, ClientSessionData* session, const void* in, std::size_t len) {
    if (session == nullptr) return 0;
    session->final = zenk_ws::lws_is_final_fragment(wsi);
    session->binary = zenk_ws::lws_frame_is_binary(wsi);
    appendFragment(*session, in, len);
    if (session->final != 0) deliverMessage(*session);
    return 0;
}

int nextFrameType(ClientSessionData& session) {
    int type = zenk_ws::kWriteContinuation;
    if (session.continuation == 0) {
        session.continuation = 1;
        type = session.binary != 0 ? zenk_ws::kWriteBinary : zenk_ws::kWriteText;
    }
    return session.final != 0 ? type : type | zenk_ws::kWriteNoFin;
}

// Sends the last fragment back. Nothing here asks for this event.
int onWriteable(lws* wsi, ClientSessionData* session) {
    if (session == nullptr || session->len <= 0) return 0;
    const int length = std::min(session->len, static_cast<std::int32_t>(kMaxMessageBytes));
    const int type = nextFrameType(*session);
    session->tx += static_cast<std::uint32_t>(length);
    const int n = zenk_ws::lws_write(wsi, payloadOf(*session), length, type);
    if (n < 0) {
        zenk_ws::_lws_log(zenk_ws::kLogError, "ERROR %d writing to socket, hanging up\n", n);
        return 1;
    }
    if (n < length) {
        zenk_ws::_lws_log(zenk_ws::kLogError, "Partial write\n");
        return -1;
    }
    session->len = -1;
    if (session->final != 0) session->continuation = 0;
    zenk_ws::lws_rx_flow_control(wsi, 1);
    return 0;
}

int confirmExtension(const void* name) {
    return name != nullptr && std::strcmp(static_cast<const char*>(name), "permessage-deflate") == 0 ? 0 : 1;
}

int dispatchEvent(lws* wsi, int reason, void* user, void* in, std::size_t len) {
    g_client->m_wsi = wsi;
    g_client->m_sessionData = static_cast<ClientSessionData*>(user);
    switch (reason) {
        case zenk_ws::kEventEstablished:
            g_client->onConnect();
            return 0;
        case zenk_ws::kEventClosed:
            return g_client->onClose();
        case zenk_ws::kEventReceive:
            return onReceive(wsi, g_client->m_sessionData, in, len);
        case zenk_ws::kEventServerWriteable:
            return onWriteable(wsi, g_client->m_sessionData);
        case zenk_ws::kEventFilterNetworkConnection:
            g_client->m_socketFd = zenk_ws::lws_get_socket_fd(wsi);
            return 0;
        case zenk_ws::kEventFilterProtocolConnection:
            return g_client->onFilterConnection();
        case zenk_ws::kEventClientConfirmExtension:
            return confirmExtension(in);
        default:
            return 0;
    }
}

// A connection whose admission could not be decided is refused, and one that could not be registered is closed, since
// nobody would hear of it; all else goes on.
int resultAfterException(lws* wsi, int reason, const char* what) {
    zenk_ws::_lws_log(zenk_ws::kLogError, "event %d ended with an exception: %s\n", reason, what);
    if (reason == zenk_ws::kEventEstablished) zenk_ws::lws_close(wsi, zenk::kStatusInternalError);
    return reason == zenk_ws::kEventFilterProtocolConnection ? zenk::kHttpUnavailable : 0;
}

// The unwinding of a thread that ends is no C++ object; the compiler's check for null references would misfire on it.
__attribute__((no_sanitize("null"))) int webSocketCallback(lws* wsi, int reason, void* user, void* in,
                                                           std::size_t len) {
    try {
        return dispatchEvent(wsi, reason, user, in, len);
    } catch (const std::exception& error) {
        return resultAfterException(wsi, reason, error.what());
    } catch (const abi::__forced_unwind&) {
        throw;  // the host ends its thread here, and nobody can hold it
    } catch (...) {
        return resultAfterException(wsi, reason, "unknown");
    }
}

const zenk_ws::lws_protocols webSocketProtocols[] = {
    {"", webSocketCallback, sizeof(ClientSessionData), kMaxMessageBytes, 0, nullptr, offsetof(ClientSessionData, buf),
     sizeof(ClientSessionData::buf)},
    {},
};

// A connection on one of them would get what the process prints; and pairing takes socket number 0 for "no socket".
void occupyStandardDescriptors() {
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(standard, F_GETFD) != -1 || errno != EBADF) continue;
        const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (fd > standard) ::close(fd);  // another thread was faster
    }
}

zenk_ws::lws_context_creation_info creationInfo(int port) {
    zenk_ws::lws_context_creation_info info = {};
    info.port = port;
    info.protocols = webSocketProtocols;
    info.gid = -1;
    info.uid = -1;
    info.options = zenk_ws::kOptionValidateUtf8;
    return info;
}

}  // namespace

int Client::onFilterConnection() {
    return 0;
}

void Client::onConnect() {
}

void Client::onMessage(unsigned char* /*message*/, int /*length*/, bool /*binary*/) {
}

int Client::onClose() {
    return 0;
}

Client::~Client() = default;

void sighandler(int /*signal*/) {
    g_forceExit.store(1);
}

int startWebSocketServer(int port, Client* client) {
    // A cancellation waits for the end of a pass: inside one, libwebsockets is in the middle of something.
    const zenk::Cancellation none(PTHREAD_CANCEL_DISABLE);
    g_client = client;
    occupyStandardDescriptors();
    setlogmask(255);  // every priority
    openlog("lwsts", LOG_PID | LOG_PERROR, LOG_DAEMON);
    zenk_ws::lws_set_log_level(zenk_ws::kLogError | zenk_ws::kLogWarning | zenk_ws::kLogNotice,
                               zenk_ws::lwsl_emit_syslog);

    const zenk_ws::lws_context_creation_info info = creationInfo(port);
    zenk_ws::lws_context* const context = zenk_ws::lws_create_context(&info);
    if (context == nullptr) {
        zenk_ws::_lws_log(zenk_ws::kLogError, "libwebsocket init failed\n");
        return -1;
    }
    const zenk::ScopeExit end([context] {
        zenk_ws::lws_context_destroy(context);
        closelog();
    });
    std::signal(SIGINT, sighandler);
    while (g_forceExit.load() == 0) {
        if (zenk_ws::lws_service(context, kServiceWaitMs) < 0) break;
        zenk::endHereIfCancelled(none.before());
    }
    return 0;
}
