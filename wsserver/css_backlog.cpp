#include "wsserver/css_backlog.h"

#include <algorithm>

#include "wsserver/zenk_dvbCss.h"

namespace zenk {

namespace {

// What a record takes beside its message: with nothing counted for it, empty messages could fill the memory.
constexpr std::size_t kRecordBytes = sizeof(ZenkDispatcherInfo) + 48;

constexpr std::size_t kIdleKept = 64;

std::size_t costOf(const ZenkDispatcherInfo& record) {
    return kRecordBytes + record.message.size();
}

bool isFirstOfClient(const ZenkDispatcherInfo& record) {
    return record.event == CSS_EVENT_CII_NEW_CLIENT || record.event == CSS_EVENT_TS_NEW_CLIENT;
}

}  // namespace

void CssBacklog::add(Entry& client, const ZenkDispatcherInfo& record) {
    Client& state = client.second;
    state.bytes += costOf(record);
    m_totalBytes += costOf(record);
    m_isFull = m_isFull || m_totalBytes > kTotalBytes;
    // One of the same name may have been held before, on a server that stood in the same place: decided anew.
    if (state.isHeld && isFirstOfClient(record)) setHeld(state, false);
    if (!state.isHeld && (m_isFull || state.bytes > kClientBytes)) setHeld(state, true);
}

void CssBacklog::remove(Entry& client, const ZenkDispatcherInfo& record) {
    client.second.bytes -= costOf(record);
    m_totalBytes -= costOf(record);
    if (m_isFull && m_totalBytes <= kTotalBytes / 2) {
        m_isFull = false;
        resumeAll();
    }
    resumeIfDrained(client.second);
    forgetIfIdle(client);
}

void CssBacklog::setHeld(Client& client, bool isHeld) {
    client.isHeld = isHeld;
    if (!client.hasChanged) ++m_changes;
    client.hasChanged = true;
}

void CssBacklog::resumeAll() {
    for (auto& [name, client] : m_clients) resumeIfDrained(client);
}

void CssBacklog::resumeIfDrained(Client& client) {
    if (client.isHeld && !m_isFull && client.bytes <= kClientBytes / 2) setHeld(client, false);
}

/// But for a few: most speak again before long.
void CssBacklog::forgetIfIdle(const Entry& client) {
    const auto& [name, state] = client;
    if (m_clients.size() <= kIdleKept) return;
    if (state.bytes == 0 && !state.isHeld && !state.hasChanged) m_clients.erase(ClientName(name));
}

std::optional<CssBacklog::Change> CssBacklog::takeChange() {
    if (m_changes == 0) return std::nullopt;
    --m_changes;
    Entry& client = *std::ranges::find_if(m_clients, [](const Entry& each) { return each.second.hasChanged; });
    client.second.hasChanged = false;
    const Change change{client.first, client.second.isHeld};
    forgetIfIdle(client);
    return change;
}

}  // namespace zenk
