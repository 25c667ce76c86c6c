#include "wsserver/css_client_list.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/vel_config.h"

namespace zenk {

namespace {

constexpr int kDefaultClientLimit = 25;

}  // namespace

bool CssClientList::contains(std::int32_t id) const {
    const MutexLock lock(m_mutex);
    return std::find(m_ids.begin(), m_ids.end(), id) != m_ids.end();
}

bool CssClientList::holds(std::int32_t limit) const {
    const MutexLock lock(m_mutex);
    return static_cast<std::size_t>(limit) <= m_ids.size();
}

CssClientList::Addition CssClientList::add(std::int32_t id) try {
    const MutexLock lock(m_mutex);
    if (std::find(m_ids.begin(), m_ids.end(), id) != m_ids.end()) return Addition::kPresent;
    m_ids.push_back(id);
    return Addition::kAdded;
} catch (const std::exception&) {
    return Addition::kNoMemory;
}

CssClientList::Removal CssClientList::remove(std::int32_t id) {
    const MutexLock lock(m_mutex);
    if (m_ids.empty()) return Removal::kListWasEmpty;
    const auto place = std::find(m_ids.begin(), m_ids.end(), id);
    if (place == m_ids.end()) return Removal::kNotInList;
    m_ids.erase(place);
    return Removal::kRemoved;
}

std::vector<std::int32_t> CssClientList::takeAll() {
    const MutexLock lock(m_mutex);
    return std::exchange(m_ids, {});
}

std::int32_t readCssClientLimit() {
    int limit = 0;
    const bool isConfigured = zenk_vel_config_get_int("HbbTV", "MSMaxClientNum", &limit) == 0;
    return isConfigured && limit > 0 ? limit : kDefaultClientLimit;
}

}  // namespace zenk
