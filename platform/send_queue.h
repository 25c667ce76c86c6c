#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/ws_limits.h"

namespace zenk_ws {

/// The header of a server's frame (RFC 6455, 5.2: unmasked).
struct FrameHeader {
    static constexpr std::size_t kMaxBytes = 10;
    std::uint8_t bytes[kMaxBytes];
    std::size_t size;
};

/// @param type kWriteText, kWriteBinary or kWriteContinuation, with or without kWriteNoFin
FrameHeader makeFrameHeader(std::size_t payloadBytes, int type);

/// Buffers for what waits to be sent. Memory follows what is in flight: a connection takes a buffer with its first
/// write and gives it back when the bytes have gone. For the service thread.
class BufferPool {
public:
    using Buffer = std::vector<std::uint8_t>;

    BufferPool() { m_free.reserve(kMaxKept); }
    Buffer take();
    void giveBack(Buffer&& buffer);  ///< allocates nothing

private:
    // Enough for a pass in which a hundred pairs speak; what is beyond goes back to the heap.
    static constexpr std::size_t kMaxKept = 256;
    static constexpr std::size_t kMaxKeptBytes = kMiB;
    static constexpr std::size_t kMaxKeptBuffer = 256 * kKiB;

    std::vector<Buffer> m_free;
    std::size_t m_freeBytes = 0;
};

/// The whole frames that wait for one connection, oldest first, gathered into buffers. For the service thread.
class SendQueue {
public:
    explicit SendQueue(BufferPool& pool) : m_pool(pool) {}
    ~SendQueue() { clear(); }
    SendQueue(const SendQueue&) = delete;
    SendQueue& operator=(const SendQueue&) = delete;

    /// @param bufferBytes a buffer that reaches this size is closed and a new one begun
    void append(const FrameHeader& header, std::span<const std::uint8_t> payload, std::size_t bufferBytes);

    std::size_t bytes() const { return m_bytes; }
    bool isEmpty() const { return m_bytes == 0; }

    /// The oldest buffer; not to be called on an empty queue.
    std::span<std::uint8_t> front();
    void popFront();
    void clear();

private:
    BufferPool& m_pool;
    std::vector<BufferPool::Buffer> m_buffers;  // a vector, since an idle connection must not pay for a deque
    std::size_t m_bytes = 0;
};

}  // namespace zenk_ws
