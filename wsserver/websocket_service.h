#pragma once

#include <cstddef>
#include <cstdint>

#include "log/zenk_export.h"

/// @file
/// The WebSocket service: one object hears of all connections that one thread serves.

struct lws;

/// Free bytes in front of every payload area, as the WebSocket library wants them (LWS_PRE).
inline constexpr std::size_t kSessionHeadroom = 16;

/// The longest message that reaches a Client. What goes beyond is dropped; the connection stays open.
inline constexpr std::size_t kMaxMessageBytes = 131072;

/// What the server keeps of one connection while a message is gathered. The WebSocket layer owns it: it comes
/// zero-filled with the connection's first event and is gone after the close event. Only the service thread touches it.
/// The payload area, `buf` from index kSessionHeadroom on, is all zero outside a message in progress, so a delivered
/// message that is shorter than the area is followed by a zero byte.
struct ClientSessionData {
    std::uint32_t rx;  ///< bytes of the current message gathered so far
    std::uint32_t tx;  ///< running total of bytes that the writeable event has sent
    /// Headroom, then the payload area.
    unsigned char buf[kSessionHeadroom + kMaxMessageBytes];
    std::int32_t len;           ///< length of the last fragment; -1 once the writeable event has sent it
    std::int32_t final;         ///< non-zero: the last fragment ended its message
    std::int32_t continuation;  ///< non-zero: the writeable event has begun a message and not ended it
    std::int32_t binary;        ///< non-zero: the last fragment belongs to a binary message
};

/// Receiver of WebSocket events: one object serves all connections of startWebSocketServer(). As it stands it lets
/// every handshake pass and drops every message; derive from it and override what you need.
///
/// All virtual operations run on the service thread, the thread inside startWebSocketServer(), one at a time, and for
/// one connection in the order onFilterConnection, onConnect, any number of onMessage, onClose. They should not block:
/// every connection waits meanwhile. An exception that leaves one is caught, reported to syslog and otherwise ignored
/// (a handshake under way is refused with 503).
///
/// The slots and data members are a binary contract: their order stays.
class ZENK_API Client {
public:
    /// The handshake of `m_wsi` is under way.
    /// @return 0 to let it go on. Anything else refuses it: 400 to 599 is the HTTP status (RFC 9110) that the client
    ///         gets, every other value becomes 403
    virtual int onFilterConnection();

    /// `m_wsi` is a WebSocket connection (RFC 6455) from now on.
    virtual void onConnect();

    /// One whole message arrived on `m_wsi`.
    /// @param message  the payload, not null; it lies in the session record, is not copied, and is good only during
    ///                 this call. A message below kMaxMessageBytes is followed by a zero byte
    /// @param length   0 to kMaxMessageBytes bytes. A longer message is cut to that; a text message then ends with its
    ///                 last whole UTF-8 character
    /// @param binary   true for a binary message, false for text
    virtual void onMessage(unsigned char* message, int length, bool binary);

    /// `m_wsi` has closed, for whatever reason; comes exactly once for each connection that was established.
    /// @return passed on to the WebSocket layer, which ignores it
    virtual int onClose();

    virtual ~Client();

    /// The connection of the event in hand. Written before every event by the service thread, valid only inside a
    /// virtual operation and only there; null before the first event.
    lws* m_wsi = nullptr;

    /// The session record of the event in hand, with the same rules; null for events outside a connection.
    ClientSessionData* m_sessionData = nullptr;

    /// What the WebSocket layer gave as socket number when a TCP connection last came in, before its handshake: the
    /// event carries the listening socket, so it is that one's number and never the new connection's. Service thread.
    int m_socketFd = 0;
};

/// Serves WebSocket connections on all interfaces until SIGINT, sighandler() or a failure of the service loop: the
/// calling thread is the service thread until then. Open connections get status 1001 when it ends.
///
/// Changes of the whole process: SIGPIPE is ignored, SIGINT gets sighandler() (and keeps it after the return), syslog
/// is opened under the name "lwsts", and descriptors 0 to 2 are opened on the null device where they are closed.
///
/// @param port    TCP port to listen on, 1 to 65535. The URLs of MediaSyncServer name `m_port`, which the host sets too
/// @param client  receiver of all events; not null, stays the caller's and must outlive the call
/// @return 0 when the service loop has ended, -1 when the port cannot be served (a line goes to syslog). After a stop
///         the server stays stopped: a further call in this process opens the port, closes it and returns 0
/// @thread any one thread; blocks. Only one call at a time in a process. pthread_cancel() ends the thread, and the
///         service as above, when the event in hand is done with; a new call may then serve again. A virtual operation
///         must not end the thread itself, by pthread_exit() or otherwise
ZENK_API int startWebSocketServer(int port, Client* client);

/// Asks a running startWebSocketServer() to return, which it does within about 10 ms (plus 100 ms of goodbyes to open
/// connections). There is no way back within the process.
/// @param signal  any value; it is not looked at
/// @thread any, and signal handlers; never blocks
ZENK_API void sighandler(int signal);
