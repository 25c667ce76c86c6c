#pragma once

#include <cstddef>
#include <cstdint>

struct lws;

/// Our layer over libwebsockets: the operations that the service loop and the registry rely on, with the names that
/// libwebsockets gave them, and with the promises that the published library does not keep.
///
/// - One call of lws_write() is one whole frame; it may come from any thread; frames of one connection leave in the
///   order of the calls. What is written during a service pass leaves once, when the pass ends.
/// - A stalled reader slows its sender down instead of filling memory.
/// - Each established connection gets exactly one close event, never from inside the call that asked for the close.
///   A refused one gets none.
/// - A dead `lws*` is recognised and ignored, never touched. Its address may be used again by a newer connection, so a
///   thread other than the service thread must hold whatever lock keeps its owner from forgetting the old one.
///
/// Always called qualified (`zenk_ws::lws_write`), so that the names never collide with the published C functions.
/// The thread inside lws_service() is called the service thread; unless said otherwise an operation is for it alone.
namespace zenk_ws {

/// Event numbers, as libwebsockets numbers them. Others may exist; a callback answers them with 0.
inline constexpr int kEventEstablished = 0;
inline constexpr int kEventClosed = 4;
inline constexpr int kEventReceive = 6;
inline constexpr int kEventServerWriteable = 11;  ///< never sent by this layer
inline constexpr int kEventFilterNetworkConnection = 17;
inline constexpr int kEventFilterProtocolConnection = 20;
inline constexpr int kEventClientConfirmExtension = 26;

/// Frame types of lws_write().
inline constexpr int kWriteText = 0;
inline constexpr int kWriteBinary = 1;
inline constexpr int kWriteContinuation = 2;
inline constexpr int kWriteNoFin = 64;  ///< flag: more fragments follow

/// Header tokens of lws_hdr_simple_ptr().
inline constexpr int kTokenPath = 0;
inline constexpr int kTokenQuery = 76;

/// Bytes that libwebsockets wants free in front of a payload.
inline constexpr std::size_t kHeadroom = 16;

/// WebSocket option bit: text messages are checked for UTF-8 (RFC 6455, 8.1). The layer does it itself.
inline constexpr std::uint64_t kOptionValidateUtf8 = 256;

/// Log levels of libwebsockets, as a mask.
inline constexpr int kLogError = 1;
inline constexpr int kLogWarning = 2;
inline constexpr int kLogNotice = 4;

/// `user` is the connection's session record, for the time of the event; null for kEventFilterNetworkConnection.
/// For kEventFilterProtocolConnection a non-zero result refuses the handshake: 400 to 599 is the HTTP status that the
/// client gets, anything else becomes 403. The results of the other events are ignored.
using EventCallback = int (*)(::lws* wsi, int reason, void* user, void* in, std::size_t len);

struct lws_protocols {
    const char* name;
    EventCallback callback;
    std::size_t per_session_data_size;  ///< record of each connection, zero-filled, owned by the layer
    std::size_t rx_buffer_size;         ///< the layer reads at least this much at once
    unsigned int id;
    void* user;
    /// The part of the record that the callback keeps zero outside a message. It is no connection's own: the layer
    /// lends it, zero-filled, to whose message is in progress.
    std::size_t message_area_offset;
    std::size_t message_area_size;
};

struct lws_context_creation_info {
    int port;
    const char* iface;
    const lws_protocols* protocols;  ///< ends with an all-zero entry; the first one is served; outlives the context
    int gid;
    int uid;
    std::uint64_t options;
};

struct lws_context;  ///< opaque, owned by the layer

/// @return the context, or null when the port cannot be served. Ignores SIGPIPE for the whole process.
lws_context* lws_create_context(const lws_context_creation_info* info);

/// Serves what has happened; waits about `timeoutMs` at most when nothing does (10 is the only value that is used).
/// @return negative when the loop cannot go on
int lws_service(lws_context* context, int timeoutMs);

/// Says goodbye with status 1001 to every open connection (100 ms at most), then frees everything. Each connection's
/// close event comes once, from inside this call.
void lws_context_destroy(lws_context* context);

/// Sends one frame. @thread any. `data` may be null when `length` is 0; it is copied or sent before return.
/// @return bytes taken, or negative when `wsi` is not an open connection or its close was asked for
int lws_write(::lws* wsi, const void* data, int length, int type);

/// Starts a closing handshake with `status`, after what is already queued. @thread any. Repeats are ignored: the first
/// status wins. A peer that does not answer is cut after a while, and one whose close finds no memory at once.
/// @return 0
int lws_close(::lws* wsi, int status);

/// Reception of a connection on (1) or off (0). @thread any. @return 0
int lws_rx_flow_control(::lws* wsi, int enable);

/// @return the socket number of the connection of the current event, the same in all its events
int lws_get_socket_fd(::lws* wsi);

/// Path (token 0) or query (token 76) of the request, whole and decoded as libwebsockets gives it; null if absent.
/// A query whose last piece is a "/" alone ("/", "a=1&/") comes without it: libwebsockets says the same of an empty
/// one. For the filter and established events only; the text belongs to the layer.
const char* lws_hdr_simple_ptr(::lws* wsi, int token);

/// In a receive event: non-zero for the last fragment of a message, for a binary message.
int lws_is_final_fragment(::lws* wsi);
int lws_frame_is_binary(::lws* wsi);

void lws_set_log_level(int level, void (*emit)(int level, const char* line));
void lwsl_emit_syslog(int level, const char* line);
void _lws_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zenk_ws
