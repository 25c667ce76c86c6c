#pragma once

#include <cstddef>

namespace zenk_ws {

/// The memory of one session record: zero-filled by the system and untouched, so that a page costs nothing until
/// somebody writes to it. An idle connection with a record of 128 KiB takes no page of it.
class SessionRecord {
public:
    SessionRecord() = default;
    ~SessionRecord();
    SessionRecord(const SessionRecord&) = delete;
    SessionRecord& operator=(const SessionRecord&) = delete;

    /// @return false when the system has no memory to give
    bool allocate(std::size_t bytes);

    void* data() const { return m_data; }

    /// True if `length` bytes at `begin` lie in the record.
    bool holds(const void* begin, std::size_t length) const;

    /// Gives the pages that lie wholly in the area back to the system; they read as zeros again.
    void releasePages(void* area, std::size_t length) const;

private:
    void* m_data = nullptr;
    std::size_t m_bytes = 0;
};

}  // namespace zenk_ws
