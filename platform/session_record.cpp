#include "platform/session_record.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

namespace zenk_ws {

SessionRecord::SessionRecord(const RecordShape& shape) : m_shape(shape), m_data(nullptr) {
    void* const data = mmap(nullptr, shape.bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) throw std::bad_alloc();
    m_data = static_cast<std::uint8_t*>(data);
}

SessionRecord::~SessionRecord() {
    munmap(m_data, m_shape.bytes);
}

bool SessionRecord::holds(const void* begin, std::size_t length) const {
    const auto first = reinterpret_cast<std::uintptr_t>(m_data);
    const auto at = reinterpret_cast<std::uintptr_t>(begin);
    return at >= first && at - first <= m_shape.bytes && length <= m_shape.bytes - (at - first);
}

void SessionRecord::setFields(const std::uint8_t* fields) {
    const std::size_t behindArea = m_shape.areaOffset + m_shape.areaBytes;
    std::memcpy(m_data, fields, m_shape.areaOffset);
    std::memcpy(m_data + behindArea, fields + m_shape.areaOffset, m_shape.bytes - behindArea);
}

void SessionRecord::getFields(std::uint8_t* fields) const {
    const std::size_t behindArea = m_shape.areaOffset + m_shape.areaBytes;
    std::memcpy(fields, m_data, m_shape.areaOffset);
    std::memcpy(fields + m_shape.areaOffset, m_data + behindArea, m_shape.bytes - behindArea);
}

void SessionRecord::clear() {
    madvise(m_data, m_shape.bytes, MADV_DONTNEED);
}

RecordPool::RecordPool(const RecordShape& shape) : m_shape(shape) {
    m_free.reserve(kMaxKept);
}

std::unique_ptr<SessionRecord> RecordPool::take() {
    if (!refill()) throw std::bad_alloc();
    std::unique_ptr<SessionRecord> record = std::move(m_free.back());
    m_free.pop_back();
    return record;
}

void RecordPool::giveBack(std::unique_ptr<SessionRecord> record) {
    if (m_free.size() < kMaxKept) m_free.push_back(std::move(record));
}

bool RecordPool::refill() {
    if (!m_free.empty()) return true;
    try {
        m_free.push_back(std::make_unique<SessionRecord>(m_shape));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace zenk_ws
