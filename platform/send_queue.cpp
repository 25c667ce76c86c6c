#include "platform/send_queue.h"

#include <algorithm>
#include <utility>

#include "platform/zenk_websockets.h"

namespace zenk_ws {

FrameHeader makeFrameHeader(std::size_t payloadBytes, int type) {
    FrameHeader header{};
    const int kind = type & ~kWriteNoFin;
    const std::uint8_t opcode = kind == kWriteText ? 0x1 : kind == kWriteBinary ? 0x2 : 0x0;
    const std::uint8_t fin = (type & kWriteNoFin) != 0 ? 0x00 : 0x80;
    header.bytes[0] = static_cast<std::uint8_t>(fin | opcode);
    const std::size_t lengthBytes = payloadBytes < 126 ? 0 : payloadBytes < 65536 ? 2 : 8;
    const std::uint8_t marker = lengthBytes == 0   ? static_cast<std::uint8_t>(payloadBytes)
                                : lengthBytes == 2 ? 126
                                                   : 127;
    header.bytes[1] = marker;
    for (std::size_t i = 0; i < lengthBytes; ++i) {
        header.bytes[2 + i] = static_cast<std::uint8_t>(std::uint64_t{payloadBytes} >> (8 * (lengthBytes - 1 - i)));
    }
    header.size = 2 + lengthBytes;
    return header;
}

BufferPool::Buffer BufferPool::take() {
    if (m_free.empty()) return {};
    Buffer buffer = std::move(m_free.back());
    m_free.pop_back();
    m_freeBytes -= buffer.capacity();
    return buffer;
}

void BufferPool::giveBack(Buffer&& buffer) {
    const std::size_t capacity = buffer.capacity();
    if (m_free.size() == kMaxKept || capacity > kMaxKeptBuffer || m_freeBytes + capacity > kMaxKeptBytes) {
        Buffer().swap(buffer);
        return;
    }
    buffer.clear();
    m_freeBytes += capacity;
    m_free.push_back(std::move(buffer));
}

void SendQueue::append(const FrameHeader& header, std::span<const std::uint8_t> payload, std::size_t bufferBytes) {
    if (m_buffers.empty() || m_buffers.back().size() >= bufferBytes) m_buffers.push_back(m_pool.take());
    BufferPool::Buffer& buffer = m_buffers.back();
    // Room for the whole frame first: a frame must never stand there in part when memory runs out.
    const std::size_t wanted = buffer.size() + header.size + payload.size();
    if (wanted > buffer.capacity()) buffer.reserve(std::max(wanted, 2 * buffer.capacity()));
    buffer.insert(buffer.end(), header.bytes, header.bytes + header.size);
    buffer.insert(buffer.end(), payload.begin(), payload.end());
    m_bytes += header.size + payload.size();
}

std::span<std::uint8_t> SendQueue::front() {
    return m_buffers.front();
}

void SendQueue::popFront() {
    m_bytes -= m_buffers.front().size();
    m_pool.giveBack(std::move(m_buffers.front()));
    m_buffers.erase(m_buffers.begin());
}

void SendQueue::clear() {
    while (!m_buffers.empty()) popFront();
}

}  // namespace zenk_ws
