#include "tests/platform/layer_server.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace zenk_test {

LayerServer* LayerServer::s_server = nullptr;

namespace {

/// The session record: a message is gathered behind a headroom, as the service loop does it.
struct Record {
    std::size_t used;
    bool isBegun;
    unsigned char headroom[zenk_ws::kHeadroom];
    unsigned char payload[131072];
};

bool isClean(const Record& record) {
    const auto isZero = [](unsigned char byte) { return byte == 0; };
    return record.used == 0 && !record.isBegun && std::all_of(record.payload, std::end(record.payload), isZero);
}

std::string textOf(const char* text) {
    return text == nullptr ? "-" : text;
}

}  // namespace

LayerServer::LayerServer(int port) : m_protocols{} {
    s_server = this;
    zenk_ws::lws_set_log_level(0, nullptr);
    m_protocols[0].name = "";
    m_protocols[0].callback = onEvent;
    m_protocols[0].per_session_data_size = sizeof(Record);
    m_protocols[0].rx_buffer_size = 131072;
    m_protocols[0].message_area_offset = offsetof(Record, headroom);
    m_protocols[0].message_area_size = sizeof(Record::headroom) + sizeof(Record::payload);
    zenk_ws::lws_context_creation_info info{};
    info.port = port;
    info.protocols = m_protocols;
    info.gid = info.uid = -1;
    info.options = zenk_ws::kOptionValidateUtf8;
    m_context = zenk_ws::lws_create_context(&info);
    if (m_context != nullptr) m_thread = std::thread([this] { serve(); });
}

void LayerServer::stop() {
    if (!m_thread.joinable()) return;
    m_isStopping = true;
    m_thread.join();
}

void LayerServer::serve() {
    while (!m_isStopping && zenk_ws::lws_service(m_context, 10) >= 0) {
    }
    zenk_ws::lws_context_destroy(m_context);
}

LayerServer::Counts LayerServer::counts() {
    const std::lock_guard lock(m_mutex);
    return m_counts;
}

std::string LayerServer::lastTarget() {
    const std::lock_guard lock(m_mutex);
    return m_lastTarget;
}

lws* LayerServer::connection(const std::string& path) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_live.find(path);
    return found == m_live.end() ? nullptr : found->second;
}

int LayerServer::onEvent(lws* wsi, int reason, void* user, void* in, std::size_t len) {
    LayerServer& self = *s_server;
    if (reason == zenk_ws::kEventFilterProtocolConnection) return self.filter(wsi, user);
    if (reason == zenk_ws::kEventReceive) {
        self.relay(wsi, user, in, len);
        return 0;
    }
    const std::lock_guard lock(self.m_mutex);
    if (reason == zenk_ws::kEventEstablished) {
        ++self.m_counts.established;
        const std::string path = textOf(zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenPath));
        self.m_paths[wsi] = path;
        self.m_live[path] = wsi;
        self.checkRecord(user);
    }
    if (reason == zenk_ws::kEventClosed) {
        ++self.m_counts.closed;
        const auto path = self.m_paths.extract(wsi);
        if (path.empty()) {
            ++self.m_counts.closedUnannounced;
        } else {
            lws* const partner = self.partnerOf(path.mapped());
            self.m_live.erase(path.mapped());
            if (partner != nullptr) zenk_ws::lws_close(partner, 1000);
        }
    }
    return 0;
}

void LayerServer::checkRecord(const void* user) {
    m_counts.dirtyRecords += !isClean(*static_cast<const Record*>(user));
}

int LayerServer::filter(lws* wsi, const void* user) {
    const std::lock_guard lock(m_mutex);
    checkRecord(user);
    ++m_counts.filtered;
    m_lastTarget = textOf(zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenPath)) + " " +
                   textOf(zenk_ws::lws_hdr_simple_ptr(wsi, zenk_ws::kTokenQuery));
    return filterResult;
}

lws* LayerServer::partnerOf(const std::string& path) {
    const char side = path[1] == 'l' ? 'r' : 'l';
    const auto found = m_live.find(std::string("/") + side + path.substr(2));
    return found == m_live.end() ? nullptr : found->second;
}

void LayerServer::relay(lws* wsi, void* user, const void* in, std::size_t len) {
    const bool isFinal = zenk_ws::lws_is_final_fragment(wsi) != 0;
    std::string path;
    lws* partner;
    {
        const std::lock_guard lock(m_mutex);
        m_counts.finalFragments += isFinal;
        path = m_paths[wsi];
        partner = partnerOf(path);
    }
    if (onPiece) return onPiece(wsi, path, std::string(static_cast<const char*>(in), len));
    Record& record = *static_cast<Record*>(user);
    const auto send = [&](bool isLast) {
        int type = record.isBegun                      ? zenk_ws::kWriteContinuation
                   : zenk_ws::lws_frame_is_binary(wsi) ? zenk_ws::kWriteBinary
                                                       : zenk_ws::kWriteText;
        if (!isLast) type |= zenk_ws::kWriteNoFin;
        if (partner != nullptr) zenk_ws::lws_write(partner, record.payload, static_cast<int>(record.used), type);
        std::memset(record.payload, 0, record.used);
        record.isBegun = !isLast;
        record.used = 0;
    };
    if (record.used + len > sizeof record.payload) send(false);
    std::memcpy(record.payload + record.used, in, len);
    record.used += len;
    if (isFinal) send(true);
}

}  // namespace zenk_test
