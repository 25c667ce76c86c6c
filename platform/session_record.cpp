#include "platform/session_record.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace zenk_ws {

bool SessionRecord::allocate(std::size_t bytes) {
    void* const data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) return false;
    m_data = data;
    m_bytes = bytes;
    return true;
}

SessionRecord::~SessionRecord() {
    if (m_data != nullptr) munmap(m_data, m_bytes);
}

bool SessionRecord::holds(const void* begin, std::size_t length) const {
    const auto first = reinterpret_cast<std::uintptr_t>(m_data);
    const auto at = reinterpret_cast<std::uintptr_t>(begin);
    return m_data != nullptr && at >= first && at - first <= m_bytes && length <= m_bytes - (at - first);
}

void SessionRecord::releasePages(void* area, std::size_t length) const {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    // A record begins at a page.
    const auto begin = static_cast<std::size_t>(static_cast<char*>(area) - static_cast<char*>(m_data));
    const std::size_t first = (begin + page - 1) / page * page;
    const std::size_t end = (begin + length) / page * page;
    if (end > first) madvise(static_cast<char*>(m_data) + first, end - first, MADV_DONTNEED);
}

}  // namespace zenk_ws
