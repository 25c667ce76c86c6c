#include "wsserver/css_backlog.h"

#include <iterator>

#include "wsserver/zenk_dvbCss.h"

namespace zenk {

namespace {

// What a record takes beside its message: with nothing counted for it, empty messages could fill the memory.
constexpr std::size_t kRecordBytes = sizeof(ZenkDispatcherInfo) + 48;

constexpr std::size_t kIdleKept = 64;

std::size_t costOf(const ZenkDispatcherInfo& record) {
    return kRecordBytes + record.message.size();
}

}  // namespace

void CssBacklog::add(const ZenkDispatcherInfo& record) {
    Client& client = m_clients[record.clientId];
    client.bytes += costOf(record);
    m_totalBytes += costOf(record);
    m_isFull = m_isFull || m_totalBytes > kTotalBytes;
    if (client.isHeld || (client.bytes <= kClientBytes && !m_isFull)) return;
    client.isHeld = true;
    MediaSyncServer::holdClient(record.clientId, true);
}

void CssBacklog::remove(const ZenkDispatcherInfo& record) {
    m_totalBytes -= costOf(record);
    const auto client = m_clients.find(record.clientId);
    client->second.bytes -= costOf(record);
    if (m_isFull && m_totalBytes <= kTotalBytes / 2) {
        m_isFull = false;
        resumeAll();
    } else {
        resumeIfDrained(client);
    }
}

void CssBacklog::resumeAll() {
    for (auto client = m_clients.begin(); client != m_clients.end();) client = resumeIfDrained(client);
}

/// Forgets the client too when nothing is left to know of it, but for a few: most speak again before long.
/// @return the one behind it
CssBacklog::Clients::iterator CssBacklog::resumeIfDrained(Clients::iterator client) {
    auto& [id, state] = *client;
    if (state.isHeld && !m_isFull && state.bytes <= kClientBytes / 2) {
        state.isHeld = false;
        MediaSyncServer::holdClient(id, false);
    }
    const bool isIdle = state.bytes == 0 && !state.isHeld;
    return isIdle && m_clients.size() > kIdleKept ? m_clients.erase(client) : std::next(client);
}

}  // namespace zenk
