#include "tests/support/front_end.h"

#include <mutex>

static std::mutex g_mutex;
static std::vector<zenk_test::Action> g_actions;  // guarded by g_mutex

static int record(zenk_test::Action action) {
    const std::lock_guard lock(g_mutex);
    EXPECT_TRUE(action.wsi->isOpen) << "reached a connection that has gone";
    g_actions.push_back(std::move(action));
    return 0;
}

std::vector<zenk_test::Action> zenk_test::takeActions() {
    const std::lock_guard lock(g_mutex);
    return std::exchange(g_actions, {});
}

namespace zenk_ws {

using zenk_test::Action;

lws_context* lws_create_context(const lws_context_creation_info* info) {
    zenk_test::g_raise = info->protocols[0].callback;
    return reinterpret_cast<lws_context*>(&zenk_test::g_raise);
}

int lws_service(lws_context* /*context*/, int /*timeoutMs*/) {
    return -1;
}

void lws_context_destroy(lws_context* /*context*/) {
}

int lws_write(::lws* wsi, const void* data, int length, int type) {
    record({Action::kWrite, wsi, type, {static_cast<const char*>(data), static_cast<std::size_t>(length)}});
    return zenk_test::g_writeResult.value_or(length);
}

int lws_close(::lws* wsi, int status) {
    return record({Action::kClose, wsi, status, ""});
}

int lws_rx_flow_control(::lws* wsi, int enable) {
    if (enable == 0 && zenk_test::g_onHold) zenk_test::g_onHold();
    return record({Action::kReception, wsi, enable, ""});
}

int lws_get_socket_fd(::lws* wsi) {
    return wsi->socketFd;
}

const char* lws_hdr_simple_ptr(::lws* wsi, int token) {
    return token == kTokenPath ? wsi->uri.c_str() : nullptr;
}

int lws_is_final_fragment(::lws* wsi) {
    return wsi->isFinal ? 1 : 0;
}

int lws_frame_is_binary(::lws* /*wsi*/) {
    return 0;
}

void lws_set_log_level(int /*level*/, void (* /*emit*/)(int level, const char* line)) {
}

void lwsl_emit_syslog(int /*level*/, const char* /*line*/) {
}

void _lws_log(int /*level*/, const char* /*format*/, ...) {
}

}  // namespace zenk_ws
