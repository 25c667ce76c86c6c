#include "platform/utf8_checker.h"

#include <cstring>

namespace zenk_ws {

namespace {

/// The number of plain ASCII bytes at the beginning, counted in blocks: most of what televisions and phones exchange is
/// JSON, and a block costs as much as a byte.
std::size_t asciiBlocks(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t kBlock = 32;
    constexpr std::uint64_t kHighBits = 0x8080808080808080u;
    std::size_t at = 0;
    for (; at + kBlock <= bytes.size(); at += kBlock) {
        std::uint64_t words[kBlock / 8];
        std::memcpy(words, bytes.data() + at, kBlock);
        if (((words[0] | words[1] | words[2] | words[3]) & kHighBits) != 0) break;
    }
    return at;
}

}  // namespace

bool Utf8Checker::feed(std::span<const std::uint8_t> bytes) {
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (m_missing == 0) {
            at += asciiBlocks(bytes.subspan(at));
            // What follows a block that is not all ASCII is read byte by byte, up to a block's length.
            const std::size_t stop = bytes.size() - at > 32 ? at + 32 : bytes.size();
            while (at < stop && m_missing == 0) {
                if (!begin(bytes[at++])) return false;
            }
            continue;
        }
        const std::uint8_t next = bytes[at++];
        if (next < m_lowest || next > m_highest) return false;
        m_lowest = 0x80;
        m_highest = 0xBF;
        --m_missing;
    }
    return true;
}

bool Utf8Checker::begin(std::uint8_t lead) {
    if (lead < 0x80) return true;
    if (lead < 0xC2 || lead > 0xF4) return false;
    m_missing = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    if (lead == 0xE0) m_lowest = 0xA0;   // shorter forms exist
    if (lead == 0xED) m_highest = 0x9F;  // surrogates
    if (lead == 0xF0) m_lowest = 0x90;   // shorter forms exist
    if (lead == 0xF4) m_highest = 0x8F;  // beyond U+10FFFF
    return true;
}

}  // namespace zenk_ws
