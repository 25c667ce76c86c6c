#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/thread_annotations.h"
#include "platform/ws_limits.h"

namespace zenk_ws {

// A read takes no more; the 4 KiB of libwebsockets halve the throughput of large messages. It allocates a buffer of
// this size for each connection, although it hardly ever writes to it.
inline constexpr std::size_t kReadBytes = 128 * kKiB;

/// Blocks of one size, side by side in slabs: nobody has a page of a block that he does not write to, and one that
/// comes or goes costs no call of the system.
class BlockCache {
public:
    explicit BlockCache(std::size_t blockBytes);
    ~BlockCache();
    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;

    /// Sees to it that take() finds a block. @return false without memory
    bool reserve() ZENK_EXCLUDES(m_mutex);
    /// @return null without memory
    void* take() ZENK_EXCLUDES(m_mutex);
    /// @return false when it is no block of this cache
    bool giveBack(void* block) ZENK_EXCLUDES(m_mutex);

private:
    static constexpr std::size_t kSlabBlocks = 64;
    // Free blocks beyond these hold no page, and slabs of free blocks beyond these are unmapped.
    static constexpr std::size_t kKeptBlocks = 64;

    struct Slab {
        std::uint8_t* begin;
        std::size_t blocks;
        std::uint64_t free;  // a bit for each block

        static std::uint64_t allFree(std::size_t blocks) { return ~std::uint64_t{0} >> (kSlabBlocks - blocks); }
        bool isUnused() const { return free == allFree(blocks); }
    };
    using Slabs = std::vector<Slab>;

    bool hasFree() ZENK_REQUIRES(m_mutex);
    bool addSlab(std::size_t blocks) ZENK_REQUIRES(m_mutex);
    Slabs::iterator firstBehind(const void* address) ZENK_REQUIRES(m_mutex);
    void trim(Slabs::iterator slab, void* block) ZENK_REQUIRES(m_mutex);

    const std::size_t m_blockBytes;
    zenk::Mutex m_mutex;  // libwebsockets has one allocator for all threads of the process; held briefly
    Slabs m_slabs ZENK_GUARDED_BY(m_mutex);  // by address
    std::size_t m_free ZENK_GUARDED_BY(m_mutex) = 0;
};

/// Gives libwebsockets an allocator that takes its receive buffers from a BlockCache and all else from the heap.
void installReceiveBuffers();
/// Sees to it that the next connection finds its buffer. @return false without memory
bool reserveReceiveBuffer();

}  // namespace zenk_ws
