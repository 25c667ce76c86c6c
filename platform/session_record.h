#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace zenk_ws {

/// What a session record looks like: small fields in front of a message area and behind it. The upper layer keeps the
/// area zero outside a message, so that only the fields belong to a connection that is at rest.
struct RecordShape {
    std::size_t bytes = 0;
    std::size_t areaOffset = 0;
    std::size_t areaBytes = 0;

    std::size_t fieldBytes() const { return bytes - areaBytes; }
};

/// The memory of one session record, zero-filled by the system and untouched, so that a page costs nothing until
/// somebody writes to it.
class SessionRecord {
public:
    /// @throw std::bad_alloc when the system has no memory to give
    explicit SessionRecord(const RecordShape& shape);
    ~SessionRecord();
    SessionRecord(const SessionRecord&) = delete;
    SessionRecord& operator=(const SessionRecord&) = delete;

    std::uint8_t* data() const { return m_data; }

    /// True if `length` bytes at `begin` lie in the record.
    bool holds(const void* begin, std::size_t length) const;

    /// Both take RecordShape::fieldBytes().
    void setFields(const std::uint8_t* fields);
    void getFields(std::uint8_t* fields) const;

    /// All zero again, whatever was written.
    void clear();

private:
    const RecordShape m_shape;
    std::uint8_t* m_data;
};

/// The records that are lent to connections: for one event, or from the first fragment of a message to its last. For
/// the service thread.
class RecordPool {
public:
    explicit RecordPool(const RecordShape& shape);

    const RecordShape& shape() const { return m_shape; }

    /// Takes no memory behind a refill() that went well. @throw std::bad_alloc
    std::unique_ptr<SessionRecord> take();
    /// Its message area must be zero.
    void giveBack(std::unique_ptr<SessionRecord> record);
    /// Sees to it that the next take() finds a record. @return false without memory
    bool refill();

private:
    // As many messages may arrive in pieces at once before records are mapped anew. Each holds 128 KiB at most.
    static constexpr std::size_t kMaxKept = 16;

    const RecordShape m_shape;
    std::vector<std::unique_ptr<SessionRecord>> m_free;
};

}  // namespace zenk_ws
