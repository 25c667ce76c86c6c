#include "platform/zenk_websockets.h"

#include <libwebsockets.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "platform/ws_context.h"

// The names stay those of libwebsockets; its own are reached with a leading "::".
namespace zenk_ws {

static_assert(kHeadroom == LWS_PRE);
static_assert(kOptionValidateUtf8 == LWS_SERVER_OPTION_VALIDATE_UTF8);
static_assert(kTokenPath == WSI_TOKEN_GET_URI && kTokenQuery == WSI_TOKEN_HTTP_URI_ARGS);
static_assert(kEventEstablished == LWS_CALLBACK_ESTABLISHED && kEventClosed == LWS_CALLBACK_CLOSED);
static_assert(kEventReceive == LWS_CALLBACK_RECEIVE && kEventServerWriteable == LWS_CALLBACK_SERVER_WRITEABLE);
static_assert(kEventFilterNetworkConnection == LWS_CALLBACK_FILTER_NETWORK_CONNECTION);
static_assert(kEventFilterProtocolConnection == LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION);
static_assert(kEventClientConfirmExtension == LWS_CALLBACK_CLIENT_CONFIRM_EXTENSION_SUPPORTED);
static_assert(kWriteText == LWS_WRITE_TEXT && kWriteBinary == LWS_WRITE_BINARY);
static_assert(kWriteContinuation == LWS_WRITE_CONTINUATION && kWriteNoFin == LWS_WRITE_NO_FIN);
static_assert(kLogError == LLL_ERR && kLogWarning == LLL_WARN && kLogNotice == LLL_NOTICE);

struct lws_context {
    std::unique_ptr<Context> context;
};

namespace {

/// No exception leaves the layer. What fails here is memory, and it is told like any other failure.
template <typename Operation>
int guarded(Operation&& operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        _lws_log(kLogError, "%s\n", error.what());
        return -1;
    }
}

bool isFrameType(int type) {
    const int kind = type & ~kWriteNoFin;
    return kind == kWriteText || kind == kWriteBinary || kind == kWriteContinuation;
}

/// A connection of the context that the calling thread serves, or null: then the call comes from another thread, or
/// names a connection that has gone.
Connection* servedConnection(::lws* wsi) {
    Context* const context = Context::current();
    return context == nullptr ? nullptr : context->find(wsi);
}

using EmitLine = void (*)(int level, const char* line);
std::atomic<EmitLine> g_emit{nullptr};  // libwebsockets' log is one for the process, and so is this

/// The libev plug-in writes a notice whenever it changes what it waits for, several for each connection and more under
/// load. Those would be most of a receiver's system log.
void emitUnlessChatter(int level, const char* line) {
    const EmitLine emit = g_emit.load(std::memory_order_relaxed);
    const bool isChatter = level == LLL_NOTICE && std::strncmp(line, "elops_", 6) == 0;
    if (emit != nullptr && !isChatter) emit(level, line);
}

}  // namespace

lws_context* lws_create_context(const lws_context_creation_info* info) {
    // libwebsockets takes -1 for "serve nothing", and of other numbers the lower half.
    if (info->port < 0 || info->port > 65535) {
        _lws_log(kLogError, "there is no port %d\n", info->port);
        return nullptr;
    }
    try {
        std::unique_ptr<Context> context = Context::create(*info);
        return context == nullptr ? nullptr : new lws_context{std::move(context)};
    } catch (const std::exception& error) {
        _lws_log(kLogError, "%s\n", error.what());
        return nullptr;
    }
}

int lws_service(lws_context* context, int) {
    return guarded([&] { return context->context->service() ? 0 : -1; });
}

void lws_context_destroy(lws_context* context) {
    delete context;
}

int lws_write(::lws* wsi, const void* data, int length, int type) {
    if (length < 0 || (data == nullptr && length > 0) || !isFrameType(type)) return -1;
    const std::span payload(static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length));
    return guarded([&] {
        Connection* const connection = servedConnection(wsi);
        return connection != nullptr ? Context::current()->write(*connection, payload, type)
                                     : Context::postWrite(wsi, payload, type);
    });
}

int lws_close(::lws* wsi, int status) {
    return guarded([&] {
        Connection* const connection = servedConnection(wsi);
        if (connection != nullptr) {
            Context::current()->close(*connection, status);
        } else {
            Context::postClose(wsi, status);
        }
        return 0;
    });
}

int lws_rx_flow_control(::lws* wsi, int enable) {
    return guarded([&] {
        Connection* const connection = servedConnection(wsi);
        if (connection != nullptr) {
            Context::current()->setReading(*connection, enable != 0);
        } else {
            Context::postReading(wsi, enable != 0);
        }
        return 0;
    });
}

int lws_get_socket_fd(::lws* wsi) {
    return ::lws_get_socket_fd(wsi);
}

const char* lws_hdr_simple_ptr(::lws* wsi, int token) {
    Connection* const connection = servedConnection(wsi);
    if (connection == nullptr || !connection->target()) return nullptr;
    const RequestTarget& target = *connection->target();
    const std::optional<std::string>& text = token == kTokenPath ? target.path : target.query;
    const bool isKnown = token == kTokenPath || token == kTokenQuery;
    return isKnown && text ? text->c_str() : nullptr;
}

int lws_is_final_fragment(::lws* wsi) {
    return ::lws_is_final_fragment(wsi);
}

int lws_frame_is_binary(::lws* wsi) {
    return ::lws_frame_is_binary(wsi);
}

void lws_set_log_level(int level, void (*emit)(int level, const char* line)) {
    g_emit.store(emit, std::memory_order_relaxed);
    ::lws_set_log_level(level, emit == nullptr ? nullptr : emitUnlessChatter);
}

void lwsl_emit_syslog(int level, const char* line) {
    ::lwsl_emit_syslog(level, line);
}

void _lws_log(int level, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    ::_lws_logv(level, format, arguments);
    va_end(arguments);
}

}  // namespace zenk_ws
