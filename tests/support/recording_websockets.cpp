#include "tests/support/recording_websockets.h"

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <mutex>
#include <utility>

namespace {

struct Connection {
    int socketFd;
    std::optional<std::string> path, query;
    bool isOpen = true, isFinal = true, isBinary = false;
};

struct Layer {
    std::deque<Connection> connections;
    std::vector<zenk_test::Action> actions;
    std::vector<std::string> trace;
    std::optional<int> writeResult;
    std::function<int()> service = [] { return -1; };
    zenk_ws::lws_context_creation_info info = {};
    int misdirected = 0;
    bool isRecording = true, canListen = true;
};

std::mutex g_mutex;  // guards g_layer
Layer g_layer;

using Lock = std::lock_guard<std::mutex>;

Connection& connectionOf(lws* wsi) {
    return *reinterpret_cast<Connection*>(wsi);
}

void record(zenk_test::Action::Kind kind, lws* wsi, int code, const void* data = nullptr, int length = 0) {
    if (wsi != nullptr && !connectionOf(wsi).isOpen) ++g_layer.misdirected;
    if (!g_layer.isRecording) return;
    g_layer.actions.push_back({kind, wsi, code, std::string(static_cast<const char*>(data), std::size_t(length))});
}

void traceCall(std::string line) {
    const Lock lock(g_mutex);
    g_layer.trace.push_back(std::move(line));
}

}  // namespace

namespace zenk_test {

lws* openConnection(int socketFd, std::optional<std::string> path, std::optional<std::string> query) {
    const Lock lock(g_mutex);
    return reinterpret_cast<lws*>(&g_layer.connections.emplace_back(Connection{socketFd, std::move(path), query}));
}

void markClosed(lws* wsi) {
    const Lock lock(g_mutex);
    connectionOf(wsi).isOpen = false;
}

void setFragment(lws* wsi, bool isFinal, bool isBinary) {
    connectionOf(wsi).isFinal = isFinal;
    connectionOf(wsi).isBinary = isBinary;
}

std::vector<Action> takeActions() {
    const Lock lock(g_mutex);
    return std::exchange(g_layer.actions, {});
}

std::vector<std::string> takeLayerTrace() {
    const Lock lock(g_mutex);
    return std::exchange(g_layer.trace, {});
}

int misdirectedActions() {
    const Lock lock(g_mutex);
    return g_layer.misdirected;
}

void setWriteResult(std::optional<int> n) {
    g_layer.writeResult = n;
}
void setRecording(bool isOn) {
    g_layer.isRecording = isOn;
}
void setListening(bool succeeds) {
    g_layer.canListen = succeeds;
}
void setService(std::function<int()> body) {
    g_layer.service = std::move(body);
}
const zenk_ws::lws_context_creation_info& lastCreationInfo() {
    return g_layer.info;
}

void resetLayer() {
    const Lock lock(g_mutex);
    g_layer = Layer();
}

}  // namespace zenk_test

namespace zenk_ws {

struct lws_context {};

lws_context* lws_create_context(const lws_context_creation_info* info) {
    static lws_context context;
    traceCall("create");
    g_layer.info = *info;
    return g_layer.canListen ? &context : nullptr;
}

int lws_service(lws_context* /*context*/, int timeoutMs) {
    traceCall("service " + std::to_string(timeoutMs));
    return g_layer.service();
}

void lws_context_destroy(lws_context* /*context*/) {
    traceCall("destroy");
}

int lws_write(::lws* wsi, const void* data, int length, int type) {
    const Lock lock(g_mutex);
    record(zenk_test::Action::kWrite, wsi, type, data, length);
    return g_layer.writeResult.value_or(length);
}

int lws_close(::lws* wsi, int status) {
    const Lock lock(g_mutex);
    record(zenk_test::Action::kClose, wsi, status);
    return 0;
}

int lws_rx_flow_control(::lws* wsi, int enable) {
    const Lock lock(g_mutex);
    record(zenk_test::Action::kReception, wsi, enable);
    return 0;
}

int lws_get_socket_fd(::lws* wsi) {
    return connectionOf(wsi).socketFd;
}

const char* lws_hdr_simple_ptr(::lws* wsi, int token) {
    const std::optional<std::string>& header = token == kTokenPath ? connectionOf(wsi).path : connectionOf(wsi).query;
    return header ? header->c_str() : nullptr;
}

int lws_is_final_fragment(::lws* wsi) {
    return connectionOf(wsi).isFinal ? 1 : 0;
}
int lws_frame_is_binary(::lws* wsi) {
    return connectionOf(wsi).isBinary ? 1 : 0;
}

void lws_set_log_level(int level, void (*emit)(int level, const char* line)) {
    traceCall("log level " + std::to_string(level) + (emit == lwsl_emit_syslog ? " to syslog" : ""));
}

void lwsl_emit_syslog(int /*level*/, const char* /*line*/) {
}

void _lws_log(int level, const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    traceCall("log " + std::to_string(level) + " " + line);
}

}  // namespace zenk_ws
