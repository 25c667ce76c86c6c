#include "platform/receive_buffers.h"

#include <libwebsockets.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace zenk_ws {

namespace {

std::size_t pageBytes() {
    static const auto bytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return bytes;
}

std::size_t wholePages(std::size_t bytes) {
    return (bytes + pageBytes() - 1) / pageBytes() * pageBytes();
}

}  // namespace

BlockCache::BlockCache(std::size_t blockBytes) : m_blockBytes(wholePages(blockBytes)) {
}

BlockCache::~BlockCache() {
    for (const Slab& slab : m_slabs) munmap(slab.begin, slab.blocks * m_blockBytes);
}

bool BlockCache::reserve() {
    zenk::MutexLock lock(m_mutex);
    return hasFree();
}

bool BlockCache::hasFree() {
    return m_free != 0 || addSlab(kSlabBlocks) || addSlab(1);
}

bool BlockCache::addSlab(std::size_t blocks) {
    const std::size_t bytes = blocks * m_blockBytes;
    void* const begin = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (begin == MAP_FAILED) return false;
    madvise(begin, bytes, MADV_NOHUGEPAGE);  // one would make a byte cost as much as fifteen blocks
    try {
        const Slab slab{static_cast<std::uint8_t*>(begin), blocks, Slab::allFree(blocks)};
        m_slabs.insert(firstBehind(begin), slab);
    } catch (const std::exception&) {
        munmap(begin, bytes);
        return false;
    }
    m_free += blocks;
    return true;
}

void* BlockCache::take() {
    zenk::MutexLock lock(m_mutex);
    if (!hasFree()) return nullptr;
    // The lowest first, so that the others empty.
    const auto slab = std::find_if(m_slabs.begin(), m_slabs.end(), [](const Slab& each) { return each.free != 0; });
    const int index = std::countr_zero(slab->free);
    slab->free &= ~(std::uint64_t{1} << index);
    --m_free;
    return slab->begin + static_cast<std::size_t>(index) * m_blockBytes;
}

bool BlockCache::giveBack(void* block) {
    // What lies anywhere but at the begin of a page is none, which goes for nearly all that comes here.
    if (reinterpret_cast<std::uintptr_t>(block) % pageBytes() != 0) return false;
    zenk::MutexLock lock(m_mutex);
    auto slab = firstBehind(block);
    if (slab == m_slabs.begin()) return false;
    --slab;
    const auto offset = static_cast<std::size_t>(static_cast<std::uint8_t*>(block) - slab->begin);
    if (offset >= slab->blocks * m_blockBytes) return false;
    slab->free |= std::uint64_t{1} << (offset / m_blockBytes);
    ++m_free;
    trim(slab, block);
    return true;
}

BlockCache::Slabs::iterator BlockCache::firstBehind(const void* address) {
    return std::upper_bound(m_slabs.begin(), m_slabs.end(), static_cast<const std::uint8_t*>(address),
                            [](const std::uint8_t* at, const Slab& slab) { return at < slab.begin; });
}

void BlockCache::trim(Slabs::iterator slab, void* block) {
    if (m_free <= kKeptBlocks) return;
    if (!slab->isUnused() || m_free - slab->blocks < kKeptBlocks) {
        madvise(block, m_blockBytes, MADV_DONTNEED);
        return;
    }
    munmap(slab->begin, slab->blocks * m_blockBytes);
    m_free -= slab->blocks;
    m_slabs.erase(slab);
}

namespace {

constexpr std::size_t kReceiveBufferBytes = kReadBytes + LWS_PRE + 4;  // as libwebsockets reckons

/// Never destroyed, since libwebsockets may allocate to the very end.
BlockCache& receiveBuffers() {
    static BlockCache* const blocks = new BlockCache(kReceiveBufferBytes);
    return *blocks;
}

void* allocate(void* block, std::size_t bytes, const char* /*what*/) {
    if (block == nullptr && bytes == kReceiveBufferBytes) return receiveBuffers().take();
    if (bytes == 0) {
        if (block != nullptr && !receiveBuffers().giveBack(block)) std::free(block);
        return nullptr;
    }
    return std::realloc(block, bytes);  // a receive buffer keeps its size
}

}  // namespace

void installReceiveBuffers() {
    ::lws_set_allocator(allocate);
}

bool reserveReceiveBuffer() {
    return receiveBuffers().reserve();
}

}  // namespace zenk_ws
