#include "wsserver/paired_apps.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "wsserver/constants.h"

namespace {

constexpr std::string_view kMarker = "/hbbtv/";

}  // namespace

bool isPairingUri(std::string_view uri) {
    return uri.starts_with(zenk::kLocalPath) || uri.starts_with(zenk::kRemotePath);
}

PairingUri cutPairingUri(std::string_view uri) {
    const std::size_t marker = std::min(uri.find(kMarker), uri.size());
    const std::string_view side = marker > 0 ? uri.substr(1, marker - 1) : std::string_view();
    const std::size_t tokenBegin = std::min(marker + kMarker.size(), uri.size());
    const std::size_t slash = uri.find('/', tokenBegin);
    const std::size_t endpointBegin = slash == std::string_view::npos ? tokenBegin : slash;
    return {side == "remote" ? PairSide::kRemote : PairSide::kLocal, std::string(uri.substr(endpointBegin))};
}

_pairedApp* PairedApps::findBySocket(int socketFd) const {
    const auto [begin, end] = m_bySocket.equal_range(socketFd);
    // The server gives a socket to one record only; then there is nothing to compare.
    const auto first = std::min_element(
        begin, end, [](const auto& one, const auto& other) { return one.second->number < other.second->number; });
    return first == end ? nullptr : first->second;
}

_pairedApp* PairedApps::findWaiting(const std::string& endpoint, PairSide newcomer) const {
    const Waiting& waiting = newcomer == PairSide::kLocal ? m_waitingRemote : m_waitingLocal;
    const auto queue = waiting.find(endpoint);
    return queue == waiting.end() ? nullptr : queue->second.begin()->second;
}

void PairedApps::setSide(_pairedApp& app, PairSide side, int socketFd, lws* wsi) {
    const bool isLocal = side == PairSide::kLocal;
    (isLocal ? app.localFd : app.remoteFd) = socketFd;
    (isLocal ? app.localWsi : app.remoteWsi) = wsi;
}

void PairedApps::start(const std::string& endpoint, PairSide side, int socketFd, lws* wsi) {
    auto owned = std::make_unique<Record>();
    Record& record = *owned;
    record.number = m_nextNumber++;
    record.endpoint = strdup(endpoint.c_str());
    setSide(record, side, socketFd, wsi);
    m_list.push_back(owned.get());
    static_cast<void>(owned.release());  // the list has it now
    try {
        m_bySocket.emplace(socketFd, &record);
        enqueue(record);
    } catch (const std::exception&) {
        end(record);
        throw;
    }
}

void PairedApps::complete(_pairedApp& app, PairSide side, int socketFd, lws* wsi) {
    Record& record = recordOf(app);
    m_bySocket.emplace(socketFd, &record);  // first, since it alone can fail
    dequeue(record);
    record.isPaired = true;
    setSide(record, side, socketFd, wsi);
}

void PairedApps::leave(_pairedApp& app, PairSide side) {
    Record& record = recordOf(app);
    forgetSocket(side == PairSide::kLocal ? record.localFd : record.remoteFd, record);
    setSide(record, side, 0, nullptr);
    record.isPaired = false;
    try {
        enqueue(record);
    } catch (const std::exception&) {
        // Without memory no newcomer finds this record. Its other side is told to go, and takes it along.
        dequeue(record);
    }
}

void PairedApps::end(_pairedApp& app) {
    Record& record = recordOf(app);
    dequeue(record);
    if (record.localFd != 0) forgetSocket(record.localFd, record);
    if (record.remoteFd != 0) forgetSocket(record.remoteFd, record);
    const auto place =
        std::lower_bound(m_list.begin(), m_list.end(), record.number,
                         [](_pairedApp* other, std::uint64_t number) { return recordOf(*other).number < number; });
    m_list.erase(place);
    std::free(record.endpoint);
    delete &record;
}

void PairedApps::clear() {
    while (!m_list.empty()) end(*m_list.back());
}

void PairedApps::enqueue(Record& record) {
    // A half-set side cannot be a partner, and a record without its endpoint text matches none.
    const bool hasLocal = record.localFd != 0 && record.localWsi != nullptr;
    const bool hasRemote = record.remoteFd != 0 && record.remoteWsi != nullptr;
    if (record.endpoint == nullptr || (!hasLocal && !hasRemote)) return;
    waitingWith(hasLocal ? PairSide::kLocal : PairSide::kRemote)[record.endpoint].emplace(record.number, &record);
}

void PairedApps::dequeue(Record& record) {
    if (record.isPaired || record.endpoint == nullptr) return;
    Waiting& waiting = waitingWith(record.localWsi != nullptr ? PairSide::kLocal : PairSide::kRemote);
    const auto queue = waiting.find(std::string_view(record.endpoint));
    if (queue == waiting.end()) return;
    queue->second.erase(record.number);
    if (queue->second.empty()) waiting.erase(queue);
}

void PairedApps::forgetSocket(int socketFd, const Record& record) {
    const auto [begin, end] = m_bySocket.equal_range(socketFd);
    const auto entry = std::find_if(begin, end, [&record](const auto& held) { return held.second == &record; });
    if (entry != end) m_bySocket.erase(entry);
}
